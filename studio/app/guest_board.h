// What the prompt shows of each guest: who they are, and what comes from them.
#pragma once

#include <chrono>
#include <cstddef>
#include <deque>
#include <map>
#include <mutex>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "studio/stage.h"

namespace studio {

/// What comes from a guest at the moment of asking.
struct GuestMeasure {
  std::size_t width = 0;  ///< of the camera's last picture; 0 before the first
  std::size_t height = 0;
  double framesPerSecond = 0;
  Stage::Level level;
};

/// Measures guests' pictures and keeps their levels. May be used from any thread.
class GuestBoard {
 public:
  /// Counts a frame; true for a guest's first, and when its size has changed.
  bool frame(Stage::Number guest, Stage::Kind kind, std::size_t width, std::size_t height);
  void levels(std::span<const Stage::Level> levels);
  void forget(Stage::Number guest);

  GuestMeasure measure(Stage::Number guest) const;

 private:
  using Clock = std::chrono::steady_clock;
  struct Stream {
    std::size_t width = 0;
    std::size_t height = 0;
    std::deque<Clock::time_point> frames;  // the last ones
  };

  mutable std::mutex mutex_;
  std::map<std::pair<Stage::Number, Stage::Kind>, Stream> streams_;
  std::map<Stage::Number, Stage::Level> levels_;
};

/// The table that `guests` prints; who waits is named, longest first.
std::string guestTable(const std::vector<Stage::Guest>& guests, const GuestBoard& board);

}  // namespace studio
