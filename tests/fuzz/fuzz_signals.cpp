// What guests send as signals. The first byte says of which type.
#include <iterator>
#include <string>

#include "session/guest_session.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  static ZarvoGuestSession& session = *ZarvoGuestSession::initWithAPIKey("key");
  constexpr const char* kTypes[] = {"chat", "fav", "mono", "nonsense"};
  const std::string payload(reinterpret_cast<const char*>(data) + 1, size - 1);
  session.signalReceived(kTypes[data[0] % std::size(kTypes)], payload.c_str());
  return 0;
}
