#pragma once

#include <CoreVideo/CoreVideo.h>
#include <VideoToolbox/VideoToolbox.h>
#include <opentok.h>
#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "session/guest_session_delegate.h"
#include "streams/pixel_buffer_pool_manager.h"

class ZarvoGuestSession;

// The record of one guest stream, camera or screen share: its identity, its state in the show, and the
// tools for its frames. It lives in the session's stream table from the stream's arrival until the studio
// removes it. Commands and SDK callbacks may call it at the same time; it has no lock.
class ZarvoGuestSessionStream {
 public:
  // The handles stay the SDK's; they outlive the record.
  ZarvoGuestSessionStream(const std::string& name, const std::string& andID, otc_subscriber* subscriber,
                          const otc_connection* connection);

  // Announces the guest to the studio.
  void ring();

  void streamHasAudioChanged(bool value);

  // Brings the guest in: into the green room, whatever its state was before.
  void startSubscribing();

  // Takes the guest out. A stream that has left the session already needs no unsubscription.
  void stopSubscribing(bool actuallyUnsubscribe);

  // Decides whether the studio hears the guest, and tells the guests.
  void greenRoomStatusChanged();

  // The stream has left the session. The record stays until the studio removes it.
  void streamDropped();

  std::string guestId() const { return theID; }

  // Copies one frame into a pooled surface and hands that to the delegate. Called by one thread at a
  // time; the source is not consumed.
  void pixelBufferReceived(CVPixelBufferRef source, int64_t timestamp);

  bool isLive() const { return _isLive; }
  void setIsLive(bool value) { _isLive = value; }
  bool remoteMuted() const { return _remoteMuted; }
  void setRemoteMuted(bool value) { _remoteMuted = value; }
  bool dropped() const { return _dropped; }
  void setDropped(bool value) { _dropped = value; }
  bool isScreenShare() const { return _isScreenShare; }
  void setIsScreenShare(bool value) { _isScreenShare = value; }
  GuestSessionDelegate* delegate() const { return _delegate; }
  void setDelegate(GuestSessionDelegate* value) { _delegate = value; }
  ZarvoGuestSession* guestSession() const { return _guestSession; }
  void setGuestSession(ZarvoGuestSession* value) { _guestSession = value; }

 private:
  // Made on the first frame and never released: a frame may be in it while the record goes.
  VTPixelTransferSessionRef mPixelTransfer = nullptr;
  std::unique_ptr<ZVPixelBufferPoolManager> pixelBufferManager;
  const std::string name;
  const std::string theID;
  otc_subscriber* const subscriber;
  const otc_connection* const connection;
  std::atomic<bool> ringing{false};
  std::atomic<bool> hasAudio{false};
  std::atomic<bool> _isLive{false};
  std::atomic<bool> _remoteMuted{false};
  std::atomic<bool> _dropped{false};
  std::atomic<bool> _isScreenShare{false};
  std::atomic<GuestSessionDelegate*> _delegate{nullptr};
  std::atomic<ZarvoGuestSession*> _guestSession{nullptr};
};
