// The client library against a service that the test plays itself.
#include "studio/client.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <functional>
#include <optional>
#include <thread>
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
  void onFrame(studio::Frame frame) override {
    const std::lock_guard lock(mutex_);
    frames_.push_back(std::move(frame));
    changed_.notify_all();
  }
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

  std::string next() {
    std::unique_lock lock(mutex_);
    if (!changed_.wait_for(lock, deadline, [&] { return !lines_.empty(); })) return "nothing came";
    std::string line = lines_.front();
    lines_.pop_front();
    return line;
  }
  std::optional<studio::Frame> nextFrame() {
    std::unique_lock lock(mutex_);
    if (!changed_.wait_for(lock, deadline, [&] { return !frames_.empty(); })) return std::nullopt;
    studio::Frame frame = std::move(frames_.front());
    frames_.pop_front();
    return frame;
  }

 private:
  static std::string text(std::string_view view) { return std::string(view); }
  void add(std::string line) {
    const std::lock_guard lock(mutex_);
    lines_.push_back(std::move(line));
    changed_.notify_all();
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<std::string> lines_;
  std::deque<studio::Frame> frames_;
};

class ClientTest : public testing::Test {
 protected:
  ClientTest() {
    char directory[] = "/tmp/client-test-XXXXXX";
    directory_ = mkdtemp(directory);
    setenv("XDG_RUNTIME_DIR", directory_.c_str(), 1);
    service_.emplace("service");
    client_.emplace("service", listener_);
  }
  ~ClientTest() override {
    client_.reset();
    service_.reset();
    std::filesystem::remove_all(directory_);
  }

  void connect() {
    client_->there([](bool) {});
    service_->next();
  }

  studio::XpcObject report(const Entries& texts) {
    studio::XpcObject made = dictionary();
    for (const auto& [key, value] : texts) xpc_dictionary_set_string(made.get(), key.c_str(), value.c_str());
    return made;
  }

  studio::XpcObject frame(IOSurfaceRef surface) {
    studio::XpcObject made = report({{"sessionId", "s"}, {"name", "Ann"}, {"id", "a"}});
    const studio::XpcObject shared(IOSurfaceCreateXPCObject(surface));
    xpc_dictionary_set_value(made.get(), "surface", shared.get());
    xpc_dictionary_set_int64(made.get(), "num", 7);
    xpc_dictionary_set_int64(made.get(), "timestamp", 1234);
    return made;
  }

  std::string directory_;
  Listener listener_;
  std::optional<FakeService> service_;
  std::optional<Client> client_;
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
    give(*client_);
    EXPECT_EQ(entriesOf(service_->next().get()), expected);
  }
}

TEST_F(ClientTest, ThereTellsWhetherTheServiceLives) {
  std::promise<bool> alive;
  client_->there([&](bool answer) { alive.set_value(answer); });
  const studio::XpcObject asked = service_->next();
  EXPECT_EQ(entriesOf(asked.get()), (Entries{{"There", "yes"}}));
  const studio::XpcObject reply(xpc_dictionary_create_reply(asked.get()));
  xpc_connection_send_message(xpc_dictionary_get_remote_connection(asked.get()), reply.get());
  EXPECT_TRUE(alive.get_future().get());

  std::promise<bool> dead;
  client_->there([&](bool answer) { dead.set_value(answer); });
  service_->next();
  service_->hangUp();
  EXPECT_FALSE(dead.get_future().get());
}

TEST_F(ClientTest, ReportsArriveTyped) {
  connect();
  studio::XpcObject ring = report({{"ring", "a"}, {"name", "Ann"}, {"sessionId", "s"}});
  xpc_dictionary_set_bool(ring.get(), "screenShare", true);
  service_->send(ring);
  EXPECT_EQ(listener_.next(), "ring a Ann screen");

  studio::XpcObject audio = report({{"sessionHasAudioChanged", "s"}});
  xpc_dictionary_set_bool(audio.get(), "hasAudio", true);
  service_->send(audio);
  EXPECT_EQ(listener_.next(), "audio on");

  service_->send(report({{"dropped", ""}, {"sessionId", "s"}}));
  EXPECT_EQ(listener_.next(), "dropped ");
  service_->send(report({{"message", "Hi"}, {"name", "Ann"}, {"uuid", "u"}, {"sessionId", "s"}}));
  EXPECT_EQ(listener_.next(), "chat Ann: Hi u");
  service_->send(report({{"state", "yes"}, {"uuid", "u"}, {"sessionId", "s"}}));
  EXPECT_EQ(listener_.next(), "fav u yes");
  service_->send(report({{"logMessage", "line"}}));
  EXPECT_EQ(listener_.next(), "log line");
  service_->send(report({{"fatalErrorMessage", "broken"}}));
  EXPECT_EQ(listener_.next(), "fatal broken");

  studio::XpcObject sound = report({{"sessionId", "s"}});
  const std::int16_t samples[] = {1, -2, 32767, -32768};
  xpc_dictionary_set_data(sound.get(), "sound", samples, sizeof samples);
  service_->send(sound);
  EXPECT_EQ(listener_.next(), "sound 1 -2 32767 -32768");
}

TEST_F(ClientTest, WhatIsNotAsAgreedIsRefused) {
  connect();
  service_->send(report({{"ring", "a"}, {"sessionId", "s"}}));
  EXPECT_THAT(listener_.next(), HasSubstr("without the text \"name\""));
  service_->send(report({{"ring", "a"}, {"name", "Ann"}, {"sessionId", "s"}, {"screenShare", "yes"}}));
  EXPECT_THAT(listener_.next(), HasSubstr("without the flag \"screenShare\""));
  studio::XpcObject number = report({{"uuid", "u"}, {"sessionId", "s"}});
  xpc_dictionary_set_int64(number.get(), "state", 1);
  service_->send(number);
  EXPECT_THAT(listener_.next(), HasSubstr("without the text \"state\""));
  service_->send(report({{"surprise", "!"}}));
  EXPECT_THAT(listener_.next(), HasSubstr("unknown kind"));

  for (const std::size_t length : {0u, 2u, 7u}) {
    studio::XpcObject sound = report({{"sessionId", "s"}});
    xpc_dictionary_set_data(sound.get(), "sound", "1234567", length);
    service_->send(sound);
    EXPECT_THAT(listener_.next(), HasSubstr("no whole number of stereo samples")) << length;
  }

  // Frames are answered whatever they are: the service counts the unanswered ones.
  EXPECT_TRUE(service_->ask(report({{"surface", "none"}, {"sessionId", "s"}})).get());
  EXPECT_THAT(listener_.next(), HasSubstr("refused"));
  studio::SurfacePool pool(1);
  studio::XpcObject unnumbered = frame(pool.take(16, 16));
  xpc_dictionary_set_value(unnumbered.get(), "num", nullptr);
  EXPECT_TRUE(service_->ask(unnumbered).get());
  EXPECT_THAT(listener_.next(), HasSubstr("without the integer \"num\""));
}

TEST_F(ClientTest, AFrameIsSharedAndAnsweredWhenLetGo) {
  connect();
  studio::SurfacePool pool(1);
  IOSurfaceRef surface = pool.take(64, 32);
  static_cast<std::uint8_t*>(IOSurfaceGetBaseAddress(surface))[5] = 42;
  std::future<bool> answered = service_->ask(frame(surface));
  std::optional<studio::Frame> kept = listener_.nextFrame();
  ASSERT_TRUE(kept);
  EXPECT_EQ(kept->id(), "a");
  EXPECT_EQ(kept->number(), 7);
  EXPECT_EQ(kept->timestamp(), 1234);
  EXPECT_EQ(kept->width(), 64u);
  EXPECT_EQ(kept->height(), 32u);
  EXPECT_EQ(kept->plane(0).data[5], 42);
  EXPECT_TRUE(IOSurfaceIsInUse(surface));

  // While it is kept, a later message is answered and this one is not.
  EXPECT_TRUE(service_->ask(report({{"surface", "none"}})).get());
  EXPECT_EQ(answered.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
  kept.reset();
  EXPECT_TRUE(answered.get());
  EXPECT_FALSE(IOSurfaceIsInUse(surface));
}

TEST_F(ClientTest, ShowSurfacesAreBoundedAndReusedOnlyWhenNobodyUsesThem) {
  studio::SurfacePool pool(3);
  IOSurfaceRef first = pool.take(64, 32);
  ASSERT_TRUE(client_->videoFrame(first));
  IOSurfaceRef second = pool.take(64, 32);
  EXPECT_NE(second, first);
  ASSERT_TRUE(client_->videoFrame(second));
  EXPECT_FALSE(client_->videoFrame(pool.take(64, 32))) << "two are unanswered";

  // The service takes a use of its own before it answers: the surface stays out of reach.
  studio::XpcObject message = service_->next();
  studio::Surface taken(IOSurfaceLookupFromXPCObject(xpc_dictionary_get_value(message.get(), "VideoFrame")));
  ASSERT_TRUE(taken);
  IOSurfaceIncrementUseCount(taken.get());
  const auto answer = [](const studio::XpcObject& asked) {
    const studio::XpcObject reply(xpc_dictionary_create_reply(asked.get()));
    xpc_connection_send_message(xpc_dictionary_get_remote_connection(asked.get()), reply.get());
  };
  answer(message);
  answer(service_->next());
  // Both answers are in once a third frame may go out.
  const auto limit = std::chrono::steady_clock::now() + deadline;
  while (IOSurfaceIsInUse(second) && std::chrono::steady_clock::now() < limit) std::this_thread::yield();
  EXPECT_TRUE(IOSurfaceIsInUse(first));
  EXPECT_EQ(pool.take(64, 32), second);
  IOSurfaceDecrementUseCount(taken.get());
  EXPECT_EQ(pool.take(64, 32), first);

  // A service that dies unanswering lets go as well.
  ASSERT_TRUE(client_->videoFrame(first));
  service_->next();
  service_->hangUp();
  EXPECT_EQ(listener_.next(), "interrupted");
  while (IOSurfaceIsInUse(first) && std::chrono::steady_clock::now() < limit) std::this_thread::yield();
  EXPECT_FALSE(IOSurfaceIsInUse(first));
}

TEST_F(ClientTest, TheLossOfTheServiceIsTold) {
  connect();
  service_->hangUp();
  EXPECT_EQ(listener_.next(), "interrupted");
  client_->init("room", "token");  // connects anew
  EXPECT_EQ(entriesOf(service_->next().get()).at("sessionId"), "room");

  Listener lonely;
  Client none("nobody", lonely);
  none.stop();
  EXPECT_EQ(lonely.next(), "invalid");
}

}  // namespace
