#pragma once

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "access.h"
#include "callback_scope.h"
#include "engine_thread.h"
#include "janus_connection.h"
#include "publisher.h"
#include "room.h"
#include "signals.h"
#include "subscriber.h"

namespace engine {
class Session;
}

// What the program holds of a session. It outlives the session by the rest of the process, so that
// a call that comes too late finds that out and harms nothing.
struct otc_session {
  std::mutex mutex;
  std::shared_ptr<engine::Session> session;
};

namespace engine {

// A participant of a room: its connection, who else is there, the signals, what is received and
// what is published. Lives on the engine's thread; its callbacks come on that thread.
class Session final : public std::enable_shared_from_this<Session>,
                      private JanusConnection::Listener,
                      private Room::Listener,
                      private Signals::Listener {
 public:
  Session(otc_session* handle, const otc_session_callbacks& callbacks, std::string id);

  const std::string& id() const { return id_; }

  // `token` is one, or an object as Access takes it.
  void connect(const std::string& token);
  // No callback of the session's begins after this. Any thread.
  void silence() { closed_ = true; }
  // Leaves. No callback of the session's, its subscribers' or publishers' runs after it.
  void close();

  // Takes a message of Signals::encode.
  void sendSignal(const std::string& message);
  void subscribe(otc_subscriber& subscriber);
  void unsubscribe(otc_subscriber& subscriber);
  // Publishes as soon as the session is connected.
  void publish(otc_publisher& publisher);
  void unpublish(otc_publisher& publisher);

 private:
  void janusOpened() override;
  void janusUnreachable(const std::string& reason) override;
  void janusLost() override;
  void janusRecovered() override;
  void janusGone(const std::string& reason) override;

  void connectionCreated(const otc_connection& connection) override;
  void connectionDropped(const otc_connection& connection) override;
  void streamReceived(const otc_stream& stream) override;
  void streamDropped(const otc_stream& stream) override;
  void hasAudioChanged(const otc_stream& stream) override;
  void hasVideoChanged(const otc_stream& stream) override;
  void signalReceived(const std::string& type, const std::string& data, const std::string& from) override;
  void signalsOpened() override;

  void join(JanusConnection::Handle handle);
  void joined(const json& data);
  void announce();
  void takeList(const json& data);
  void roomEvent(const json& event);
  void learnWhatWasMissed();
  void fail(int code, const std::string& text);
  void disconnected(const std::string& reason);
  void end();

  template <typename... Parameters, typename... Arguments>
  void call(void (*callback)(otc_session*, void*, Parameters...), Arguments... arguments) {
    if (closed_) return;
    const CallbackScope scope;
    callback(handle_, callbacks_.user_data, arguments...);
  }

  otc_session* const handle_;
  const otc_session_callbacks callbacks_;
  const std::string id_;
  std::string server_;
  Access access_;
  std::atomic<bool> closed_{false};
  bool joined_ = false;
  int joinsUnderWay_ = 0;
  std::vector<json> eventsSinceJoin_;  // while a join is under way
  // Who was in the room as we came, until it is told of; the join counts as under way as long.
  std::optional<json> firstList_;
  Timer announceDeadline_;
  std::shared_ptr<JanusConnection> janus_;
  Room room_;
  Signals signals_;
  std::map<otc_subscriber*, std::unique_ptr<Subscription>> subscriptions_;
  std::map<otc_publisher*, std::unique_ptr<Publication>> publications_;  // null: waits for the connection
};

}  // namespace engine
