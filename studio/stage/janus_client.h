// A session of the studio's own with a Janus server.
#pragma once

#include <libsoup/soup.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <string>

#include "stage/loop.h"

namespace studio {

/// One WebSocket, one session, and its handles. Connects as soon as the server listens. For one loop's
/// thread.
class JanusClient {
 public:
  using Json = nlohmann::json;
  using Handle = std::uint64_t;
  /// `data` is the plugin's answer; `fault` says what went wrong, or nothing. May destroy the client.
  using Answer = std::function<void(const Json& data, const std::string& fault)>;
  using Event = std::function<void(const Json& data)>;

  struct Listener {
    std::function<void()> ready;                           ///< once, when the session is there
    std::function<void(const std::string& reason)> ended;  ///< once: not reached in time, or lost
  };

  /// A function of the listener may destroy the client.
  JanusClient(std::string url, Listener listener);
  /// Nothing is called any more; requests under way stay unanswered.
  ~JanusClient();
  JanusClient(const JanusClient&) = delete;
  JanusClient& operator=(const JanusClient&) = delete;

  /// A handle of the plugin ("videoroom", "textroom"); 0 where it was refused. `event` gets what the plugin
  /// says without being asked.
  void attach(const std::string& plugin, std::function<void(Handle)> done, Event event = {});
  void detach(Handle handle);
  /// Answered once, at the latest after ten seconds, while the client lives.
  void request(Handle handle, const Json& body, Answer answer);

 private:
  struct Waiting {
    std::function<void(const Json& message, const std::string& fault)> answer;
    std::chrono::steady_clock::time_point since;
    bool isMessage = false;  // whose bare "ack" is no answer yet
  };

  void connect();
  void onConnected(SoupWebsocketConnection* connection);
  void onMessage(const Json& message);
  void send(Json message, std::function<void(const Json& message, const std::string& fault)> answer);
  void look();
  void end(const std::string& reason);

  std::string url_;
  Listener listener_;
  SoupSession* session_;
  GCancellable* cancellable_;
  SoupWebsocketConnection* connection_ = nullptr;
  std::uint64_t janusSession_ = 0;
  std::uint64_t lastTransaction_ = 0;
  std::map<std::string, Waiting> waiting_;
  std::map<Handle, Event> events_;
  Timer retry_;
  Timer limit_;
  Timer look_;  // for answers that are late, and to keep the session alive
  int looks_ = 0;
};

}  // namespace studio
