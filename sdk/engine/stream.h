#pragma once

#include <string>

#include "opentok.h"

// The two kinds of thing that a session tells of. Written on the engine's thread only.

struct otc_connection {
  std::string id;
};

struct otc_stream {
  std::string id;
  std::string name;
  int videoType = OTC_STREAM_VIDEO_TYPE_CAMERA;
  int width = 0;
  int height = 0;
  bool hasAudio = false;
  bool hasVideo = false;
  const otc_connection* connection = nullptr;
};
