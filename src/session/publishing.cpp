// Publishing the show into the session, and stopping.

#include "session/guest_session.h"
#include "session/log.h"
#include "session/video_capturer.h"
#include "support/strings.h"

namespace {

void on_stream_created(otc_publisher*, void*, const otc_stream* stream) {
  logMessageToApp("on_stream_created %s %s", printable(otc_stream_get_name(stream)),
                  printable(otc_stream_get_id(stream)));
}

void on_stream_destroyed(otc_publisher*, void*, const otc_stream* stream) {
  logMessageToApp("on_stream_destroyed %s %s", printable(otc_stream_get_name(stream)),
                  printable(otc_stream_get_id(stream)));
}

void on_render_frame_publisher(otc_publisher*, void*, const otc_video_frame*) {}
void on_audio_level_publisher(otc_publisher*, void*, float) {}
void on_publisher_mute_forced(otc_publisher*, void*) {}
void on_audio_network_stats_publisher(otc_publisher*, void*) {}
void on_video_network_stats_publisher(otc_publisher*, void*) {}

void on_error_publisher(otc_publisher*, void*, const char* text, int code) {
  logMessageToApp("on_error_publisher %d %s", code, printable(text));
}

void on_video_disabled_publisher(otc_publisher*, void*) {}
void on_video_enabled_publisher(otc_publisher*, void*) {}
void on_video_disable_warning_publisher(otc_publisher*, void*) {}
void on_video_disable_warning_lifted_publisher(otc_publisher*, void*) {}

otc_publisher_callbacks publisherCallbacks(ZarvoGuestSession* session) {
  otc_publisher_callbacks callbacks = {};
  callbacks.on_stream_created = on_stream_created;
  callbacks.on_stream_destroyed = on_stream_destroyed;
  callbacks.on_render_frame = on_render_frame_publisher;
  callbacks.on_audio_level = on_audio_level_publisher;
  callbacks.on_mute_forced = on_publisher_mute_forced;
  callbacks.on_audio_network_stats = on_audio_network_stats_publisher;
  callbacks.on_video_network_stats = on_video_network_stats_publisher;
  callbacks.on_error = on_error_publisher;
  callbacks.on_video_disabled = on_video_disabled_publisher;
  callbacks.on_video_enabled = on_video_enabled_publisher;
  callbacks.on_video_disable_warning = on_video_disable_warning_publisher;
  callbacks.on_video_disable_warning_lifted = on_video_disable_warning_lifted_publisher;
  callbacks.user_data = session;
  callbacks.reserved = nullptr;
  return callbacks;
}

}  // namespace

void ZarvoGuestSession::startPublishingToSession() {
  if (publisher) return;
  const otc_publisher_callbacks callbacks = publisherCallbacks(this);
  const otc_video_capturer_callbacks capturer = videoCapturerCallbacks(this);

  // Neither the settings nor the publisher are ever freed: the SDK may still use them.
  otc_publisher_settings* settings = otc_publisher_settings_new();
  otc_publisher_settings_set_name(settings, "ZarvoLive");
  otc_publisher_settings_set_video_capturer(settings, &capturer);
  otc_publisher_settings_set_audio_track(settings, OTC_TRUE);
  otc_publisher_settings_set_video_track(settings, OTC_TRUE);
  otc_publisher_settings_set_stereo(settings, OTC_FALSE);

  otc_publisher* created = otc_publisher_new_with_settings(&callbacks, settings);
  otc_publisher_set_audio_fallback_enabled(created, OTC_FALSE);
  publisher = created;
  const otc_status status = otc_session_publish(session, created);
  setViewerCount("");
  logMessageToApp("otc_session_publish: %d", status);
}

void ZarvoGuestSession::stopCurrentSession(bool deleteSession) {
  logMessageToApp("stopCurrentSession for %s", printable(sessionId()));
  subscribed_to_audio = false;
  connected_to_guest = false;
  // Two studios may stop at once: what is taken out here is this call's alone to give back.
  otc_session* stopped = deleteSession ? session.exchange(nullptr) : session.load();
  if (!stopped) return;
  if (otc_publisher* unpublished = publisher.exchange(nullptr)) {
    logMessageToApp("otc_session_unpublish %d", otc_session_unpublish(stopped, unpublished));
  }
  if (deleteSession) logMessageToApp("otc_session_delete %d", otc_session_delete(stopped));
}
