#pragma once

#include <dispatch/dispatch.h>
#include <xpc/xpc.h>
#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "session/guest_session.h"
#include "session/guest_session_delegate.h"
#include "support/ref.h"

// The owner of the session, and the sender of all that it reports. One for the life of the process.
class ServiceDelegate : public GuestSessionDelegate {
 public:
  ServiceDelegate();
  ServiceDelegate(const ServiceDelegate&) = delete;
  ServiceDelegate& operator=(const ServiceDelegate&) = delete;

  void startWithSession(const std::string& id, const std::string& andToken);
  void startBroadcasting();
  void stopCurrentBroadcast();

  ZarvoGuestSession* guestSession() const { return _guestSession; }

  // The reports, sent to the studio at once. Frames take a road of their own: at most two of them, over
  // all guests, await the studio's answer, and what comes meanwhile is dropped.
  void pixelBufferReceived(CVPixelBufferRef buffer, const std::string& forName, const std::string& andID,
                           uint64_t timestamp) override;
  void soundReceived(const void* samples, int64_t length,
                     const std::optional<std::string>& forSession) override;
  void ringForName(const std::string& forName, const std::string& andID, bool screenShare) override;
  void hasAudioChanged(bool hasAudio) override;
  void chatMessage(const std::optional<std::string>& text, const std::optional<std::string>& name,
                   const std::string& uuid) override;
  void favMessage(const std::optional<std::string>& uuid, const std::optional<std::string>& state) override;
  void streamDropped(const std::string& id) override;
  void sendLogMessage(const std::string& text) override;
  void reportFatalError(const std::optional<std::string>& text) override;

 private:
  struct Frame;

  void sendFrame(const std::shared_ptr<Frame>& frame);

  ZarvoGuestSession* _guestSession = nullptr;
  std::atomic<uint32_t> frameCount{0};  // goes out as a signed number, wrapping
  Ref<dispatch_queue_t> _frameQueue;
  int32_t numberOfFramesQueued = 0;  // on _frameQueue only
};
