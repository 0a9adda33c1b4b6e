// What a browser, and whoever is no browser, gets from the guests' port.
#include "stage/web_server.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "run_until.h"
#include "stage/lobby_socket.h"
#include "stage/relay_rules.h"

namespace {

namespace fs = std::filesystem;
using studio::LobbySocket;
using studio::WebServer;
using testing::HasSubstr;

constexpr char address[] = "127.0.0.1";
const char* protocols[] = {"janus-protocol", nullptr};

class WebServerTest : public testing::Test, public WebServer::Listener, public LobbySocket::Listener {
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
                                        "ws://127.0.0.1:" + std::to_string(port), "", ""},
                    *this);
    url_ = server_->pageUrl();
  }
  ~WebServerTest() override {
    server_.reset();
    pages_.clear();
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

  // Connects to /janus with a seat's key, or to /lobby; null when that is refused.
  SoupWebsocketConnection* connect(const char* origin, const std::string& key = "good") {
    return connected(asked(origin, key.empty() ? "lobby" : "janus", key));
  }
  struct Request {
    GAsyncResult* result = nullptr;
  };
  std::unique_ptr<Request> asked(const char* origin, const std::string& path, const std::string& key) {
    g_autoptr(SoupMessage) message = soup_message_new("GET", ("ws" + url_.substr(4) + path).c_str());
    const std::string seat = "seat." + key;
    const char* names[] = {key.empty() ? "zarvo-lobby" : protocols[0], key.empty() ? nullptr : seat.c_str(),
                           nullptr};
    auto request = std::make_unique<Request>();
    soup_session_websocket_connect_async(session_, message, origin, const_cast<char**>(names),
                                         G_PRIORITY_DEFAULT, nullptr, finish, &request->result);
    return request;
  }
  SoupWebsocketConnection* connected(const std::unique_ptr<Request>& request) {
    EXPECT_TRUE(runUntil([&] { return request->result != nullptr; }));
    g_autoptr(GAsyncResult) result = request->result;
    return soup_session_websocket_connect_finish(session_, result, nullptr);
  }
  static bool untilClosed(SoupWebsocketConnection* end) {
    return runUntil([&] { return soup_websocket_connection_get_state(end) == SOUP_WEBSOCKET_STATE_CLOSED; });
  }

  std::optional<std::uint32_t> seatOf(std::string_view key) override {
    if (key == "good") return 1;
    if (key == "bare") return ++lastBare_;  // each has a seat of its own
    return key == "other" ? std::optional<std::uint32_t>(2) : std::nullopt;
  }
  void onPage(SoupWebsocketConnection* connection, const std::string& from) override {
    pages_.push_back(std::make_unique<LobbySocket>(connection, from, *this));
  }
  void onAsk(LobbySocket& page, const std::string& invitation, const std::string& name) override {
    heard_.push_back("ask " + invitation + " " + name + " from " + page.address());
  }
  void onReturn(LobbySocket&, const std::string& key) override { heard_.push_back("return " + key); }
  void onPageState(LobbySocket&, const studio::PageState& state) override {
    const auto flag = [](std::optional<bool> set) { return !set ? "-" : *set ? "yes" : "no"; };
    heard_.push_back(std::string("state ") + flag(state.hidden) + " " + state.camera.value_or("-") + " " +
                     state.microphone.value_or("-") + " " + flag(state.echo));
  }
  void onLeave(LobbySocket&) override { heard_.push_back("leave"); }
  void onClosed(LobbySocket&) override { heard_.push_back("closed"); }

  int port() const { return std::stoi(url_.substr(url_.rfind(':') + 1)); }

  TemporaryFolder directory_;
  SoupSession* session_;
  SoupServer* janus_;
  std::vector<SoupWebsocketConnection*> atJanus_;
  std::vector<std::unique_ptr<LobbySocket>> pages_;
  std::vector<std::string> heard_;
  std::uint32_t lastBare_ = 100;
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

TEST_F(WebServerTest, OnlyWhoHasASeatReachesTheSession) {
  for (const char* origin : {"http://evil.example", "http://127.0.0.1:1", "null"}) {
    EXPECT_FALSE(connect(origin)) << origin;
    EXPECT_FALSE(connect(origin, "")) << origin;
  }
  for (const char* key : {"bad", "good2", "goo", " good"}) EXPECT_FALSE(connect(nullptr, key)) << key;
  EXPECT_TRUE(atJanus_.empty());
  EXPECT_TRUE(pages_.empty());

  // Four connections a seat, also where many are asked for at once.
  std::vector<std::unique_ptr<Request>> requests;
  for (int each = 0; each < 20; ++each) requests.push_back(asked(nullptr, "janus", "good"));
  std::vector<SoupWebsocketConnection*> open;
  for (const auto& request : requests) {
    if (SoupWebsocketConnection* const guest = connected(request)) open.push_back(guest);
  }
  const auto stillOpen = [&] {
    return std::count_if(open.begin(), open.end(), [](auto* guest) {
      return soup_websocket_connection_get_state(guest) == SOUP_WEBSOCKET_STATE_OPEN;
    });
  };
  EXPECT_TRUE(runUntil([&] { return stillOpen() == 4 && atJanus_.size() == 4; }));
  g_autoptr(SoupWebsocketConnection) other = connect(nullptr, "other");
  EXPECT_TRUE(other) << "one seat's guest takes nothing from another's";
  server_->closeSeat(1);
  EXPECT_TRUE(runUntil([&] { return stillOpen() == 0; }));
  EXPECT_EQ(soup_websocket_connection_get_state(other), SOUP_WEBSOCKET_STATE_OPEN);
  for (SoupWebsocketConnection* guest : open) g_object_unref(guest);
}

TEST_F(WebServerTest, ThePageTalksWithTheLobbyWithinBounds) {
  const auto page = [&] {
    SoupWebsocketConnection* const made = connect(nullptr, "");
    EXPECT_TRUE(made);
    heard_.clear();
    return made;
  };
  const auto heard = [&](std::size_t count) {
    EXPECT_TRUE(runUntil([&] { return heard_.size() >= count; }));
    return std::exchange(heard_, {});
  };
  const auto say = soup_websocket_connection_send_text;
  {
    g_autoptr(SoupWebsocketConnection) guest = page();
    say(guest, R"({"ask":{"invite":"i","name":"Ann"}})");
    say(guest, R"({"ask":5,"name":[],"news":{}})");
    say(guest, R"({"ask":{"invite":{},"name":7}})");
    say(guest, R"({"return":{"key":"k"}})");
    say(guest, R"({"state":{"hidden":true,"camera":"lost","microphone":"<b>","echo":"yes"}})");
    say(guest, R"({"leave":{}})");
    EXPECT_THAT(heard(5), testing::ElementsAre("ask i Ann from 127.0.0.1", "ask   from 127.0.0.1", "return k",
                                               "state yes lost - -", "leave"));
  }
  const std::string deep(4000, '[');
  const std::string large = R"({"ask":{"name":")" + std::string(5000, 'x') + "\"}}";
  for (const std::string& broken : {std::string("no JSON"), std::string("[]"), deep, large}) {
    g_autoptr(SoupWebsocketConnection) guest = page();
    say(guest, broken.c_str());
    EXPECT_THAT(heard(1), testing::ElementsAre("closed")) << broken.substr(0, 20);
  }
  g_autoptr(SoupWebsocketConnection) fast = page();
  for (int each = 0; each < 50; ++each) say(fast, R"({"return":{"key":"k"}})");
  EXPECT_TRUE(untilClosed(fast));
  EXPECT_LE(std::count(heard_.begin(), heard_.end(), "return k"), 20);
}

TEST(RelayRules, AGuestHasOneSessionAConnectionAndFewHandles) {
  using studio::RelayRules;
  using studio::SeatSessions;
  RelayRules::Time now{std::chrono::hours(1)};
  const auto seat = std::make_shared<SeatSessions>();
  const auto with = [](const char* verb, const std::string& more = {}) {
    return std::string(R"({"janus":")") + verb + "\"" + more + "}";
  };
  const std::string own = R"(,"session_id":7)";
  const std::string attach = own + R"(,"plugin":"janus.plugin.videoroom")";
  RelayRules rules(seat);
  EXPECT_FALSE(RelayRules(seat).allows(with("claim", own), now)) << "no session of this seat's";
  EXPECT_FALSE(rules.allows(with("keepalive"), now));
  EXPECT_TRUE(rules.allows(with("create"), now));
  EXPECT_FALSE(rules.allows(with("create"), now));
  rules.answered(R"({"janus":"success","transaction":"x","data":{"id":7}})");
  EXPECT_EQ(rules.session(), 7u);

  for (const char* verb : {"keepalive", "message", "trickle", "hangup", "detach"}) {
    EXPECT_TRUE(rules.allows(with(verb, own), now)) << verb;
    EXPECT_FALSE(rules.allows(with(verb, R"(,"session_id":8)"), now)) << verb;
    EXPECT_FALSE(rules.allows(with(verb, R"(,"session_id":"7")"), now)) << verb;
  }
  for (const char* verb : {"info", "ping", "create", "claim", "list_sessions", "CREATE", ""}) {
    EXPECT_FALSE(rules.allows(with(verb, own), now)) << verb;
  }
  EXPECT_FALSE(rules.allows(with("attach", own + R"(,"plugin":"janus.plugin.echotest")"), now));
  for (const std::string& broken : {std::string("null"), std::string("7"), std::string(R"({"janus":{}})"),
                                    std::string(65'536, '['), R"({"janus":)" + std::string(60'000, '[')}) {
    EXPECT_FALSE(rules.allows(broken, now)) << broken.substr(0, 20);
    rules.answered(broken);
  }

  for (int handle = 0; handle < SeatSessions::mostHandles; ++handle) {
    EXPECT_TRUE(rules.allows(with("attach", attach), now));
  }
  EXPECT_TRUE(rules.allows(with("detach", own + R"(,"handle_id":99)"), now));
  EXPECT_FALSE(rules.allows(with("attach", attach), now)) << "nothing says that the handle was one";
  rules.answered(R"({"janus":"event","note":"\"detached\"","session_id":7})");
  EXPECT_FALSE(rules.allows(with("attach", attach), now));
  rules.answered(R"({"janus":"detached","session_id":7,"sender":99})");
  EXPECT_TRUE(rules.allows(with("attach", attach), now));

  // What lost its connection is claimed by the next, handles and all, and counts while the server keeps it.
  rules.leave(now);
  RelayRules next(seat);
  EXPECT_TRUE(next.allows(with("claim", own), now));
  EXPECT_FALSE(next.allows(with("create"), now));
  EXPECT_FALSE(next.allows(with("attach", attach), now));
  const auto sessions = [&](int first) {
    int made = 0;
    for (int id = first; id < first + 100; ++id) {
      RelayRules each(seat);
      if (!each.allows(with("create"), now)) continue;
      each.answered(R"({"janus":"success","data":{"id":)" + std::to_string(id) + "}}");
      each.leave(now);
      ++made;
    }
    return made;
  };
  EXPECT_EQ(sessions(100), 7);
  now += std::chrono::minutes(1);
  EXPECT_EQ(sessions(300), 7) << "the one that is still connected counts";
  EXPECT_TRUE(next.allows(with("destroy", own), now));
  EXPECT_FALSE(RelayRules(seat).allows(with("claim", own), now));
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
    send(
        "GET /janus HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(port) +
        "\r\nConnection: Upgrade\r\nUpgrade: websocket\r\nSec-WebSocket-Version: 13\r\n"
        "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Protocol: janus-protocol, seat.bare\r\n"
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
    const std::string message = R"({"janus":"create","why":")";
    guest->frame(1, message + std::string(limit - message.size() - 2, 'x'));
    guest->frame(last | 9, "a ping between");
    guest->frame(last, "\"}");
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
