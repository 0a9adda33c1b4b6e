// Makes a room at a Janus server.
#pragma once

#include <libsoup/soup.h>

#include <chrono>
#include <functional>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "app/main_loop.h"

namespace studio {

struct Room {
  std::string id;
  std::string secret;               ///< needed to change or to end the room
  std::vector<std::string> tokens;  ///< who shows one of these may enter
};

/// Connects to the server as soon as it listens and makes the room, once. For the main loop's thread.
class RoomMaker {
 public:
  /// `done` is called once, with what went wrong or nothing; it may destroy this object.
  RoomMaker(std::string url, Room room, std::string adminKey, std::function<void(std::string fault)> done);
  ~RoomMaker();
  RoomMaker(const RoomMaker&) = delete;
  RoomMaker& operator=(const RoomMaker&) = delete;

 private:
  void connect();
  void onConnected(SoupWebsocketConnection* connection);
  void onAnswer(const nlohmann::json& answer);
  void ask(nlohmann::json request);
  nlohmann::json roomRequest() const;
  void finish(const std::string& fault);

  std::string url_;
  Room room_;
  std::string adminKey_;
  std::function<void(std::string fault)> done_;
  SoupSession* session_;
  GCancellable* cancellable_;
  SoupWebsocketConnection* connection_ = nullptr;
  int step_ = 0;
  std::uint64_t janusSession_ = 0;
  Timer retry_;
  Timer limit_;
};

}  // namespace studio
