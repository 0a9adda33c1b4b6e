// What a browser, and whoever is no browser, gets from the guests' port.
#include "app/web_server.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "run_until.h"

namespace {

namespace fs = std::filesystem;
using studio::WebServer;
using testing::HasSubstr;

constexpr char address[] = "127.0.0.1";
const char* protocols[] = {"janus-protocol", nullptr};

class WebServerTest : public testing::Test {
 protected:
  WebServerTest() : session_(soup_session_new()), janus_(soup_server_new(nullptr, nullptr)) {
    fs::create_directories(directory_ / "page/parts");
    for (const char* file :
         {"page/index.html", "page/parts/a.js", "page/notes.md", "page/.secret.js", "outside.js"}) {
      std::ofstream(directory_ / file) << "text";
    }
    fs::create_symlink(directory_ / "outside.js", directory_ / "page/link.js");

    soup_server_add_websocket_handler(
        janus_, "/", nullptr, const_cast<char**>(protocols),
        [](SoupServer*, SoupServerMessage*, const char*, SoupWebsocketConnection* peer, gpointer peers) {
          static_cast<std::vector<SoupWebsocketConnection*>*>(peers)->push_back(
              SOUP_WEBSOCKET_CONNECTION(g_object_ref(peer)));
        },
        &atJanus_, nullptr);
    soup_server_listen_local(janus_, 0, SOUP_SERVER_LISTEN_IPV4_ONLY, nullptr);
    GSList* uris = soup_server_get_uris(janus_);
    const int port = g_uri_get_port(static_cast<GUri*>(uris->data));
    g_slist_free_full(uris, reinterpret_cast<GDestroyNotify>(g_uri_unref));
    server_.emplace(WebServer::Settings{address, 0, directory_ / "page",
                                        "ws://127.0.0.1:" + std::to_string(port), "", ""});
    url_ = server_->pageUrl();
  }
  ~WebServerTest() override {
    server_.reset();
    g_object_unref(janus_);
    g_object_unref(session_);
  }

  // Takes the outcome of a call of GLib's over to `result`.
  static void finish(GObject*, GAsyncResult* outcome, gpointer result) {
    *static_cast<GAsyncResult**>(result) = G_ASYNC_RESULT(g_object_ref(outcome));
  }

  struct Answer {
    int status;
    std::string policy;
  };
  // The path is sent as it stands: no client tidies it up.
  Answer get(const char* path, const char* method = "GET") {
    g_autoptr(GUri) uri = g_uri_build(static_cast<GUriFlags>(SOUP_HTTP_URI_FLAGS), "http", nullptr, address,
                                      port(), path, nullptr, nullptr);
    g_autoptr(SoupMessage) message = soup_message_new_from_uri(method, uri);
    g_autoptr(GAsyncResult) result = nullptr;
    soup_session_send_and_read_async(session_, message, G_PRIORITY_DEFAULT, nullptr, finish, &result);
    EXPECT_TRUE(runUntil([&] { return result != nullptr; }));
    g_autoptr(GBytes) body = soup_session_send_and_read_finish(session_, result, nullptr);
    const char* policy =
        soup_message_headers_get_one(soup_message_get_response_headers(message), "Content-Security-Policy");
    return {static_cast<int>(soup_message_get_status(message)), policy ? policy : ""};
  }

  // Connects to /janus; null when that is refused.
  SoupWebsocketConnection* connect(const char* origin) {
    g_autoptr(SoupMessage) message = soup_message_new("GET", ("ws" + url_.substr(4) + "janus").c_str());
    g_autoptr(GAsyncResult) result = nullptr;
    soup_session_websocket_connect_async(session_, message, origin, const_cast<char**>(protocols),
                                         G_PRIORITY_DEFAULT, nullptr, finish, &result);
    EXPECT_TRUE(runUntil([&] { return result != nullptr; }));
    return soup_session_websocket_connect_finish(session_, result, nullptr);
  }
  static bool untilClosed(SoupWebsocketConnection* end) {
    return runUntil([&] { return soup_websocket_connection_get_state(end) == SOUP_WEBSOCKET_STATE_CLOSED; });
  }

  int port() const { return std::stoi(url_.substr(url_.rfind(':') + 1)); }

  TemporaryFolder directory_;
  SoupSession* session_;
  SoupServer* janus_;
  std::vector<SoupWebsocketConnection*> atJanus_;
  std::optional<WebServer> server_;
  std::string url_;
};

TEST_F(WebServerTest, ThePageAndNothingElseIsServed) {
  const Answer page = get("/");
  EXPECT_EQ(page.status, 200);
  EXPECT_THAT(page.policy, HasSubstr("default-src 'none'"));
  EXPECT_THAT(page.policy, HasSubstr("ws://127.0.0.1:" + std::to_string(port())));
  EXPECT_EQ(get("/parts/a.js").status, 200);
  for (const char* path : {"/outside.js", "/../outside.js", "/parts/../../outside.js", "/%2e%2e/outside.js",
                           "/..%2foutside.js", "/link.js", "/.secret.js", "/notes.md", "/parts", "/parts/",
                           "//etc/passwd.js", "/index.html%00.js", "/nothing.js"}) {
    EXPECT_THAT(get(path).status, testing::AnyOf(400, 404)) << path;
  }
  EXPECT_EQ(get("/", "POST").status, 405);
}

TEST_F(WebServerTest, EitherEndOfTheRelayClosesTheOther) {
  const std::string own = "http://127.0.0.1:" + std::to_string(port());
  for (const bool guestFirst : {true, false}) {
    g_autoptr(SoupWebsocketConnection) guest = connect(guestFirst ? nullptr : own.c_str());
    ASSERT_TRUE(guest);
    ASSERT_TRUE(runUntil([&] { return !atJanus_.empty(); }));
    g_autoptr(SoupWebsocketConnection) peer = std::exchange(atJanus_, {}).front();
    soup_websocket_connection_close(guestFirst ? guest : peer, SOUP_WEBSOCKET_CLOSE_NORMAL, nullptr);
    EXPECT_TRUE(untilClosed(peer) && untilClosed(guest)) << guestFirst;
  }
}

TEST_F(WebServerTest, PagesFromElsewhereDoNotReachTheSession) {
  for (const char* origin : {"http://evil.example", "http://127.0.0.1:1", "null"}) {
    g_autoptr(SoupWebsocketConnection) guest = connect(origin);
    if (!guest) continue;
    EXPECT_TRUE(untilClosed(guest)) << origin;
    EXPECT_EQ(soup_websocket_connection_get_close_code(guest), SOUP_WEBSOCKET_CLOSE_POLICY_VIOLATION);
  }
  EXPECT_TRUE(atJanus_.empty());
}

}  // namespace
