// The custom video capturer: it notes when the SDK wants frames. Frames go through outgoing_media.cpp.

#include "session/video_capturer.h"

#include "session/guest_session.h"

namespace {

ZarvoGuestSession& sessionOf(void* userData) {
  return *static_cast<ZarvoGuestSession*>(userData);
}

otc_bool video_capturer_init(const otc_video_capturer* capturer, void* userData) {
  sessionOf(userData).video_capturer = capturer;
  return OTC_TRUE;
}

otc_bool video_capturer_destroy(const otc_video_capturer*, void*) {
  return OTC_TRUE;
}

otc_bool video_capturer_start(const otc_video_capturer*, void* userData) {
  sessionOf(userData).video_connected = true;
  return OTC_TRUE;
}

otc_bool video_capturer_stop(const otc_video_capturer*, void* userData) {
  sessionOf(userData).video_connected = false;
  return OTC_TRUE;
}

// A hint: frames of another size are sent as they come.
otc_bool video_capture_settings(const otc_video_capturer*, void*, otc_video_capturer_settings* settings) {
  if (settings) {
    settings->format = OTC_VIDEO_FRAME_FORMAT_BGRA32;
    settings->width = 1024;
    settings->height = 576;
    settings->fps = 30;
    settings->expected_delay = 0;
    settings->mirror_on_local_render = OTC_FALSE;
  }
  return OTC_TRUE;
}

}  // namespace

otc_video_capturer_callbacks videoCapturerCallbacks(ZarvoGuestSession* session) {
  otc_video_capturer_callbacks callbacks = {};
  callbacks.init = video_capturer_init;
  callbacks.destroy = video_capturer_destroy;
  callbacks.start = video_capturer_start;
  callbacks.stop = video_capturer_stop;
  callbacks.get_capture_settings = video_capture_settings;
  callbacks.user_data = session;
  callbacks.reserved = nullptr;
  return callbacks;
}
