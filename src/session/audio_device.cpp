// The custom audio device: it notes what the SDK tells it and answers from its notes. Samples go through
// outgoing_media.cpp and the render timer.

#include "session/audio_device.h"

#include <opentok.h>

#include "session/guest_session.h"

namespace {

constexpr int kSamplingRate = 48000;
constexpr int kChannels = 2;

ZarvoGuestSession& sessionOf(void* userData) {
  return *static_cast<ZarvoGuestSession*>(userData);
}

otc_bool init(const otc_audio_device*, void*) {
  return OTC_TRUE;
}
otc_bool destroy(const otc_audio_device*, void*) {
  return OTC_TRUE;
}

otc_bool init_capturer(const otc_audio_device*, void* userData) {
  sessionOf(userData).capinited = true;
  return OTC_TRUE;
}

otc_bool destroy_capturer(const otc_audio_device*, void*) {
  return OTC_TRUE;
}

otc_bool start_capturer(const otc_audio_device*, void* userData) {
  sessionOf(userData).audio_capture_connected = true;
  sessionOf(userData).capstarted = true;
  return OTC_TRUE;
}

// Stopping clears nothing: sound that still comes is offered to the SDK all the same.
otc_bool stop_capturer(const otc_audio_device*, void*) {
  return OTC_TRUE;
}

otc_bool is_capturer_initialized(const otc_audio_device*, void* userData) {
  return sessionOf(userData).capinited;
}

otc_bool is_capturer_started(const otc_audio_device*, void* userData) {
  return sessionOf(userData).capstarted;
}

int get_estimated_capture_delay(const otc_audio_device*, void*) {
  return 0;
}

otc_bool fillSettings(otc_audio_device_settings* settings) {
  if (settings) *settings = {kSamplingRate, kChannels};
  return OTC_TRUE;
}

otc_bool get_capture_settings(const otc_audio_device*, void*, otc_audio_device_settings* settings) {
  return fillSettings(settings);
}

otc_bool init_renderer(const otc_audio_device*, void* userData) {
  sessionOf(userData).rendinited = true;
  sessionOf(userData).audio_connected = true;
  return OTC_TRUE;
}

otc_bool destroy_renderer(const otc_audio_device*, void* userData) {
  sessionOf(userData).audio_connected = false;
  return OTC_TRUE;
}

otc_bool start_renderer(const otc_audio_device*, void* userData) {
  sessionOf(userData).rendstarted = true;
  sessionOf(userData).audio_connected = true;
  return OTC_TRUE;
}

otc_bool stop_renderer(const otc_audio_device*, void*) {
  return OTC_TRUE;
}

otc_bool is_renderer_initialized(const otc_audio_device*, void* userData) {
  return sessionOf(userData).rendinited;
}

otc_bool is_renderer_started(const otc_audio_device*, void* userData) {
  return sessionOf(userData).rendstarted;
}

int get_estimated_render_delay(const otc_audio_device*, void*) {
  return 0;
}

otc_bool get_render_settings(const otc_audio_device*, void*, otc_audio_device_settings* settings) {
  return fillSettings(settings);
}

}  // namespace

void installAudioDevice(ZarvoGuestSession* session) {
  otc_audio_device_callbacks callbacks = {};
  callbacks.init = init;
  callbacks.destroy = destroy;
  callbacks.init_capturer = init_capturer;
  callbacks.destroy_capturer = destroy_capturer;
  callbacks.start_capturer = start_capturer;
  callbacks.stop_capturer = stop_capturer;
  callbacks.is_capturer_initialized = is_capturer_initialized;
  callbacks.is_capturer_started = is_capturer_started;
  callbacks.get_estimated_capture_delay = get_estimated_capture_delay;
  callbacks.get_capture_settings = get_capture_settings;
  callbacks.init_renderer = init_renderer;
  callbacks.destroy_renderer = destroy_renderer;
  callbacks.start_renderer = start_renderer;
  callbacks.stop_renderer = stop_renderer;
  callbacks.is_renderer_initialized = is_renderer_initialized;
  callbacks.is_renderer_started = is_renderer_started;
  callbacks.get_estimated_render_delay = get_estimated_render_delay;
  callbacks.get_render_settings = get_render_settings;
  callbacks.user_data = session;
  callbacks.reserved = nullptr;
  otc_set_audio_device(&callbacks);
}
