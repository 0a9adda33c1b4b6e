#include <Foundation/line_limit.h>

#include <algorithm>
#include <utility>

namespace platform {

LineLimit::Answer LineLimit::ask(uint64_t kind, Clock::time_point now) {
  const std::lock_guard lock(mutex_);
  if (counts_.size() == kMostKinds && !counts_.contains(kind))
    counts_.erase(std::ranges::min_element(counts_, {}, [](const auto& each) { return each.second.begin; }));
  Count& count = counts_.try_emplace(kind, Count{now}).first->second;
  if (now - count.begin >= kPeriod) {
    count.begin = now;
    count.written = 0;
  }
  if (count.written == lines_) {
    count.leftOut++;
    return {false, 0};
  }
  count.written++;
  return {true, std::exchange(count.leftOut, 0)};
}

}  // namespace platform
