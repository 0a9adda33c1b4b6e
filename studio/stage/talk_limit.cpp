#include "stage/talk_limit.h"

#include <algorithm>

namespace studio {

bool TalkLimit::Allowance::take(double most, double perSecond, Clock::time_point now) {
  const std::chrono::duration<double> passed = now - since;
  lines = std::min(most, lines + passed.count() * perSecond);
  since = now;
  if (lines < 1) return false;
  lines -= 1;
  return true;
}

bool TalkLimit::take(std::string_view name, Clock::time_point now) {
  if (names_.size() >= mostNames) forgetQuiet(now);
  auto found = names_.find(name);
  if (found == names_.end()) {
    if (names_.size() >= mostNames) return false;
    found = names_.emplace(name, Allowance{burst, now}).first;
  }
  return found->second.take(burst, aSecond, now) && all_.take(burstOfAll, aSecondOfAll, now);
}

// Whoever has their whole allowance again is as good as new.
void TalkLimit::forgetQuiet(Clock::time_point now) {
  std::erase_if(names_, [&](const auto& entry) {
    const std::chrono::duration<double> passed = now - entry.second.since;
    return entry.second.lines + passed.count() * aSecond >= burst;
  });
}

}  // namespace studio
