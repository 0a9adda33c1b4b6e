// The client library against a service that the test plays itself.
#include "studio/client.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <optional>
#include <vector>

#include "fake_service.h"
#include "studio/surface_pool.h"

namespace {

using studio::Client;
using testing::HasSubstr;

// Keeps what it is told as lines, and frames as long as the test wishes.
class Listener : public Client::Listener {
 public:
  void onRing(const studio::Ring& ring) override {
    add("ring " + text(ring.id) + " " + text(ring.name) + (ring.screenShare ? " screen" : " camera"));
  }
  void onAudioChanged(const studio::AudioChanged& change) override {
    add(change.hasAudio ? "audio on" : "audio off");
  }
  void onDropped(const studio::Dropped& dropped) override { add("dropped " + text(dropped.id)); }
  void onChat(const studio::Chat& chat) override {
    add("chat " + text(chat.name) + ": " + text(chat.text) + " " + text(chat.uuid));
  }
  void onFavourite(const studio::Favourite& favourite) override {
    add("fav " + text(favourite.uuid) + " " + text(favourite.state));
  }
  void onFrame(studio::Frame frame) override { frames.put(std::move(frame)); }
  void onSound(const studio::Sound& sound) override {
    std::string line = "sound";
    for (const std::int16_t sample : sound.samples) line += " " + std::to_string(sample);
    add(line);
  }
  void onLogLine(std::string_view line) override { add("log " + text(line)); }
  void onFatalError(std::string_view fault) override { add("fatal " + text(fault)); }
  void onRefused(std::string_view reason) override { add("refused " + text(reason)); }
  void onLost(Client::Loss loss) override {
    add(loss == Client::Loss::interrupted ? "interrupted"
        : loss == Client::Loss::invalid   ? "invalid"
                                          : "ending");
  }

  std::string next() { return lines_.next().value_or("nothing came"); }
  Mailbox<std::optional<studio::Frame>> frames;

 private:
  static std::string text(std::string_view view) { return std::string(view); }
  void add(std::string line) { lines_.put(std::move(line)); }

  Mailbox<std::optional<std::string>> lines_;
};

class ClientTest : public testing::Test {
 protected:
  void connect() {
    client_.there([](bool) {});
    service_.next();
  }

  static Object report(const Entries& texts, const char* flag) {
    Object made = message(texts);
    xpc_dictionary_set_bool(made, flag, true);
    return made;
  }
  static Object sound(const void* samples, std::size_t length) {
    Object made = message("sessionId", "s");
    xpc_dictionary_set_data(made, "sound", samples, length);
    return made;
  }
  // What the client makes of it.
  std::string heard(const Object& report) {
    service_.send(report);
    return listener_.next();
  }

  static Object frame(IOSurfaceRef surface) {
    Object made = message({{"sessionId", "s"}, {"name", "Ann"}, {"id", "a"}});
    xpc_dictionary_set_value(made, "surface", Object(IOSurfaceCreateXPCObject(surface)));
    xpc_dictionary_set_int64(made, "num", 7);
    xpc_dictionary_set_int64(made, "timestamp", 1234);
    return made;
  }

  TemporaryFolder folder_;
  Listener listener_;
  FakeService service_{"service"};
  Client client_{"service", listener_};
};

TEST_F(ClientTest, CommandsAreTheAgreedDictionaries) {
  const std::vector<std::pair<std::function<void(Client&)>, Entries>> table = {
      {[](Client& c) { c.init("room", "token"); },
       {{"Init", "yes"}, {"sessionId", "room"}, {"token", "token"}}},
      {[](Client& c) { c.exit(); }, {{"Exit", "yes"}}},
      {[](Client& c) { c.startBroadcast("a"); }, {{"StartBroadcast", "yes"}, {"ID", "a"}}},
      {[](Client& c) { c.stopBroadcast("a"); }, {{"StopBroadcast", "yes"}, {"ID", "a"}}},
      {[](Client& c) { c.setOffAirAudio(true); }, {{"SetOffAirAudio", "yes"}}},
      {[](Client& c) { c.setOffAirAudio(false); }, {{"SetOffAirAudio", "no"}}},
      {[](Client& c) { c.greenroomStatus("a", true); }, {{"GreenroomStatus", "yes"}, {"ID", "a"}}},
      {[](Client& c) { c.greenroomStatus("a", false); }, {{"GreenroomStatus", "no"}, {"ID", "a"}}},
      {[](Client& c) { c.comment("Bo", "Hé", "u"); },
       {{"CommentName", "Bo"}, {"CommentText", "Hé"}, {"CommentUUID", "u"}}},
      {[](Client& c) { c.favourite("u", "yes"); }, {{"FavUUID", "u"}, {"FavState", "yes"}}},
      {[](Client& c) { c.chat("Bo", "Hi", "u"); },
       {{"ChatName", "Bo"}, {"ChatText", "Hi"}, {"ChatUUID", "u"}}},
      {[](Client& c) { c.prefUpdate("{}"); }, {{"PrefUpdate", "{}"}}},
      {[](Client& c) { c.remoteMute("a", true); }, {{"RemoteMute", "yes"}, {"ID", "a"}}},
      {[](Client& c) { c.stop(); }, {{"Stop", "yes"}}},
      {[](Client& c) { c.liveStatus(true, false); }, {{"LiveStatus", "yes"}, {"RecordOnly", "no"}}},
      {[](Client& c) { c.viewerCount("12"); }, {{"ViewerCount", "12"}}},
      {[](Client& c) {
         c.audioData(std::vector<std::int16_t>{1, 2});
       },
       {{"AudioData", "(data)"}}},
  };
  for (const auto& [give, expected] : table) {
    give(client_);
    EXPECT_EQ(entriesOf(service_.next()), expected);
  }
}

TEST_F(ClientTest, ThereTellsWhetherTheServiceLives) {
  std::promise<bool> alive;
  client_.there([&](bool answer) { alive.set_value(answer); });
  const Object asked = service_.next();
  EXPECT_EQ(entriesOf(asked), (Entries{{"There", "yes"}}));
  FakeService::answer(asked);
  EXPECT_TRUE(alive.get_future().get());

  std::promise<bool> dead;
  client_.there([&](bool answer) { dead.set_value(answer); });
  service_.next();
  service_.hangUp();
  EXPECT_FALSE(dead.get_future().get());
}

TEST_F(ClientTest, ReportsArriveTyped) {
  connect();
  EXPECT_EQ(heard(report({{"ring", "a"}, {"name", "Ann"}, {"sessionId", "s"}}, "screenShare")),
            "ring a Ann screen");
  EXPECT_EQ(heard(report({{"sessionHasAudioChanged", "s"}}, "hasAudio")), "audio on");
  EXPECT_EQ(heard(message({{"dropped", ""}, {"sessionId", "s"}})), "dropped ");
  EXPECT_EQ(heard(message({{"message", "Hi"}, {"name", "Ann"}, {"uuid", "u"}, {"sessionId", "s"}})),
            "chat Ann: Hi u");
  EXPECT_EQ(heard(message({{"state", "yes"}, {"uuid", "u"}, {"sessionId", "s"}})), "fav u yes");
  EXPECT_EQ(heard(message({{"logMessage", "line"}})), "log line");
  EXPECT_EQ(heard(message({{"fatalErrorMessage", "broken"}})), "fatal broken");
  const std::int16_t samples[] = {1, -2, 32767, -32768};
  EXPECT_EQ(heard(sound(samples, sizeof samples)), "sound 1 -2 32767 -32768");
}

TEST_F(ClientTest, WhatIsNotAsAgreedIsRefused) {
  connect();
  EXPECT_THAT(heard(message({{"ring", "a"}, {"sessionId", "s"}})), HasSubstr("without the text \"name\""));
  EXPECT_THAT(heard(message({{"ring", "a"}, {"name", "Ann"}, {"sessionId", "s"}, {"screenShare", "yes"}})),
              HasSubstr("without the flag \"screenShare\""));
  EXPECT_THAT(heard(report({{"uuid", "u"}, {"sessionId", "s"}}, "state")),
              HasSubstr("without the text \"state\""));
  EXPECT_THAT(heard(message({{"surprise", "!"}})), HasSubstr("unknown kind"));
  for (const std::size_t length : {0u, 2u, 7u}) {
    EXPECT_THAT(heard(sound("1234567", length)), HasSubstr("no whole number of stereo samples")) << length;
  }

  // Frames are answered whatever they are: the service counts the unanswered ones.
  EXPECT_TRUE(service_.ask(message({{"surface", "none"}, {"sessionId", "s"}})).get());
  EXPECT_THAT(listener_.next(), HasSubstr("refused"));
  studio::SurfacePool pool(1);
  Object unnumbered = frame(pool.take(16, 16));
  xpc_dictionary_set_value(unnumbered, "num", nullptr);
  EXPECT_TRUE(service_.ask(unnumbered).get());
  EXPECT_THAT(listener_.next(), HasSubstr("without the integer \"num\""));
}

TEST_F(ClientTest, AFrameIsSharedAndAnsweredWhenLetGo) {
  connect();
  studio::SurfacePool pool(1);
  IOSurfaceRef surface = pool.take(64, 32);
  static_cast<std::uint8_t*>(IOSurfaceGetBaseAddress(surface))[5] = 42;
  std::future<bool> answered = service_.ask(frame(surface));
  std::optional<studio::Frame> kept = listener_.frames.next();
  ASSERT_TRUE(kept);
  EXPECT_EQ(kept->id(), "a");
  EXPECT_EQ(kept->number(), 7);
  EXPECT_EQ(kept->timestamp(), 1234);
  EXPECT_EQ(kept->width(), 64u);
  EXPECT_EQ(kept->height(), 32u);
  EXPECT_EQ(kept->plane(0).data[5], 42);
  EXPECT_TRUE(IOSurfaceIsInUse(surface));

  // While it is kept, a later message is answered and this one is not.
  EXPECT_TRUE(service_.ask(message({{"surface", "none"}})).get());
  EXPECT_EQ(answered.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
  kept.reset();
  EXPECT_TRUE(answered.get());
  EXPECT_FALSE(IOSurfaceIsInUse(surface));
}

TEST_F(ClientTest, ShowSurfacesAreBoundedAndReusedOnlyWhenNobodyUsesThem) {
  studio::SurfacePool pool(3);
  IOSurfaceRef first = pool.take(64, 32);
  ASSERT_TRUE(client_.videoFrame(first));
  IOSurfaceRef second = pool.take(64, 32);
  EXPECT_NE(second, first);
  ASSERT_TRUE(client_.videoFrame(second));
  EXPECT_FALSE(client_.videoFrame(pool.take(64, 32))) << "two are unanswered";

  // The service takes a use of its own before it answers: the surface stays out of reach.
  const Object shown = service_.next();
  studio::Surface taken(IOSurfaceLookupFromXPCObject(xpc_dictionary_get_value(shown, "VideoFrame")));
  ASSERT_TRUE(taken);
  IOSurfaceIncrementUseCount(taken.get());
  FakeService::answer(shown);
  FakeService::answer(service_.next());
  EXPECT_TRUE(eventually([&] { return !IOSurfaceIsInUse(second); })) << "both answers are in";
  EXPECT_TRUE(IOSurfaceIsInUse(first));
  EXPECT_EQ(pool.take(64, 32), second);
  IOSurfaceDecrementUseCount(taken.get());
  EXPECT_EQ(pool.take(64, 32), first);

  // A service that dies unanswering lets go as well.
  ASSERT_TRUE(client_.videoFrame(first));
  service_.next();
  service_.hangUp();
  EXPECT_EQ(listener_.next(), "interrupted");
  EXPECT_TRUE(eventually([&] { return !IOSurfaceIsInUse(first); }));
}

TEST_F(ClientTest, TheLossOfTheServiceIsTold) {
  connect();
  service_.hangUp();
  EXPECT_EQ(listener_.next(), "interrupted");
  client_.init("room", "token");  // connects anew
  EXPECT_EQ(entriesOf(service_.next()).at("sessionId"), "room");

  Listener lonely;
  Client none("nobody", lonely);
  none.stop();
  EXPECT_EQ(lonely.next(), "invalid");
}

}  // namespace
