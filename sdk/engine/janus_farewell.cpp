#include "janus_farewell.h"

#include <memory>
#include <utility>

#include "engine_thread.h"
#include "janus_connection.h"

namespace engine {
namespace {

using namespace std::chrono_literals;

constexpr auto answerTime = 5s;

struct Farewell {
  SoupWebsocketConnection* websocket;
  const std::uint64_t session;
  std::set<std::string> transactions;
  Timer deadline;
};

// The farewell is no more afterwards.
void end(Farewell* ended) {
  const std::unique_ptr<Farewell> farewell(ended);
  g_signal_handlers_disconnect_by_data(farewell->websocket, ended);
  if (soup_websocket_connection_get_state(farewell->websocket) == SOUP_WEBSOCKET_STATE_OPEN) {
    const json destroy = {
        {"janus", "destroy"}, {"session_id", farewell->session}, {"transaction", "farewell"}};
    soup_websocket_connection_send_text(farewell->websocket, destroy.dump().c_str());
  }
  closeWebsocket(farewell->websocket);
}

void received(SoupWebsocketConnection*, int, GBytes* bytes, Farewell* farewell) {
  gsize size = 0;
  const auto* text = static_cast<const char*>(g_bytes_get_data(bytes, &size));
  const json message = json::parse(text, text + size, nullptr, false);
  if (stringAt(message, "janus") == "ack") return;
  farewell->transactions.erase(stringAt(message, "transaction"));
  if (farewell->transactions.empty()) end(farewell);
}

}  // namespace

void closeWebsocket(SoupWebsocketConnection* websocket) {
  if (soup_websocket_connection_get_state(websocket) == SOUP_WEBSOCKET_STATE_CLOSED) {
    g_object_unref(websocket);
    return;
  }
  g_signal_connect(websocket, "closed",
                   G_CALLBACK(+[](SoupWebsocketConnection* closed, gpointer) { g_object_unref(closed); }),
                   nullptr);
  if (soup_websocket_connection_get_state(websocket) == SOUP_WEBSOCKET_STATE_OPEN) {
    soup_websocket_connection_close(websocket, SOUP_WEBSOCKET_CLOSE_NORMAL, nullptr);
  }
}

void destroyWhenAnswered(SoupWebsocketConnection* websocket, std::uint64_t session,
                         std::set<std::string> transactions) {
  auto* farewell = new Farewell{websocket, session, std::move(transactions), {}};
  if (farewell->transactions.empty() ||
      soup_websocket_connection_get_state(websocket) != SOUP_WEBSOCKET_STATE_OPEN) {
    end(farewell);
    return;
  }
  g_signal_connect(websocket, "message", G_CALLBACK(received), farewell);
  g_signal_connect(websocket, "closed",
                   G_CALLBACK(+[](SoupWebsocketConnection*, Farewell* lost) { end(lost); }), farewell);
  farewell->deadline.once(answerTime, [farewell] { end(farewell); });
}

}  // namespace engine
