#pragma once

#include <libsoup/soup.h>

#include <deque>
#include <nlohmann/json.hpp>
#include <string>

#include "run_until.h"

// A WebSocket to the studio's port: what a guest's page sends and hears.
class GuestPage {
 public:
  using Json = nlohmann::json;

  // `link` is the guests' link. Without a key it is the lobby that is talked with, else the session server.
  explicit GuestPage(const std::string& link, const std::string& key = {}) : session_(soup_session_new()) {
    const std::string url = "ws" + link.substr(4, link.find("/#") - 3) + (key.empty() ? "lobby" : "janus");
    g_autoptr(SoupMessage) message = soup_message_new("GET", url.c_str());
    const std::string seat = "seat." + key;
    const char* names[] = {key.empty() ? "zarvo-lobby" : "janus-protocol",
                           key.empty() ? nullptr : seat.c_str(), nullptr};
    GAsyncResult* result = nullptr;
    soup_session_websocket_connect_async(
        session_, message, nullptr, const_cast<char**>(names), G_PRIORITY_DEFAULT, nullptr,
        [](GObject*, GAsyncResult* outcome, gpointer to) {
          *static_cast<GAsyncResult**>(to) = G_ASYNC_RESULT(g_object_ref(outcome));
        },
        &result);
    EXPECT_TRUE(runUntil([&] { return result != nullptr; }));
    connection_ = soup_session_websocket_connect_finish(session_, result, nullptr);
    g_object_unref(result);
    if (!connection_) return;
    g_signal_connect(connection_, "message",
                     G_CALLBACK(+[](SoupWebsocketConnection*, int, GBytes* bytes, gpointer self) {
                       std::size_t size = 0;
                       const auto* text = static_cast<const char*>(g_bytes_get_data(bytes, &size));
                       static_cast<GuestPage*>(self)->heard_.push_back(Json::parse(text, text + size));
                     }),
                     this);
  }
  ~GuestPage() {
    if (connection_) {
      g_signal_handlers_disconnect_by_data(connection_, this);
      g_object_unref(connection_);
    }
    g_object_unref(session_);
  }
  GuestPage(const GuestPage&) = delete;
  GuestPage& operator=(const GuestPage&) = delete;

  bool refused() const { return !connection_; }
  bool closed() {
    return runUntil(
        [&] { return soup_websocket_connection_get_state(connection_) != SOUP_WEBSOCKET_STATE_OPEN; });
  }
  void say(const Json& message) { soup_websocket_connection_send_text(connection_, message.dump().c_str()); }

  // The next message with that key, the others before it passed over; null when none comes.
  Json next(const std::string& key) {
    Json found;
    const bool came = runUntil([&] {
      while (!heard_.empty() && !found.contains(key)) {
        found = heard_.front();
        heard_.pop_front();
      }
      return found.contains(key);
    });
    EXPECT_TRUE(came) << "no \"" << key << "\" came";
    return came ? found[key] : Json();
  }

 private:
  SoupSession* session_;
  SoupWebsocketConnection* connection_ = nullptr;
  std::deque<Json> heard_;
};
