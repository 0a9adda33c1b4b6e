// The threads that wait for the process's sockets, and on which events reach their handlers.
//
// A message's handler runs right on the thread that read it, inside dispatch_sync, so that no other thread
// has to be woken for it. At most all but one of the threads are lent to handlers at a time: the last one
// always reads on, and leaves handlers to dispatch_async. So a handler may take as long as it likes, and may
// wait for a reply.
#pragma once

#include <xpc/xpc.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <semaphore>
#include <unordered_map>
#include <utility>
#include <vector>

#include "object.h"

namespace platform::xpc {

// Holds a reference to a queue, or none.
class QueueRef {
 public:
  QueueRef() = default;
  explicit QueueRef(dispatch_queue_t queue) : queue_(queue) {
    if (queue) dispatch_retain(queue);
  }
  QueueRef(const QueueRef& other) : QueueRef(other.queue_) {}
  QueueRef(QueueRef&& other) noexcept : queue_(std::exchange(other.queue_, nullptr)) {}
  QueueRef& operator=(QueueRef other) noexcept {
    std::swap(queue_, other.queue_);
    return *this;
  }
  ~QueueRef() {
    if (queue_) dispatch_release(queue_);
  }

  dispatch_queue_t get() const { return queue_; }
  explicit operator bool() const { return queue_; }

 private:
  dispatch_queue_t queue_ = nullptr;
};

// Handlers, what they are called with, and the queues to call them on. Mostly there is one.
struct Work {
  struct Item {
    void operator()() const { handler(object.get()); }

    QueueRef queue;
    xpc_handler_t handler;
    Ref<> object;
  };

  void add(QueueRef queue, xpc_handler_t handler, Ref<> object) {
    if (last) before.push_back(std::move(*last));
    last = {std::move(queue), std::move(handler), std::move(object)};
  }
  void submit();

  std::vector<Item> before;
  std::optional<Item> last;
};

class Reactor {
 public:
  // Something with a socket. ready is called with epoll's events on one of the reactor's threads, and may be
  // called on several at a time.
  class Source {
   public:
    virtual ~Source() = default;
    virtual void ready(uint32_t events) = 0;
  };

  static Reactor& shared();

  // Ids are never used again, so that a late event finds no other source.
  uint64_t newId() { return ++lastId_; }
  // Waits for the events, edge-triggered. The source is kept until it is removed.
  void add(uint64_t id, int fd, uint32_t events, std::shared_ptr<Source> source);
  void change(uint64_t id, int fd, uint32_t events);
  void remove(uint64_t id, int fd);

  // For the reactor's own threads: submits the work, the last of it to this thread if it can be lent.
  void run(Work& work);

 private:
  Reactor();
  [[noreturn]] void loop();

  static constexpr int kThreads = 4;

  int epoll_;
  std::counting_semaphore<> lendable_{kThreads - 1};
  std::atomic<uint64_t> lastId_{0};
  std::mutex mutex_;
  std::unordered_map<uint64_t, std::shared_ptr<Source>> sources_;
};

}  // namespace platform::xpc
