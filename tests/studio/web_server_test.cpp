// What a browser, and whoever is no browser, gets from the guests' port.
#include "app/web_server.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <random>
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
    EXPECT_STREQ(soup_websocket_connection_get_protocol(guest), protocols[0]);
    soup_websocket_connection_close(guestFirst ? guest : peer, SOUP_WEBSOCKET_CLOSE_NORMAL, nullptr);
    EXPECT_TRUE(untilClosed(peer) && untilClosed(guest)) << guestFirst;
  }
}

TEST_F(WebServerTest, PagesFromElsewhereDoNotReachTheSession) {
  for (const char* origin : {"http://evil.example", "http://127.0.0.1:1", "null"}) {
    EXPECT_FALSE(connect(origin)) << origin;
  }
  EXPECT_TRUE(atJanus_.empty());
}

// A guest who is no browser and sends what frames it likes.
class BareGuest {
 public:
  explicit BareGuest(int port) : socket_(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(static_cast<std::uint16_t>(port));
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::connect(socket_, reinterpret_cast<const sockaddr*>(&to), sizeof to);
    send("GET /janus HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(port) +
         "\r\nConnection: Upgrade\r\nUpgrade: websocket\r\nSec-WebSocket-Version: 13\r\n"
         "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Protocol: janus-protocol\r\n"
         "Sec-WebSocket-Extensions: permessage-deflate\r\n\r\n");
    EXPECT_TRUE(runUntil([&] { return read().ends_with("\r\n\r\n"); }));
  }
  ~BareGuest() { close(socket_); }
  BareGuest(const BareGuest&) = delete;
  BareGuest& operator=(const BareGuest&) = delete;

  // All that has come so far.
  const std::string& read() {
    char piece[65'536];
    ssize_t count = 0;
    while ((count = recv(socket_, piece, sizeof piece, 0)) > 0) {
      got_.append(piece, static_cast<std::size_t>(count));
    }
    closed_ = closed_ || count == 0 || (errno != EAGAIN && errno != EINPROGRESS && errno != ENOTCONN);
    return got_;
  }
  bool closed() {
    read();
    return closed_;
  }
  // Sends it all, unless the server hangs up first.
  void send(std::string_view bytes) {
    EXPECT_TRUE(runUntil([&] {
      const ssize_t count = ::send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
      if (count > 0) bytes.remove_prefix(static_cast<std::size_t>(count));
      return bytes.empty() || closed();
    }));
  }
  // One masked frame; `first` holds its flags and its opcode.
  void frame(int first, const std::string& payload) {
    std::string bytes(1, static_cast<char>(first));
    const std::size_t size = payload.size();
    if (size < 126) {
      bytes += static_cast<char>(0x80 | size);
    } else if (size < 65'536) {
      bytes += {static_cast<char>(0xfe), static_cast<char>(size >> 8), static_cast<char>(size)};
    } else {
      bytes += static_cast<char>(0xff);
      for (int shift = 56; shift >= 0; shift -= 8) bytes += static_cast<char>(size >> shift);
    }
    send(bytes + std::string(4, '\0') + payload);  // a mask of zeros
  }

 private:
  int socket_;
  std::string got_;
  bool closed_ = false;
};

TEST_F(WebServerTest, NoFramesOfAGuestsTakeMemoryOrReachJanusBeyondTheLimit) {
  constexpr std::size_t limit = 65'536;
  constexpr std::size_t bound = 4'000'000;
  constexpr int last = 0x80;
  constexpr int compressed = 0x40;
  std::size_t largest = 0;
  const auto receive = +[](SoupWebsocketConnection*, int, GBytes* message, gpointer most) {
    auto& size = *static_cast<std::size_t*>(most);
    size = std::max(size, g_bytes_get_size(message));
  };
  const auto guestWithJanus = [&] {
    auto guest = std::make_unique<BareGuest>(port());
    EXPECT_TRUE(runUntil([&] { return !atJanus_.empty(); }));
    SoupWebsocketConnection* peer = std::exchange(atJanus_, {}).front();
    soup_websocket_connection_set_max_incoming_payload_size(peer, 100 * limit);
    g_signal_connect(peer, "message", G_CALLBACK(receive), &largest);
    return std::pair(std::move(guest), peer);
  };

  const std::size_t before = mallinfo2().uordblks;
  {
    auto [guest, peer] = guestWithJanus();
    EXPECT_THAT(guest->read(), testing::Not(HasSubstr("permessage-deflate")));
    guest->frame(1, std::string(limit - 1, 'x'));
    guest->frame(last | 9, "a ping between");
    guest->frame(last, "y");
    EXPECT_TRUE(runUntil([&] { return largest == limit; })) << "what is just not too long arrives";
    guest->frame(1, "a message that does not end");
    for (int frames = 0; frames < 1000 && !guest->closed(); ++frames)
      guest->frame(0, std::string(60'000, 'x'));
    EXPECT_TRUE(runUntil([&] { return guest->closed(); }));
    EXPECT_TRUE(untilClosed(peer));
    g_object_unref(peer);
  }
  std::mt19937 random(1);
  const auto any = [&](std::initializer_list<int> of) { return of.begin()[random() % of.size()]; };
  for (int round = 0; round < 100; ++round) {
    auto [guest, peer] = guestWithJanus();
    for (int frames = 0; frames < 20 && !guest->closed(); ++frames) {
      guest->frame(any({0, last}) | any({0, 0, 0, compressed, 0x10}) | any({0, 0, 0, 1, 1, 2, 8, 9, 10, 15}),
                   std::string(static_cast<std::size_t>(any({0, 1, 125, 126, 4000, 60'000, 65'537})), 'x'));
      EXPECT_LT(mallinfo2().uordblks, before + bound);
    }
    guest.reset();
    EXPECT_TRUE(untilClosed(peer));
    g_object_unref(peer);
  }
  EXPECT_LE(largest, limit);
}

}  // namespace
