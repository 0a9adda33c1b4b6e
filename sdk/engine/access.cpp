#include "access.h"

#include <algorithm>

#include "janus_connection.h"

namespace engine {
namespace {

constexpr std::size_t longestText = 16384;
constexpr std::size_t longestValue = 1024;

// Printable ASCII.
bool isWord(const std::string& text) {
  return text.size() <= longestValue &&
         std::all_of(text.begin(), text.end(), [](char letter) { return letter >= ' ' && letter < '\x7f'; });
}

bool isServer(const std::string& text) {
  return isWord(text) && (text.starts_with("ws://") || text.starts_with("wss://"));
}

}  // namespace

Access Access::parse(const std::string& text) {
  Access plain;
  plain.token = text;
  if (!text.starts_with('{') || text.size() > longestText) return plain;
  const json object = json::parse(text, nullptr, false);
  if (!object.is_object()) return plain;
  for (const char* key : {"token", "pin", "server"}) {
    if (object.contains(key) && !object[key].is_string()) return plain;
  }
  const Access access{stringAt(object, "token"), stringAt(object, "pin"), stringAt(object, "server")};
  if (access.token.empty() || !isWord(access.token) || !isWord(access.pin)) return plain;
  if (!access.server.empty() && !isServer(access.server)) return plain;
  return access;
}

}  // namespace engine
