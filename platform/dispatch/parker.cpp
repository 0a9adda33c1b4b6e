#include <dispatch/parker.h>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>

namespace platform {

void Parker::wait() noexcept {
  sleep(nullptr);
}

bool Parker::waitFor(std::chrono::nanoseconds time) noexcept {
  return sleep(&time);
}

void Parker::wake() noexcept {
  if (state_.exchange(kWoken, std::memory_order_acq_rel) != kAsleep) return;
  // If the parker is gone by now, this wakes nobody, or somebody who looks and sleeps again.
  syscall(SYS_futex, &state_, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
}

bool Parker::sleep(const std::chrono::nanoseconds* time) noexcept {
  timespec relative = {};
  if (time) {
    relative.tv_sec = static_cast<std::time_t>(time->count() / 1'000'000'000);
    relative.tv_nsec = static_cast<long>(time->count() % 1'000'000'000);
  }
  std::uint32_t expected = kEmpty;
  if (state_.compare_exchange_strong(expected, kAsleep, std::memory_order_acquire)) {
    while (state_.load(std::memory_order_acquire) == kAsleep) {
      const long result =
          syscall(SYS_futex, &state_, FUTEX_WAIT_PRIVATE, kAsleep, time ? &relative : nullptr, nullptr, 0);
      if (result != 0 && errno == ETIMEDOUT) {
        expected = kAsleep;
        if (state_.compare_exchange_strong(expected, kEmpty, std::memory_order_acquire)) return false;
      }
    }
  }
  state_.store(kEmpty, std::memory_order_relaxed);
  return true;
}

}  // namespace platform
