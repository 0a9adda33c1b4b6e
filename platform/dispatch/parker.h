#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>

namespace platform {

// Where one thread sleeps until another wakes it: a bare futex, so that a hop from thread to thread costs
// one system call on either side, and none if the sleeper had not yet fallen asleep.
class Parker {
 public:
  // Returns when woken, once for each wake.
  void wait() noexcept;
  // False if the time passes first.
  bool waitFor(std::chrono::nanoseconds time) noexcept;
  // The parker may be gone as soon as its thread has seen the wake; nothing of it is read after that.
  void wake() noexcept;

 private:
  enum State : std::uint32_t { kEmpty, kAsleep, kWoken };

  bool sleep(const std::chrono::nanoseconds* time) noexcept;

  std::atomic<std::uint32_t> state_{kEmpty};
};

}  // namespace platform
