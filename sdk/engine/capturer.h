#pragma once

#include <gst/video/video.h>

#include <cstdint>
#include <mutex>

#include "gst.h"
#include "opentok.h"

typedef struct _GstAppSrc GstAppSrc;

// The way by which a program's pictures enter: they are converted to planar 4:2:0 as they are
// handed over, in one pass, so that nothing of the program's memory is held afterwards.
struct otc_video_capturer {
 public:
  explicit otc_video_capturer(const otc_video_capturer_callbacks& callbacks) : callbacks_(callbacks) {}

  // The capturer's callbacks, on the engine's thread. What was begun, and only that, is ended.
  otc_video_capturer_settings init();
  void start();
  void stopAndDestroy();

  // Where pictures go from now on; null: nowhere. On return the former place gets none.
  void setOutput(GstAppSrc* output);

  // Any thread. OTC_INVALID_PARAM for a picture that is none; one that comes while there is no output,
  // or before the encoder has taken those before it, is dropped.
  otc_status provide(const otc_video_frame& frame, int rotation);

 private:
  void dropPool();

  const otc_video_capturer_callbacks callbacks_;
  bool initialised_ = false;  // these two of the engine's thread
  bool started_ = false;
  std::mutex mutex_;
  GstAppSrc* output_ = nullptr;
  engine::Gst<GstBufferPool> pool_;
  engine::Gst<GstCaps> caps_;
  GstVideoInfo info_{};
};
