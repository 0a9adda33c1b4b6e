#include "stage/relay_rules.h"

#include <algorithm>
#include <array>
#include <nlohmann/json.hpp>
#include <string>

namespace studio {

using nlohmann::json;

namespace {

constexpr std::array<std::string_view, 5> plainVerbs = {"keepalive", "message", "trickle", "hangup",
                                                        "detach"};
constexpr std::array<std::string_view, 2> plugins = {"janus.plugin.videoroom", "janus.plugin.textroom"};

std::string textAt(const json& object, const char* key) {
  const auto found = object.find(key);
  return found != object.end() && found->is_string() ? found->get<std::string>() : std::string();
}

std::uint64_t numberAt(const json& object, const char* key) {
  const auto found = object.find(key);
  return found != object.end() && found->is_number_unsigned() ? found->get<std::uint64_t>() : 0;
}

}  // namespace

bool SeatSessions::full(Time now) {
  std::erase_if(sessions_,
                [now](const auto& each) { return each.second.left && now - *each.second.left > kept; });
  return sessions_.size() >= most;
}

void SeatSessions::begin(std::uint64_t session) {
  sessions_.try_emplace(session);
}

void SeatSessions::claim(std::uint64_t session) {
  sessions_.at(session).left.reset();
}

void SeatSessions::leave(std::uint64_t session, Time now) {
  const auto found = sessions_.find(session);
  if (found != sessions_.end()) found->second.left = now;
}

bool SeatSessions::attach(std::uint64_t session) {
  const auto found = sessions_.find(session);
  if (found == sessions_.end() || found->second.handles >= mostHandles) return false;
  ++found->second.handles;
  return true;
}

void SeatSessions::detached(std::uint64_t session) {
  const auto found = sessions_.find(session);
  if (found != sessions_.end() && found->second.handles > 0) --found->second.handles;
}

bool RelayRules::allows(std::string_view text, Time now) {
  const json message = json::parse(text, nullptr, false);
  if (!message.is_object()) return false;
  const std::string verb = textAt(message, "janus");
  const std::uint64_t session = numberAt(message, "session_id");
  if (verb == "create") {
    if (created_ || session_ != 0 || seat_->full(now)) return false;
    created_ = true;
    return true;
  }
  if (verb == "claim") {
    if (created_ || session_ != 0 || !seat_->has(session)) return false;
    session_ = session;
    seat_->claim(session);
    return true;
  }
  if (session == 0 || session != session_) return false;
  if (verb == "attach") {
    return std::find(plugins.begin(), plugins.end(), textAt(message, "plugin")) != plugins.end() &&
           seat_->attach(session);
  }
  if (verb == "destroy") {
    seat_->end(session);
    return true;
  }
  return std::find(plainVerbs.begin(), plainVerbs.end(), verb) != plainVerbs.end();
}

// The handles are counted by what the server says: a guest may ask it to detach what there never was.
void RelayRules::answered(std::string_view text) {
  const bool begins = created_ && session_ == 0;
  if (!begins && text.find("\"detached\"") == std::string_view::npos) return;
  const json message = json::parse(text, nullptr, false);
  if (!message.is_object()) return;
  const std::string verb = textAt(message, "janus");
  if (verb == "detached") {
    seat_->detached(numberAt(message, "session_id"));
  } else if (begins && verb == "success") {
    const auto data = message.find("data");
    if (data != message.end() && data->is_object()) session_ = numberAt(*data, "id");
    if (session_ != 0) seat_->begin(session_);
  }
}

void RelayRules::leave(Time now) {
  if (session_ != 0) seat_->leave(session_, now);
}

}  // namespace studio
