#include "janus_connection.h"

#include <algorithm>
#include <utility>

#include "janus_farewell.h"
#include "log.h"

namespace engine {
namespace {

using namespace std::chrono_literals;

// A server that is reached answers a handshake or a request within this time.
constexpr auto answer_time = 5s;
// A plugin that does not answer a request by then does not answer at all.
constexpr auto longest_answer_time = 15s;
// How often the server is asked for a sign of life. It forgets a session that is silent for a minute.
constexpr auto keep_alive_interval = 5s;
constexpr auto retry_interval = 500ms;
// As long as a server keeps a session that has lost its WebSocket (reclaim_session_timeout).
constexpr auto give_up_time = 30s;
// The list of all who are in a large room, with what guests choose to call themselves.
constexpr std::size_t longest_message = std::size_t{16} << 20;
constexpr std::size_t most_waiting = 1024;
constexpr const char* keep_alive_transaction = "keepalive";

json error_answer(const std::string& reason) {
  return {{"janus", "error"}, {"error", {{"code", 0}, {"reason", reason}}}};
}

}  // namespace

std::string string_at(const json& object, const char* key) {
  if (!object.is_object()) return {};
  const auto value = object.find(key);
  return value != object.end() && value->is_string() ? value->get<std::string>() : std::string();
}

const json& object_at(const json& object, const char* key) {
  static const json& empty = *new json(json::object());
  if (!object.is_object()) return empty;
  const auto value = object.find(key);
  return value != object.end() ? *value : empty;
}

JanusConnection::JanusConnection(std::string server, Listener& listener)
    : server_(std::move(server)), listener_(&listener) {}

void JanusConnection::open() {
  if (state_ != State::closed) return;
  soup_ = soup_session_new();
  state_ = State::opening;
  connect();
}

void JanusConnection::close() {
  if (state_ == State::closed) return;
  if (state_ == State::open) {
    std::set<std::string> at_work;
    for (const auto& [transaction, pending] : pending_) {
      if (pending.handle != 0) at_work.insert(transaction);
    }
    g_signal_handlers_disconnect_by_data(websocket_, this);
    destroy_when_answered(std::exchange(websocket_, nullptr), session_, std::move(at_work));
  }
  pending_.clear();
  events_.clear();
  waiting_.clear();
  leaving_.clear();
  state_ = State::closed;
  session_ = 0;
  drop_websocket();
  keep_alive_.stop();
  answer_deadline_.stop();
  retry_.stop();
  if (connecting_ != nullptr) g_cancellable_cancel(connecting_);
  g_clear_object(&connecting_);
  g_clear_object(&soup_);
}

void JanusConnection::connect() {
  connecting_ = g_cancellable_new();
  answer_deadline_.once(answer_time, [this] { g_cancellable_cancel(connecting_); });
  SoupMessage* message = soup_message_new(SOUP_METHOD_GET, server_.c_str());
  if (message == nullptr) {
    retry_.once(0ms, [this] { retry_or_give_up("the address is not of the form ws://host:port"); });
    return;
  }
  char protocol[] = "janus-protocol";
  char* protocols[] = {protocol, nullptr};
  // The answer may come after this object has gone: it is then dropped.
  soup_session_websocket_connect_async(soup_, message, nullptr, protocols, G_PRIORITY_DEFAULT, connecting_,
                                       &JanusConnection::connect_finished,
                                       new std::weak_ptr<JanusConnection>(weak_from_this()));
  g_object_unref(message);
}

void JanusConnection::connect_finished(GObject* source, GAsyncResult* result, gpointer data) {
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
      self->connect_failed(error);
    }
  }
  g_clear_error(&error);
}

void JanusConnection::connect_failed(const GError* error) {
  if (error->domain == G_IO_ERROR &&
      (error->code == G_IO_ERROR_PROXY_FAILED || error->code == G_IO_ERROR_PROXY_AUTH_FAILED ||
       error->code == G_IO_ERROR_PROXY_NEED_AUTH || error->code == G_IO_ERROR_PROXY_NOT_ALLOWED)) {
    log_warning("Proxy connection failed code {}: {}", error->code, error->message);
  }
  const bool timed_out = g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CANCELLED) != FALSE;
  retry_or_give_up(timed_out ? "no answer" : error->message);
}

void JanusConnection::adopt(SoupWebsocketConnection* websocket) {
  websocket_ = websocket;
  soup_websocket_connection_set_max_incoming_payload_size(websocket_, longest_message);
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
                     self->websocket_lost("the server closed the connection");
                   }),
                   this);
  create_or_claim();
}

void JanusConnection::drop_websocket() {
  pending_.erase(handshake_);
  if (websocket_ == nullptr) return;
  SoupWebsocketConnection* websocket = std::exchange(websocket_, nullptr);
  g_signal_handlers_disconnect_by_data(websocket, this);
  close_websocket(websocket);
}

void JanusConnection::create_or_claim() {
  answer_deadline_.once(answer_time, [this] { websocket_lost("no answer"); });
  if (session_ == 0) {
    request({{"janus", "create"}}, [this](const json& answer) {
      answer_deadline_.stop();
      const json& id = object_at(object_at(answer, "data"), "id");
      if (is_error(answer) || !id.is_number_unsigned()) {
        retry_or_give_up(error_text(answer));
        return;
      }
      session_ = id.get<std::uint64_t>();
      state_ = State::open;
      keep_alive_.every(keep_alive_interval, [this] { keep_alive(); });
      listener_->janus_opened();
    });
    return;
  }
  state_ = State::claiming;
  request({{"janus", "claim"}}, [this](const json& answer) {
    answer_deadline_.stop();
    if (is_error(answer)) {
      gone("the server has forgotten the session (" + error_text(answer) + ")");
      return;
    }
    state_ = State::open;
    keep_alive_.every(keep_alive_interval, [this] { keep_alive(); });
    for (const json& message : std::exchange(waiting_, {})) write(message);
    listener_->janus_recovered();
  });
}

void JanusConnection::websocket_lost(const std::string& reason) {
  const bool was_open = state_ == State::open;
  drop_websocket();
  keep_alive_.stop();
  answer_deadline_.stop();
  // What was asked on the lost WebSocket may have been done or not; who asked must know.
  if (was_open) {
    state_ = State::lost;
    lost_at_ = g_get_monotonic_time();
    log_warning("The connection to {} is lost: {}. Claiming the session again.", server_, reason);
    fail_pending("the connection is lost");
    if (state_ != State::lost) return;
    listener_->janus_lost();
    if (state_ != State::lost) return;
    retry_.once(0ms, [this] { connect(); });
  } else {
    retry_or_give_up(reason);
  }
}

void JanusConnection::retry_or_give_up(const std::string& reason) {
  answer_deadline_.stop();
  g_clear_object(&connecting_);
  drop_websocket();
  if (session_ == 0) {
    Listener* listener = listener_;
    close();
    listener->janus_unreachable(reason);
    return;
  }
  state_ = State::lost;
  const auto lost_for = std::chrono::microseconds(g_get_monotonic_time() - lost_at_);
  if (lost_for >= give_up_time) {
    gone("the server was not reached again: " + reason);
    return;
  }
  retry_.once(retry_interval, [this] { connect(); });
}

void JanusConnection::gone(const std::string& reason) {
  fail_pending(reason);
  if (state_ == State::closed) return;
  Listener* listener = listener_;
  close();
  listener->janus_gone(reason);
}

void JanusConnection::keep_alive() {
  const std::shared_ptr<JanusConnection> keep = shared_from_this();
  fail_overdue();
  if (state_ != State::open) return;
  write({{"janus", "keepalive"}, {"session_id", session_}, {"transaction", keep_alive_transaction}});
  if (!answer_deadline_.running()) {
    answer_deadline_.once(answer_time, [this] { websocket_lost("no answer"); });
  }
}

void JanusConnection::attach(const std::string& plugin, Event event,
                             std::function<void(Handle, const std::string&)> attached) {
  request({{"janus", "attach"}, {"plugin", plugin}},
          [this, event = std::move(event), attached = std::move(attached)](const json& answer) {
            const json& id = object_at(object_at(answer, "data"), "id");
            if (is_error(answer) || !id.is_number_unsigned()) {
              attached(0, error_text(answer));
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
  if (awaits_answer(handle)) {
    leaving_.insert(handle);
  } else {
    request({{"janus", "detach"}, {"handle_id", handle}}, {});
  }
}

bool JanusConnection::awaits_answer(Handle handle) const {
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
  const std::string transaction = std::to_string(++last_transaction_);
  message["transaction"] = transaction;
  if (session_ != 0) message["session_id"] = session_;
  if (reply) {
    const json& handle = object_at(message, "handle_id");
    pending_[transaction] = {std::move(reply), handle.is_number_unsigned() ? handle.get<Handle>() : 0,
                             g_get_monotonic_time() + std::chrono::microseconds(longest_answer_time).count()};
  }
  const bool for_session = message["janus"] != "create" && message["janus"] != "claim";
  if (!for_session) handshake_ = transaction;
  if (for_session && (state_ == State::lost || state_ == State::claiming)) {
    // What finds no place is answered as overdue.
    if (waiting_.size() < most_waiting) waiting_.push_back(std::move(message));
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
  const std::string kind = string_at(message, "janus");
  if (state_ == State::open) answer_deadline_.stop();
  if (kind == "ack" || kind == "keepalive") return;

  const auto pending = pending_.find(string_at(message, "transaction"));
  if (pending != pending_.end()) {
    const Pending answered = std::move(pending->second);
    pending_.erase(pending);
    answer(answered, message);
    return;
  }
  if (kind == "error" && string_at(message, "transaction") == keep_alive_transaction) {
    gone("the server has forgotten the session (" + error_text(message) + ")");
    return;
  }
  if (kind == "timeout") {
    gone("the server let the session time out");
    return;
  }
  const json& sender = object_at(message, "sender");
  if (!sender.is_number_unsigned()) return;
  const auto event = events_.find(sender.get<Handle>());
  if (event == events_.end()) return;
  const Event call = event->second;
  call(message);
}

// The request is no longer among those that wait.
void JanusConnection::answer(const Pending& pending, const json& answer) {
  pending.reply(answer);
  if (!awaits_answer(pending.handle) && leaving_.erase(pending.handle) != 0) {
    request({{"janus", "detach"}, {"handle_id", pending.handle}}, {});
  }
}

void JanusConnection::fail_pending(const std::string& reason) {
  const json answer = error_answer(reason);
  for (const auto& [transaction, pending] : std::exchange(pending_, {})) this->answer(pending, answer);
}

void JanusConnection::fail_overdue() {
  const std::int64_t now = g_get_monotonic_time();
  std::vector<Pending> overdue;
  std::erase_if(pending_, [&](auto& entry) {
    if (entry.second.due > now) return false;
    overdue.push_back(std::move(entry.second));
    return true;
  });
  for (const Pending& pending : overdue) answer(pending, error_answer("the server does not answer"));
}

bool JanusConnection::is_error(const json& answer) {
  return string_at(answer, "janus") == "error" ||
         object_at(object_at(object_at(answer, "plugindata"), "data"), "error_code").is_number();
}

std::string JanusConnection::error_text(const json& answer) {
  std::string reason = string_at(object_at(answer, "error"), "reason");
  if (!reason.empty()) return reason;
  std::string error = string_at(object_at(object_at(answer, "plugindata"), "data"), "error");
  if (error.empty()) return "an answer that is not understood";
  return error;
}

}  // namespace engine
