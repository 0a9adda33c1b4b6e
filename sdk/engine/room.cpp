#include "room.h"

#include <algorithm>
#include <charconv>
#include <set>
#include <sstream>
#include <utility>
#include <vector>

#include "janus_connection.h"

namespace engine {
namespace {

// Longer ids are nobody's; longer names are cut.
constexpr std::size_t longestText = 256;

std::string nameOf(const json& publisher) {
  std::string name = stringAt(publisher, "display");
  if (name.size() <= longestText) return name;
  // Not within a character: in UTF-8 those of one that follow the first begin with the bits 10.
  std::size_t end = longestText;
  while (end > 0 && (static_cast<unsigned char>(name[end]) & 0xC0U) == 0x80U) --end;
  name.resize(end);
  return name;
}

bool isId(const std::string& text) {
  return !text.empty() && text.size() <= longestText;
}

// The elements of the array under a key that are objects with an id.
std::vector<json> listed(const json& data, const char* key) {
  std::vector<json> elements;
  const json& array = objectAt(data, key);
  if (!array.is_array()) return elements;
  for (const json& element : array) {
    if (isId(stringAt(element, "id"))) elements.push_back(element);
  }
  return elements;
}

// Takes out whoever has the id, if it is one.
void without(json& list, const std::string& id) {
  if (id.empty()) return;
  list.erase(
      std::remove_if(list.begin(), list.end(), [&](const json& one) { return stringAt(one, "id") == id; }),
      list.end());
}

// "1280x720"
bool parseSize(const std::string& word, int& width, int& height) {
  constexpr int largest = 16384;
  const char* end = word.data() + word.size();
  int w = 0;
  int h = 0;
  const auto first = std::from_chars(word.data(), end, w);
  if (first.ec != std::errc() || first.ptr == end || *first.ptr != 'x') return false;
  const auto second = std::from_chars(first.ptr + 1, end, h);
  if (second.ec != std::errc() || second.ptr != end) return false;
  if (w < 0 || h < 0 || w > largest || h > largest) return false;
  width = w;
  height = h;
  return true;
}

// What a publisher's media descriptions say of its stream; README.md has their form.
void describe(const json& media, otc_stream& stream) {
  if (!media.is_array()) return;
  for (const json& medium : media) {
    const std::string type = stringAt(medium, "type");
    const bool disabled = objectAt(medium, "disabled") == json(true);
    bool sent = !disabled;
    std::istringstream words(stringAt(medium, "description"));
    for (std::string word; words >> word;) {
      if (word == "off") {
        sent = false;
      } else if (type == "video" && word == "screen") {
        stream.videoType = OTC_STREAM_VIDEO_TYPE_SCREEN;
      } else if (type == "video") {
        parseSize(word, stream.width, stream.height);
      }
    }
    if (type == "video") stream.hasVideo = sent;
    if (type == "audio") stream.hasAudio = sent;
  }
}

}  // namespace

void Room::joined(json data, const std::vector<json>& eventsSince) {
  if (!data.is_object()) data = json::object();
  for (const char* list : {"publishers", "attendees"}) {
    if (!data[list].is_array()) data[list] = json::array();
  }
  for (const json& event : eventsSince) {
    for (const json& publisher : listed(event, "publishers")) data["publishers"].push_back(publisher);
    data["attendees"].push_back(objectAt(event, "joining"));  // without an id it is nobody
    without(data["publishers"], stringAt(event, "unpublished"));
    for (const char* list : {"publishers", "attendees"}) without(data[list], stringAt(event, "leaving"));
  }
  const std::vector<json> publishers = listed(data, "publishers");
  std::set<std::string> present;
  std::set<std::string> publishing;
  for (const json& participant : listed(data, "attendees")) present.insert(stringAt(participant, "id"));
  for (const json& publisher : publishers) {
    present.insert(stringAt(publisher, "id"));
    publishing.insert(stringAt(publisher, "id"));
  }
  std::vector<std::string> gone;
  for (const auto& [id, stream] : streams_) {
    if (!publishing.contains(id)) gone.push_back(id);
  }
  for (const std::string& id : std::exchange(gone, {})) unpublished(id);
  for (const auto& [id, participant] : participants_) {
    if (participant.present && !present.contains(id)) gone.push_back(id);
  }
  for (const std::string& id : gone) left(id);

  for (const std::string& id : present) {
    if (!ownIds_.contains(id)) arrived(id);
  }
  for (const json& publisher : publishers) published(publisher);
}

void Room::event(const json& data) {
  if (stringAt(data, "videoroom") != "event") return;
  const std::string joining = stringAt(objectAt(data, "joining"), "id");
  if (isId(joining) && !ownIds_.contains(joining)) arrived(joining);
  for (const json& publisher : listed(data, "publishers")) published(publisher);
  const std::string stopped = stringAt(data, "unpublished");
  if (!stopped.empty()) unpublished(stopped);
  const std::string leaving = stringAt(data, "leaving");
  if (!leaving.empty()) left(leaving);
  const auto renamed = streams_.find(stringAt(data, "id"));
  if (renamed != streams_.end() && objectAt(data, "display").is_string()) renamed->second.name = nameOf(data);
}

const otc_connection* Room::connection(const std::string& id) const {
  const auto found = participants_.find(id);
  return found == participants_.end() ? nullptr : &found->second.connection;
}

const otc_stream* Room::stream(const std::string& id) const {
  const auto found = streams_.find(id);
  return found == streams_.end() ? nullptr : &found->second;
}

otc_connection& Room::arrived(const std::string& id) {
  Participant& participant = participants_[id];
  if (!participant.present) {
    participant.present = true;
    participant.connection.id = id;
    listener_.connectionCreated(participant.connection);
  }
  return participant.connection;
}

void Room::left(const std::string& id) {
  unpublished(id);
  const auto found = participants_.find(id);
  if (found == participants_.end() || !found->second.present) return;
  found->second.present = false;
  listener_.connectionDropped(found->second.connection);
}

void Room::published(const json& publisher) {
  const std::string id = stringAt(publisher, "id");
  if (ownIds_.contains(id)) return;
  otc_stream stream;
  stream.id = id;
  stream.name = nameOf(publisher);
  stream.connection = &arrived(id);
  describe(objectAt(publisher, "streams"), stream);

  const auto [known, isNew] = streams_.try_emplace(id, stream);
  if (isNew) {
    listener_.streamReceived(known->second);
    return;
  }
  const otc_stream before = std::exchange(known->second, stream);
  if (before.hasAudio != stream.hasAudio) listener_.hasAudioChanged(known->second);
  if (before.hasVideo != stream.hasVideo) listener_.hasVideoChanged(known->second);
}

void Room::unpublished(const std::string& id) {
  const auto found = streams_.find(id);
  if (found == streams_.end()) return;
  const otc_stream stream = std::move(found->second);
  streams_.erase(found);
  listener_.streamDropped(stream);
}

}  // namespace engine
