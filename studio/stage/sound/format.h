// The one form in which sound is joined: stereo at 48 kHz in blocks of 10 ms.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>

namespace studio::sound {

constexpr std::size_t channels = 2;
constexpr std::size_t framesASecond = 48'000;
constexpr std::size_t blockFrames = 480;
constexpr std::chrono::milliseconds blockTime(10);
constexpr float fullScale = 32'768;  // of 16 bits

using Time = std::chrono::steady_clock::time_point;

/// Interleaved, full scale at 1.
using Block = std::array<float, blockFrames * channels>;

constexpr double framesIn(std::chrono::duration<double> time) {
  return time.count() * static_cast<double>(framesASecond);
}

}  // namespace studio::sound
