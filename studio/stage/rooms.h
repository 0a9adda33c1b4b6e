// The rooms of a session server, made and ended.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "stage/janus_client.h"

namespace studio {

/// A room is there twice under one id: in VideoRoom for streams and in TextRoom for signals.
struct Room {
  std::string id;
  std::string secret;               ///< needed to change or to end the room
  std::vector<std::string> tokens;  ///< who shows one of these may publish
  std::string pin;                  ///< whoever enters is asked for it; empty: nobody is
  int publishers = 8;               ///< at once: a guest's camera and screen, the service, and who comes back

  /// A room that nobody can guess, with that many tokens.
  static Room unguessable(std::size_t tokens);
};

/// The studio's hand on one server's rooms. For one loop's thread.
class Rooms {
 public:
  /// Called once, with what went wrong or nothing; not at all after the end of this object.
  using Done = std::function<void(const std::string& fault)>;

  /// `ready` and `ended` as those of JanusClient.
  Rooms(std::string url, std::string adminKey, JanusClient::Listener listener);

  void make(const Room& room, Done done);
  /// Whoever is in the room is put out of it.
  void end(const Room& room, Done done = {});
  /// Whoever enters from now on is asked for `pin`; who is in stays in. `room` has the pin until now.
  void changePin(const Room& room, const std::string& pin, Done done);
  /// Puts out whoever is no guest: what a service that was killed left behind.
  void evictService(const Room& room, Done done);

  /// A look at who publishes in a room, for as long as it is kept; see watch().
  class Watch {
   public:
    ~Watch();
    Watch(const Watch&) = delete;
    Watch& operator=(const Watch&) = delete;

   private:
    friend class Rooms;
    using Feed = std::optional<std::string>;
    Watch(Rooms& rooms, std::string name, std::function<void(const Feed&)> news);
    void onEvent(const JanusClient::Json& data);

    Rooms& rooms_;
    std::string name_;
    std::function<void(const Feed&)> news_;
    JanusClient::Handle handle_ = 0;
    Feed feed_;
    std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
  };
  /// `news` gets the id of the newest publisher called `name` in the room, or nothing while there is none:
  /// at once where there is one, and at every change, until the watch is destroyed, which must be before this
  /// object. The watch itself publishes nothing; it needs one of the room's tokens, and the pin.
  std::unique_ptr<Watch> watch(const Room& room, std::string name,
                               std::function<void(const std::optional<std::string>& feed)> news);

 private:
  using Json = JanusClient::Json;

  void inBoth(const Json& video, const Json& text, Done done);

  std::string adminKey_;
  JanusClient::Handle video_ = 0;
  JanusClient::Handle text_ = 0;
  std::function<void()> ready_;
  JanusClient client_;
};

}  // namespace studio
