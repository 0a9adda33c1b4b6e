// What guests send as signals, up to the reports that come of it. The type is the input's first line.
#include <cstdlib>
#include <string>

#include "scripted_sdk.h"
#include "session/guest_session.h"

namespace {

// Reads every text to its end, as the sender of a report does.
class ReadingDelegate : public GuestSessionDelegate {
 public:
  void pixelBufferReceived(CVPixelBufferRef, const std::string&, const std::string&, uint64_t) override {}
  void soundReceived(const void*, int64_t, const std::optional<std::string>&) override {}
  void ring(const std::string&, const std::string&, bool) override {}
  void hasAudioChanged(bool) override {}
  void chatMessage(const std::optional<std::string>& text, const std::optional<std::string>& name,
                   const std::string& uuid) override {
    if (uuid.empty() && !text && !name) abort();  // without a uuid of the guest's, one is made
  }
  void favMessage(const std::optional<std::string>&, const std::optional<std::string>&) override {}
  void streamDropped(const std::string&) override {}
  void sendLogMessage(const std::string&) override {}
  void reportFatalError(const std::optional<std::string>&) override {}
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static ZarvoGuestSession& session = []() -> ZarvoGuestSession& {
    auto* made = ZarvoGuestSession::initWithAPIKey("key");
    made->setDelegate(new ReadingDelegate);
    return *made;
  }();
  const std::string input(reinterpret_cast<const char*>(data), size);
  const size_t line = input.find('\n');
  const std::string type = input.substr(0, line);
  const std::string payload = line == std::string::npos ? "" : input.substr(line + 1);
  session.signalReceived(type.c_str(), payload.c_str());
  return 0;
}
