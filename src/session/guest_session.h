#pragma once

#include <CoreVideo/CoreVideo.h>
#include <dispatch/dispatch.h>
#include <opentok.h>
#include <atomic>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "session/guest_session_delegate.h"
#include "support/atomic_property.h"
#include "support/ref.h"

class ZarvoGuestSession;
class ZarvoGuestSessionStream;

// The one session object of the process. Set when its initialisation begins, never cleared.
extern std::atomic<ZarvoGuestSession*> sharedGuestSession;

// Set once the SDK's log has told of a failed proxy connection. Never cleared.
extern std::atomic<bool> sawProxyError;

// What a guest's subscriber carries as its user data. Lives as long as the process, since the SDK may
// call back at any time.
struct SubscriberInfo {
  std::string name;   // the stream's name, whole
  std::string subid;  // the stream's id
  int type;           // the stream's video type
};

// The object through which the service drives the video SDK: one for the life of the process, never
// freed. The studio's commands call it from the queues of their connections, the SDK from its own
// threads; the fields that both touch are atomic, and the stream table is guarded by streamLock.
class ZarvoGuestSession {
 public:
  using StreamTable = std::map<std::string, std::shared_ptr<ZarvoGuestSessionStream>, std::less<>>;

  ZarvoGuestSession(const ZarvoGuestSession&) = delete;
  ZarvoGuestSession& operator=(const ZarvoGuestSession&) = delete;

  // ---- Start-up and power (start_up.cpp, power.cpp)

  // Starts the SDK and its logging. The second call does nothing.
  static void initOpenTokSDK();

  // Makes the session object: SDK, audio device, queues, render timer and power thread.
  static ZarvoGuestSession* initWithAPIKey(const std::string& key);

  // Hands one finished line to the delegate.
  void logMessage(const std::string& text);

  // The body of the power thread. Returns only when there are no power notifications to be had.
  void registerForSleepNotifications();

  // ---- Connecting (connecting.cpp)

  // Begins to join; guests announce themselves by ringing. A connect call that hangs ends the process.
  void joinWithSession(const std::string& id, const std::string& andToken);

  // ---- Subscriptions (subscriptions.cpp)

  void subscribeToStream(otc_subscriber* subscriber, const std::string& theID, bool isScreenShare);
  void unsubscribeToStream(otc_subscriber* subscriber, const std::string& theID, bool isScreenShare,
                           bool actuallyUnsubscribe);
  void subscribeToAudio(otc_subscriber* subscriber, const std::string& theID, bool audio);

  // ---- Publishing (publishing.cpp)

  // Publishes the show; nothing happens while it is published already.
  void startPublishingToSession();

  // Takes the show back, and leaves the session if `deleteSession`.
  void stopCurrentSession(bool deleteSession);

  // ---- Signals (signals.cpp)

  // Sends to everybody in the session, whatever its state.
  void sendStreamMessage(const std::string& data, const std::string& withSignal);

  // Understands one signal from a guest; `type` and `data` come as the SDK gives them.
  void signalReceived(const char* type, const char* data);

  // Tells all guests who is on air and who is heard.
  void updateAudioInfo();

  // ---- Outgoing media (outgoing_media.cpp)

  // Hands one frame of the show to the SDK and returns when it has been handed over. The buffer is not
  // consumed; a BGRA one stays retained until the SDK lets go of it.
  void sendVideoFrame(CVPixelBufferRef buffer);

  // `numSamples` sample frames of interleaved 16-bit stereo at 48 kHz, valid during the call.
  void sendAudioData(const int16_t* samples, int32_t numSamples);

  // ---- Show state and guest control (show_control.cpp). An unknown guest id does nothing.

  void startSubscribing(const std::string& id);
  void stopSubscribing(const std::string& id);
  void greenRoomStatus(bool inGreenRoom, const std::string& forGuest);
  void setRemoteMute(bool muted, const std::string& forGuest);
  void enableOffAirAudio(bool enable);
  void broadcastIsLive(bool live, bool onlyRecording);
  void broadcastViewCount(const std::string& count);
  void setComment(const std::string& text, const std::string& withName, const std::string& uuid);
  void setChatMessage(const std::string& text, const std::string& withName, const std::string& uuid);
  void setFav(const std::string& uuid, const std::string& state);
  void prefUpdate(const std::string& text);

  // A stream that was taken out may have a record again.
  void streamReceived(const std::string& id);
  void streamDropped(const std::string& id);
  void audioChanged(bool hasAudio, const std::optional<std::string>& forId);
  void sessionDisconnected(otc_session* handle);
  void dropAllStreams();
  void reportFatalError(const std::optional<std::string>& text);
  void chatMessage(const std::optional<std::string>& text, const std::optional<std::string>& name,
                   const std::optional<std::string>& uuid);
  void favMessage(const std::optional<std::string>& uuid, const std::optional<std::string>& state);

  bool broadcastLive() const { return _broadcastIsLive; }

  // A new random UUID: 36 characters, upper case.
  static std::string UUIDString();

  // A copy of the stream table, so that it can be walked without the lock.
  StreamTable copyStreamManagers() const;

  // ---- Incoming video (streams/incoming_video.cpp)

  // The one way to a guest's record, which is made when the id is new. With a buffer the record delivers
  // a frame; with none it rings. A stream that the studio took out gets no record until streamReceived. The
  // buffer stays the caller's.
  void pixelBufferReceived(CVPixelBufferRef buffer, const std::string& forName, const std::string& andID,
                           otc_subscriber* subscriber, const otc_connection* connection, int type,
                           int64_t timestamp);

  // ---- Properties

  bool sleepMode() const { return _sleepMode; }
  void setSleepMode(bool value) { _sleepMode = value; }
  bool offAirAudio() const { return _offAirAudio; }
  void setOffAirAudio(bool value) { _offAirAudio = value; }
  std::optional<std::string> viewerCount() const { return _viewerCount.load(); }
  void setViewerCount(const std::string& value) { _viewerCount.store(value); }
  GuestSessionDelegate* delegate() const { return _delegate; }
  void setDelegate(GuestSessionDelegate* value) { _delegate = value; }
  // Shared, because every report and every piece of sound reads it: that copies no text.
  std::shared_ptr<const std::string> sessionId() const { return _sessionId.load(); }
  void setSessionId(const std::string& value) {
    _sessionId.store(std::make_shared<const std::string>(value));
  }
  std::optional<std::string> currentToken() const { return _currentToken.load(); }
  void setCurrentToken(const std::string& value) { _currentToken.store(value); }
  std::optional<std::string> guestId() const { return _guestId.load(); }
  void setGuestId(const std::string& value) { _guestId.store(value); }

  // ---- Fields, open to the SDK's callbacks, which are plain functions

  std::atomic<otc_session*> session{nullptr};
  std::atomic<otc_publisher*> publisher{nullptr};
  otc_audio_device* audio_device = nullptr;
  std::atomic<const otc_video_capturer*> video_capturer{nullptr};
  std::atomic<bool> audio_connected{false};          // the render timer pulls received sound
  std::atomic<bool> audio_capture_connected{false};  // the SDK takes the show's sound
  std::atomic<bool> video_connected{false};          // the SDK takes the show's frames
  std::atomic<bool> subscribed_to_audio{false};
  std::atomic<bool> connected_to_guest{false};  // while true, an SDK error does not end the process
  std::atomic<bool> capinited{false};
  std::atomic<bool> rendinited{false};
  std::atomic<bool> rendstarted{false};
  std::atomic<bool> capstarted{false};
  std::atomic<bool> monoGuest{false};  // the guest's sound is folded to mono
  std::string apiKey;
  Ref<dispatch_source_t> m_render_timer;
  Ref<dispatch_queue_t> render_dispatch_queue;
  Ref<dispatch_queue_t> send_video_queue;
  std::mutex audioSendLock;
  StreamTable streamManagers;
  std::deque<std::string> removedStreams;     // ids that the studio took out of streamManagers, newest last
  mutable std::mutex streamLock;              // around every access to these two; nothing is called under it
  std::atomic<bool> _broadcastIsLive{false};  // broadcastIsLive: an operation bears the name itself
  std::atomic<bool> recordOnly{false};
  otc_stream* ourStream = nullptr;

 private:
  explicit ZarvoGuestSession(const std::string& key);

  void startRenderTimer();

  // The record of a guest, or none.
  std::shared_ptr<ZarvoGuestSessionStream> streamManager(const std::string& id) const;

  bool isRemoved(const std::string& id) const;

  std::atomic<bool> _sleepMode{false};
  std::atomic<bool> _offAirAudio{false};
  AtomicProperty<std::optional<std::string>> _viewerCount;
  std::atomic<GuestSessionDelegate*> _delegate{nullptr};
  AtomicProperty<std::shared_ptr<const std::string>> _sessionId;
  AtomicProperty<std::optional<std::string>> _currentToken;
  AtomicProperty<std::optional<std::string>> _guestId;
};
