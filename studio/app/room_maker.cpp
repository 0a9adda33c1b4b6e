#include "app/room_maker.h"

#include <fmt/format.h>

#include <utility>

namespace studio {

using nlohmann::json;

namespace {

constexpr std::chrono::milliseconds retryInterval(50);
constexpr std::chrono::seconds timeLimit(15);
constexpr char protocol[] = "janus-protocol";

}  // namespace

RoomMaker::RoomMaker(std::string url, Room room, std::string adminKey,
                     std::function<void(std::string fault)> done)
    : url_(std::move(url)),
      room_(std::move(room)),
      adminKey_(std::move(adminKey)),
      done_(std::move(done)),
      session_(soup_session_new()),
      cancellable_(g_cancellable_new()) {
  limit_.once(timeLimit, [this] { finish("it did not answer in time"); });
  connect();
}

RoomMaker::~RoomMaker() {
  g_cancellable_cancel(cancellable_);
  g_object_unref(cancellable_);
  if (connection_) {
    g_signal_handlers_disconnect_by_data(connection_, this);
    soup_websocket_connection_close(connection_, SOUP_WEBSOCKET_CLOSE_NORMAL, nullptr);
    g_object_unref(connection_);
  }
  g_object_unref(session_);
}

void RoomMaker::connect() {
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
        auto& maker = *static_cast<RoomMaker*>(self);
        if (connection) {
          maker.onConnected(connection);
        } else {
          maker.retry_.once(retryInterval, [&maker] { maker.connect(); });
        }
      },
      this);
  g_object_unref(message);
}

void RoomMaker::onConnected(SoupWebsocketConnection* connection) {
  connection_ = connection;
  g_signal_connect(connection, "message",
                   G_CALLBACK(+[](SoupWebsocketConnection*, int, GBytes* bytes, gpointer self) {
                     std::size_t size = 0;
                     const auto* text = static_cast<const char*>(g_bytes_get_data(bytes, &size));
                     static_cast<RoomMaker*>(self)->onAnswer(json::parse(text, text + size, nullptr, false));
                   }),
                   this);
  g_signal_connect(connection, "closed", G_CALLBACK(+[](SoupWebsocketConnection*, gpointer self) {
                     static_cast<RoomMaker*>(self)->finish("it closed the connection");
                   }),
                   this);
  ask({{"janus", "create"}});
}

void RoomMaker::ask(json request) {
  request["transaction"] = "room";
  if (janusSession_ != 0) request["session_id"] = janusSession_;
  soup_websocket_connection_send_text(connection_, request.dump().c_str());
}

json RoomMaker::roomRequest() const {
  return {{"request", "create"},    {"room", room_.id},        {"description", "Show"}, {"is_private", true},
          {"secret", room_.secret}, {"allowed", room_.tokens}, {"admin_key", adminKey_}};
}

// The answers come one for each step: a session; then, for both plugins, a handle and the room.
void RoomMaker::onAnswer(const json& answer) {
  if (!answer.is_object() || answer.value("janus", "") != "success") {
    finish(fmt::format("it refused a request: {}", answer.dump()));
    return;
  }
  const json data = answer.value("data", json::object());
  switch (step_++) {
    case 0:
      janusSession_ = data.value("id", std::uint64_t{0});
      ask({{"janus", "attach"}, {"plugin", "janus.plugin.videoroom"}});
      break;
    case 1: {
      json body = roomRequest();
      body.update({{"publishers", 64},
                   {"videocodec", "vp8"},
                   {"audiocodec", "opus"},
                   {"bitrate", 2'500'000},
                   {"notify_joining", true},
                   {"lock_record", true}});
      ask({{"janus", "message"}, {"handle_id", data.value("id", std::uint64_t{0})}, {"body", body}});
      break;
    }
    case 2:
    case 4: {
      const json outcome = answer.value("plugindata", json::object()).value("data", json::object());
      if (outcome.contains("error")) {
        finish(fmt::format("it made no room: {}", outcome.value("error", "")));
      } else if (step_ == 5) {
        finish("");
      } else {
        ask({{"janus", "attach"}, {"plugin", "janus.plugin.textroom"}});
      }
      break;
    }
    case 3:
      ask({{"janus", "message"}, {"handle_id", data.value("id", std::uint64_t{0})}, {"body", roomRequest()}});
      break;
    default:
      break;
  }
}

void RoomMaker::finish(const std::string& fault) {
  limit_.stop();
  retry_.stop();
  if (const auto done = std::exchange(done_, nullptr)) done(fault);
}

}  // namespace studio
