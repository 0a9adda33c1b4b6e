// What comes in: streams, frames, sound and signals of a browser's, through a real server.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>

#include "browser.h"
#include "program.h"

namespace {

using json = nlohmann::json;
using testing::Contains;
using testing::Pair;

constexpr const char* token = "the-token";

std::string server() { return std::getenv("ZARVO_SESSION_SERVER"); }

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
    json all = {{"as", name},      {"type", "camera"}, {"width", 320},
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

  browser->call("openSignals", {{"as", "Guest - Ada"}});
  ASSERT_EQ(OTC_SUCCESS, otc_session_send_signal(program.session(), "start", "x \"y\" \xc3\xa9"));
  browser->call("sendSignal", {{"as", "Guest - Ada"}, {"type", "chat"}, {"data", "{\"text\":\"hi\"}"}});
  ASSERT_TRUE(program.wait([](Program& p) { return p.signals.size() == 3; }));
  EXPECT_THAT(program.signals, testing::ElementsAre(Pair("early", "queued"), testing::_, testing::_));
  EXPECT_THAT(program.signals, Contains(Pair("start", "x \"y\" \xc3\xa9")));
  EXPECT_THAT(program.signals, Contains(Pair("chat", "{\"text\":\"hi\"}")));
}

}  // namespace
