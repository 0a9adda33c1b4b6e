// The one clock by which the show's sound is joined.
#pragma once

#include <atomic>
#include <functional>
#include <thread>

#include "stage/sound/format.h"

namespace studio::sound {

/// Calls a function once for each 10 ms that go by, with the time for which the call is, on a thread of its
/// own with a raised priority where the system grants one. What was missed while the machine was busy is made
/// up for, up to a quarter of a second.
class Clock {
 public:
  explicit Clock(std::function<void(Time)> tick);
  /// No call runs or begins after the return.
  ~Clock();
  Clock(const Clock&) = delete;
  Clock& operator=(const Clock&) = delete;

 private:
  void run() const;

  std::function<void(Time)> tick_;
  std::atomic<bool> ends_{false};
  std::thread thread_;
};

}  // namespace studio::sound
