#pragma once

#include <libsoup/soup.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <vector>

#include "engine_thread.h"

namespace engine {

using json = nlohmann::json;

// The string, or object, under a key; empty where the value is anything else. What comes from
// the room may have any shape.
std::string stringAt(const json& object, const char* key);
const json& objectAt(const json& object, const char* key);

// A Janus session over a WebSocket of its own. Lives on the engine's thread.
//
// A WebSocket that breaks is opened again and the session is claimed, for as long as the
// server keeps it; what is asked meanwhile is sent afterwards.
class JanusConnection : public std::enable_shared_from_this<JanusConnection> {
 public:
  class Listener {
   public:
    virtual void janusOpened() = 0;
    // The server was never reached.
    virtual void janusUnreachable(const std::string& reason) = 0;
    virtual void janusLost() = 0;
    virtual void janusRecovered() = 0;
    // The session is lost for good.
    virtual void janusGone(const std::string& reason) = 0;

   protected:
    ~Listener() = default;
  };

  using Handle = std::uint64_t;
  // The final answer: a "success" or "event", or an "error" (also when it never came).
  using Reply = std::function<void(const json& answer)>;
  // What Janus says of a handle unasked.
  using Event = std::function<void(const json& event)>;

  explicit JanusConnection(Listener& listener) : listener_(&listener) {}
  // It is closed by then.
  ~JanusConnection() = default;
  JanusConnection(const JanusConnection&) = delete;
  JanusConnection& operator=(const JanusConnection&) = delete;

  // `server` is a WebSocket's address, ws://host:port.
  void open(const std::string& server);
  // Whether the server is reached just now; while it is not, what is asked waits.
  bool isOpen() const { return state_ == State::open; }
  // Ends the session. The listener and pending replies hear nothing more.
  void close();

  // A request that is not answered within 15 seconds is answered with an error.

  // `attached` gets the handle, or the error with handle 0.
  void attach(const std::string& plugin, Event event,
              std::function<void(Handle handle, const std::string& error)> attached);
  void detach(Handle handle);
  // `jsep` may be null.
  void message(Handle handle, const json& body, const json& jsep, Reply reply);
  void trickle(Handle handle, const json& candidate);

  static bool isError(const json& answer);
  static std::string errorText(const json& answer);

 private:
  enum class State { closed, opening, open, lost, claiming };

  void connect();
  static void connectFinished(GObject* source, GAsyncResult* result, gpointer data);
  void connectFailed(const GError* error);
  void adopt(SoupWebsocketConnection* websocket);
  void dropWebsocket();
  void createOrClaim();
  void websocketLost(const std::string& reason);
  void retryOrGiveUp(const std::string& reason);
  void gone(const std::string& reason);
  void keepAlive();

  struct Pending {
    Reply reply;
    Handle handle = 0;  // 0: of the session itself
    std::int64_t due = 0;
  };

  void request(json message, Reply reply);
  void write(const json& message);
  void received(const std::string& text);
  void answer(const Pending& pending, const json& answer);
  void failPending(const std::string& reason);
  void failOverdue();
  bool awaitsAnswer(Handle handle) const;

  std::string server_;
  Listener* listener_;
  State state_ = State::closed;
  SoupSession* soup_ = nullptr;
  SoupWebsocketConnection* websocket_ = nullptr;
  GCancellable* connecting_ = nullptr;
  std::uint64_t session_ = 0;
  std::uint64_t lastTransaction_ = 0;
  std::string handshake_;  // the transaction that creates or claims the session
  std::map<std::string, Pending> pending_;
  std::set<Handle> leaving_;  // to be detached when what was asked of them has been answered
  std::map<Handle, Event> events_;
  std::vector<json> waiting_;  // to be sent once the session is claimed
  std::int64_t lostAt_ = 0;
  Timer keepAlive_;
  Timer answerDeadline_;
  Timer retry_;
};

}  // namespace engine
