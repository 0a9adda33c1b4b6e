#include "janus_connection.h"

#include <algorithm>
#include <utility>

#include "janus_farewell.h"
#include "log.h"

namespace engine {
namespace {

using namespace std::chrono_literals;

// A server that is reached answers a handshake or a request within this time.
constexpr auto answerTime = 5s;
// A plugin that does not answer a request by then does not answer at all.
constexpr auto longestAnswerTime = 15s;
// How often the server is asked for a sign of life. It forgets a session that is silent for a minute.
constexpr auto keepAliveInterval = 5s;
constexpr auto retryInterval = 500ms;
// As long as a server keeps a session that has lost its WebSocket (reclaim_session_timeout).
constexpr auto giveUpTime = 30s;
// The list of all who are in a large room, with what guests choose to call themselves.
constexpr std::size_t longestMessage = std::size_t{16} << 20;
constexpr std::size_t mostWaiting = 1024;
constexpr const char* keepAliveTransaction = "keepalive";

json errorAnswer(const std::string& reason) {
  return {{"janus", "error"}, {"error", {{"code", 0}, {"reason", reason}}}};
}

}  // namespace

std::string stringAt(const json& object, const char* key) {
  if (!object.is_object()) return {};
  const auto value = object.find(key);
  return value != object.end() && value->is_string() ? value->get<std::string>() : std::string();
}

const json& objectAt(const json& object, const char* key) {
  static const json& empty = *new json(json::object());
  if (!object.is_object()) return empty;
  const auto value = object.find(key);
  return value != object.end() ? *value : empty;
}

void JanusConnection::open(const std::string& server) {
  if (state_ != State::closed) return;
  server_ = server;
  soup_ = soup_session_new();
  state_ = State::opening;
  connect();
}

void JanusConnection::close() {
  if (state_ == State::closed) return;
  if (state_ == State::open) {
    std::set<std::string> atWork;
    for (const auto& [transaction, pending] : pending_) {
      if (pending.handle != 0) atWork.insert(transaction);
    }
    g_signal_handlers_disconnect_by_data(websocket_, this);
    destroyWhenAnswered(std::exchange(websocket_, nullptr), session_, std::move(atWork));
  }
  pending_.clear();
  events_.clear();
  waiting_.clear();
  leaving_.clear();
  state_ = State::closed;
  session_ = 0;
  dropWebsocket();
  keepAlive_.stop();
  answerDeadline_.stop();
  retry_.stop();
  if (connecting_ != nullptr) g_cancellable_cancel(connecting_);
  g_clear_object(&connecting_);
  g_clear_object(&soup_);
}

void JanusConnection::connect() {
  connecting_ = g_cancellable_new();
  answerDeadline_.once(answerTime, [this] { g_cancellable_cancel(connecting_); });
  SoupMessage* message = soup_message_new(SOUP_METHOD_GET, server_.c_str());
  if (message == nullptr) {
    retry_.once(0ms, [this] { retryOrGiveUp("the address is not of the form ws://host:port"); });
    return;
  }
  char protocol[] = "janus-protocol";
  char* protocols[] = {protocol, nullptr};
  // The answer may come after this object has gone: it is then dropped.
  soup_session_websocket_connect_async(soup_, message, nullptr, protocols, G_PRIORITY_DEFAULT, connecting_,
                                       &JanusConnection::connectFinished,
                                       new std::weak_ptr<JanusConnection>(weak_from_this()));
  g_object_unref(message);
}

void JanusConnection::connectFinished(GObject* source, GAsyncResult* result, gpointer data) {
  const std::unique_ptr<std::weak_ptr<JanusConnection>> weak(
      static_cast<std::weak_ptr<JanusConnection>*>(data));
  GError* error = nullptr;
  SoupWebsocketConnection* websocket =
      soup_session_websocket_connect_finish(SOUP_SESSION(source), result, &error);
  const std::shared_ptr<JanusConnection> self = weak->lock();
  if (self == nullptr || self->state_ == State::closed) {
    g_clear_object(&websocket);
  } else {
    g_clear_object(&self->connecting_);
    if (websocket != nullptr) {
      self->adopt(websocket);
    } else {
      self->connectFailed(error);
    }
  }
  g_clear_error(&error);
}

void JanusConnection::connectFailed(const GError* error) {
  if (error->domain == G_IO_ERROR &&
      (error->code == G_IO_ERROR_PROXY_FAILED || error->code == G_IO_ERROR_PROXY_AUTH_FAILED ||
       error->code == G_IO_ERROR_PROXY_NEED_AUTH || error->code == G_IO_ERROR_PROXY_NOT_ALLOWED)) {
    logWarning("Proxy connection failed code {}: {}", error->code, error->message);
  }
  const bool timedOut = g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CANCELLED) != FALSE;
  retryOrGiveUp(timedOut ? "no answer" : error->message);
}

void JanusConnection::adopt(SoupWebsocketConnection* websocket) {
  websocket_ = websocket;
  soup_websocket_connection_set_max_incoming_payload_size(websocket_, longestMessage);
  g_signal_connect(websocket_, "message",
                   G_CALLBACK(+[](SoupWebsocketConnection*, int, GBytes* bytes, JanusConnection* self) {
                     gsize size = 0;
                     const auto* text = static_cast<const char*>(g_bytes_get_data(bytes, &size));
                     const std::shared_ptr<JanusConnection> keep = self->shared_from_this();
                     self->received(std::string(text, size));
                   }),
                   this);
  g_signal_connect(websocket_, "closed", G_CALLBACK(+[](SoupWebsocketConnection*, JanusConnection* self) {
                     const std::shared_ptr<JanusConnection> keep = self->shared_from_this();
                     self->websocketLost("the server closed the connection");
                   }),
                   this);
  createOrClaim();
}

void JanusConnection::dropWebsocket() {
  pending_.erase(handshake_);
  if (websocket_ == nullptr) return;
  SoupWebsocketConnection* websocket = std::exchange(websocket_, nullptr);
  g_signal_handlers_disconnect_by_data(websocket, this);
  closeWebsocket(websocket);
}

void JanusConnection::createOrClaim() {
  answerDeadline_.once(answerTime, [this] { websocketLost("no answer"); });
  if (session_ == 0) {
    request({{"janus", "create"}}, [this](const json& answer) {
      answerDeadline_.stop();
      const json& id = objectAt(objectAt(answer, "data"), "id");
      if (isError(answer) || !id.is_number_unsigned()) {
        retryOrGiveUp(errorText(answer));
        return;
      }
      session_ = id.get<std::uint64_t>();
      state_ = State::open;
      keepAlive_.every(keepAliveInterval, [this] { keepAlive(); });
      listener_->janusOpened();
    });
    return;
  }
  state_ = State::claiming;
  request({{"janus", "claim"}}, [this](const json& answer) {
    answerDeadline_.stop();
    if (isError(answer)) {
      gone("the server has forgotten the session (" + errorText(answer) + ")");
      return;
    }
    state_ = State::open;
    keepAlive_.every(keepAliveInterval, [this] { keepAlive(); });
    for (const json& message : std::exchange(waiting_, {})) write(message);
    listener_->janusRecovered();
  });
}

void JanusConnection::websocketLost(const std::string& reason) {
  const bool wasOpen = state_ == State::open;
  dropWebsocket();
  keepAlive_.stop();
  answerDeadline_.stop();
  // What was asked on the lost WebSocket may have been done or not; who asked must know.
  if (wasOpen) {
    state_ = State::lost;
    lostAt_ = g_get_monotonic_time();
    logWarning("The connection to {} is lost: {}. Claiming the session again.", server_, reason);
    failPending("the connection is lost");
    if (state_ != State::lost) return;
    listener_->janusLost();
    if (state_ != State::lost) return;
    retry_.once(0ms, [this] { connect(); });
  } else {
    retryOrGiveUp(reason);
  }
}

void JanusConnection::retryOrGiveUp(const std::string& reason) {
  answerDeadline_.stop();
  g_clear_object(&connecting_);
  dropWebsocket();
  if (session_ == 0) {
    Listener* listener = listener_;
    close();
    listener->janusUnreachable(reason);
    return;
  }
  state_ = State::lost;
  const auto lostFor = std::chrono::microseconds(g_get_monotonic_time() - lostAt_);
  if (lostFor >= giveUpTime) {
    gone("the server was not reached again: " + reason);
    return;
  }
  retry_.once(retryInterval, [this] { connect(); });
}

void JanusConnection::gone(const std::string& reason) {
  failPending(reason);
  if (state_ == State::closed) return;
  Listener* listener = listener_;
  close();
  listener->janusGone(reason);
}

void JanusConnection::keepAlive() {
  const std::shared_ptr<JanusConnection> keep = shared_from_this();
  failOverdue();
  if (state_ != State::open) return;
  write({{"janus", "keepalive"}, {"session_id", session_}, {"transaction", keepAliveTransaction}});
  if (!answerDeadline_.running()) {
    answerDeadline_.once(answerTime, [this] { websocketLost("no answer"); });
  }
}

void JanusConnection::attach(const std::string& plugin, Event event,
                             std::function<void(Handle, const std::string&)> attached) {
  request({{"janus", "attach"}, {"plugin", plugin}},
          [this, event = std::move(event), attached = std::move(attached)](const json& answer) {
            const json& id = objectAt(objectAt(answer, "data"), "id");
            if (isError(answer) || !id.is_number_unsigned()) {
              attached(0, errorText(answer));
              return;
            }
            const auto handle = id.get<Handle>();
            events_[handle] = event;
            attached(handle, {});
          });
}

// Not while the plugin is at work for it: Janus 1.1 may then use what it has freed.
void JanusConnection::detach(Handle handle) {
  if (events_.erase(handle) == 0) return;
  if (awaitsAnswer(handle)) {
    leaving_.insert(handle);
  } else {
    request({{"janus", "detach"}, {"handle_id", handle}}, {});
  }
}

bool JanusConnection::awaitsAnswer(Handle handle) const {
  return std::any_of(pending_.begin(), pending_.end(),
                     [handle](const auto& entry) { return entry.second.handle == handle; });
}

void JanusConnection::message(Handle handle, const json& body, const json& jsep, Reply reply) {
  json message = {{"janus", "message"}, {"handle_id", handle}, {"body", body}};
  if (!jsep.is_null()) message["jsep"] = jsep;
  request(std::move(message), std::move(reply));
}

void JanusConnection::trickle(Handle handle, const json& candidate) {
  request({{"janus", "trickle"}, {"handle_id", handle}, {"candidate", candidate}}, {});
}

void JanusConnection::request(json message, Reply reply) {
  if (state_ == State::closed) return;
  const std::string transaction = std::to_string(++lastTransaction_);
  message["transaction"] = transaction;
  if (session_ != 0) message["session_id"] = session_;
  if (reply) {
    const json& handle = objectAt(message, "handle_id");
    pending_[transaction] = {std::move(reply), handle.is_number_unsigned() ? handle.get<Handle>() : 0,
                             g_get_monotonic_time() + std::chrono::microseconds(longestAnswerTime).count()};
  }
  const bool forSession = message["janus"] != "create" && message["janus"] != "claim";
  if (!forSession) handshake_ = transaction;
  if (forSession && (state_ == State::lost || state_ == State::claiming)) {
    // What finds no place is answered as overdue.
    if (waiting_.size() < mostWaiting) waiting_.push_back(std::move(message));
    return;
  }
  write(message);
}

void JanusConnection::write(const json& message) {
  if (websocket_ == nullptr || soup_websocket_connection_get_state(websocket_) != SOUP_WEBSOCKET_STATE_OPEN) {
    return;
  }
  const std::string text = message.dump(-1, ' ', false, json::error_handler_t::replace);
  soup_websocket_connection_send_text(websocket_, text.c_str());
}

void JanusConnection::received(const std::string& text) {
  const json message = json::parse(text, nullptr, false);
  const std::string kind = stringAt(message, "janus");
  if (state_ == State::open) answerDeadline_.stop();
  if (kind == "ack" || kind == "keepalive") return;

  const auto pending = pending_.find(stringAt(message, "transaction"));
  if (pending != pending_.end()) {
    const Pending answered = std::move(pending->second);
    pending_.erase(pending);
    answer(answered, message);
    return;
  }
  if (kind == "error" && stringAt(message, "transaction") == keepAliveTransaction) {
    gone("the server has forgotten the session (" + errorText(message) + ")");
    return;
  }
  if (kind == "timeout") {
    gone("the server let the session time out");
    return;
  }
  const json& sender = objectAt(message, "sender");
  if (!sender.is_number_unsigned()) return;
  const auto event = events_.find(sender.get<Handle>());
  if (event == events_.end()) return;
  const Event call = event->second;
  call(message);
}

// The request is no longer among those that wait.
void JanusConnection::answer(const Pending& pending, const json& answer) {
  pending.reply(answer);
  if (!awaitsAnswer(pending.handle) && leaving_.erase(pending.handle) != 0) {
    request({{"janus", "detach"}, {"handle_id", pending.handle}}, {});
  }
}

void JanusConnection::failPending(const std::string& reason) {
  const json answer = errorAnswer(reason);
  for (const auto& [transaction, pending] : std::exchange(pending_, {})) this->answer(pending, answer);
}

void JanusConnection::failOverdue() {
  const std::int64_t now = g_get_monotonic_time();
  std::vector<Pending> overdue;
  std::erase_if(pending_, [&](auto& entry) {
    if (entry.second.due > now) return false;
    overdue.push_back(std::move(entry.second));
    return true;
  });
  for (const Pending& pending : overdue) answer(pending, errorAnswer("the server does not answer"));
}

bool JanusConnection::isError(const json& answer) {
  return stringAt(answer, "janus") == "error" ||
         objectAt(objectAt(objectAt(answer, "plugindata"), "data"), "error_code").is_number();
}

std::string JanusConnection::errorText(const json& answer) {
  std::string reason = stringAt(objectAt(answer, "error"), "reason");
  if (!reason.empty()) return reason;
  std::string error = stringAt(objectAt(objectAt(answer, "plugindata"), "data"), "error");
  if (error.empty()) return "an answer that is not understood";
  return error;
}

}  // namespace engine
