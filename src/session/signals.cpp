// The signals exchanged with guests: JSON or plain text, to and from the whole session.

#include <cstring>
#include <map>
#include <nlohmann/json.hpp>

#include "session/guest_session.h"
#include "streams/guest_session_stream.h"

namespace {

using nlohmann::json;

std::string prettyPrinted(const json& object) {
  return object.dump(2, ' ', false, json::error_handler_t::replace);
}

// More than a signal carries, and deeper than any guest's client nests.
constexpr size_t kLongestPayload = 65'536;
constexpr int kDeepestPayload = 512;

// The strings of the object that a guest sent, by key. Nothing else of it is kept, so that neither its
// nesting nor its numbers cost anything. Of a key that comes twice the last one counts.
class Strings final : public json::json_sax_t {
 public:
  explicit Strings(const char* data) {
    if (!data || strnlen(data, kLongestPayload + 1) > kLongestPayload || !json::sax_parse(data, this)) {
      strings_.clear();
    }
  }

  // None when it is missing or no string.
  std::optional<std::string> operator[](const char* name) const {
    const auto entry = strings_.find(name);
    return entry == strings_.end() ? std::nullopt : std::optional(entry->second);
  }

  bool key(string_t& name) override {
    if (depth_ == 1) strings_.erase(key_ = std::move(name));
    return true;
  }
  bool string(string_t& value) override {
    if (depth_ == 1) strings_[key_] = std::move(value);
    return true;
  }
  bool start_object(size_t) override { return depth_++ < kDeepestPayload; }
  bool end_object() override { return leave(); }
  // What is no object at the top has no keys, and is let go.
  bool start_array(size_t) override { return depth_ > 0 && depth_++ < kDeepestPayload; }
  bool end_array() override { return leave(); }
  bool null() override { return true; }
  bool boolean(bool) override { return true; }
  bool number_integer(number_integer_t) override { return true; }
  bool number_unsigned(number_unsigned_t) override { return true; }
  bool number_float(number_float_t, const string_t&) override { return true; }
  bool binary(binary_t&) override { return true; }
  bool parse_error(size_t, const std::string&, const json::exception&) override { return false; }

 private:
  bool leave() {
    depth_--;
    return true;
  }

  std::map<std::string, std::string, std::less<>> strings_;
  std::string key_;
  int depth_ = 0;
};

}  // namespace

void ZarvoGuestSession::sendStreamMessage(const std::string& data, const std::string& withSignal) {
  otc_session_send_signal(session, withSignal.c_str(), data.c_str());
}

void ZarvoGuestSession::signalReceived(const char* type, const char* data) {
  if (!type) return;
  if (std::strcmp(type, "chat") == 0) {
    const Strings chat(data);
    chatMessage(chat["text"], chat["name"], chat["uuid"]);
  } else if (std::strcmp(type, "fav") == 0) {
    const Strings fav(data);
    favMessage(fav["uuid"], fav["state"]);
  } else if (std::strcmp(type, "mono") == 0) {
    if (Strings(data)["mono"] == "yes") monoGuest = true;
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
