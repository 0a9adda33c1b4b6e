#pragma once

#include <asio/steady_timer.hpp>
#include <mutex>
#include <vector>

namespace platform {

// A piece of work and its place in one list. run may destroy the job.
struct Job {
  Job* next = nullptr;
  void (*run)(Job*) noexcept = nullptr;
};

// Jobs in the order in which they came.
class JobList {
 public:
  bool empty() const { return !head_; }
  Job* front() const { return head_; }
  void append(Job& job) {
    job.next = nullptr;
    (head_ ? tail_->next : head_) = &job;
    tail_ = &job;
  }
  // The list is not empty.
  Job& take() {
    Job& job = *head_;
    head_ = job.next;
    return job;
  }

 private:
  Job* head_ = nullptr;
  Job* tail_ = nullptr;
};

// The process's threads. A job goes straight to the thread that slept last, whose caches are the warmest.
// The pool grows while jobs wait, and what it has grown by goes after a while of idling; the few threads that
// stay sleep without a timer, so that an idle pool costs nothing.
class Pool {
 public:
  static Pool& shared();

  // Runs the job at once, on a new thread if none is idle: a serial queue's turn must not wait for others.
  void runNow(Job& job);
  // Runs the job on an idle thread or, while there is one for each processor, on a new one; else when a
  // thread has done, or when no thread has for a while since all of them sleep in their jobs.
  void run(Job& job);

 private:
  struct Worker;

  Pool();
  bool hand(Job& job, std::unique_lock<std::mutex>& lock);
  void start(Job* job, std::unique_lock<std::mutex>& lock);
  void wait(Job& job);
  Job* next(Worker& self);
  void work(Job* job);
  void watch();
  void watched();

  const std::size_t processors_;
  std::mutex lock_;
  std::vector<Worker*> idle_;
  std::size_t threads_ = 0;
  JobList waiting_;
  std::size_t waitingCount_ = 0;
  // How many waiting jobs have been taken, and how many had been when the watch last looked.
  std::size_t taken_ = 0;
  std::size_t takenBefore_ = 0;
  bool watching_ = false;
  asio::steady_timer watch_;
};

}  // namespace platform
