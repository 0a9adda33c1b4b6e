// How long to wait before a program that ended is started again.
#pragma once

#include <algorithm>
#include <chrono>
#include <optional>
#include <utility>

namespace studio {

/// Short after one that ran, however often that happens; longer each time after one that did not, so that
/// a broken program does not take the machine's time.
class RestartPause {
 public:
  using Clock = std::chrono::steady_clock;

  /// It does what it is for.
  void works(Clock::time_point now) {
    if (!works_) works_ = now;
  }
  /// It has ended: the pause before the next start.
  std::chrono::milliseconds ended(Clock::time_point now) {
    const bool ran = works_ && now - *works_ > enough;
    works_.reset();
    if (ran) next_ = shortest;
    return std::exchange(next_, std::min(2 * next_, longest));
  }

 private:
  static constexpr std::chrono::milliseconds shortest{250};
  static constexpr std::chrono::milliseconds longest{10'000};
  static constexpr std::chrono::seconds enough{2};

  std::chrono::milliseconds next_ = shortest;
  std::optional<Clock::time_point> works_;
};

}  // namespace studio
