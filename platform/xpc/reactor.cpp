#include "reactor.h"

#include <pthread.h>
#include <signal.h>
#include <sys/epoll.h>

#include <system_error>
#include <thread>

namespace platform::xpc {

void Work::submit() {
  const auto submit = [](Item& item) {
    const QueueRef queue = item.queue;
    dispatch_async(queue.get(), std::move(item));
  };
  for (Item& item : before) submit(item);
  before.clear();
  if (last) submit(*last);
  last.reset();
}

Reactor& Reactor::shared() {
  static auto& reactor = *new Reactor;
  return reactor;
}

Reactor::Reactor() : epoll_(epoll_create1(EPOLL_CLOEXEC)) {
  if (epoll_ < 0) throw std::system_error(errno, std::generic_category(), "epoll_create1");
  // Signals are for the program's own threads.
  sigset_t all, before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  for (int i = 0; i < kThreads; i++) std::thread([this] { loop(); }).detach();
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

void Reactor::add(uint64_t id, int fd, uint32_t events, std::shared_ptr<Source> source) {
  {
    std::lock_guard lock(mutex_);
    sources_.emplace(id, std::move(source));
  }
  epoll_event event{.events = events | EPOLLET, .data = {.u64 = id}};
  epoll_ctl(epoll_, EPOLL_CTL_ADD, fd, &event);
}

void Reactor::change(uint64_t id, int fd, uint32_t events) {
  epoll_event event{.events = events | EPOLLET, .data = {.u64 = id}};
  epoll_ctl(epoll_, EPOLL_CTL_MOD, fd, &event);
}

void Reactor::remove(uint64_t id, int fd) {
  epoll_ctl(epoll_, EPOLL_CTL_DEL, fd, nullptr);
  std::shared_ptr<Source> source;
  std::lock_guard lock(mutex_);
  if (auto found = sources_.find(id); found != sources_.end()) {
    source = std::move(found->second);
    sources_.erase(found);
  }
}

void Reactor::run(Work& work) {
  if (!work.last) return;
  if (!lendable_.try_acquire()) return work.submit();
  const Work::Item last = *std::exchange(work.last, std::nullopt);
  work.submit();
  dispatch_sync(last.queue.get(), [&last] { last(); });
  lendable_.release();
}

void Reactor::loop() {
  pthread_setname_np(pthread_self(), "xpc");
  for (;;) {
    epoll_event event;
    if (epoll_wait(epoll_, &event, 1, -1) != 1) continue;
    const uint64_t id = event.data.u64;  // the structure is packed
    std::shared_ptr<Source> source;
    {
      std::lock_guard lock(mutex_);
      if (auto found = sources_.find(id); found != sources_.end()) source = found->second;
    }
    if (source) source->ready(event.events);
  }
}

}  // namespace platform::xpc
