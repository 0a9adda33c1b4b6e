#pragma once

#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <vector>

#include "stream.h"

namespace engine {

// Who is in the room and what they publish, as the VideoRoom tells it. Takes whatever the room
// says, of any shape, and reports each change once.
class Room {
 public:
  class Listener {
   public:
    virtual void connectionCreated(const otc_connection& connection) = 0;
    virtual void connectionDropped(const otc_connection& connection) = 0;
    virtual void streamReceived(const otc_stream& stream) = 0;
    virtual void streamDropped(const otc_stream& stream) = 0;
    virtual void hasAudioChanged(const otc_stream& stream) = 0;
    virtual void hasVideoChanged(const otc_stream& stream) = 0;

   protected:
    ~Listener() = default;
  };

  explicit Room(Listener& listener) : listener_(listener) {}

  // A participant with this id is ourselves and is not reported.
  void addOwnId(const std::string& id) { ownIds_.insert(id); }

  // The answer to a join: who is there already. What was known before and is not in it is dropped. The server
  // sends events as they happen and the answer when it gets to it: what happened since the join was asked for
  // counts as later than the answer.
  void joined(nlohmann::json data, const std::vector<nlohmann::json>& eventsSince);
  // An event of the VideoRoom's.
  void event(const nlohmann::json& data);

  // Null where there is none. A connection lives as long as the room, also one that was dropped.
  const otc_connection* connection(const std::string& id) const;
  const otc_stream* stream(const std::string& id) const;

 private:
  struct Participant {
    otc_connection connection;
    bool present = false;
  };

  otc_connection& arrived(const std::string& id);
  void left(const std::string& id);
  void published(const nlohmann::json& publisher);
  void unpublished(const std::string& id);

  Listener& listener_;
  std::set<std::string> ownIds_;
  std::map<std::string, Participant> participants_;
  std::map<std::string, otc_stream> streams_;
};

}  // namespace engine
