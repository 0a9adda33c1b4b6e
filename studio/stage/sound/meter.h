// How loud a source is.
#pragma once

#include <algorithm>
#include <cmath>

#include "stage/sound/format.h"

namespace studio::sound {

/// Peak and mean of what was heard since the last reading, in dB below full scale; silence is -120.
struct Level {
  float peak = -120;
  float rms = -120;
};

class Meter {
 public:
  void add(const Block& block) {
    for (const float sample : block) {
      peak_ = std::max(peak_, std::abs(sample));
      squares_ += sample * sample;
    }
    samples_ += block.size();
  }

  /// The level since the last call.
  Level read() {
    const Level level{decibels(peak_),
                      samples_ == 0 ? -120 : decibels(std::sqrt(squares_ / static_cast<float>(samples_)))};
    peak_ = squares_ = 0;
    samples_ = 0;
    return level;
  }

 private:
  static float decibels(float value) { return value > 1e-6F ? 20 * std::log10(value) : -120; }

  float peak_ = 0;
  float squares_ = 0;
  std::size_t samples_ = 0;
};

}  // namespace studio::sound
