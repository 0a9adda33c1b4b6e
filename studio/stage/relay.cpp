#include "stage/relay.h"

#include <nlohmann/json.hpp>
#include <string_view>
#include <utility>

namespace studio {

namespace {

// The list of all who are in a large room, with what guests choose to call themselves.
constexpr guint64 largestFromJanus = 16'777'216;
constexpr guint keepaliveSeconds = 20;
constexpr std::size_t mostEarly = 16;

void send(SoupWebsocketConnection* to, GBytes* message) {
  if (soup_websocket_connection_get_state(to) == SOUP_WEBSOCKET_STATE_OPEN) {
    soup_websocket_connection_send_message(to, SOUP_WEBSOCKET_DATA_TEXT, message);
  }
}

void close(SoupWebsocketConnection* end) {
  if (end && soup_websocket_connection_get_state(end) == SOUP_WEBSOCKET_STATE_OPEN) {
    soup_websocket_connection_close(end, SOUP_WEBSOCKET_CLOSE_GOING_AWAY, nullptr);
  }
}

std::string_view textOf(GBytes* message) {
  std::size_t size = 0;
  const auto* text = static_cast<const char*>(g_bytes_get_data(message, &size));
  return {text, size};
}

bool isOpen(SoupWebsocketConnection* end) {
  return end && soup_websocket_connection_get_state(end) != SOUP_WEBSOCKET_STATE_CLOSED;
}

}  // namespace

Relay::Relay(SoupWebsocketConnection* guest, SoupSession* session, const std::string& url,
             std::shared_ptr<SeatSessions> seat, std::function<void(Relay& self)> closed)
    : guest_(guest), rules_(std::move(seat)), cancellable_(g_cancellable_new()), closed_(std::move(closed)) {
  g_object_ref(guest_);
  attach(guest_);
  SoupMessage* message = soup_message_new("GET", url.c_str());
  const char* protocols[] = {"janus-protocol", nullptr};
  soup_session_websocket_connect_async(
      session, message, nullptr, const_cast<char**>(protocols), G_PRIORITY_DEFAULT, cancellable_,
      [](GObject* source, GAsyncResult* result, gpointer self) {
        GError* error = nullptr;
        SoupWebsocketConnection* janus =
            soup_session_websocket_connect_finish(SOUP_SESSION(source), result, &error);
        const bool cancelled = error && g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CANCELLED);
        g_clear_error(&error);
        if (cancelled) return;  // the object is gone
        auto& relay = *static_cast<Relay*>(self);
        if (!janus) {
          close(relay.guest_);
          return;
        }
        relay.janus_ = janus;
        relay.attach(janus);
        if (soup_websocket_connection_get_state(relay.guest_) != SOUP_WEBSOCKET_STATE_OPEN) {
          close(janus);
          return;
        }
        for (GBytes* early : std::exchange(relay.early_, {})) {
          send(janus, early);
          g_bytes_unref(early);
        }
      },
      this);
  g_object_unref(message);
}

Relay::~Relay() {
  g_cancellable_cancel(cancellable_);
  g_object_unref(cancellable_);
  for (SoupWebsocketConnection* end : {guest_, janus_}) {
    if (!end) continue;
    g_signal_handlers_disconnect_by_data(end, this);
    close(end);
    g_object_unref(end);
  }
  for (GBytes* early : early_) g_bytes_unref(early);
}

void Relay::attach(SoupWebsocketConnection* end) {
  soup_websocket_connection_set_max_incoming_payload_size(
      end, end == guest_ ? largestFromGuest : largestFromJanus);
  soup_websocket_connection_set_keepalive_interval(end, keepaliveSeconds);
  g_signal_connect(end, "message",
                   G_CALLBACK(+[](SoupWebsocketConnection* from, int type, GBytes* message, gpointer self) {
                     static_cast<Relay*>(self)->onMessage(from, type, message);
                   }),
                   this);
  g_signal_connect(end, "closed", G_CALLBACK(+[](SoupWebsocketConnection*, gpointer self) {
                     static_cast<Relay*>(self)->onClosed();
                   }),
                   this);
}

void Relay::onMessage(const SoupWebsocketConnection* from, int type, GBytes* message) {
  if (type != SOUP_WEBSOCKET_DATA_TEXT) return;
  if (from == janus_) {
    rules_.answered(textOf(message));
    send(guest_, message);
  } else if (!rules_.allows(textOf(message), std::chrono::steady_clock::now())) {
    end();
  } else if (janus_) {
    send(janus_, message);
  } else if (early_.size() < mostEarly) {
    early_.push_back(g_bytes_ref(message));
  } else {
    close(guest_);
  }
}

void Relay::end() {
  if (janus_ && rules_.session() != 0 &&
      soup_websocket_connection_get_state(janus_) == SOUP_WEBSOCKET_STATE_OPEN) {
    const std::string bye =
        nlohmann::json{{"janus", "destroy"}, {"session_id", rules_.session()}, {"transaction", "bye"}}.dump();
    soup_websocket_connection_send_text(janus_, bye.c_str());
  }
  close(guest_);
  close(janus_);
}

void Relay::onClosed() {
  close(guest_);
  close(janus_);
  if (isOpen(guest_) || isOpen(janus_)) return;
  rules_.leave(std::chrono::steady_clock::now());
  if (const auto closed = std::exchange(closed_, nullptr)) closed(*this);
}

}  // namespace studio
