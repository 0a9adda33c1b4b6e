// Joining the video session, and the session's events.

#include <unistd.h>
#include <cstdlib>
#include <memory>

#include "session/guest_session.h"
#include "session/log.h"
#include "session/subscriber_callbacks.h"
#include "support/strings.h"
#include "support/waits.h"

namespace {

constexpr char kGuestPrefix[] = "Guest - ";

ZarvoGuestSession& sessionOf(void* userData) {
  return *static_cast<ZarvoGuestSession*>(userData);
}

unsigned long long addressOf(const void* pointer) {
  return reinterpret_cast<uintptr_t>(pointer);
}

void on_connected(otc_session*, void*) {
  logMessageToApp("on_connected");
}

void on_disconnected(otc_session* session, void* userData) {
  logMessageToApp("on_disconnected");
  sessionOf(userData).sessionDisconnected(session);
}

void on_connection_created(otc_session*, void*, const otc_connection* connection) {
  logMessageToApp("on_connection_created %llx", addressOf(connection));
}

void on_connection_dropped(otc_session*, void*, const otc_connection* connection) {
  logMessageToApp("on_connection_dropped %llx", addressOf(connection));
}

void on_stream_received(otc_session*, void* userData, const otc_stream* stream) {
  const int type = otc_stream_get_video_type(stream);
  const char* id = otc_stream_get_id(stream);
  const char* name = otc_stream_get_name(stream);
  logMessageToApp("on_stream_received %d x %d (%s) [%s] type: %s", otc_stream_get_video_width(stream),
                  otc_stream_get_video_height(stream), printable(name), printable(id),
                  type == OTC_STREAM_VIDEO_TYPE_SCREEN ? "screen share" : "camera");

  const std::optional<std::string> guestName = stringWithUTF8String(name);
  if (!guestName || !guestName->starts_with(kGuestPrefix)) {
    logMessageToApp("stream %s didn't start with Guest - ignore it", printable(name));
    return;
  }

  // Without an id there is no record, and nobody who would ever use the subscriber.
  const std::optional<std::string> streamId = stringWithUTF8String(id);
  if (!streamId) return;

  auto subscriberInfo = std::make_unique<SubscriberInfo>(SubscriberInfo{*guestName, *streamId, type});
  const otc_subscriber_callbacks callbacks = subscriberCallbacks(subscriberInfo.get());
  otc_subscriber* subscriber = otc_subscriber_new(stream, &callbacks);

  sessionOf(userData).streamReceived(*streamId);
  sessionOf(userData).pixelBufferReceived(nullptr, subscriberInfo->name, subscriberInfo->subid, subscriber,
                                          otc_stream_get_connection(stream), type, 0);
  // It outlives the subscriber's last callback, whenever that is: it is never freed.
  if (subscriber) static_cast<void>(subscriberInfo.release());
}

void on_stream_dropped(otc_session*, void* userData, const otc_stream* stream) {
  ZarvoGuestSession& session = sessionOf(userData);
  const char* id = otc_stream_get_id(stream);
  logMessageToApp("on_stream_dropped %s %s", printable(otc_stream_get_name(stream)), printable(id));
  if (otc_stream_get_video_type(stream) != OTC_STREAM_VIDEO_TYPE_SCREEN) {
    session.subscribed_to_audio = false;
    session.connected_to_guest = false;
  }
  if (const auto streamId = stringWithUTF8String(id)) session.streamDropped(*streamId);
}

void on_stream_has_audio_changed(otc_session*, void* userData, const otc_stream* stream, otc_bool hasAudio) {
  logMessageToApp("on_stream_has_audio_changed %d", hasAudio);
  sessionOf(userData).audioChanged(hasAudio, stringWithUTF8String(otc_stream_get_id(stream)));
}

void on_stream_has_video_changed(otc_session*, void*, const otc_stream*, otc_bool hasVideo) {
  logMessageToApp("on_stream_has_video_changed %d", hasVideo);
}

void on_stream_has_captions_changed(otc_session*, void*, const otc_stream*, otc_bool) {}

void on_signal_received(otc_session*, void* userData, const char* type, const char* data,
                        const otc_connection*) {
  sessionOf(userData).signalReceived(type, data);
}

void on_reconnection_started(otc_session*, void*) {
  logMessageToApp("session on_reconnection_start");
}

void on_reconnected(otc_session*, void*) {
  logMessageToApp("session on_reconnection_success");
}

void on_error(otc_session* session, void* userData, const char* text, int code) {
  logMessageToApp("on_error %d %s", code, printable(text));
  if (code != OTC_SESSION_CONNECTION_FAILED) return;
  if (sawProxyError) {
    logMessageToApp("on_error OTC_SESSION_CONNECTION_FAILED after proxy log message");
    sessionOf(userData).reportFatalError(stringWithUTF8String(text));
  } else {
    logMessageToApp("on_error OTC_SESSION_CONNECTION_FAILED some other reason");
    sessionOf(userData).sessionDisconnected(session);
  }
}

void on_mute_forced(otc_session*, void*) {}

void on_unhandled_event(otc_session*, void*) {}

otc_session_callbacks sessionCallbacks(ZarvoGuestSession* session) {
  otc_session_callbacks callbacks = {};
  callbacks.on_connected = on_connected;
  callbacks.on_disconnected = on_disconnected;
  callbacks.on_connection_created = on_connection_created;
  callbacks.on_connection_dropped = on_connection_dropped;
  callbacks.on_stream_received = on_stream_received;
  callbacks.on_stream_dropped = on_stream_dropped;
  callbacks.on_stream_has_audio_changed = on_stream_has_audio_changed;
  callbacks.on_stream_has_video_changed = on_stream_has_video_changed;
  callbacks.on_stream_has_captions_changed = on_stream_has_captions_changed;
  callbacks.on_stream_event_10 = on_unhandled_event;
  callbacks.on_stream_event_11 = on_unhandled_event;
  callbacks.on_signal_received = on_signal_received;
  callbacks.on_reconnection_started = on_reconnection_started;
  callbacks.on_reconnected = on_reconnected;
  callbacks.on_event_15 = on_unhandled_event;
  callbacks.on_event_16 = on_unhandled_event;
  callbacks.on_error = on_error;
  callbacks.on_mute_forced = on_mute_forced;
  callbacks.user_data = session;
  callbacks.reserved = nullptr;
  return callbacks;
}

// Ends the process when the connect call has not come back in time. Whether the session connected is not
// looked at: the SDK tells of that itself.
void connectWatchdog(const std::atomic<bool>& connectReturned) {
  if (connectReturned) return;
  logMessageToApp("otc_session_connect timed out. exiting process.");
  usleep(static_cast<useconds_t>(kExitDelay.count()));
  exit(0);
}

}  // namespace

void ZarvoGuestSession::joinWithSession(const std::string& id, const std::string& andToken) {
  setSessionId(id);
  const otc_session_callbacks callbacks = sessionCallbacks(this);
  logMessageToApp("joinWithSession:%s %s", id, andToken);
  // The earlier session is left to itself.
  if (session) logMessageToApp("already have a session?");

  auto connectReturned = std::make_shared<std::atomic<bool>>(false);
  dispatch_after(dispatch_time(DISPATCH_TIME_NOW, kConnectTimeout.count()),
                 dispatch_get_global_queue(DISPATCH_QUEUE_PRIORITY_DEFAULT, 0),
                 [connectReturned] { connectWatchdog(*connectReturned); });

  session = otc_session_new(apiKey.c_str(), id.c_str(), &callbacks);
  logMessageToApp("otc_session_new session 0x%0llx", addressOf(session));
  setCurrentToken(andToken);
  const otc_status status = otc_session_connect(session, andToken.c_str());
  *connectReturned = true;
  logMessageToApp("otc_session_connect %d", status);
}
