// Keeps a sum of voices from clipping.
#pragma once

#include <algorithm>
#include <cmath>

#include "stage/sound/format.h"

namespace studio::sound {

/// Turns down at once what would go beyond full scale, and up again within a quarter of a second. Both
/// channels alike, so that nobody moves to the side.
class Limiter {
 public:
  void apply(Block& block) {
    for (std::size_t index = 0; index < block.size(); index += channels) {
      const float peak = std::max(std::abs(block[index]), std::abs(block[index + 1]));
      gain_ = std::min(1.0F, gain_ + recovery * (1 - gain_) + leastRecovery);
      if (peak * gain_ > ceiling) gain_ = ceiling / peak;
      block[index] *= gain_;
      block[index + 1] *= gain_;
    }
  }

 private:
  static constexpr float ceiling = 0.97F;
  static constexpr float recovery = 1.0F / 4'000;         // a sample frame, of what is missing
  static constexpr float leastRecovery = 1.0F / 480'000;  // so that it ends

  float gain_ = 1;
};

}  // namespace studio::sound
