// How much of the guests' talk is passed on.
#pragma once

#include <chrono>
#include <cstddef>
#include <map>
#include <string>
#include <string_view>

namespace studio {

/// Lets through what a person can read: a few lines a second from each name, and no more than several such
/// names together write, since a name is whatever a guest sends. For one thread.
class TalkLimit {
 public:
  using Clock = std::chrono::steady_clock;

  /// Whether a line of that name's is passed on.
  bool take(std::string_view name, Clock::time_point now);

 private:
  // Holds so many lines, and gets so many a second.
  struct Allowance {
    double lines;
    Clock::time_point since;

    bool take(double most, double aSecond, Clock::time_point now);
  };
  static constexpr double burst = 8;
  static constexpr double aSecond = 4;
  static constexpr double burstOfAll = 40;
  static constexpr double aSecondOfAll = 20;
  static constexpr std::size_t mostNames = 256;

  void forgetQuiet(Clock::time_point now);

  std::map<std::string, Allowance, std::less<>> names_;
  Allowance all_{burstOfAll, {}};
};

}  // namespace studio
