#include <dispatch/clock.h>
#include <dispatch/parker.h>
#include <dispatch/pool.h>
#include <dispatch/thread.h>

#include <algorithm>
#include <thread>

namespace platform {

namespace {

using namespace std::chrono_literals;

constexpr std::size_t kMostThreads = 512;
constexpr auto kStall = 1ms;
constexpr auto kIdleTime = 2s;

}  // namespace

struct Pool::Worker {
  Parker parker;
  Job* job = nullptr;
};

Pool& Pool::shared() {
  static auto& pool = *new Pool;
  return pool;
}

Pool::Pool() : processors_(std::max(2u, std::thread::hardware_concurrency())), watch_(timerContext()) {
  idle_.reserve(kMostThreads);
}

void Pool::runNow(Job& job) {
  std::unique_lock lock(lock_);
  if (hand(job, lock)) return;
  if (threads_ < kMostThreads) {
    start(&job, lock);
  } else {
    wait(job);
  }
}

void Pool::run(Job& job) {
  std::unique_lock lock(lock_);
  if (hand(job, lock)) return;
  if (threads_ < processors_) {
    start(&job, lock);
  } else {
    wait(job);
  }
}

// Gives the job to an idle thread, if there is one; the lock is then open.
bool Pool::hand(Job& job, std::unique_lock<std::mutex>& lock) {
  if (idle_.empty()) return false;
  Worker& worker = *idle_.back();
  idle_.pop_back();
  lock.unlock();
  worker.job = &job;
  worker.parker.wake();
  return true;
}

// A new thread, with a first job or to take what waits. Opens the lock and closes it again.
void Pool::start(Job* job, std::unique_lock<std::mutex>& lock) {
  ++threads_;
  lock.unlock();
  const bool started = startThread("dispatch", [this, job] { work(job); });
  lock.lock();
  if (started) return;
  --threads_;
  if (job) wait(*job);
}

void Pool::wait(Job& job) {
  waiting_.append(job);
  ++waitingCount_;
  if (watching_) return;
  watching_ = true;
  takenBefore_ = taken_;
  watch();
}

void Pool::work(Job* job) {
  Worker self;
  if (!job) job = next(self);
  while (job) {
    job->run(job);
    job = next(self);
  }
}

// The thread's next job, after a sleep if there is none; null if the thread is to end.
Job* Pool::next(Worker& self) {
  std::unique_lock lock(lock_);
  if (!waiting_.empty()) {
    --waitingCount_;
    ++taken_;
    return &waiting_.take();
  }
  idle_.push_back(&self);
  bool stays = idle_.size() <= processors_;
  lock.unlock();

  while (!stays) {
    if (self.parker.waitFor(kIdleTime)) return self.job;
    lock.lock();
    const auto place = std::find(idle_.begin(), idle_.end(), &self);
    // Not idle any more: a job is on its way.
    stays = place == idle_.end() || idle_.size() <= processors_;
    if (!stays) {
      idle_.erase(place);
      --threads_;
      return nullptr;
    }
    lock.unlock();
  }
  self.parker.wait();
  return self.job;
}

void Pool::watch() {
  watch_.expires_after(kStall);
  watch_.async_wait([this](const asio::error_code&) { watched(); });
}

// Jobs were waiting a moment ago. If none has been taken since, the threads are all asleep in their jobs or
// busy for long, and there are to be more of them: twice as many, as far as there is work for them.
void Pool::watched() {
  std::unique_lock lock(lock_);
  if (waiting_.empty()) {
    watching_ = false;
    return;
  }
  if (taken_ == takenBefore_) {
    const std::size_t room = threads_ < kMostThreads ? kMostThreads - threads_ : 0;
    std::size_t more = std::min({waitingCount_, std::max<std::size_t>(threads_, 1), room});
    for (; more > 0; --more) start(nullptr, lock);
  }
  takenBefore_ = taken_;
  watch();
}

}  // namespace platform
