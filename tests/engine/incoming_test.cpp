// What comes in: streams, frames, sound and signals of a browser's, through a real server.
#include <gmock/gmock.h>

#include <algorithm>
#include <array>
#include <csignal>

#include "room_fixture.h"
#include "waiting.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Pair;

class Incoming : public RoomTest {
 protected:
  void publish(const std::string& name, const json& what = json::object()) {
    json all = {{"as", name}, {"type", "camera"}, {"width", 320}, {"height", 240}};
    all.update(what);
    join(name);
    browser->call("publish", all);
  }
  // Subscribes to the stream of this name once it is there.
  Stream& subscribe(const std::string& name) {
    EXPECT_TRUE(program.wait([&] { return program.streams.contains(name); })) << name;
    Stream& stream = program.streams[name];
    EXPECT_EQ(OTC_SUCCESS, otc_session_subscribe(program.session(), stream.subscriber));
    return stream;
  }
  // Waits until so many more of the stream's frames have come.
  bool waitFrames(const Stream& stream, int more = 1) {
    int before = 0;
    program.note([&] { before = stream.frames; });
    return program.wait([&] { return stream.frames >= before + more; });
  }
};

TEST_F(Incoming, StreamsComeChangeAndGo) {
  publish("Guest - Early", {{"type", "screen"}, {"width", 640}, {"height", 360}});
  program.connect(room, token);
  ASSERT_TRUE(program.waitEvent("stream received Guest - Early"));
  const Stream& early = program.streams["Guest - Early"];
  EXPECT_EQ(OTC_STREAM_VIDEO_TYPE_SCREEN, early.type);
  EXPECT_EQ(640, early.announcedWidth);
  EXPECT_EQ(360, early.announcedHeight);

  publish("Guest - Late");
  const Stream& late = subscribe("Guest - Late");
  EXPECT_EQ(OTC_STREAM_VIDEO_TYPE_CAMERA, late.type);
  ASSERT_TRUE(program.wait([&] { return late.frames > 0 && late.sounds > 0; }));
  // What an audio device would play is heard as well, as far as it is read.
  std::array<std::int16_t, 960> played = {};
  EXPECT_TRUE(eventually([&] {
    EXPECT_EQ(480U, otc_audio_device_read_render_data(played.data(), 480));
    return *std::ranges::max_element(played) > 1000;
  }));

  browser->call("describe", {{"as", "Guest - Late"}, {"kind", "audio"}, {"description", "off"}});
  ASSERT_TRUE(program.waitEvent("audio off"));
  browser->call("describe", {{"as", "Guest - Late"}, {"kind", "video"}, {"description", "camera off"}});
  ASSERT_TRUE(program.waitEvent("video off"));
  browser->call("describe", {{"as", "Guest - Late"}, {"kind", "audio"}, {"description", "on"}});
  ASSERT_TRUE(program.waitEvent("audio on"));

  browser->call("change", {{"as", "Guest - Late"}, {"width", 486}, {"height", 274}});
  ASSERT_TRUE(program.wait([&] { return late.width == 486 && late.height == 274; }))
      << late.width << " x " << late.height << " after " << late.frames << " frames";

  browser->call("unpublish", {{"as", "Guest - Late"}});
  ASSERT_TRUE(program.waitEvent("stream dropped Guest - Late"));
  ASSERT_TRUE(program.wait([&] { return late.disconnected == 1; }));
  browser->call("leave", {{"as", "Guest - Early"}});
  ASSERT_TRUE(program.waitEvent("stream dropped Guest - Early"));
  ASSERT_TRUE(program.waitEvent("connection dropped"));
  EXPECT_EQ(1, program.count("stream received Guest - Late"));
}

TEST_F(Incoming, WhatIsSwitchedOffDoesNotCome) {
  program.connect(room, token);
  publish("Guest - Ada");
  ASSERT_TRUE(program.wait([&] { return program.streams.contains("Guest - Ada"); }));
  const Stream& ada = program.streams["Guest - Ada"];
  otc_subscriber_set_subscribe_to_audio(ada.subscriber, OTC_FALSE);
  EXPECT_EQ(OTC_FALSE, otc_subscriber_get_subscribe_to_audio(ada.subscriber));
  subscribe("Guest - Ada");
  ASSERT_TRUE(program.wait([&] { return ada.frames > 20; }));
  EXPECT_EQ(0, ada.sounds);

  otc_subscriber_set_subscribe_to_audio(ada.subscriber, OTC_TRUE);
  ASSERT_TRUE(program.wait([&] { return ada.sounds > 10; }));

  otc_subscriber_set_subscribe_to_video(ada.subscriber, OTC_FALSE);
  int frames = 0;
  program.note([&] { frames = ada.frames; });
  ASSERT_TRUE(program.wait([&, enough = ada.sounds + 25] { return ada.sounds > enough; }));
  EXPECT_LE(ada.frames, frames + 1) << "half a second later";
  otc_subscriber_set_subscribe_to_video(ada.subscriber, OTC_TRUE);
  ASSERT_TRUE(waitFrames(ada, 5));

  ASSERT_EQ(OTC_SUCCESS, otc_session_unsubscribe(program.session(), ada.subscriber));
  program.note([&] { frames = ada.frames; });
  ASSERT_EQ(OTC_SUCCESS, otc_session_subscribe(program.session(), ada.subscriber));
  ASSERT_TRUE(program.wait([&] { return ada.frames > frames && ada.connected == 2; }))
      << ada.frames - frames << " frames, connected " << ada.connected;
}

TEST_F(Incoming, SignalsOfAnyShapeHarmNothing) {
  program.connect(room, token);
  ASSERT_TRUE(program.waitEvent("connected"));
  // It waits for the channel to open, and comes back then.
  ASSERT_EQ(OTC_SUCCESS, otc_session_send_signal(program.session(), "first", "x \"y\" \xc3\xa9"));
  ASSERT_TRUE(program.wait([&] { return program.signals.size() == 1; }));
  join("Guest - Mallory");
  browser->call("openSignals", {{"as", "Guest - Mallory"}});
  const std::string deep(20000, '[');
  for (const char* text :
       {"{", "[]", "null", deep.c_str(), R"({"type":7,"data":"x"})", R"({"type":"chat"})"}) {
    browser->call("sendText", {{"as", "Guest - Mallory"}, {"text", text}});
  }
  browser->call("sendSignal", {{"as", "Guest - Mallory"}, {"type", "last"}, {"data", R"({"text":"hi"})"}});
  ASSERT_TRUE(program.wait([&] { return program.signals.size() > 1; }));
  EXPECT_THAT(program.signals,
              ElementsAre(Pair("first", "x \"y\" \xc3\xa9"), Pair("last", R"({"text":"hi"})")));
}

// Else what a guest says on being seen would be lost.
TEST_F(Incoming, WhoeverIsThereIsSeenOnceSignalsArrive) {
  publish("Guest - Ada");
  browser->call("openSignals", {{"as", "Guest - Ada"}});
  program.note([&] {
    program.onStream = [&] {
      browser->call("sendSignal", {{"as", "Guest - Ada"}, {"type", "chat"}, {"data", "hello"}});
    };
  });
  program.connect(room, token);
  ASSERT_TRUE(program.waitEvent("stream received Guest - Ada"));
  ASSERT_TRUE(program.wait([&] { return !program.signals.empty(); }));
  EXPECT_THAT(program.signals, ElementsAre(Pair("chat", "hello")));
}

TEST_F(Incoming, EachRefusalHasItsCode) {
  using Refusal = std::array<std::string, 5>;
  for (const auto& [address, where, key, event, named] :
       {Refusal{server(), room, "another-token", "error 1004", "token"},
        Refusal{server(), "no such room", token, "error 1005", "no such room"},
        Refusal{"ws://127.0.0.1:1", room, token, "error 1006", "ws://127.0.0.1:1"},
        Refusal{"no address", room, token, "error 1006", "no address"}}) {
    program.events.clear();
    setenv("ZARVO_SESSION_SERVER", address.c_str(), 1);
    program.connect(where, key);
    EXPECT_TRUE(program.waitEvent(event)) << program.errorText;
    EXPECT_THAT(program.errorText, HasSubstr(named));
    program.disconnect();
  }
}

class IncomingWithPin : public Incoming {
 protected:
  IncomingWithPin() { pin = "a pin's secret"; }
  int refusal(const std::string& ptype, const json& by) const {
    return browser->call("tryJoin", {{"as", "Guest - Ada"}, {"ptype", ptype}, {"by", by}});
  }
};

TEST_F(IncomingWithPin, TheTokenCarriesPinAndServer) {
  publish("Guest - Ada");
  program.connect(room, token);
  ASSERT_TRUE(program.waitEvent("error 1004"));
  program.disconnect();

  setenv("ZARVO_SESSION_SERVER", "ws://127.0.0.1:1", 1);
  program.connect(room, json{{"token", token}, {"pin", pin}, {"server", server()}}.dump());
  EXPECT_TRUE(waitFrames(subscribe("Guest - Ada")));
  ASSERT_EQ(OTC_SUCCESS, otc_session_send_signal(program.session(), "first", "hi"));
  EXPECT_TRUE(program.wait([&] { return program.signals.size() == 1; }));

  // What README.md says of the server.
  constexpr int unauthorized = 433;
  EXPECT_EQ(0, refusal("subscriber", {{"pin", pin}}));
  EXPECT_EQ(unauthorized, refusal("subscriber", {{"token", token}, {"pin", "wrong"}}));
  EXPECT_EQ(unauthorized, refusal("publisher", {{"pin", pin}}));
  EXPECT_EQ(unauthorized, refusal("publisher", {{"token", token}, {"pin", "wrong"}}));
  EXPECT_EQ(0, refusal("publisher", {{"token", token}, {"pin", pin}}));
  EXPECT_THROW(browser->call("openSignals", {{"as", "Guest - Ada"}}), std::runtime_error)
      << "without the pin";
}

// The connection breaks, the server stands still for a while, and then it is gone.
TEST_F(Incoming, ALostConnectionIsMadeAgainUntilItIsGone) {
  const std::string road = browser->call("openRoad", {{"to", server()}});
  setenv("ZARVO_SESSION_SERVER", road.c_str(), 1);
  program.connect(room, token);
  publish("Guest - Stays");
  publish("Guest - Goes");
  const Stream& stays = subscribe("Guest - Stays");
  subscribe("Guest - Goes");
  ASSERT_TRUE(waitFrames(stays));

  browser->call("cutRoad");
  ASSERT_TRUE(program.waitEvent("reconnection started"));
  browser->call("leave", {{"as", "Guest - Goes"}});
  publish("Guest - Comes");
  browser->call("mendRoad");
  ASSERT_TRUE(program.waitEvent("reconnected"));
  EXPECT_TRUE(program.waitEvent("stream dropped Guest - Goes"));
  EXPECT_TRUE(waitFrames(subscribe("Guest - Comes")));
  EXPECT_TRUE(waitFrames(stays));
  EXPECT_EQ(0, stays.disconnected) << "media do not depend on the server's WebSocket";
  EXPECT_EQ(1, program.count("stream received Guest - Stays"));

  const pid_t janus = std::stoi(std::getenv("JANUS_PID"));
  kill(janus, SIGSTOP);
  EXPECT_TRUE(program.waitEvent("reconnection started", 2));
  kill(janus, SIGCONT);
  EXPECT_TRUE(program.waitEvent("reconnected", 2));
  EXPECT_TRUE(waitFrames(stays, 10));
  EXPECT_EQ(0, program.count("disconnected"));

  browser->call("closeRoad");
  EXPECT_TRUE(program.waitEvent("disconnected"));
  EXPECT_EQ(0, program.count("error 1006")) << "it had been connected";
}

TEST_F(Incoming, ASessionMayBeDeletedFromACallback) {
  publish("Guest - Ada");
  for (const auto callback : {&Program::onFrame, &Program::onStream}) {
    bool deleted = false;
    const auto erase = [&] {
      otc_session_delete(program.session());
      program.note([&] { deleted = true; });
    };
    program.note([&] { program.*callback = erase; });
    program.connect(room, token);
    if (callback == &Program::onFrame) subscribe("Guest - Ada");
    ASSERT_TRUE(program.wait([&] { return deleted; }));
    program.disconnect();
  }
}

// Sessions that end before, while and after a stream begins to come.
TEST_F(Incoming, NothingIsToldAfterADelete) {
  publish("Guest - Ada");
  for (int turn = 0; turn < 30; ++turn) {
    program.note([&] { program.streams.clear(); });
    program.connect(room, token);
    if (turn % 3 > 0) {
      const Stream& ada = subscribe("Guest - Ada");
      if (turn % 3 == 2) {
        ASSERT_TRUE(waitFrames(ada)) << "turn " << turn;
      }
    }
    otc_session* handle = program.session();
    program.disconnect();
    EXPECT_EQ(OTC_INVALID_PARAM, otc_session_send_signal(handle, "late", ""));
    EXPECT_EQ(OTC_INVALID_PARAM, otc_session_delete(handle));
  }
  EXPECT_EQ(0, program.callsAfterDelete);
}

}  // namespace
