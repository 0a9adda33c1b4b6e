#include "stage/janus_client.h"

#include <fmt/format.h>

#include <memory>
#include <utility>
#include <vector>

namespace studio {

namespace {

constexpr std::chrono::milliseconds retryInterval(50);
constexpr std::chrono::seconds connectLimit(15);
constexpr std::chrono::seconds answerLimit(10);
constexpr std::chrono::seconds lookInterval(1);
constexpr int looksAKeepalive = 20;
constexpr guint64 largestMessage = 16'777'216;  // the list of all who are in a large room
constexpr char protocol[] = "janus-protocol";

// VideoRoom and TextRoom put "error_code" and "error" into their answers.
std::string faultOf(const nlohmann::json& message) {
  if (message.value("janus", "") == "error") {
    return message.value("error", nlohmann::json::object()).value("reason", "it refused a request");
  }
  const auto plugin = message.find("plugindata");
  if (plugin == message.end() || !plugin->is_object()) return {};
  const nlohmann::json data = plugin->value("data", nlohmann::json::object());
  return data.contains("error_code") ? data.value("error", "it refused a request") : "";
}

}  // namespace

JanusClient::JanusClient(std::string url, Listener listener)
    : url_(std::move(url)),
      listener_(std::move(listener)),
      session_(soup_session_new()),
      cancellable_(g_cancellable_new()) {
  limit_.once(connectLimit, [this] { end("it did not answer in time"); });
  connect();
}

JanusClient::~JanusClient() {
  g_cancellable_cancel(cancellable_);
  g_object_unref(cancellable_);
  if (connection_) {
    g_signal_handlers_disconnect_by_data(connection_, this);
    if (janusSession_ != 0) send({{"janus", "destroy"}}, {});
    if (soup_websocket_connection_get_state(connection_) == SOUP_WEBSOCKET_STATE_OPEN) {
      soup_websocket_connection_close(connection_, SOUP_WEBSOCKET_CLOSE_NORMAL, nullptr);
    }
    g_object_unref(connection_);
  }
  g_object_unref(session_);
}

void JanusClient::connect() {
  SoupMessage* message = soup_message_new("GET", url_.c_str());
  const char* protocols[] = {protocol, nullptr};
  soup_session_websocket_connect_async(
      session_, message, nullptr, const_cast<char**>(protocols), G_PRIORITY_DEFAULT, cancellable_,
      [](GObject* session, GAsyncResult* result, gpointer self) {
        GError* error = nullptr;
        SoupWebsocketConnection* connection =
            soup_session_websocket_connect_finish(SOUP_SESSION(session), result, &error);
        const bool cancelled = error && g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CANCELLED);
        g_clear_error(&error);
        if (cancelled) return;  // the object is gone
        auto& client = *static_cast<JanusClient*>(self);
        if (connection) {
          client.onConnected(connection);
        } else {
          client.retry_.once(retryInterval, [&client] { client.connect(); });
        }
      },
      this);
  g_object_unref(message);
}

void JanusClient::onConnected(SoupWebsocketConnection* connection) {
  connection_ = connection;
  soup_websocket_connection_set_max_incoming_payload_size(connection, largestMessage);
  g_signal_connect(connection, "message",
                   G_CALLBACK(+[](SoupWebsocketConnection*, int, GBytes* bytes, gpointer self) {
                     std::size_t size = 0;
                     const auto* text = static_cast<const char*>(g_bytes_get_data(bytes, &size));
                     const Json message = Json::parse(text, text + size, nullptr, false);
                     if (message.is_object()) static_cast<JanusClient*>(self)->onMessage(message);
                   }),
                   this);
  g_signal_connect(connection, "closed", G_CALLBACK(+[](SoupWebsocketConnection*, gpointer self) {
                     static_cast<JanusClient*>(self)->end("it closed the connection");
                   }),
                   this);
  send({{"janus", "create"}}, [this](const Json& message, const std::string& fault) {
    if (!fault.empty()) {
      end(fault);
      return;
    }
    janusSession_ = message.value("data", Json::object()).value("id", std::uint64_t{0});
    limit_.stop();
    look_.every(lookInterval, [this] { look(); });
    if (const auto ready = std::exchange(listener_.ready, nullptr)) ready();
  });
}

void JanusClient::attach(const std::string& plugin, std::function<void(Handle)> done, Event event) {
  send({{"janus", "attach"}, {"plugin", "janus.plugin." + plugin}},
       [this, done = std::move(done), event = std::move(event)](const Json& message,
                                                                const std::string& fault) {
         const Handle handle =
             fault.empty() ? message.value("data", Json::object()).value("id", Handle{0}) : Handle{0};
         if (handle != 0 && event) events_[handle] = event;
         done(handle);
       });
}

void JanusClient::detach(Handle handle) {
  events_.erase(handle);
  send({{"janus", "detach"}, {"handle_id", handle}}, {});
}

void JanusClient::request(Handle handle, const Json& body, Answer answer) {
  send({{"janus", "message"}, {"handle_id", handle}, {"body", body}},
       [answer = std::move(answer)](const Json& message, const std::string& fault) {
         if (!answer) return;
         const Json plugin = message.value("plugindata", Json::object());
         answer(plugin.value("data", Json::object()), fault);
       });
}

void JanusClient::send(Json message,
                       std::function<void(const Json& message, const std::string& fault)> answer) {
  const std::string transaction = std::to_string(++lastTransaction_);
  message["transaction"] = transaction;
  if (janusSession_ != 0) message["session_id"] = janusSession_;
  if (!connection_ || soup_websocket_connection_get_state(connection_) != SOUP_WEBSOCKET_STATE_OPEN) {
    return;  // its end is told, or was
  }
  soup_websocket_connection_send_text(connection_, message.dump().c_str());
  waiting_[transaction] = {std::move(answer), std::chrono::steady_clock::now(),
                           message.value("janus", "") == "message"};
}

void JanusClient::onMessage(const Json& message) {
  const std::string verb = message.value("janus", "");
  const auto waiting = waiting_.find(message.value("transaction", ""));
  if (waiting != waiting_.end()) {
    if (verb == "ack" && waiting->second.isMessage) return;
    const auto answer = std::move(waiting->second.answer);
    waiting_.erase(waiting);
    if (answer) answer(message, faultOf(message));
  } else if (verb == "timeout") {
    end("it gave up the session");
  } else if (verb == "event") {
    const auto event = events_.find(message.value("sender", Handle{0}));
    if (event == events_.end()) return;
    const Event call = event->second;
    call(message.value("plugindata", Json::object()).value("data", Json::object()));
  }
}

void JanusClient::look() {
  const auto now = std::chrono::steady_clock::now();
  for (const auto& [transaction, waiting] : waiting_) {
    if (now - waiting.since > answerLimit) {
      end("it does not answer");
      return;
    }
  }
  if (++looks_ % looksAKeepalive == 0) send({{"janus", "keepalive"}}, {});
}

void JanusClient::end(const std::string& reason) {
  limit_.stop();
  retry_.stop();
  look_.stop();
  if (const auto ended = std::exchange(listener_.ended, nullptr)) ended(reason);
}

}  // namespace studio
