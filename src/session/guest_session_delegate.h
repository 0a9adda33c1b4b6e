#pragma once

#include <CoreVideo/CoreVideo.h>
#include <cstdint>
#include <optional>
#include <string>

// How the session and the stream records report to the studio's side. Called from any thread, several at
// a time. A string that is none leaves its entry out of the report.
class GuestSessionDelegate {
 public:
  // One frame of guest `andID`, backed by a surface. The delegate takes over one reference to `buffer`.
  // The time stamp is the SDK's.
  virtual void pixelBufferReceived(CVPixelBufferRef buffer, const std::string& forName,
                                   const std::string& andID, uint64_t timestamp) = 0;

  // `length` bytes of interleaved 16-bit stereo samples at 48 kHz, valid during the call. They count as the
  // joined session's, whatever session is named.
  virtual void soundReceived(const void* samples, int64_t length,
                             const std::optional<std::string>& forSession) = 0;

  virtual void ringForName(const std::string& forName, const std::string& andID, bool screenShare) = 0;
  virtual void hasAudioChanged(bool hasAudio) = 0;
  virtual void chatMessage(const std::optional<std::string>& text, const std::optional<std::string>& name,
                           const std::string& uuid) = 0;
  virtual void favMessage(const std::optional<std::string>& uuid,
                          const std::optional<std::string>& state) = 0;

  // The id is empty when the session went away with no guest known.
  virtual void streamDropped(const std::string& id) = 0;

  virtual void sendLogMessage(const std::string& text) = 0;
  virtual void reportFatalError(const std::optional<std::string>& text) = 0;

 protected:
  ~GuestSessionDelegate() = default;
};
