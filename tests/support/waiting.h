// What tests share that wait for other threads and processes.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <mutex>
#include <string>
#include <thread>
#include <utility>

inline constexpr std::chrono::seconds kDeadline{30};

// Whether the condition comes true before the deadline.
template <class Condition>
bool eventually(Condition condition) {
  const auto end = std::chrono::steady_clock::now() + kDeadline;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

// Takes things in on any thread and gives them out on the test's, in order.
template <class T>
class Mailbox {
 public:
  void put(T thing) {
    const std::lock_guard lock(mutex_);
    things_.push_back(std::move(thing));
    changed_.notify_all();
  }
  // An empty one after the deadline.
  T next() {
    std::unique_lock lock(mutex_);
    if (!changed_.wait_for(lock, kDeadline, [&] { return !things_.empty(); })) return T();
    T thing = std::move(things_.front());
    things_.pop_front();
    return thing;
  }
  std::size_t count() {
    const std::lock_guard lock(mutex_);
    return things_.size();
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<T> things_;
};

// A folder that goes with the test. Services of this process are found in it.
class TemporaryFolder {
 public:
  TemporaryFolder() {
    if (!mkdtemp(path_)) abort();
    setenv("XDG_RUNTIME_DIR", path_, 1);
  }
  ~TemporaryFolder() { std::filesystem::remove_all(path_); }
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;

  std::string operator/(const std::string& name) const { return std::string(path_) + "/" + name; }

 private:
  char path_[32] = "/tmp/zarvo-test-XXXXXX";
};

inline std::size_t openDescriptors() {
  const std::filesystem::directory_iterator first("/proc/self/fd");
  return static_cast<std::size_t>(std::distance(first, std::filesystem::directory_iterator()));
}
