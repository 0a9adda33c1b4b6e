// What a browser, and whoever is no browser, gets from the guests' port.
#include "app/web_server.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "app/main_loop.h"

namespace {

namespace fs = std::filesystem;
using studio::Timer;
using studio::WebServer;
using testing::HasSubstr;

constexpr std::chrono::seconds deadline(20);
constexpr char address[] = "127.0.0.1";

class WebServerTest : public testing::Test {
 protected:
  WebServerTest() : session_(soup_session_new()), janus_(soup_server_new(nullptr, nullptr)) {
    char directory[] = "/tmp/web-test-XXXXXX";
    directory_ = mkdtemp(directory);
    fs::create_directories(directory_ / "page/parts");
    write("page/index.html", "<p>page</p>");
    write("page/parts/a.js", "//");
    write("page/notes.md", "hidden type");
    write("page/.secret.js", "hidden file");
    write("outside.js", "outside");
    fs::create_symlink(directory_ / "outside.js", directory_ / "page/link.js");

    const char* protocols[] = {"janus-protocol", nullptr};
    soup_server_add_websocket_handler(
        janus_, "/", nullptr, const_cast<char**>(protocols),
        [](SoupServer*, SoupServerMessage*, const char*, SoupWebsocketConnection* peer, gpointer peers) {
          static_cast<std::vector<SoupWebsocketConnection*>*>(peers)->push_back(
              SOUP_WEBSOCKET_CONNECTION(g_object_ref(peer)));
          // Echoes.
          g_signal_connect(peer, "message",
                           G_CALLBACK(+[](SoupWebsocketConnection* self, int, GBytes* bytes, gpointer) {
                             soup_websocket_connection_send_message(self, SOUP_WEBSOCKET_DATA_TEXT, bytes);
                           }),
                           nullptr);
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
    for (SoupWebsocketConnection* peer : atJanus_) g_object_unref(peer);
    g_object_unref(janus_);
    g_object_unref(session_);
    fs::remove_all(directory_);
  }

  void write(const std::string& name, const std::string& text) { std::ofstream(directory_ / name) << text; }

  bool until(const std::function<bool()>& condition) {
    bool late = false;
    Timer limit;
    limit.once(deadline, [&] { late = true; });
    while (!condition() && !late) g_main_context_iteration(nullptr, TRUE);
    return !late;
  }

  struct Answer {
    int status = 0;
    std::string body;
    std::string type;
    std::string policy;
  };
  // The path is sent as it stands: no client tidies it up.
  Answer get(const std::string& path, const char* method = "GET") {
    GUri* uri = g_uri_build(static_cast<GUriFlags>(SOUP_HTTP_URI_FLAGS), "http", nullptr, address, port(),
                            path.c_str(), nullptr, nullptr);
    SoupMessage* message = soup_message_new_from_uri(method, uri);
    Answer answer;
    bool done = false;
    struct Waiting {
      Answer* answer;
      bool* done;
    } waiting{&answer, &done};
    soup_session_send_and_read_async(
        session_, message, G_PRIORITY_DEFAULT, nullptr,
        [](GObject* session, GAsyncResult* result, gpointer data) {
          const auto* to = static_cast<Waiting*>(data);
          if (GBytes* bytes = soup_session_send_and_read_finish(SOUP_SESSION(session), result, nullptr)) {
            std::size_t size = 0;
            const auto* text = static_cast<const char*>(g_bytes_get_data(bytes, &size));
            to->answer->body.assign(text ? text : "", size);
            g_bytes_unref(bytes);
          }
          *to->done = true;
        },
        &waiting);
    EXPECT_TRUE(until([&] { return done; }));
    answer.status = static_cast<int>(soup_message_get_status(message));
    const auto header = [&](const char* name) {
      const char* value = soup_message_headers_get_one(soup_message_get_response_headers(message), name);
      return std::string(value ? value : "");
    };
    answer.type = header("Content-Type");
    answer.policy = header("Content-Security-Policy");
    g_object_unref(message);
    g_uri_unref(uri);
    return answer;
  }

  // Connects to /janus; null when that is refused.
  SoupWebsocketConnection* connect(const char* origin) {
    SoupMessage* message = soup_message_new("GET", ("ws" + url_.substr(4) + "janus").c_str());
    const char* protocols[] = {"janus-protocol", nullptr};
    struct Waiting {
      SoupWebsocketConnection* connection = nullptr;
      bool done = false;
    } waiting;
    soup_session_websocket_connect_async(
        session_, message, origin, const_cast<char**>(protocols), G_PRIORITY_DEFAULT, nullptr,
        [](GObject* session, GAsyncResult* result, gpointer data) {
          auto* to = static_cast<Waiting*>(data);
          to->connection = soup_session_websocket_connect_finish(SOUP_SESSION(session), result, nullptr);
          to->done = true;
        },
        &waiting);
    EXPECT_TRUE(until([&] { return waiting.done; }));
    g_object_unref(message);
    return waiting.connection;
  }

  int port() const { return std::stoi(url_.substr(url_.rfind(':') + 1)); }

  fs::path directory_;
  SoupSession* session_;
  SoupServer* janus_;
  std::vector<SoupWebsocketConnection*> atJanus_;
  std::optional<WebServer> server_;
  std::string url_;
};

TEST_F(WebServerTest, ThePageAndNothingElseIsServed) {
  const Answer page = get("/");
  EXPECT_EQ(page.status, 200);
  EXPECT_EQ(page.body, "<p>page</p>");
  EXPECT_THAT(page.type, HasSubstr("text/html"));
  EXPECT_THAT(page.policy, HasSubstr("default-src 'none'"));
  EXPECT_THAT(page.policy, HasSubstr("ws://127.0.0.1:" + std::to_string(port())));
  EXPECT_THAT(get("/parts/a.js").type, HasSubstr("text/javascript"));
  EXPECT_THAT(get("/config.json").body, HasSubstr("\"server\":\"janus\""));

  for (const char* path : {"/outside.js", "/../outside.js", "/parts/../../outside.js", "/%2e%2e/outside.js",
                           "/..%2foutside.js", "/link.js", "/.secret.js", "/notes.md", "/parts", "/parts/",
                           "//etc/passwd.js", "/index.html%00.js", "/nothing.js"}) {
    const Answer answer = get(path);
    EXPECT_THAT(answer.status, testing::AnyOf(400, 404)) << path << " gave: " << answer.body;
  }
  EXPECT_EQ(get("/", "POST").status, 405);
}

TEST_F(WebServerTest, TheRelayPassesTextBothWaysUntilOneEndCloses) {
  SoupWebsocketConnection* guest = connect(nullptr);
  ASSERT_TRUE(guest);
  std::string heard;
  g_signal_connect(guest, "message",
                   G_CALLBACK(+[](SoupWebsocketConnection*, int, GBytes* bytes, gpointer to) {
                     std::size_t size = 0;
                     const auto* text = static_cast<const char*>(g_bytes_get_data(bytes, &size));
                     static_cast<std::string*>(to)->assign(text, size);
                   }),
                   &heard);
  soup_websocket_connection_send_text(guest, "{\"janus\":\"early\"}");
  EXPECT_TRUE(until([&] { return heard == "{\"janus\":\"early\"}"; }));
  ASSERT_EQ(atJanus_.size(), 1u);
  soup_websocket_connection_close(guest, SOUP_WEBSOCKET_CLOSE_NORMAL, nullptr);
  const auto closed = [](SoupWebsocketConnection* end) {
    return soup_websocket_connection_get_state(end) == SOUP_WEBSOCKET_STATE_CLOSED;
  };
  EXPECT_TRUE(until([&] { return closed(atJanus_[0]) && closed(guest); }));
  g_object_unref(guest);

  SoupWebsocketConnection* second = connect(("http://127.0.0.1:" + std::to_string(port())).c_str());
  ASSERT_TRUE(second);
  EXPECT_TRUE(until([&] { return atJanus_.size() == 2; }));
  soup_websocket_connection_close(atJanus_[1], SOUP_WEBSOCKET_CLOSE_NORMAL, nullptr);
  EXPECT_TRUE(until([&] { return closed(second); }));
  g_object_unref(second);
}

TEST_F(WebServerTest, PagesFromElsewhereDoNotReachTheSession) {
  for (const char* origin : {"http://evil.example", "http://127.0.0.1:1", "null"}) {
    SoupWebsocketConnection* guest = connect(origin);
    if (!guest) continue;
    EXPECT_TRUE(until([&] {
      return soup_websocket_connection_get_state(guest) == SOUP_WEBSOCKET_STATE_CLOSED;
    })) << origin;
    EXPECT_EQ(soup_websocket_connection_get_close_code(guest), SOUP_WEBSOCKET_CLOSE_POLICY_VIOLATION);
    g_object_unref(guest);
  }
  EXPECT_TRUE(atJanus_.empty());
}

}  // namespace
