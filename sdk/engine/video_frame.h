#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "opentok.h"

// A picture: whose memory it is depends on who made it.
struct otc_video_frame {
  int format = 0;
  int width = 0;
  int height = 0;
  std::array<const std::uint8_t*, 3> planes = {};
  std::array<int, 3> strides = {};
  std::int64_t timestamp = 0;  // microseconds

  // Of a frame that wraps memory; see opentok.h.
  otc_video_frame_release_callback release = nullptr;
  void* releaseArgument = nullptr;
  std::vector<std::uint8_t> copy;
};
