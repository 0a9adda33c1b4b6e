// What guests send as signals. The first byte says of which type, the second how often the bytes up to the
// first NUL come before the rest, so that payloads as long and as deep as a guest can send are reached from
// short inputs.
#include <iterator>
#include <string>

#include "session/guest_session.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  static ZarvoGuestSession& session = *ZarvoGuestSession::initWithAPIKey("key");
  constexpr const char* kTypes[] = {"chat", "fav", "mono", "nonsense"};
  constexpr size_t kLongest = 70'000;

  const std::string input(reinterpret_cast<const char*>(data) + 2, size - 2);
  const std::string repeated = input.substr(0, input.find('\0'));
  std::string payload;
  for (int times = 1 << data[1] % 17; times > 0 && payload.size() < kLongest; times--) payload += repeated;
  if (repeated.size() < input.size()) payload += input.substr(repeated.size() + 1);
  session.signalReceived(kTypes[data[0] % std::size(kTypes)], payload.c_str());
  return 0;
}
