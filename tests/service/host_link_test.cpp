// The service at its link: commands as dictionaries in, reports as dictionaries out, over real connections
// inside one process.

#include <CoreVideo/CoreVideo.h>
#include <IOSurface/IOSurface.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <optional>

#include "scripted_sdk.h"
#include "service/commands.h"
#include "service/host_connection.h"
#include "session/guest_session.h"
#include "streams/guest_session_stream.h"
#include "studio_peer.h"
#include "surfaces.h"

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

namespace {

constexpr char kName[] = "host-link-test";

// The service's process: one listener, one delegate, one session object for all tests, as in real life.
class HostLink : public testing::Environment {
 public:
  void SetUp() override {
    folder_.emplace();
    listener_.emplace(listener(kName), [](xpc_object_t peer) {
      if (xpc_get_type(peer) == XPC_TYPE_CONNECTION) acceptConnection(asConnection(peer));
    });
  }
  void TearDown() override {
    listener_.reset();
    folder_.reset();
  }

 private:
  std::optional<TemporaryFolder> folder_;
  std::optional<Connection> listener_;
};

[[maybe_unused]] const auto* const environment = testing::AddGlobalTestEnvironment(new HostLink);

class HostLinkTest : public testing::Test {
 protected:
  HostLinkTest() { sdk.reset(); }
  // An error on any connection silences the service. So a test ends when the service has noticed that its
  // studio has gone, lest that silence the next test's.
  ~HostLinkTest() override {
    init();
    // A record that goes leaves its transfer session behind, so the tests keep the records.
    static auto& kept = *new std::vector<std::shared_ptr<ZarvoGuestSessionStream>>;
    for (const auto& [id, stream] : sharedGuestSession.load()->copyStreamManagers()) {
      kept.push_back(stream);
      studio->ask({{"StopBroadcast", ""}, {"ID", id.c_str()}});
    }
    studio.reset();
    EXPECT_TRUE(waitUntilSilent());
  }
  static bool waitUntilSilent() {
    return eventually([] { return !appConn.load(); });
  }
  void init() {
    ASSERT_EQ(studio->ask({{"Init", ""}, {"sessionId", "room"}, {"token", "t"}}), "world");
    sdk.forgetCalls();
  }
  void admit(const char* id) {
    sdk.receiveStream({id, "Guest - Ann"});
    studio->ask({{"StartBroadcast", ""}, {"ID", id}});
    sdk.forgetCalls();
  }
  void deliverFrame(int64_t timestamp = 0) {
    PlanarFrame picture(64, 48, 100, 90, 200);
    picture.frame.timestamp = timestamp;
    sdk.renderFrame("cam", picture.frame);
  }
  // The number of the next frame at the studio.
  int64_t nextNumber() { return xpc_dictionary_get_int64(studio->next("surface"), "num"); }
  static std::string text(const Object& message, const char* key) {
    const char* value = xpc_dictionary_get_string(message, key);
    return value ? value : "none";
  }

  ScriptedSdk& sdk = ScriptedSdk::get();
  std::unique_ptr<StudioPeer> studio = std::make_unique<StudioPeer>(kName);
};

// Runs first: nothing has been initialised yet.
TEST_F(HostLinkTest, BeforeInitEveryCommandIsAnsweredAndIgnored) {
  for (const char* key : {"VideoFrame", "AudioData", "There", "StartBroadcast", "StopBroadcast",
                          "SetOffAirAudio", "GreenroomStatus", "CommentName", "FavUUID", "ChatName",
                          "PrefUpdate", "RemoteMute", "Stop", "LiveStatus", "ViewerCount", "unheard of"}) {
    EXPECT_EQ(studio->ask({{key, "yes"}, {"ID", "cam"}}), "world") << key;
  }
  EXPECT_EQ(studio->ask({{"Init", ""}, {"sessionId", "room"}}), "world");
  EXPECT_EQ(studio->ask({{"Init", ""}, {"token", "t"}}), "world");
  const Object wrongType = message({{"Init", ""}, {"token", "t"}});
  xpc_dictionary_set_int64(wrongType, "sessionId", 7);
  EXPECT_EQ(studio->ask(wrongType), "world");
  EXPECT_THAT(sdk.calls(), IsEmpty());
  EXPECT_FALSE(appConn.load());
}

TEST_F(HostLinkTest, InitJoinsAndASecondOneStopsFirst) {
  init();
  EXPECT_TRUE(appConn.load());
  const auto session = sharedGuestSession.load();
  studio->ask({{"Init", ""}, {"sessionId", "next"}, {"token", "u"}});
  EXPECT_THAT(sdk.calls(), ElementsAre("otc_session_delete room", "otc_session_new 31877405 next",
                                       "otc_session_connect next u"));
  EXPECT_EQ(sharedGuestSession, session) << "the session object is kept";
}

TEST_F(HostLinkTest, CommandsReachTheSessionWithTheirArguments) {
  init();
  sdk.receiveStream({"cam", "Guest - Ann"});
  EXPECT_EQ(studio->ask({{"StartBroadcast", ""}}), "world");
  EXPECT_THAT(sdk.calls(), ElementsAre("otc_subscriber_new cam")) << "no ID, no publishing";
  studio->ask({{"StartBroadcast", ""}, {"ID", "cam"}});
  EXPECT_THAT(sdk.calls(), Contains("otc_session_publish session publisher"));
  EXPECT_THAT(sdk.calls(), Contains("otc_session_subscribe subscriber:cam"));

  // What a command sends to the guests: a signal's type and its JSON, or nothing.
  const auto sent = [&](const StudioPeer::Entries& command) {
    sdk.forgetCalls();
    studio->ask(command);
    const auto calls = sdk.calls();
    const std::string prefix = "otc_session_send_signal session ";
    return calls.empty() ? std::string() : calls.back().substr(prefix.size());
  };
  const auto json = [](const std::string& signal) {
    return nlohmann::json::parse(signal.substr(signal.find(' ')), nullptr, false);
  };
  const auto settings = json(sent({{"LiveStatus", "yes"}, {"RecordOnly", "YES"}}));
  EXPECT_EQ(settings["broadcastIsLive"], true);
  EXPECT_EQ(settings["recordOnly"], false);
  const auto sub = [&](const char* key, const char* value) {
    return json(sent({{key, value}, {"ID", "cam"}}))["subs"][0];
  };
  EXPECT_EQ(sub("SetOffAirAudio", "yes")["offAirAudio"], true);
  EXPECT_EQ(sub("SetOffAirAudio", "Yes")["offAirAudio"], false);
  EXPECT_EQ(sub("GreenroomStatus", "no")["on"], true);
  EXPECT_EQ(sub("RemoteMute", "yes")["remoteMuted"], true);
  EXPECT_EQ(sent({{"PrefUpdate", "{not parsed"}}), "prefUpdate {not parsed");
  const auto expectTalk = [&](const StudioPeer::Entries& command, const std::string& type,
                              const nlohmann::json& data) {
    const std::string signal = sent(command);
    EXPECT_THAT(signal, StartsWith(type + " "));
    EXPECT_EQ(json(signal), data);
  };
  expectTalk({{"ViewerCount", "twelve"}}, "viewer_count", {{"viewer_count", "twelve"}});
  expectTalk({{"CommentName", "Zoë"}, {"CommentText", "a \"text\""}, {"CommentUUID", "u"}}, "comment",
             {{"name", "Zoë"}, {"text", "a \"text\""}, {"uuid", "u"}});
  expectTalk({{"FavUUID", "u"}, {"FavState", "s"}}, "fav", {{"uuid", "u"}, {"state", "s"}});
  expectTalk({{"ChatName", "n"}, {"ChatText", "t"}, {"ChatUUID", "u"}}, "chat",
             {{"name", "n"}, {"text", "t"}, {"uuid", "u"}});
  const StudioPeer::Entries incomplete[] = {
      {{"GreenroomStatus", "yes"}},
      {{"RemoteMute", "yes"}},
      {{"StopBroadcast", ""}},
      {{"FavUUID", "u"}},
      {{"CommentName", "n"}, {"CommentText", "t"}},
      {{"ChatName", "n"}, {"ChatUUID", "u"}},
      {{"VideoFrame", "no surface"}, {"Init", ""}, {"sessionId", "x"}, {"token", "y"}}};
  for (const auto& command : incomplete) EXPECT_EQ(sent(command), "") << command.begin()->first;

  studio->ask({{"Stop", ""}});
  EXPECT_THAT(sdk.calls(), ElementsAre("otc_session_unpublish", "otc_session_delete room"));
}

TEST_F(HostLinkTest, TheShowsMediaAreHandedOverInPlace) {
  init();
  admit("cam");
  sdk.audioDevice.start_capturer(nullptr, sdk.audioDevice.user_data);
  const auto sound = [&](const std::vector<int16_t>& samples, size_t bytes) {
    const auto message = Object(xpc_dictionary_create_empty());
    xpc_dictionary_set_data(message, "AudioData", samples.data(), bytes);
    sdk.forgetCalls();
    studio->ask(message);
    return sdk.calls();
  };
  const std::vector<int16_t> samples = {1, 2, 3, 4};
  EXPECT_THAT(sound(samples, 7), Contains("otc_audio_device_write_capture_data 1"));
  EXPECT_THAT(sound(samples, 3), Contains("otc_audio_device_write_capture_data 0"));
  EXPECT_THAT(sound(samples, 0), IsEmpty());

  sdk.startCapturer();
  const auto picture = createSurface(kCVPixelFormatType_32BGRA, 64, 48);
  const auto message = Object(xpc_dictionary_create_empty());
  xpc_dictionary_set_value(message, "VideoFrame", Object(IOSurfaceCreateXPCObject(picture.get())));
  sdk.forgetCalls();
  EXPECT_EQ(studio->ask(message), "world");
  EXPECT_THAT(sdk.calls(), ElementsAre("otc_video_frame_new_contiguous_memory_wrapper 6 64x48 shallow",
                                       "otc_video_capturer_provide_frame 0", "otc_video_frame_delete"));
  const auto& frame = sdk.providedFrames.at(0);
  frame.release(frame.releaseArgument);
}

TEST_F(HostLinkTest, ReportsCarryTheirKeys) {
  init();
  sdk.receiveStream({"scr", "Guest - Ann", OTC_STREAM_VIDEO_TYPE_SCREEN});
  const auto ring = studio->next("ring");
  EXPECT_EQ(text(ring, "ring"), "scr");
  EXPECT_EQ(text(ring, "name"), "Guest - Ann");
  EXPECT_EQ(text(ring, "sessionId"), "room");
  EXPECT_TRUE(xpc_dictionary_get_bool(ring, "screenShare"));

  const otc_stream stream = {"scr", "Guest - Ann", OTC_STREAM_VIDEO_TYPE_SCREEN};
  auto* joined = sdk.session();
  joined->callbacks.on_stream_has_audio_changed(joined, joined->callbacks.user_data, &stream, OTC_TRUE);
  const auto audio = studio->next("sessionHasAudioChanged");
  EXPECT_TRUE(xpc_dictionary_get_bool(audio, "hasAudio"));
  EXPECT_EQ(text(audio, "sessionHasAudioChanged"), "room");

  sdk.sendSignal("chat", R"({"text": "hello", "uuid": "u"})");
  const auto chat = studio->next("message");
  EXPECT_EQ(text(chat, "message"), "hello");
  EXPECT_EQ(text(chat, "name"), "none") << "a name that is missing stays out";
  EXPECT_EQ(text(chat, "uuid"), "u");
  sdk.sendSignal("fav", R"({"uuid": "u", "state": "on"})");
  EXPECT_EQ(text(studio->next("state"), "uuid"), "u");

  int16_t samples[] = {5, 6};
  sdk.receiveStream({"cam", "Guest - Bob"});
  sdk.deliverSound("cam", samples);
  const auto sound = studio->next("sound");
  size_t length = 0;
  const void* bytes = xpc_dictionary_get_data(sound, "sound", &length);
  ASSERT_EQ(length, 4u);
  EXPECT_EQ(memcmp(bytes, samples, 4), 0);

  sdk.dropStream(stream);
  EXPECT_EQ(text(studio->next("dropped"), "dropped"), "scr");

  sdk.logger("a line \xff of noise");
  EXPECT_TRUE(studio->waitForLog("open_tok_logger: a line \uFFFD of noise"));
}

TEST_F(HostLinkTest, AGuestNamedAtLengthRings) {
  init();
  const std::string name = "Guest - " + std::string(64 * 1024, 'x');
  sdk.receiveStream({"cam", name.c_str()});
  EXPECT_EQ(text(studio->next("ring"), "name"), name);
}

TEST_F(HostLinkTest, AtMostTwoFramesAwaitTheStudiosAnswer) {
  init();
  admit("cam");
  studio->setAnswering(false);
  for (int i = 0; i < 3; i++) deliverFrame(1000 + i);
  const auto first = studio->next("surface");
  const auto number = xpc_dictionary_get_int64(first, "num");
  EXPECT_EQ(xpc_dictionary_get_int64(first, "timestamp"), 1000);
  EXPECT_EQ(text(first, "id"), "cam");
  EXPECT_EQ(text(first, "name"), "Guest - Ann");
  const auto surface =
      Ref<IOSurfaceRef>::adopt(IOSurfaceLookupFromXPCObject(xpc_dictionary_get_value(first, "surface")));
  ASSERT_TRUE(surface);
  IOSurfaceLock(surface.get(), kIOSurfaceLockReadOnly, nullptr);
  EXPECT_EQ(*static_cast<const uint8_t*>(IOSurfaceGetBaseAddressOfPlane(surface.get(), 0)), 100);
  IOSurfaceUnlock(surface.get(), kIOSurfaceLockReadOnly, nullptr);
  EXPECT_EQ(nextNumber(), number + 1);
  EXPECT_TRUE(studio->waitForLog("too many pixelbuffers queued for guest"));

  studio->setAnswering(true);
  studio->ask({{"There", ""}});  // the answers have arrived before this one
  deliverFrame();
  EXPECT_EQ(nextNumber(), number + 3);
}

TEST_F(HostLinkTest, AnyConnectionsErrorSilencesTheServiceUntilTheNextInit) {
  init();
  admit("cam");
  deliverFrame();
  const auto number = nextNumber();
  {
    StudioPeer other(kName);
    other.ask({{"There", ""}});
  }
  EXPECT_TRUE(waitUntilSilent());
  deliverFrame();
  init();
  sdk.receiveStream({"cam", "Guest - Ann"});
  deliverFrame();
  EXPECT_EQ(nextNumber(), number + 2) << "one was dropped";
}

TEST_F(HostLinkTest, ManyInitsAndStopsLeakNoDescriptor) {
  init();
  const auto before = openDescriptors();
  for (int i = 0; i < 100; i++) {
    init();
    admit("cam");
    deliverFrame();
    ASSERT_TRUE(studio->next("surface"));
    studio->ask({{"Stop", ""}});
  }
  EXPECT_LE(openDescriptors(), before + 8);
}

}  // namespace
