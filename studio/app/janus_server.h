// The session's server: a Janus of the studio's own, on loopback, with one room.
#pragma once

#include <gio/gio.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "app/main_loop.h"
#include "app/private_directory.h"
#include "app/room_maker.h"

namespace studio {

/// Starts Janus, makes the room, and starts it again where it ends. For the main loop's thread.
class JanusServer {
 public:
  struct Settings {
    std::string program;
    std::uint16_t port = 0;  ///< of its WebSocket on 127.0.0.1; 0 takes a free one
    Room room;
  };

  class Listener {
   public:
    virtual ~Listener() = default;
    /// The room can be entered; once more after each restart.
    virtual void onRoomReady() = 0;
    /// Janus has ended and is being started again.
    virtual void onJanusEnded(const std::string& reason) = 0;
    /// It does not start at all.
    virtual void onJanusFailed(const std::string& reason) = 0;
  };

  JanusServer(Settings settings, Listener& listener);
  /// Ends Janus and waits until it has ended.
  ~JanusServer();
  JanusServer(const JanusServer&) = delete;
  JanusServer& operator=(const JanusServer&) = delete;

  void start();
  std::string url() const;

 private:
  void writeConfiguration();
  void makeRoom();
  void onEnd();
  std::string logTail() const;

  Settings settings_;
  Listener& listener_;
  PrivateDirectory directory_;
  std::string adminKey_;
  GSubprocess* process_ = nullptr;
  GCancellable* watching_ = nullptr;
  std::unique_ptr<RoomMaker> maker_;
  bool served_ = false;  // it has been seen to work
  Timer again_;
};

}  // namespace studio
