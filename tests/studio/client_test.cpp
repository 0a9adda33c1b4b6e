// The client library against a service that the test plays itself.
#include "studio/client.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "link.h"
#include "studio/surface_pool.h"

namespace {

using studio::Client;
using testing::HasSubstr;
using Entries = std::map<std::string, std::string>;

// Takes the studio's messages and sends what the test wants to the studio that sent the last one.
class FakeService {
 public:
  explicit FakeService(const char* name)
      : listener_(listener(name), accepting([this](xpc_connection_t peer) {
                    peer_ = Object(xpc_retain(peer));
                    // The studio's end may come after this service's.
                    xpc_connection_set_event_handler(peer, [messages = messages_](xpc_object_t message) {
                      if (xpc_get_type(message) == XPC_TYPE_DICTIONARY) messages->put(message);
                    });
                  })) {}
  ~FakeService() { hangUp(); }

  Object next() {
    Object message = messages_->next();
    EXPECT_TRUE(message) << "no message came";
    return message ? message : Object(xpc_dictionary_create_empty());
  }
  void hangUp() { xpc_connection_cancel(asConnection(peer_)); }
  void send(const Object& message) { xpc_connection_send_message(asConnection(peer_), message); }

  // Sends a message that is to be answered; the future gets whether it was.
  std::future<bool> ask(const Object& message) {
    auto answered = std::make_shared<std::promise<bool>>();
    xpc_connection_send_message_with_reply(
        asConnection(peer_), message, nullptr,
        [answered](xpc_object_t reply) { answered->set_value(xpc_get_type(reply) == XPC_TYPE_DICTIONARY); });
    return answered->get_future();
  }
  static void answer(const Object& asked) {
    const Object reply(xpc_dictionary_create_reply(asked));
    xpc_connection_send_message(xpc_dictionary_get_remote_connection(asked), reply);
  }

 private:
  std::shared_ptr<Events> messages_ = std::make_shared<Events>();
  Object peer_;
  Connection listener_;
};

// Keeps what it is told as lines, and frames as long as the test wishes.
class Listener : public Client::Listener {
 public:
  void onRing(const studio::Ring&) override { lines.put("ring"); }
  void onAudioChanged(const studio::AudioChanged&) override { lines.put("audio"); }
  void onDropped(const studio::Dropped& dropped) override { lines.put("dropped " + std::string(dropped.id)); }
  void onChat(const studio::Chat& chat) override { lines.put("chat " + shown(chat.name) + shown(chat.text)); }
  void onFavourite(const studio::Favourite& fav) override { lines.put("fav " + shown(fav.uuid)); }
  void onFrame(studio::Frame frame) override { frames.put(std::move(frame)); }
  void onSound(const studio::Sound& sound) override {
    lines.put(testing::PrintToString(std::vector(sound.samples.begin(), sound.samples.end())));
  }
  void onLogLine(std::string_view line) override { lines.put("log " + std::string(line)); }
  void onFatalError(std::string_view fault) override { lines.put("fatal " + std::string(fault)); }
  void onRefused(std::string_view reason) override { lines.put("refused " + std::string(reason)); }
  void onLost(Client::Loss loss) override {
    constexpr const char* names[] = {"interrupted", "invalid", "terminating"};
    lines.put(names[static_cast<int>(loss)]);
  }

  static std::string shown(std::optional<std::string_view> text) { return std::string(text.value_or("-")); }

  Mailbox<std::string> lines;
  Mailbox<std::optional<studio::Frame>> frames;
};

class ClientTest : public testing::Test {
 protected:
  ClientTest() {
    client_.there([](bool) {});
    service_.next();  // connected
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
    return listener_.lines.next();
  }

  static Object frame(IOSurfaceRef surface, std::int64_t number = 7) {
    Object made = message({{"sessionId", "s"}, {"name", "Ann"}, {"id", "a"}});
    xpc_dictionary_set_value(made, "surface", Object(IOSurfaceCreateXPCObject(surface)));
    xpc_dictionary_set_int64(made, "num", number);
    xpc_dictionary_set_int64(made, "timestamp", 1234);
    return made;
  }

  TemporaryFolder folder_;
  Listener listener_;
  FakeService service_{"service"};
  Client client_{"service", listener_};
};

TEST_F(ClientTest, ReportsArriveTyped) {
  EXPECT_EQ(heard(message({{"dropped", ""}, {"sessionId", "s"}})), "dropped ");
  EXPECT_EQ(heard(message("logMessage", "line")), "log line");
  EXPECT_EQ(heard(message("fatalErrorMessage", "broken")), "fatal broken");
  // What a guest leaves out, the report leaves out, and a fatal error may have no text.
  EXPECT_EQ(heard(message({{"message", "m"}, {"uuid", "u"}, {"sessionId", "s"}})), "chat -m");
  EXPECT_EQ(heard(message({{"name", "n"}, {"uuid", "u"}, {"sessionId", "s"}})), "chat n-");
  EXPECT_EQ(heard(message({{"state", "yes"}, {"sessionId", "s"}})), "fav -");
  service_.send(message({{"uuid", "u"}, {"sessionId", "s"}}));
  service_.send(message("sessionId", "s"));
  EXPECT_EQ(heard(message(Texts{})), "fatal ");
  const std::int16_t samples[] = {1, -2, 32767, -32768};
  EXPECT_EQ(heard(sound(samples, sizeof samples)), "{ 1, -2, 32767, -32768 }");
}

TEST_F(ClientTest, WhatIsNotAsAgreedIsRefused) {
  EXPECT_THAT(heard(message({{"ring", "a"}, {"sessionId", "s"}})), HasSubstr("without the text \"name\""));
  EXPECT_THAT(heard(message({{"ring", "a"}, {"name", "Ann"}, {"sessionId", "s"}, {"screenShare", "yes"}})),
              HasSubstr("without the flag \"screenShare\""));
  EXPECT_THAT(heard(report({{"uuid", "u"}, {"sessionId", "s"}}, "state")),
              HasSubstr("without the text \"state\""));
  EXPECT_THAT(heard(message("surprise", "!")), HasSubstr("unknown kind"));
  for (const std::size_t length : {0u, 2u, 7u}) {
    EXPECT_THAT(heard(sound("1234567", length)), HasSubstr("no whole number of stereo samples")) << length;
  }

  // Frames are answered whatever they are: the service counts the unanswered ones.
  EXPECT_TRUE(service_.ask(message({{"surface", "none"}, {"sessionId", "s"}})).get());
  EXPECT_THAT(listener_.lines.next(), HasSubstr("refused"));
  studio::SurfacePool pool(1);
  Object unnumbered = frame(pool.take(16, 16));
  xpc_dictionary_set_value(unnumbered, "num", nullptr);
  EXPECT_TRUE(service_.ask(unnumbered).get());
  EXPECT_THAT(listener_.lines.next(), HasSubstr("without the integer \"num\""));
}

TEST_F(ClientTest, NobodyIsBroughtInWithoutASession) {
  const auto ring = [&](const char* id) {
    EXPECT_EQ(heard(report({{"ring", id}, {"name", "n"}, {"sessionId", "s"}}, "screenShare")), "ring");
  };
  const auto drop = [&](const char* id) {
    EXPECT_EQ(heard(message({{"dropped", id}, {"sessionId", "s"}})), std::string("dropped ") + id);
  };
  const auto init = [&] { client_.init("s", "t"); };
  ring("a");
  EXPECT_FALSE(client_.startBroadcast("a")) << "before the first join";
  init();
  EXPECT_TRUE(client_.startBroadcast("a"));
  client_.stop();
  ring("b");  // sent before the service heard of the stop
  EXPECT_FALSE(client_.startBroadcast("a"));
  init();
  client_.stopBroadcast("a");
  client_.stopBroadcast("unknown");
  EXPECT_TRUE(client_.startBroadcast("b"));
  client_.stopBroadcast("b");
  EXPECT_FALSE(client_.startBroadcast("b")) << "the session ends with the last guest";
  ring("c");
  EXPECT_TRUE(client_.startBroadcast("c")) << "who was there in time";
  drop("b");
  EXPECT_FALSE(client_.startBroadcast("c")) << "who was not";
  init();
  drop("b");
  EXPECT_FALSE(!client_.startBroadcast("c"));
  service_.hangUp();
  EXPECT_EQ(listener_.lines.next(), "interrupted");
  EXPECT_FALSE(client_.startBroadcast("c"));
}

TEST_F(ClientTest, AFrameIsSharedAndSoManyOfAStreamAreHeld) {
  studio::SurfacePool pool(1);
  IOSurfaceRef surface = pool.take(64, 32);
  static_cast<std::uint8_t*>(IOSurfaceGetBaseAddress(surface))[5] = 42;
  EXPECT_TRUE(service_.ask(frame(surface)).get());
  std::optional<studio::Frame> kept = listener_.frames.next();
  ASSERT_TRUE(kept);
  EXPECT_EQ(kept->id(), "a");
  EXPECT_EQ(kept->number(), 7);
  EXPECT_EQ(kept->timestamp(), 1234);
  EXPECT_EQ(kept->plane(0).data[5], 42);
  EXPECT_TRUE(IOSurfaceIsInUse(surface)) << "answered, and still held";

  std::vector<std::optional<studio::Frame>> more;
  while (more.size() + 1 < studio::Frame::maxHeld) {
    EXPECT_TRUE(service_.ask(frame(surface)).get());
    more.push_back(listener_.frames.next());
  }
  EXPECT_TRUE(service_.ask(frame(surface)).get()) << "too many, and answered all the same";
  more.pop_back();
  EXPECT_TRUE(service_.ask(frame(surface, 8)).get());
  EXPECT_EQ(listener_.frames.next()->number(), 8) << "the one that was too many did not come";
  kept.reset();
  more.clear();
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
  EXPECT_EQ(listener_.lines.next(), "interrupted");
  EXPECT_TRUE(eventually([&] { return !IOSurfaceIsInUse(first); }));
}

TEST_F(ClientTest, TheLossOfTheServiceIsTold) {
  Mailbox<std::optional<bool>> alive;
  const auto answered = [&](bool answer) { alive.put(answer); };
  client_.there(answered);
  const Object asked = service_.next();
  EXPECT_STREQ(xpc_dictionary_get_string(asked, "There"), "yes");
  FakeService::answer(asked);
  EXPECT_EQ(alive.next(), true);

  client_.there(answered);
  service_.next();
  service_.hangUp();
  EXPECT_EQ(alive.next(), false);
  EXPECT_EQ(listener_.lines.next(), "interrupted");
  client_.exit();  // connects anew
  EXPECT_STREQ(xpc_dictionary_get_string(service_.next(), "Exit"), "yes");

  Listener lonely;
  Client none("nobody", lonely);
  none.stop();
  EXPECT_EQ(lonely.lines.next(), "invalid");
}

}  // namespace
