// The service at its link: commands as dictionaries in, reports as dictionaries out, over real connections
// inside one process.

#include <CoreVideo/CoreVideo.h>
#include <IOSurface/IOSurface.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <thread>

#include "scripted_sdk.h"
#include "service/commands.h"
#include "service/host_connection.h"
#include "session/guest_session.h"
#include "streams/guest_session_stream.h"
#include "studio_peer.h"

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

namespace {

constexpr char kName[] = "host-link-test";

// The service's process: one listener, one delegate, one session object for all tests, as in real life.
class HostLink : public testing::Environment {
 public:
  void SetUp() override {
    char folder[] = "/tmp/host-link-XXXXXX";
    folder_ = mkdtemp(folder);
    setenv("XDG_RUNTIME_DIR", folder, 1);
    listener_ = xpc_connection_create_mach_service(kName, nullptr, XPC_CONNECTION_MACH_SERVICE_LISTENER);
    xpc_connection_set_event_handler(listener_, [](xpc_object_t peer) {
      if (xpc_get_type(peer) == XPC_TYPE_CONNECTION) acceptConnection(static_cast<xpc_connection_t>(peer));
    });
    xpc_connection_resume(listener_);
  }
  void TearDown() override {
    xpc_connection_cancel(listener_);
    xpc_release(listener_);
    std::filesystem::remove_all(folder_);
  }

 private:
  std::string folder_;
  xpc_connection_t listener_ = nullptr;
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
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (appConn.load() && std::chrono::steady_clock::now() < deadline) std::this_thread::yield();
    return !appConn.load();
  }
  void init(StudioPeer& peer) {
    ASSERT_EQ(peer.ask({{"Init", ""}, {"sessionId", "room"}, {"token", "t"}}), "world");
  }
  void init() {
    init(*studio);
    sdk.forgetCalls();
  }
  void admit(const char* id) {
    sdk.receiveStream({id, "Guest - Ann"});
    studio->ask({{"StartBroadcast", ""}, {"ID", id}});
    sdk.forgetCalls();
  }
  void deliverFrame(const char* id, int64_t timestamp = 0) {
    PlanarFrame picture(64, 48, 100, 90, 200);
    picture.frame.timestamp = timestamp;
    otc_subscriber* subscriber = sdk.subscriber(id);
    subscriber->callbacks.on_render_frame(subscriber, subscriber->callbacks.user_data, &picture.frame);
  }
  static std::string text(const Ref<xpc_object_t>& message, const char* key) {
    const char* value = xpc_dictionary_get_string(message.get(), key);
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
  const auto wrongType = StudioPeer::message({{"Init", ""}, {"token", "t"}});
  xpc_dictionary_set_int64(wrongType.get(), "sessionId", 7);
  EXPECT_EQ(studio->ask(wrongType.get()), "world");
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

  const auto signalFor = [&](const std::vector<StudioPeer::Entry>& entries) {
    sdk.forgetCalls();
    studio->ask(entries);
    const auto calls = sdk.calls();
    return calls.empty() ? std::string() : calls.back();
  };
  EXPECT_THAT(signalFor({{"LiveStatus", "yes"}, {"RecordOnly", "YES"}}),
              testing::AllOf(HasSubstr("\"broadcastIsLive\": true"), HasSubstr("\"recordOnly\": false")));
  EXPECT_THAT(signalFor({{"SetOffAirAudio", "yes"}}), HasSubstr("\"offAirAudio\": true"));
  EXPECT_THAT(signalFor({{"SetOffAirAudio", "Yes"}}), HasSubstr("\"offAirAudio\": false"));
  EXPECT_THAT(signalFor({{"GreenroomStatus", "no"}, {"ID", "cam"}}), HasSubstr("\"on\": true"));
  EXPECT_THAT(signalFor({{"RemoteMute", "yes"}, {"ID", "cam"}}), HasSubstr("\"remoteMuted\": true"));
  EXPECT_THAT(signalFor({{"ViewerCount", "twelve"}}), HasSubstr("\"viewer_count\": \"twelve\""));
  EXPECT_THAT(signalFor({{"CommentName", "n"}, {"CommentText", "t"}, {"CommentUUID", "u"}}),
              StartsWith("otc_session_send_signal session comment"));
  EXPECT_THAT(signalFor({{"FavUUID", "u"}, {"FavState", "s"}}),
              StartsWith("otc_session_send_signal session fav"));
  EXPECT_THAT(signalFor({{"ChatName", "n"}, {"ChatText", "t"}, {"ChatUUID", "u"}}),
              StartsWith("otc_session_send_signal session chat"));
  EXPECT_EQ(signalFor({{"PrefUpdate", "p"}}), "otc_session_send_signal session prefUpdate p");

  EXPECT_EQ(signalFor({{"GreenroomStatus", "yes"}}), "");
  EXPECT_EQ(signalFor({{"RemoteMute", "yes"}}), "");
  EXPECT_EQ(signalFor({{"StopBroadcast", ""}}), "");
  EXPECT_EQ(signalFor({{"CommentName", "n"}, {"CommentText", "t"}}), "");
  EXPECT_EQ(signalFor({{"FavUUID", "u"}}), "");
  EXPECT_EQ(signalFor({{"ChatName", "n"}, {"ChatUUID", "u"}}), "");
  EXPECT_EQ(signalFor({{"VideoFrame", "no surface"}, {"Init", ""}, {"sessionId", "x"}, {"token", "y"}}), "");

  studio->ask({{"Stop", ""}});
  EXPECT_THAT(sdk.calls(), ElementsAre("otc_session_unpublish", "otc_session_delete room"));
}

TEST_F(HostLinkTest, TheShowsMediaAreHandedOverInPlace) {
  init();
  admit("cam");
  sdk.audioDevice.start_capturer(nullptr, sdk.audioDevice.user_data);
  const auto sound = [&](const std::vector<int16_t>& samples, size_t bytes) {
    const auto message = StudioPeer::message({});
    xpc_dictionary_set_data(message.get(), "AudioData", samples.data(), bytes);
    sdk.forgetCalls();
    studio->ask(message.get());
    return sdk.calls();
  };
  const std::vector<int16_t> samples = {1, 2, 3, 4};
  EXPECT_THAT(sound(samples, 7), Contains("otc_audio_device_write_capture_data 1"));
  EXPECT_THAT(sound(samples, 3), Contains("otc_audio_device_write_capture_data 0"));
  EXPECT_THAT(sound(samples, 0), IsEmpty());

  const auto& capturer = sdk.publishers.back()->settings.capturer;
  capturer.init(reinterpret_cast<otc_video_capturer*>(1), capturer.user_data);
  capturer.start(reinterpret_cast<otc_video_capturer*>(1), capturer.user_data);
  const auto newDictionary = [] {
    return Ref<CFMutableDictionaryRef>::adopt(CFDictionaryCreateMutable(
        kCFAllocatorDefault, 0, &kCFTypeDictionaryKeyCallBacks, &kCFTypeDictionaryValueCallBacks));
  };
  const auto surfaceProperties = newDictionary();
  const auto attributes = newDictionary();
  CFDictionarySetValue(attributes.get(), kCVPixelBufferIOSurfacePropertiesKey, surfaceProperties.get());
  CVPixelBufferRef created = nullptr;
  ASSERT_EQ(
      CVPixelBufferCreate(kCFAllocatorDefault, 64, 48, kCVPixelFormatType_32BGRA, attributes.get(), &created),
      kCVReturnSuccess);
  const auto buffer = Ref<CVPixelBufferRef>::adopt(created);
  const auto surface =
      Ref<xpc_object_t>::adopt(IOSurfaceCreateXPCObject(CVPixelBufferGetIOSurface(buffer.get())));
  const auto message = StudioPeer::message({});
  xpc_dictionary_set_value(message.get(), "VideoFrame", surface.get());
  sdk.forgetCalls();
  EXPECT_EQ(studio->ask(message.get()), "world");
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
  EXPECT_TRUE(xpc_dictionary_get_bool(ring.get(), "screenShare"));

  const otc_stream stream = {"scr", "Guest - Ann", OTC_STREAM_VIDEO_TYPE_SCREEN};
  auto* joined = sdk.session();
  joined->callbacks.on_stream_has_audio_changed(joined, joined->callbacks.user_data, &stream, OTC_TRUE);
  const auto audio = studio->next("sessionHasAudioChanged");
  EXPECT_TRUE(xpc_dictionary_get_bool(audio.get(), "hasAudio"));
  EXPECT_EQ(text(audio, "sessionHasAudioChanged"), "room");

  const auto signal = [&](const char* type, const char* data) {
    joined->callbacks.on_signal_received(joined, joined->callbacks.user_data, type, data, nullptr);
  };
  signal("chat", R"({"text": "hello", "uuid": "u"})");
  const auto chat = studio->next("message");
  EXPECT_EQ(text(chat, "message"), "hello");
  EXPECT_EQ(text(chat, "name"), "none") << "a name that is missing stays out";
  EXPECT_EQ(text(chat, "uuid"), "u");
  signal("fav", R"({"uuid": "u", "state": "on"})");
  EXPECT_EQ(text(studio->next("state"), "uuid"), "u");

  int16_t samples[] = {5, 6};
  const otc_audio_data block = {samples, 16, 48000, 2, 1};
  sdk.receiveStream({"cam", "Guest - Bob"});
  otc_subscriber* subscriber = sdk.subscriber("cam");
  subscriber->callbacks.on_audio_data(subscriber, subscriber->callbacks.user_data, &block);
  const auto sound = studio->next("sound");
  size_t length = 0;
  const void* bytes = xpc_dictionary_get_data(sound.get(), "sound", &length);
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
  for (int i = 0; i < 3; i++) deliverFrame("cam", 1000 + i);
  const auto first = studio->next("surface");
  const auto number = xpc_dictionary_get_int64(first.get(), "num");
  EXPECT_EQ(xpc_dictionary_get_int64(first.get(), "timestamp"), 1000);
  EXPECT_EQ(text(first, "id"), "cam");
  EXPECT_EQ(text(first, "name"), "Guest - Ann");
  const auto surface = Ref<IOSurfaceRef>::adopt(
      IOSurfaceLookupFromXPCObject(xpc_dictionary_get_value(first.get(), "surface")));
  ASSERT_TRUE(surface);
  IOSurfaceLock(surface.get(), kIOSurfaceLockReadOnly, nullptr);
  EXPECT_EQ(*static_cast<const uint8_t*>(IOSurfaceGetBaseAddressOfPlane(surface.get(), 0)), 100);
  IOSurfaceUnlock(surface.get(), kIOSurfaceLockReadOnly, nullptr);
  EXPECT_EQ(xpc_dictionary_get_int64(studio->next("surface").get(), "num"), number + 1);
  EXPECT_TRUE(studio->waitForLog("too many pixelbuffers queued for guest"));

  studio->setAnswering(true);
  studio->ask({{"There", ""}});  // the answers have arrived before this one
  deliverFrame("cam");
  EXPECT_EQ(xpc_dictionary_get_int64(studio->next("surface").get(), "num"), number + 3);
}

TEST_F(HostLinkTest, AnyConnectionsErrorSilencesTheServiceUntilTheNextInit) {
  init();
  admit("cam");
  deliverFrame("cam");
  const auto number = xpc_dictionary_get_int64(studio->next("surface").get(), "num");
  {
    StudioPeer other(kName);
    other.ask({{"There", ""}});
  }
  EXPECT_TRUE(waitUntilSilent());
  deliverFrame("cam");
  init(*studio);
  sdk.receiveStream({"cam", "Guest - Ann"});
  deliverFrame("cam");
  EXPECT_EQ(xpc_dictionary_get_int64(studio->next("surface").get(), "num"), number + 2) << "one was dropped";
}

TEST_F(HostLinkTest, ManyInitsAndStopsLeakNoDescriptor) {
  init();
  const auto openFiles = [] {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                         std::filesystem::directory_iterator());
  };
  const auto before = openFiles();
  for (int i = 0; i < 100; i++) {
    init();
    admit("cam");
    deliverFrame("cam");
    ASSERT_TRUE(studio->next("surface"));
    studio->ask({{"Stop", ""}});
  }
  EXPECT_LE(openFiles(), before + 8);
}

}  // namespace
