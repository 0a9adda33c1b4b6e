#pragma once

#include <algorithm>
#include <chrono>
#include <utility>

#include "engine_thread.h"

namespace engine {

// Does something again after it has failed, and never gives up: the pause before it doubles with each failure
// in a row, from one second to fifteen. Lives on the engine's thread.
class Retry {
 public:
  explicit Retry(Task again) : again_(std::move(again)) {}

  // After the pause.
  void later() {
    timer_.once(pause_, again_);
    pause_ = std::min(2 * pause_, longest);
  }
  bool waits() const { return timer_.running(); }
  void now() {
    timer_.stop();
    pause_ = shortest;
    again_();
  }
  // It works again: the next pause is the shortest.
  void succeeded() { pause_ = shortest; }
  void stop() { timer_.stop(); }

 private:
  static constexpr std::chrono::milliseconds shortest{1000};
  static constexpr std::chrono::milliseconds longest{15000};

  const Task again_;
  std::chrono::milliseconds pause_ = shortest;
  Timer timer_;
};

}  // namespace engine
