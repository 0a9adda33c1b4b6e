// The service at its link: commands as dictionaries in, reports as dictionaries out, over real connections
// inside one process.

#include <CoreVideo/CoreVideo.h>
#include <IOSurface/IOSurface.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cstring>
#include <optional>

#include "scripted_sdk.h"
#include "service/commands.h"
#include "service/host_connection.h"
#include "session/guest_session.h"
#include "streams/guest_session_stream.h"
#include "studio_peer.h"
#include "surfaces.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::IsSupersetOf;

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
  void deliverFrame(int64_t timestamp) {
    PlanarFrame picture(64, 48);
    picture.frame.timestamp = timestamp;
    sdk.renderFrame("cam", picture.frame);
  }
  // A text, a flag that is set as "true", or "none".
  static std::string text(const Object& message, const char* key) {
    if (xpc_dictionary_get_bool(message, key)) return "true";
    const char* value = xpc_dictionary_get_string(message, key);
    return value ? value : "none";
  }
  // The values of these keys in the next message that has the first of them.
  std::vector<std::string> report(const std::vector<const char*>& keys) {
    const Object message = studio->next(keys.front());
    std::vector<std::string> values;
    for (const char* key : keys) values.push_back(text(message, key));
    return values;
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
  studio->ask({{"Init", ""}, {"sessionId", "next"}, {"token", "u"}});
  EXPECT_THAT(sdk.calls(), ElementsAre("otc_session_delete room", "otc_session_new 31877405 next",
                                       "otc_session_connect next u"));
}

TEST_F(HostLinkTest, CommandsReachTheSessionWithTheirArguments) {
  init();
  sdk.receiveStream({"cam", "Guest - Ann"});
  studio->ask({{"StartBroadcast", ""}});
  EXPECT_THAT(sdk.calls(), ElementsAre("otc_subscriber_new cam")) << "no ID, no publishing";
  studio->ask({{"StartBroadcast", ""}, {"ID", "cam"}});
  EXPECT_THAT(sdk.calls(), IsSupersetOf({"otc_session_publish session publisher",
                                         "otc_session_subscribe subscriber:cam"}));

  // What a command sends to the guests: a signal's type and its JSON, or nothing.
  const auto sent = [&](const StudioPeer::Entries& command) -> std::string {
    sdk.forgetCalls();
    studio->ask(command);
    const auto calls = sdk.calls();
    if (calls.empty()) return "";
    const std::string signal = calls.back().substr(std::strlen("otc_session_send_signal session "));
    const size_t data = signal.find(' ') + 1;
    const auto json = nlohmann::json::parse(signal.substr(data), nullptr, false);
    return json.is_discarded() ? signal : signal.substr(0, data) + json.dump();
  };
  const struct {
    StudioPeer::Entries command;
    testing::Matcher<const std::string&> signal;
  } rows[] = {{{{"LiveStatus", "yes"}, {"RecordOnly", "YES"}},
               HasSubstr(R"({"broadcastIsLive":true,"recordOnly":false,)")},
              {{{"SetOffAirAudio", "yes"}}, HasSubstr(R"("offAirAudio":true)")},
              {{{"SetOffAirAudio", "Yes"}}, HasSubstr(R"("offAirAudio":false)")},
              {{{"GreenroomStatus", "no"}, {"ID", "cam"}}, HasSubstr(R"("on":true)")},
              {{{"RemoteMute", "yes"}, {"ID", "cam"}}, HasSubstr(R"("remoteMuted":true)")},
              {{{"PrefUpdate", "{not parsed"}}, "prefUpdate {not parsed"},
              {{{"ViewerCount", "twelve"}}, R"(viewer_count {"viewer_count":"twelve"})"},
              {{{"CommentName", "Zoë"}, {"CommentText", "a \"text\""}, {"CommentUUID", "u"}},
               R"(comment {"name":"Zoë","text":"a \"text\"","uuid":"u"})"},
              {{{"FavUUID", "u"}, {"FavState", "s"}}, R"(fav {"state":"s","uuid":"u"})"},
              {{{"ChatName", "n"}, {"ChatText", "t"}, {"ChatUUID", "u"}},
               R"(chat {"name":"n","text":"t","uuid":"u"})"},
              // What is incomplete, or for nobody, is ignored.
              {{{"GreenroomStatus", "yes"}}, ""},
              {{{"RemoteMute", "yes"}}, ""},
              {{{"StopBroadcast", ""}}, ""},
              {{{"FavUUID", "u"}}, ""},
              {{{"CommentName", "n"}, {"CommentText", "t"}}, ""},
              {{{"ChatName", "n"}, {"ChatUUID", "u"}}, ""},
              {{{"GreenroomStatus", "yes"}, {"ID", "nobody"}}, ""},
              {{{"RemoteMute", "yes"}, {"ID", "nobody"}}, ""},
              {{{"StartBroadcast", ""}, {"ID", "nobody"}}, ""},
              {{{"StopBroadcast", ""}, {"ID", "nobody"}}, ""},
              {{{"AudioData", "no data"}}, ""},
              {{{"VideoFrame", "no surface"}, {"Init", ""}, {"sessionId", "x"}, {"token", "y"}}, ""}};
  for (const auto& [command, signal] : rows) EXPECT_THAT(sent(command), signal) << command.begin()->first;

  studio->ask({{"Stop", ""}});
  EXPECT_THAT(sdk.calls(), ElementsAre("otc_session_unpublish session publisher", "otc_session_delete room"));
}

TEST_F(HostLinkTest, SoundIsCountedInWholeSampleFrames) {
  init();
  sdk.audioDevice.start_capturer(nullptr, sdk.audioDevice.user_data);
  const std::vector<uint8_t> samples(400'000);
  for (const size_t bytes : {1u, 7u, 3'840u, 400'000u}) {
    const auto message = Object(xpc_dictionary_create_empty());
    xpc_dictionary_set_data(message, "AudioData", samples.data(), bytes);
    sdk.forgetCalls();
    studio->ask(message);
    EXPECT_THAT(sdk.calls(), ElementsAre("otc_audio_device_write_capture_data " + std::to_string(bytes / 4)));
  }
}

TEST_F(HostLinkTest, AShowsPictureIsWrappedAndHeldOrCopiedWhileTheSdkWantsIt) {
  init();
  admit("cam");
  const auto show = [&](OSType format) {
    auto picture = createSurface(format, 64, 48);
    const auto message = Object(xpc_dictionary_create_empty());
    xpc_dictionary_set_value(message, "VideoFrame", Object(IOSurfaceCreateXPCObject(picture.get())));
    sdk.forgetCalls();
    EXPECT_EQ(studio->ask(message), "world");
    return picture;
  };
  sdk.startCapturer();
  const auto bgra = show(kCVPixelFormatType_32BGRA);
  EXPECT_THAT(sdk.calls(), ElementsAre("otc_video_frame_new_contiguous_memory_wrapper 6 64x48 shallow",
                                       "otc_video_capturer_provide_frame 0", "otc_video_frame_delete"));
  EXPECT_TRUE(IOSurfaceIsInUse(bgra.get()));
  const auto wrapped = sdk.providedFrames.at(0);
  wrapped.release(wrapped.releaseArgument);
  EXPECT_FALSE(IOSurfaceIsInUse(bgra.get()));

  const auto planar = show(kCVPixelFormatType_420YpCbCr8BiPlanarVideoRange);
  EXPECT_FALSE(IOSurfaceIsInUse(planar.get()));
  EXPECT_EQ(sdk.providedFrames.at(1).format, OTC_VIDEO_FRAME_FORMAT_NV12);

  const auto& capturer = sdk.publishers.back()->settings.capturer;
  capturer.stop(nullptr, capturer.user_data);
  show(kCVPixelFormatType_32BGRA);
  EXPECT_THAT(sdk.calls(), IsEmpty());
}

TEST_F(HostLinkTest, ReportsCarryTheirKeys) {
  init();
  const std::string name = "Guest - " + std::string(64 * 1024, 'x');
  const otc_stream stream = {"scr", name.c_str(), OTC_STREAM_VIDEO_TYPE_SCREEN};
  sdk.receiveStream(stream);
  EXPECT_THAT(report({"ring", "name", "sessionId", "screenShare"}), ElementsAre("scr", name, "room", "true"));

  auto* joined = sdk.session();
  joined->callbacks.on_stream_has_audio_changed(joined, joined->callbacks.user_data, &stream, OTC_TRUE);
  EXPECT_THAT(report({"sessionHasAudioChanged", "hasAudio"}), ElementsAre("room", "true"));
  sdk.sendSignal("chat", R"({"text": "hello", "uuid": "u"})");
  EXPECT_THAT(report({"message", "name", "uuid"}), ElementsAre("hello", "none", "u"));
  sdk.sendSignal("fav", R"({"uuid": "u", "state": "on"})");
  EXPECT_THAT(report({"state", "uuid"}), ElementsAre("on", "u"));
  sdk.dropStream(stream);
  EXPECT_THAT(report({"dropped", "sessionId"}), ElementsAre("scr", "room"));
  sharedGuestSession.load()->reportFatalError("broken");
  EXPECT_THAT(report({"fatalErrorMessage"}), ElementsAre("broken"));
  sdk.logger("a line \xff of noise");
  EXPECT_TRUE(studio->waitForLog("open_tok_logger: a line \uFFFD of noise"));

  int16_t samples[] = {5, 6};
  sdk.receiveStream({"cam", "Guest - Bob"});
  sdk.deliverSound("cam", samples);
  size_t length = 0;
  const auto sound = studio->next("sound");
  const void* bytes = xpc_dictionary_get_data(sound, "sound", &length);
  ASSERT_EQ(length, sizeof samples);
  EXPECT_EQ(memcmp(bytes, samples, length), 0);
  EXPECT_EQ(text(sound, "sessionId"), "room") << "the joined one's";
}

TEST_F(HostLinkTest, AtMostTwoFramesAwaitTheStudiosAnswer) {
  init();
  admit("cam");
  studio->answering = false;
  const auto surfaceOf = [](const Object& frame) {
    const auto surface =
        Ref<IOSurfaceRef>::adopt(IOSurfaceLookupFromXPCObject(xpc_dictionary_get_value(frame, "surface")));
    return IOSurfaceGetID(surface.get());
  };
  deliverFrame(1000);
  const auto first = studio->next("surface");
  for (int i = 1; i < 3; i++) deliverFrame(1000 + i);
  const auto number = xpc_dictionary_get_int64(first, "num");
  EXPECT_EQ(xpc_dictionary_get_int64(first, "timestamp"), 1000);
  EXPECT_EQ(text(first, "id"), "cam");
  EXPECT_EQ(text(first, "name"), "Guest - Ann");
  const auto second = studio->next("surface");
  EXPECT_EQ(xpc_dictionary_get_int64(second, "num"), number + 1);
  EXPECT_NE(surfaceOf(first), surfaceOf(second)) << "the studio may look at a picture until it has answered";
  EXPECT_TRUE(studio->waitForLog("too many pixelbuffers queued for guest"));

  studio->answering = true;
  for (const auto& frame : {first, second}) StudioPeer::answer(frame);
  studio->ask({{"There", ""}});  // the answers have arrived before this one
  deliverFrame(1003);
  EXPECT_EQ(xpc_dictionary_get_int64(studio->next("surface"), "num"), number + 3);
}

TEST_F(HostLinkTest, AnyConnectionsErrorSilencesTheServiceUntilTheNextInit) {
  init();
  admit("cam");
  deliverFrame(0);
  const auto number = xpc_dictionary_get_int64(studio->next("surface"), "num");
  EXPECT_EQ(std::make_unique<StudioPeer>(kName)->ask({{"There", ""}}), "world");  // and it is gone
  EXPECT_TRUE(waitUntilSilent());
  deliverFrame(1);
  init();
  deliverFrame(2);
  const auto frame = studio->next("surface");
  EXPECT_EQ(xpc_dictionary_get_int64(frame, "timestamp"), 2);
  EXPECT_EQ(xpc_dictionary_get_int64(frame, "num"), number + 2) << "the one between is counted";
}

}  // namespace
