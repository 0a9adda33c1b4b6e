// The session server: a Janus of the studio's own, on loopback.
#pragma once

#include <gio/gio.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "stage/loop.h"
#include "stage/private_directory.h"
#include "stage/rooms.h"

namespace studio {

/// Starts Janus, without any room, and starts it again where it ends. For one loop's thread.
class JanusServer {
 public:
  struct Settings {
    std::string program;
    std::uint16_t port = 0;  ///< of its WebSocket on 127.0.0.1; 0 takes a free one
  };

  class Listener {
   public:
    virtual ~Listener() = default;
    /// Rooms can be made; anew after each restart. `rooms` is valid until Janus has ended.
    virtual void onServing(Rooms& rooms) = 0;
    /// Janus has ended, and all rooms with it; it is being started again.
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
  void look();
  void onEnd();
  std::string logTail() const;

  Settings settings_;
  Listener& listener_;
  PrivateDirectory directory_;
  std::string adminKey_;
  GSubprocess* process_ = nullptr;
  GCancellable* watching_ = nullptr;
  std::unique_ptr<Rooms> rooms_;
  Loop loop_;
  bool served_ = false;  // it has been seen to work
  Timer again_;
};

}  // namespace studio
