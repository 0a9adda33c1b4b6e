// What comes in: streams, frames, sound and signals of a browser's, through a real server.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <thread>

#include "browser.h"
#include "program.h"

namespace {

using json = nlohmann::json;
using testing::Contains;
using testing::Pair;

constexpr const char* token = "the-token";

// The real one, also while a test has the engine look elsewhere.
const std::string& server() {
  static const std::string address = std::getenv("ZARVO_SESSION_SERVER");
  return address;
}

class Incoming : public testing::Test {
 protected:
  static void SetUpTestSuite() { browser = new Browser; }
  static void TearDownTestSuite() { delete browser; }

  void SetUp() override {
    static int rooms = 0;
    room = "room " + std::to_string(++rooms);
    browser->call("makeRoom", {{"server", server()}, {"room", room}, {"token", token}});
  }

  void join(const std::string& name) {
    browser->call("joinRoom", {{"server", server()}, {"room", room}, {"token", token}, {"as", name}});
  }
  void publish(const std::string& name, const json& what = json::object()) {
    json all = {{"as", name},    {"type", "camera"}, {"width", 320},
                {"height", 240}, {"tone", 440},      {"color", {255, 0, 0}}};
    all.update(what);
    browser->call("publish", all);
  }
  // Subscribes to the stream of this name and waits until it is there.
  Received& subscribe(const std::string& name) {
    EXPECT_TRUE(program.wait([&](Program& p) { return p.streams.contains(name); })) << name;
    Received& received = program.received[program.streams[name].id];
    EXPECT_EQ(OTC_SUCCESS, otc_session_subscribe(program.session(), received.subscriber));
    return received;
  }

  static inline Browser* browser = nullptr;
  std::string room;
  Program program;
};

TEST_F(Incoming, FramesSoundAndSignals) {
  program.connect(room, token);
  ASSERT_TRUE(program.wait_event("connected"));
  ASSERT_EQ(OTC_SUCCESS, otc_session_send_signal(program.session(), "early", "queued"));
  join("Guest - Ada");
  publish("Guest - Ada");
  Received& ada = subscribe("Guest - Ada");
  ASSERT_TRUE(program.wait([&](Program&) { return ada.frames > 10 && ada.left.size() >= 24000; }));
  EXPECT_EQ(320, ada.width);
  EXPECT_EQ(240, ada.height);
  EXPECT_NEAR(54, ada.y, 6);  // red, as the browser makes it: full range, BT.709
  EXPECT_NEAR(99, ada.u, 6);
  EXPECT_NEAR(255, ada.v, 6);
  EXPECT_NEAR(440, tone_of(ada.left), 10);

  // What an audio device would play is the same, and only as far as it is read.
  std::vector<std::int16_t> played;
  std::vector<std::int16_t> block(2000);
  for (int tick = 0; tick < 100 && played.size() < 24000; ++tick) {
    ASSERT_EQ(1000U, otc_audio_device_read_render_data(block.data(), 1000));
    for (std::size_t i = 0; i < block.size() && tick > 10; i += 2) played.push_back(block[i]);
    std::this_thread::sleep_for(std::chrono::microseconds(20833));
  }
  // In pieces: where this thread or the sender's was late, the tone jumps.
  constexpr std::ptrdiff_t piece = 4800;
  std::vector<double> tones;
  for (auto at = played.begin(); played.end() - at >= piece; at += piece) {
    tones.push_back(tone_of({at, at + piece}));
  }
  EXPECT_THAT(tones, Contains(testing::DoubleNear(440, 10)));

  browser->call("openSignals", {{"as", "Guest - Ada"}});
  ASSERT_EQ(OTC_SUCCESS, otc_session_send_signal(program.session(), "start", "x \"y\" \xc3\xa9"));
  browser->call("sendSignal", {{"as", "Guest - Ada"}, {"type", "chat"}, {"data", "{\"text\":\"hi\"}"}});
  ASSERT_TRUE(program.wait([](Program& p) { return p.signals.size() == 3; }));
  EXPECT_THAT(program.signals, testing::ElementsAre(Pair("early", "queued"), testing::_, testing::_));
  EXPECT_THAT(program.signals, Contains(Pair("start", "x \"y\" \xc3\xa9")));
  EXPECT_THAT(program.signals, Contains(Pair("chat", "{\"text\":\"hi\"}")));
}

TEST_F(Incoming, StreamsComeChangeAndGo) {
  join("Guest - Early");
  publish("Guest - Early", {{"type", "screen"}, {"width", 640}, {"height", 360}});
  program.connect(room, token);
  ASSERT_TRUE(program.wait_event("stream received Guest - Early"));
  EXPECT_EQ(OTC_STREAM_VIDEO_TYPE_SCREEN, program.streams["Guest - Early"].type);
  EXPECT_EQ(640, program.streams["Guest - Early"].width);
  EXPECT_EQ(360, program.streams["Guest - Early"].height);

  join("Guest - Late");
  publish("Guest - Late");
  Received& late = subscribe("Guest - Late");
  EXPECT_EQ(OTC_STREAM_VIDEO_TYPE_CAMERA, program.streams["Guest - Late"].type);
  ASSERT_TRUE(program.wait([&](Program&) { return late.frames > 0 && late.sounds > 0; }));

  browser->call("describe", {{"as", "Guest - Late"}, {"kind", "audio"}, {"description", "off"}});
  ASSERT_TRUE(program.wait_event("audio off"));
  browser->call("describe", {{"as", "Guest - Late"}, {"kind", "video"}, {"description", "camera off"}});
  ASSERT_TRUE(program.wait_event("video off"));
  browser->call("describe", {{"as", "Guest - Late"}, {"kind", "audio"}, {"description", "on"}});
  ASSERT_TRUE(program.wait_event("audio on"));

  browser->call("change", {{"as", "Guest - Late"}, {"width", 486}, {"height", 274}, {"color", {0, 0, 255}}});
  ASSERT_TRUE(program.wait([&](Program&) { return late.width == 486 && late.height == 274; }))
      << late.width << " x " << late.height << " after " << late.frames << " frames";

  browser->call("unpublish", {{"as", "Guest - Late"}});
  ASSERT_TRUE(program.wait_event("stream dropped Guest - Late"));
  ASSERT_TRUE(program.wait([&](Program&) { return late.disconnected == 1; }));
  browser->call("leave", {{"as", "Guest - Early"}});
  ASSERT_TRUE(program.wait_event("stream dropped Guest - Early"));
  ASSERT_TRUE(program.wait_event("connection dropped"));
  EXPECT_EQ(1, program.count("stream received Guest - Late"));
}

TEST_F(Incoming, WhatIsSwitchedOffDoesNotCome) {
  program.connect(room, token);
  join("Guest - Ada");
  publish("Guest - Ada");
  ASSERT_TRUE(program.wait([](Program& p) { return p.streams.contains("Guest - Ada"); }));
  Received& ada = program.received[program.streams["Guest - Ada"].id];
  otc_subscriber_set_subscribe_to_audio(ada.subscriber, OTC_FALSE);
  EXPECT_EQ(OTC_FALSE, otc_subscriber_get_subscribe_to_audio(ada.subscriber));
  subscribe("Guest - Ada");
  ASSERT_TRUE(program.wait([&](Program&) { return ada.frames > 20; }));
  EXPECT_EQ(0, ada.sounds);

  otc_subscriber_set_subscribe_to_audio(ada.subscriber, OTC_TRUE);
  ASSERT_TRUE(program.wait([&](Program&) { return ada.sounds > 10; }));

  otc_subscriber_set_subscribe_to_video(ada.subscriber, OTC_FALSE);
  int frames = 0;
  program.note([&] { frames = ada.frames; });
  ASSERT_TRUE(program.wait([&, enough = ada.sounds + 25](Program&) { return ada.sounds > enough; }));
  EXPECT_LE(ada.frames, frames + 1) << "half a second later";
  otc_subscriber_set_subscribe_to_video(ada.subscriber, OTC_TRUE);
  ASSERT_TRUE(program.wait([&](Program&) { return ada.frames > frames + 5; }));

  ASSERT_EQ(OTC_SUCCESS, otc_session_unsubscribe(program.session(), ada.subscriber));
  program.note([&] { frames = ada.frames; });
  ASSERT_EQ(OTC_SUCCESS, otc_session_subscribe(program.session(), ada.subscriber));
  ASSERT_TRUE(program.wait([&](Program&) { return ada.frames > frames && ada.connected == 2; }))
      << ada.frames - frames << " frames, connected " << ada.connected;
}

TEST_F(Incoming, SignalsOfAnyShapeHarmNothing) {
  program.connect(room, token);
  join("Guest - Mallory");
  browser->call("openSignals", {{"as", "Guest - Mallory"}});
  otc_session_send_signal(program.session(), "first", "");  // comes back once the channel is open
  ASSERT_TRUE(program.wait([](Program& p) { return p.signals.size() == 1; }));
  const std::string deep = std::string(20000, '[');
  for (const std::string& text :
       {std::string("{"), std::string("[]"), std::string("null"), deep,
        std::string(R"({"type":7,"data":"x"})"), std::string(R"({"type":"chat"})")}) {
    browser->call("sendText", {{"as", "Guest - Mallory"}, {"text", text}});
  }
  browser->call("sendSignal", {{"as", "Guest - Mallory"}, {"type", "last"}, {"data", ""}});
  ASSERT_TRUE(program.wait([](Program& p) { return p.signals.size() > 1; }));
  EXPECT_THAT(program.signals, testing::ElementsAre(Pair("first", ""), Pair("last", "")));
  EXPECT_EQ(OTC_INVALID_PARAM,
            otc_session_send_signal(program.session(), "large", std::string(70000, 'x').c_str()));
}

TEST_F(Incoming, EachRefusalHasItsCode) {
  program.connect(room, "another-token");
  EXPECT_TRUE(program.wait_event("error 1004")) << program.error_text;
  EXPECT_THAT(program.error_text, testing::HasSubstr("token"));
  program.disconnect();
  program.connect("no such room", token);
  EXPECT_TRUE(program.wait_event("error 1005")) << program.error_text;
  program.disconnect();
  for (const char* wrong : {"ws://127.0.0.1:1", "no address"}) {
    program.events.clear();
    setenv("ZARVO_SESSION_SERVER", wrong, 1);
    program.connect(room, token);
    EXPECT_TRUE(program.wait_event("error 1006")) << program.error_text;
    EXPECT_THAT(program.error_text, testing::HasSubstr(wrong));
    program.disconnect();
  }
  setenv("ZARVO_SESSION_SERVER", server().c_str(), 1);
}

TEST_F(Incoming, ALostConnectionIsMadeAgainUntilItIsGone) {
  setenv("ZARVO_SESSION_SERVER", browser->call("openRoad", {{"to", server()}}).get<std::string>().c_str(), 1);
  program.connect(room, token);
  join("Guest - Stays");
  publish("Guest - Stays");
  join("Guest - Goes");
  publish("Guest - Goes");
  Received& stays = subscribe("Guest - Stays");
  subscribe("Guest - Goes");
  ASSERT_TRUE(program.wait([&](Program&) { return stays.frames > 0; }));

  browser->call("cutRoad", json::object());
  ASSERT_TRUE(program.wait_event("reconnection started"));
  browser->call("leave", {{"as", "Guest - Goes"}});
  join("Guest - Comes");
  publish("Guest - Comes");
  ASSERT_TRUE(program.wait_event("reconnected"));
  EXPECT_TRUE(program.wait_event("stream dropped Guest - Goes"));
  Received& comes = subscribe("Guest - Comes");
  EXPECT_TRUE(program.wait([&](Program&) { return comes.frames > 0; }));
  int frames = 0;
  program.note([&] { frames = stays.frames; });
  EXPECT_TRUE(program.wait([&](Program&) { return stays.frames > frames; }));
  EXPECT_EQ(0, stays.disconnected) << "media do not depend on the server's WebSocket";
  EXPECT_EQ(1, program.count("stream received Guest - Stays"));

  browser->call("cutRoad", {{"forGood", true}});
  EXPECT_TRUE(program.wait([](Program& p) { return p.count("disconnected") == 1; }));
  EXPECT_EQ(0, program.count("error 1006")) << "it had been connected";
  program.disconnect();
  setenv("ZARVO_SESSION_SERVER", server().c_str(), 1);
}

// A server that stands still for a while: it is not given up, and what it has lost is made again.
TEST_F(Incoming, AServerThatHangsIsWaitedFor) {
  program.connect(room, token);
  join("Guest - Ada");
  publish("Guest - Ada");
  Received& ada = subscribe("Guest - Ada");
  ASSERT_TRUE(program.wait([&](Program&) { return ada.frames > 0; }));
  const pid_t janus = std::stoi(std::getenv("JANUS_PID"));
  kill(janus, SIGSTOP);
  EXPECT_TRUE(program.wait_event("reconnection started"));
  kill(janus, SIGCONT);
  EXPECT_TRUE(program.wait_event("reconnected"));
  int frames = 0;
  program.note([&] { frames = ada.frames; });
  EXPECT_TRUE(program.wait([&](Program&) { return ada.frames > frames + 10; }));
  EXPECT_EQ(0, program.count("disconnected"));
}

TEST_F(Incoming, ASessionMayBeDeletedFromACallback) {
  for (const bool from_frame : {true, false}) {
    const std::string name = from_frame ? "Guest - Frame" : "Guest - Event";
    program.connect(room, token);
    otc_session* session = program.session();
    std::atomic<bool> deleted = false;
    const auto erase = [&] {
      if (!deleted.exchange(true)) otc_session_delete(session);
      program.note([] {});
    };
    program.note([&] { (from_frame ? program.on_frame : program.on_stream) = erase; });
    join(name);
    publish(name);
    if (from_frame) subscribe(name);
    ASSERT_TRUE(program.wait([&](Program&) { return deleted.load(); }));
    program.disconnect();
    program.note([&] { program.on_frame = program.on_stream = nullptr; });
    browser->call("leave", {{"as", name}});
  }
}

// What a process holds, as the kernel counts it.
int open_files() {
  return static_cast<int>(std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}));
}
std::string listed_files() {
  std::string list;
  for (const auto& file : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code error;
    list += file.path().filename().string() + " " + read_symlink(file.path(), error).string() + "\n";
  }
  return list;
}
int threads() {
  return static_cast<int>(std::distance(std::filesystem::directory_iterator("/proc/self/task"), {}));
}

TEST_F(Incoming, AHundredTurnsLeaveNothingBehind) {
  join("Guest - Ada");
  publish("Guest - Ada");
  int files = 0;
  int workers = 0;
  for (int turn = 0; turn < 100; ++turn) {
    program.note([&] { program.events.clear(), program.streams.clear(), program.received.clear(); });
    program.connect(room, token);
    if (turn % 10 == 0) {
      Received& ada = subscribe("Guest - Ada");
      ASSERT_TRUE(program.wait([&](Program&) { return ada.frames > 0; })) << "turn " << turn;
    } else if (turn % 2 == 0) {
      subscribe("Guest - Ada");  // and gone before it is there
    }
    otc_session* handle = program.session();
    program.disconnect();
    EXPECT_EQ(OTC_INVALID_PARAM, otc_session_send_signal(handle, "late", ""));
    EXPECT_EQ(OTC_INVALID_PARAM, otc_session_delete(handle));
    if (turn == 20) files = open_files(), workers = threads();
  }
  EXPECT_EQ(0, program.calls_after_delete);
  // A closing WebSocket or a pooled thread may still be about.
  for (int i = 0; i < 100 && (open_files() > files + 4 || threads() > workers + 4); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  EXPECT_LE(open_files(), files + 4) << listed_files();
  EXPECT_LE(threads(), workers + 4);
}

}  // namespace
