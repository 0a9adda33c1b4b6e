// A session server that is not as it should be.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <libsoup/soup.h>

#include <array>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <future>
#include <nlohmann/json.hpp>
#include <thread>

#include "program.h"
#include "waiting.h"

namespace {

using namespace std::chrono_literals;
using json = nlohmann::json;
using Clock = std::chrono::steady_clock;
using testing::SizeIs;
using testing::StartsWith;

// Speaks the server's protocol as far as a session and its handles; what a plugin says to a "join" is the
// test's, after the time that it works, and a guest publishes just before.
class FakeServer {
 public:
  explicit FakeServer(std::function<json(const json& body)> joined, int millisecondsAtWork = 0)
      : joined_(std::move(joined)), millisecondsAtWork_(millisecondsAtWork) {
    std::promise<std::string> address;
    thread_ = std::thread([this, &address] { serve(address); });
    setenv("ZARVO_SESSION_SERVER", address.get_future().get().c_str(), 1);
  }

  ~FakeServer() {
    g_main_context_invoke(
        context_,
        [](gpointer loop) { return g_main_loop_quit(static_cast<GMainLoop*>(loop)), G_SOURCE_REMOVE; },
        loop_);
    thread_.join();
  }

  // Ends the connection to whoever came last; the session can be claimed.
  void drop() {
    g_main_context_invoke(
        context_,
        [](gpointer self) {
          soup_websocket_connection_close(static_cast<FakeServer*>(self)->client_,
                                          SOUP_WEBSOCKET_CLOSE_GOING_AWAY, nullptr);
          return G_SOURCE_REMOVE;
        },
        this);
  }

  // Waits until the session is destroyed: whether a plugin was at work then.
  bool destroyedAtWork() { return destroyed_.get_future().get(); }

 private:
  void serve(std::promise<std::string>& address) {
    context_ = g_main_context_new();
    g_main_context_push_thread_default(context_);
    loop_ = g_main_loop_new(context_, FALSE);
    SoupServer* server = soup_server_new(nullptr, nullptr);
    char protocol[] = "janus-protocol";
    char* protocols[] = {protocol, nullptr};
    soup_server_add_websocket_handler(
        server, nullptr, nullptr, protocols,
        +[](SoupServer*, SoupServerMessage*, const char*, SoupWebsocketConnection* client, gpointer self) {
          static_cast<FakeServer*>(self)->client_ = SOUP_WEBSOCKET_CONNECTION(g_object_ref(client));
          g_signal_connect(client, "message", G_CALLBACK(received), self);
          g_signal_connect(client, "closed", G_CALLBACK(g_object_unref), nullptr);
        },
        this, nullptr);
    ASSERT_TRUE(soup_server_listen_local(server, 0, SOUP_SERVER_LISTEN_IPV4_ONLY, nullptr));
    GSList* uris = soup_server_get_uris(server);
    address.set_value("ws://127.0.0.1:" + std::to_string(g_uri_get_port(static_cast<GUri*>(uris->data))));
    g_slist_free_full(uris, reinterpret_cast<GDestroyNotify>(g_uri_unref));
    g_main_loop_run(loop_);
    soup_server_disconnect(server);
    g_object_unref(server);
    g_main_loop_unref(loop_);
    g_main_context_pop_thread_default(context_);
    g_main_context_unref(context_);
  }

  static void received(SoupWebsocketConnection* client, int, GBytes* bytes, FakeServer* self) {
    gsize size = 0;
    const auto* text = static_cast<const char*>(g_bytes_get_data(bytes, &size));
    const json request = json::parse(text, text + size);
    const std::string kind = request["janus"];
    json answer = {{"janus", "ack"}, {"transaction", request["transaction"]}};
    if (kind == "create" || kind == "attach" || kind == "claim") {
      answer["janus"] = "success";
      answer["data"]["id"] = ++self->lastId_;
    } else if (kind == "message") {
      soup_websocket_connection_send_text(client, answer.dump().c_str());
      json early = {{"janus", "event"}, {"sender", request["handle_id"]}};
      early["plugindata"]["data"] = {{"videoroom", "event"},
                                     {"publishers", {{{"id", "early"}, {"display", "Guest - Early"}}}}};
      soup_websocket_connection_send_text(client, early.dump().c_str());
      const json data = self->joined_(request["body"]);
      if (data.is_null()) return;
      answer.update({{"janus", "event"}, {"plugindata", {{"data", data}}}});
      self->work(client, answer.dump());
      return;
    } else if (kind == "destroy") {
      self->destroyed_.set_value(self->atWork_ > 0);
    }
    soup_websocket_connection_send_text(client, answer.dump().c_str());
  }

  // Sends a plugin's answer once it has worked for it.
  void work(SoupWebsocketConnection* client, const std::string& answer) {
    ++atWork_;
    GSource* end = g_timeout_source_new(static_cast<guint>(millisecondsAtWork_));
    auto* task = new std::function<void()>([this, client, answer] {
      --atWork_;
      soup_websocket_connection_send_text(client, answer.c_str());
    });
    g_source_set_callback(
        end, [](gpointer ended) { return (*static_cast<std::function<void()>*>(ended))(), G_SOURCE_REMOVE; },
        task, [](gpointer ended) { delete static_cast<std::function<void()>*>(ended); });
    g_source_attach(end, context_);
    g_source_unref(end);
  }

  std::function<json(const json&)> joined_;
  const int millisecondsAtWork_;
  int atWork_ = 0;
  std::promise<bool> destroyed_;
  GMainContext* context_ = nullptr;
  GMainLoop* loop_ = nullptr;
  SoupWebsocketConnection* client_ = nullptr;
  int lastId_ = 0;
  std::thread thread_;
};

TEST(Server, OneThatDoesNotAnswerAJoinIsGivenUp) {
  const FakeServer server([](const json&) { return json(); });
  Program program;
  program.connect("room", "token");
  EXPECT_TRUE(program.wait([&] { return !program.errorText.empty(); }));
  EXPECT_THAT(program.errorText, StartsWith("Session room could not be joined: the server does not answer"));
}

TEST(Server, ASessionIsNotDestroyedWhileAPluginIsAtWork) {
  std::promise<void> joining;
  FakeServer server(
      [&](const json&) {
        joining.set_value();
        return json{{"videoroom", "joined"}, {"id", "us"}};
      },
      200);
  Program program;
  program.connect("room", "token");
  joining.get_future().wait();
  program.disconnect();
  EXPECT_FALSE(server.destroyedAtWork());
}

TEST(Server, WhoeverComesDuringTheJoinIsSeenAndNamesAreBounded) {
  std::string stars = "Guest - ";
  for (int i = 0; i < 20'000; ++i) stars += "★";
  const FakeServer server([&](const json& body) {
    if (body.value("request", "") != "join") return json();
    return json{
        {"videoroom", "joined"},
        {"id", "us"},
        {"publishers",
         {{{"id", "long"}, {"display", stars}}, {{"id", std::string(1000, 'x')}, {"display", "Guest - X"}}}}};
  });
  Program program;
  program.connect("room", "token");
  EXPECT_TRUE(program.wait([&] { return program.streams.size() == 2; }));
  program.disconnect();
  ASSERT_THAT(program.streams, SizeIs(2));
  EXPECT_EQ(program.streams.begin()->first, "Guest - Early");
  const std::string name = program.streams.rbegin()->first;
  EXPECT_EQ(name.size(), 254);
  EXPECT_THAT(stars, StartsWith(name));
}

TEST(Server, ATokenIsOneUnlessItIsAWholeObject) {
  const auto pair = [](const std::string& token, const std::string& pin) { return json{token, pin}; };
  const std::string large = R"({"token":"t","pin":")" + std::string(2000, '1') + R"("})";
  const std::string deep = R"({"token":"t","x":)" + std::string(9000, '[');
  const std::map<std::string, json> cases = {
      {"T1==:x", pair("T1==:x", "")},
      {R"({"token":"t"})", pair("t", "")},
      {R"({"token":"t","pin":"p q","server":"","turn":{"user":1}})", pair("t", "p q")},
      {R"({"pin":"p"})", {}},
      {R"({"token":"","pin":"p"})", {}},
      {R"({"token":7,"pin":"p"})", {}},
      {R"({"token":"t","pin":null})", {}},
      {R"({"token":"t","server":"http://127.0.0.1"})", {}},
      {R"({"token":"t","pin":"p")", {}},
      {R"(["t","p"])", {}},
      {"{", {}},
      {large, {}},
      {deep, {}},
  };
  for (const auto& [text, expected] : cases) {
    Mailbox<json> joined;
    const FakeServer server([&](const json& body) {
      if (body.value("ptype", "") == "publisher") joined.put({body["token"], body["pin"]});
      return json();
    });
    Program program;
    program.connect("room", text);
    EXPECT_EQ(expected.is_null() ? pair(text, "") : expected, joined.next()) << text.substr(0, 60);
  }
}

TEST(Signal, OneThatIsTooLongIsNotSentAndLogged) {
  static Mailbox<std::string> log;
  Program program;
  otc_log_set_logger_callback([](const char* line) { log.put(line); });
  const otc_session_callbacks callbacks = {};
  otc_session* session = otc_session_new("00000000", "room", &callbacks);
  const auto send = [&](std::size_t length) {
    return otc_session_send_signal(session, "audio_setting", std::string(length, 'x').c_str());
  };
  EXPECT_EQ(OTC_SUCCESS, send(59'000));
  EXPECT_EQ(0, log.count());
  EXPECT_EQ(OTC_INVALID_PARAM, send(60'000));
  EXPECT_THAT(log.next(), StartsWith("[WARN] A signal \"audio_setting\" of 60000 bytes is not sent"));
  otc_session_delete(session);
}

TEST(Server, AStreamThatFailsIsTriedEverMoreSlowlyAndAtOnceWhenTheServerIsBack) {
  Mailbox<Clock::time_point> tries;
  FakeServer server([&](const json& body) {
    if (body.value("ptype", "") == "publisher") return json{{"videoroom", "joined"}, {"id", "us"}};
    if (body.value("ptype", "") != "subscriber") return json();
    tries.put(Clock::now());
    return json{{"videoroom", "event"}, {"error_code", 428}, {"error", "No such feed"}};
  });
  Program program;
  program.connect("room", "token");
  ASSERT_TRUE(program.wait([&] { return !program.streams.empty(); })) << "without signals, too";
  otc_session_subscribe(program.session(), program.streams["Guest - Early"].subscriber);
  std::array<Clock::time_point, 4> times;
  for (Clock::time_point& time : times) time = tries.next();
  EXPECT_GE(times[2] - times[1], 1900ms);
  EXPECT_GE(times[3] - times[2], 3900ms);

  server.drop();
  EXPECT_LT(tries.next() - times[3], 7s) << "eight seconds would be the next pause";
  EXPECT_TRUE(program.waitEvent("reconnected"));
}

}  // namespace
