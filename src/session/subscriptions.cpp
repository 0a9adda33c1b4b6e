// Receiving a guest: subscription, audio switch, and the sound's way to the studio.

#include <thread>

#include "session/guest_session.h"
#include "session/log.h"
#include "session/subscriber_callbacks.h"
#include "streams/incoming_video.h"
#include "support/strings.h"
#include "support/waits.h"

namespace {

constexpr int64_t kBytesPerSampleFrame = 4;  // 16-bit stereo

void on_stream_connected(otc_subscriber*, void*, const otc_stream* stream) {
  logMessageToApp("on_stream_connected %s", printable(otc_stream_get_name(stream)));
}

void on_stream_disconnected(otc_subscriber*, void*) {
  logMessageToApp("subscriber on_stream_disconnected");
}

void on_stream_reconnected(otc_subscriber*, void*) {
  logMessageToApp("subscriber on_stream_reconnected");
}

void on_caption_text(otc_subscriber*, void*, const char*) {}

void on_subscriber_error(otc_subscriber*, void*, const char* text, int code) {
  logMessageToApp("on_subscriber_error %s (%d)", printable(text), code);
}

// Writes the mean of left and right, truncated toward zero, to both.
void foldToMono(int16_t* samples, size_t frames) {
  for (size_t i = 0; i < frames; i++) {
    const int32_t sum = samples[2 * i] + samples[2 * i + 1];
    const auto mean = static_cast<int16_t>(sum * 0.5);
    samples[2 * i] = mean;
    samples[2 * i + 1] = mean;
  }
}

void on_audio_data(otc_subscriber*, void* userData, const otc_audio_data* audio) {
  if (!audio) return;
  const auto* info = static_cast<const SubscriberInfo*>(userData);
  if (info && info->type == OTC_STREAM_VIDEO_TYPE_SCREEN) return;  // a screen share is never heard

  ZarvoGuestSession* session = sharedGuestSession.load(std::memory_order_acquire);
  GuestSessionDelegate* delegate = session->delegate();
  if (session->monoGuest) foldToMono(static_cast<int16_t*>(audio->sample_buffer), audio->number_of_samples);
  if (delegate) {
    delegate->soundReceived(audio->sample_buffer,
                            static_cast<int64_t>(audio->number_of_samples) * kBytesPerSampleFrame,
                            std::nullopt);
  }
}

void on_unhandled_event(otc_subscriber*, void*) {}

}  // namespace

otc_subscriber_callbacks subscriberCallbacks(SubscriberInfo* info) {
  otc_subscriber_callbacks callbacks = {};
  callbacks.on_connected = on_stream_connected;
  callbacks.on_disconnected = on_stream_disconnected;
  callbacks.on_reconnected = on_stream_reconnected;
  callbacks.on_render_frame = on_render_frame;
  callbacks.on_event_5 = on_unhandled_event;
  callbacks.on_event_6 = on_unhandled_event;
  callbacks.on_event_7 = on_unhandled_event;
  callbacks.on_event_8 = on_unhandled_event;
  callbacks.on_event_9 = on_unhandled_event;
  callbacks.on_event_10 = on_unhandled_event;
  callbacks.on_caption_text = on_caption_text;
  callbacks.on_event_12 = on_unhandled_event;
  callbacks.on_event_13 = on_unhandled_event;
  callbacks.on_event_14 = on_unhandled_event;
  callbacks.on_event_15 = on_unhandled_event;
  callbacks.on_error = on_subscriber_error;
  callbacks.on_audio_data = on_audio_data;
  callbacks.user_data = info;
  callbacks.reserved = nullptr;
  return callbacks;
}

void ZarvoGuestSession::subscribeToStream(otc_subscriber* subscriber, const std::string& theID,
                                          bool isScreenShare) {
  logMessageToApp("subscribeToStream");
  otc_session_subscribe(session, subscriber);
  otc_subscriber_set_subscribe_to_video(subscriber, OTC_TRUE);
  // A guest starts unheard; the green-room rule switches the sound on right after.
  const otc_status status = otc_subscriber_set_subscribe_to_audio(subscriber, OTC_FALSE);
  monoGuest = false;
  if (!isScreenShare) {
    subscribed_to_audio = false;
    connected_to_guest = true;
  }
  // The label says video, the value is the audio call's: studios know the line as it is.
  logMessageToApp("otc_subscriber_set_subscribe_to_video %d", status);
  sendStreamMessage(theID, "start");
}

void ZarvoGuestSession::unsubscribeToStream(otc_subscriber* subscriber, const std::string& theID,
                                            bool isScreenShare, bool actuallyUnsubscribe) {
  logMessageToApp("unsubscribeToStream %s (%d)", theID, static_cast<int>(actuallyUnsubscribe));
  if (!isScreenShare) {
    subscribed_to_audio = false;
    connected_to_guest = false;
  }
  sendStreamMessage(theID, "stop");
  if (!actuallyUnsubscribe) {
    logMessageToApp("not calling otc_session_unsubscribe");
    return;
  }
  logMessageToApp("before otc_session_unsubscribe");
  // The SDK may take its time over it, which the studio's command must not wait for.
  dispatch_async(dispatch_get_global_queue(DISPATCH_QUEUE_PRIORITY_DEFAULT, 0), [this, subscriber] {
    const otc_status status = otc_session_unsubscribe(session, subscriber);
    logMessageToApp("after otc_session_unsubscribe %d", status);
  });
  std::this_thread::sleep_for(kUnsubscribePause);
}

void ZarvoGuestSession::subscribeToAudio(otc_subscriber* subscriber, const std::string& theID, bool audio) {
  logMessageToApp("subscribeToAudio %s %d", theID, static_cast<int>(audio));
  const bool subscribed = otc_subscriber_get_subscribe_to_audio(subscriber) != OTC_FALSE;
  if (subscribed != audio) {
    const otc_status status = otc_subscriber_set_subscribe_to_audio(subscriber, audio);
    logMessageToApp("otc_subscriber_set_subscribe_to_audio: %d", status);
  }
  subscribed_to_audio = audio;
}
