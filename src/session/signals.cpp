// The signals exchanged with guests: JSON or plain text, to and from the whole session.

#include <cstring>
#include <nlohmann/json.hpp>

#include "session/guest_session.h"
#include "streams/guest_session_stream.h"

namespace {

using nlohmann::json;

std::string prettyPrinted(const json& object) {
  return object.dump(2, ' ', false, json::error_handler_t::replace);
}

// The object that a guest sent. Whatever is no JSON object counts as an empty one.
json parsed(const char* data) {
  json object = json::parse(data ? data : "", nullptr, false);
  return object.is_object() ? object : json::object();
}

// A value that is missing or no string counts as none.
std::optional<std::string> stringValue(const json& object, const char* key) {
  const auto entry = object.find(key);
  if (entry == object.end() || !entry->is_string()) return std::nullopt;
  return entry->get<std::string>();
}

}  // namespace

void ZarvoGuestSession::sendStreamMessage(const std::string& data, const std::string& withSignal) {
  otc_session_send_signal(session, withSignal.c_str(), data.c_str());
}

void ZarvoGuestSession::signalReceived(const char* type, const char* data) {
  if (!type) return;
  if (std::strcmp(type, "chat") == 0) {
    const json object = parsed(data);
    chatMessage(stringValue(object, "text"), stringValue(object, "name"), stringValue(object, "uuid"));
  } else if (std::strcmp(type, "fav") == 0) {
    const json object = parsed(data);
    favMessage(stringValue(object, "uuid"), stringValue(object, "state"));
  } else if (std::strcmp(type, "mono") == 0) {
    if (stringValue(parsed(data), "mono") == "yes") monoGuest = true;
  }
}

void ZarvoGuestSession::updateAudioInfo() {
  json subs = json::array();
  for (const auto& [id, stream] : copyStreamManagers()) {
    subs.push_back({{"on", stream->isLive()},
                    {"id", id},
                    {"remoteMuted", stream->remoteMuted()},
                    {"offAirAudio", offAirAudio()}});
  }
  const json info = {{"subs", subs}, {"broadcastIsLive", broadcastLive()}, {"recordOnly", recordOnly.load()}};
  sendStreamMessage(prettyPrinted(info), "audio_setting");
}

void ZarvoGuestSession::setComment(const std::string& text, const std::string& withName,
                                   const std::string& uuid) {
  sendStreamMessage(prettyPrinted({{"name", withName}, {"text", text}, {"uuid", uuid}}), "comment");
}

void ZarvoGuestSession::setChatMessage(const std::string& text, const std::string& withName,
                                       const std::string& uuid) {
  sendStreamMessage(prettyPrinted({{"name", withName}, {"text", text}, {"uuid", uuid}}), "chat");
}

void ZarvoGuestSession::setFav(const std::string& uuid, const std::string& state) {
  sendStreamMessage(prettyPrinted({{"uuid", uuid}, {"state", state}}), "fav");
}

void ZarvoGuestSession::prefUpdate(const std::string& text) {
  sendStreamMessage(text, "prefUpdate");
}

void ZarvoGuestSession::broadcastViewCount(const std::string& count) {
  if (viewerCount() == count) return;
  setViewerCount(count);
  sendStreamMessage(prettyPrinted({{"viewer_count", count}}), "viewer_count");
}
