#include "stage/lobby_socket.h"

#include <utility>

namespace studio {

using nlohmann::json;

namespace {

constexpr int mostMessagesASecond = 10;
constexpr guint keepaliveSeconds = 20;
// A page asks as soon as it comes; who only keeps a place is in the way of others.
constexpr std::chrono::minutes idleLimit(1);

std::string textAt(const json& object, const char* key) {
  const auto found = object.find(key);
  return found != object.end() && found->is_string() ? found->get<std::string>() : std::string();
}

std::optional<bool> flagAt(const json& object, const char* key) {
  const auto found = object.find(key);
  return found != object.end() && found->is_boolean() ? std::optional(found->get<bool>()) : std::nullopt;
}

std::optional<std::string> deviceAt(const json& object, const char* key) {
  const std::string text = textAt(object, key);
  return text == "on" || text == "off" || text == "lost" ? std::optional(text) : std::nullopt;
}

}  // namespace

LobbySocket::LobbySocket(SoupWebsocketConnection* connection, std::string address, Listener& listener)
    : connection_(connection), address_(std::move(address)), listener_(listener) {
  g_object_ref(connection_);
  soup_websocket_connection_set_max_incoming_payload_size(connection_, largestMessage);
  soup_websocket_connection_set_keepalive_interval(connection_, keepaliveSeconds);
  g_signal_connect(connection_, "message",
                   G_CALLBACK(+[](SoupWebsocketConnection*, int type, GBytes* bytes, gpointer self) {
                     auto& page = *static_cast<LobbySocket*>(self);
                     std::size_t size = 0;
                     const auto* text = static_cast<const char*>(g_bytes_get_data(bytes, &size));
                     const json message = type == SOUP_WEBSOCKET_DATA_TEXT
                                              ? json::parse(text, text + size, nullptr, false)
                                              : json();
                     if (message.is_object() && !page.tooFast()) {
                       page.onMessage(message);
                     } else {
                       page.close();
                     }
                   }),
                   this);
  g_signal_connect(connection_, "closed", G_CALLBACK(+[](SoupWebsocketConnection*, gpointer self) {
                     auto& page = *static_cast<LobbySocket*>(self);
                     page.listener_.onClosed(page);
                   }),
                   this);
  idle_.every(idleLimit, [this] {
    if (!seat) close();
  });
}

LobbySocket::~LobbySocket() {
  g_signal_handlers_disconnect_by_data(connection_, this);
  close();
  g_object_unref(connection_);
}

void LobbySocket::send(const json& message) {
  if (soup_websocket_connection_get_state(connection_) != SOUP_WEBSOCKET_STATE_OPEN) return;
  soup_websocket_connection_send_text(connection_,
                                      message.dump(-1, ' ', false, json::error_handler_t::replace).c_str());
}

void LobbySocket::close() {
  if (soup_websocket_connection_get_state(connection_) != SOUP_WEBSOCKET_STATE_OPEN) return;
  soup_websocket_connection_close(connection_, SOUP_WEBSOCKET_CLOSE_GOING_AWAY, nullptr);
}

bool LobbySocket::tooFast() {
  const auto now = std::chrono::steady_clock::now();
  if (now - second_ >= std::chrono::seconds(1)) {
    second_ = now;
    messages_ = 0;
  }
  return ++messages_ > mostMessagesASecond;
}

// One message says one thing; what is not understood is passed over, so that newer pages can say more.
void LobbySocket::onMessage(const json& message) {
  const auto said = [&](const char* key) {
    const auto found = message.find(key);
    return found != message.end() && found->is_object() ? &*found : nullptr;
  };
  if (const json* ask = said("ask")) {
    listener_.onAsk(*this, textAt(*ask, "invite"), textAt(*ask, "name"));
  } else if (const json* back = said("return")) {
    listener_.onReturn(*this, textAt(*back, "key"));
  } else if (const json* state = said("state")) {
    listener_.onPageState(*this, {flagAt(*state, "hidden"), deviceAt(*state, "camera"),
                                  deviceAt(*state, "microphone"), flagAt(*state, "echo")});
  } else if (said("leave")) {
    listener_.onLeave(*this);
  }
}

}  // namespace studio
