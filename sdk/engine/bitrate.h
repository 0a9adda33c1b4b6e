#pragma once

#include <atomic>

#include "engine_thread.h"
#include "gst.h"

namespace engine {

// Keeps a publisher's video within what the network takes: the encoder's bit rate follows the loss and
// the growing delay that the server reports (transport-wide feedback), under the limit that it sets
// (REMB). Lives on the engine's thread.
class Bitrate {
 public:
  // `source` is the video's, in the bin of its encoder.
  Bitrate(GstElement* webrtc, GstElement* source);
  ~Bitrate();
  Bitrate(const Bitrate&) = delete;
  Bitrate& operator=(const Bitrate&) = delete;

 private:
  void adapt();

  Gst<GstElement> encoder_;
  Gst<GstElement> statistics_;   // the session's element
  GObject* feedback_ = nullptr;  // and what is inside it
  std::atomic<int> limit_;
  int rate_;
  Timer timer_;
};

}  // namespace engine
