// Keeps lines that come over and over from filling the log.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <unordered_map>

namespace platform {

// So many lines of a kind in a minute, which begins with the first of them. Any thread may ask.
class LineLimit {
 public:
  using Clock = std::chrono::steady_clock;
  static constexpr std::chrono::minutes kPeriod{1};
  static constexpr std::size_t kMostKinds = 256;  // the longest known is forgotten for another one

  struct Answer {
    bool allowed;
    uint64_t leftOut;  // if allowed: lines of the kind that were not, since the last that was
  };

  explicit LineLimit(unsigned lines) : lines_(lines) {}
  Answer ask(uint64_t kind, Clock::time_point now);

 private:
  struct Count {
    Clock::time_point begin;
    unsigned written = 0;
    uint64_t leftOut = 0;
  };

  const unsigned lines_;
  std::mutex mutex_;
  std::unordered_map<uint64_t, Count> counts_;
};

}  // namespace platform
