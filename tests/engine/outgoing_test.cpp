// What goes out: the program's pictures and sound, as a browser sees and hears them.
#include <gmock/gmock.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cmath>
#include <numbers>
#include <thread>

#include "room_fixture.h"

namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;

// A program's own show: a capturer that has the program note what the SDK asks of it, and a thread that feeds
// it pictures of one colour, and the audio device a tone.
class Show {
 public:
  explicit Show(Program& itsProgram) : program(itsProgram) {
    otc_video_capturer_callbacks capturer = {};
    capturer.init = [](const otc_video_capturer* handle, void* show) {
      static_cast<Show*>(show)->capturer = handle;
      return called(show, "init");
    };
    capturer.destroy = [](const otc_video_capturer*, void* show) { return called(show, "destroy"); };
    capturer.start = [](const otc_video_capturer*, void* show) { return called(show, "start"); };
    capturer.stop = [](const otc_video_capturer*, void* show) { return called(show, "stop"); };
    capturer.get_capture_settings = [](const otc_video_capturer*, void* show,
                                       otc_video_capturer_settings* settings) {
      *settings = {OTC_VIDEO_FRAME_FORMAT_BGRA32, 1024, 576, 30, 0, OTC_FALSE};
      return called(show, "settings");
    };
    capturer.user_data = this;

    otc_publisher_callbacks callbacks = {};
    callbacks.on_stream_created = [](otc_publisher*, void* show, const otc_stream*) {
      called(show, "created");
    };
    callbacks.on_stream_destroyed = [](otc_publisher*, void* show, const otc_stream*) {
      called(show, "destroyed");
    };
    callbacks.on_error = [](otc_publisher*, void* show, const char* text, int) { called(show, text); };
    callbacks.user_data = this;

    otc_publisher_settings* settings = otc_publisher_settings_new();
    otc_publisher_settings_set_name(settings, "ZarvoLive");
    otc_publisher_settings_set_video_capturer(settings, &capturer);
    otc_publisher_settings_set_audio_track(settings, OTC_TRUE);
    otc_publisher_settings_set_video_track(settings, OTC_TRUE);
    otc_publisher_settings_set_stereo(settings, OTC_FALSE);
    publisher = otc_publisher_new_with_settings(&callbacks, settings);
  }

  // Pictures at an uneven pace, and a tone in blocks that divide nothing.
  void feed() {
    feeder = std::jthread([this](const std::stop_token& stop) {
      constexpr std::array<std::size_t, 4> blocks = {1, 960, 7, 4801};
      double phase = 0;
      auto next = std::chrono::steady_clock::now();
      for (std::size_t turn = 0; !stop.stop_requested(); ++turn) {
        if (turn % 2 == 0) giveFrame();
        std::vector<std::int16_t> stereo(2 * blocks.at(turn % blocks.size()));
        for (std::size_t i = 0; i < stereo.size(); i += 2) {
          phase += 2 * std::numbers::pi * 660 / 48000;
          stereo[i] = stereo[i + 1] = static_cast<std::int16_t>(12000 * std::sin(phase));
        }
        otc_audio_device_write_capture_data(stereo.data(), stereo.size() / 2);
        next += std::chrono::nanoseconds(stereo.size() / 2 * 1000000000 / 48000);
        std::this_thread::sleep_until(next);
      }
    });
  }
  void stop() { feeder = {}; }

  void giveFrame() {
    otc_video_frame* frame = blue ? blueFrame() : greenFrame();
    otc_video_capturer_provide_frame(capturer, 0, frame);
    otc_video_frame_delete(frame);
  }

  otc_publisher* publisher = nullptr;
  std::atomic<bool> blue{false};
  static inline std::atomic<int> given{0};
  static inline std::atomic<int> released{0};

 private:
  static otc_bool called(void* show, const std::string& call) {
    static_cast<Show*>(show)->program.noteEvent(call);
    return OTC_TRUE;
  }

  static otc_video_frame* greenFrame() {
    auto* pixels = new std::vector<std::uint32_t>(1024 * 576, 0xff00ff00);
    const auto release = [](void* argument) {
      ++released;
      delete static_cast<std::vector<std::uint32_t>*>(argument);
    };
    ++given;
    return otc_video_frame_new_contiguous_memory_wrapper(
        OTC_VIDEO_FRAME_FORMAT_ARGB32, 1024, 576, OTC_TRUE,
        reinterpret_cast<const std::uint8_t*>(pixels->data()), pixels->size() * 4, release, pixels);
  }
  // Of another size and in three planes; in BT.601.
  static otc_video_frame* blueFrame() {
    static const std::vector<std::uint8_t> y(640 * 360, 41);
    static const std::vector<std::uint8_t> u(320 * 180, 240);
    static const std::vector<std::uint8_t> v(320 * 180, 110);
    const std::array<const std::uint8_t*, 3> planes = {y.data(), u.data(), v.data()};
    const std::array<int, 3> strides = {640, 320, 320};
    return otc_video_frame_new_from_planes(OTC_VIDEO_FRAME_FORMAT_NV12, 640, 360, planes.data(),
                                           strides.data());
  }

  Program& program;
  std::atomic<const otc_video_capturer*> capturer = nullptr;
  std::jthread feeder;
};

class Outgoing : public RoomTest {
 protected:
  void SetUp() override {
    RoomTest::SetUp();
    join("Guest - Ada");
    program.connect(room, token);
    ASSERT_TRUE(program.waitEvent("connected"));
  }

  // Polls what the browser sees until it is so; the last look, whether or not it came to be.
  static json lookUntil(const std::function<bool(const json&)>& so) {
    json seen;
    for (int i = 0; i < 100; ++i) {
      seen = browser->call("look", {{"as", "Guest - Ada"}});
      if (so(seen)) break;
      std::this_thread::sleep_for(100ms);
    }
    return seen;
  }
  static bool near(const json& color, int r, int g, int b) {
    return std::abs(color[0].get<int>() - r) < 24 && std::abs(color[1].get<int>() - g) < 24 &&
           std::abs(color[2].get<int>() - b) < 24;
  }

  Show show{program};
};

TEST_F(Outgoing, PicturesAndSoundReachTheBrowser) {
  ASSERT_EQ(OTC_SUCCESS, otc_session_publish(program.session(), show.publisher));
  ASSERT_TRUE(program.waitEvent("created"));
  show.feed();
  browser->call("watch", {{"as", "Guest - Ada"}});
  json seen = lookUntil([](const json& s) { return near(s["color"], 0, 255, 0) && s["level"] > -40; });
  EXPECT_TRUE(near(seen["color"], 0, 255, 0)) << seen;
  EXPECT_EQ(1024, seen["width"]);
  EXPECT_NEAR(660, seen["tone"].get<double>(), 12) << seen;

  // Another size and another layout, in the middle of it.
  show.blue = true;
  seen = lookUntil([](const json& s) { return s["width"] == 640 && near(s["color"], 0, 0, 255); });
  EXPECT_TRUE(near(seen["color"], 0, 0, 255)) << seen;
  EXPECT_EQ(0, program.streams.size()) << "our own stream came back";

  ASSERT_EQ(OTC_SUCCESS, otc_session_unpublish(program.session(), show.publisher));
  EXPECT_THAT(program.events, ElementsAre("connected", "init", "settings", "start", "created", "stop",
                                          "destroy", "destroyed"));
}

TEST_F(Outgoing, PublishingStartsAndStopsWithEverythingInFlight) {
  show.feed();
  // From a second thread, and faster than anybody encodes; but the rest of the test needs a core, too.
  std::jthread other([this](const std::stop_token& stop) {
    while (!stop.stop_requested()) {
      show.giveFrame();
      std::this_thread::sleep_for(1ms);
    }
  });
  for (int turn = 0; turn < 6; ++turn) {
    ASSERT_EQ(OTC_SUCCESS, otc_session_publish(program.session(), show.publisher));
    if (turn % 2 == 0) {
      ASSERT_TRUE(program.waitEvent("created", turn / 2 + 1));
    }
    if (turn == 2) {  // the session goes first, and the publisher is published into the next
      program.disconnect();
      program.connect(room, token);
      ASSERT_TRUE(program.waitEvent("connected", 2));
    } else {
      ASSERT_EQ(OTC_SUCCESS, otc_session_unpublish(program.session(), show.publisher));
    }
  }
  ASSERT_EQ(OTC_SUCCESS, otc_session_publish(program.session(), show.publisher));
  ASSERT_TRUE(program.waitEvent("created", 4));
  browser->call("watch", {{"as", "Guest - Ada"}});
  const json seen = lookUntil([](const json& s) { return near(s["color"], 0, 255, 0); });
  EXPECT_TRUE(near(seen["color"], 0, 255, 0)) << seen;
  program.disconnect();
  show.stop();
  other = {};
  EXPECT_EQ(Show::given, Show::released);
}

class OutgoingWithPin : public Outgoing {
 protected:
  void SetUp() override {
    pin = "1234";
    RoomTest::SetUp();
    program.connect(room, json{{"token", token}, {"pin", pin}}.dump());
  }
};

TEST_F(OutgoingWithPin, TheShowIsPublished) {
  ASSERT_EQ(OTC_SUCCESS, otc_session_publish(program.session(), show.publisher));
  EXPECT_TRUE(program.waitEvent("created"));
}

TEST(VideoFrame, WrapsOnlyWhatIsLargeEnoughAndReleasesOnce) {
  static int releases;
  releases = 0;
  const auto release = [](void*) { ++releases; };
  std::vector<std::uint8_t> memory(60);
  const auto wrap = [&](otc_bool shallow, std::size_t size, int width) {
    return otc_video_frame_new_contiguous_memory_wrapper(OTC_VIDEO_FRAME_FORMAT_ARGB32, width, 3, shallow,
                                                         memory.data(), size, release, nullptr);
  };
  EXPECT_EQ(nullptr, wrap(OTC_TRUE, memory.size() - 1, 5));
  EXPECT_EQ(nullptr, wrap(OTC_TRUE, memory.size(), 0));
  EXPECT_EQ(0, releases);
  otc_video_frame* copied = wrap(OTC_FALSE, memory.size(), 5);
  EXPECT_EQ(1, releases);
  EXPECT_NE(memory.data(), otc_video_frame_get_plane_binary_data(copied, 0));
  otc_video_frame_delete(copied);
  EXPECT_EQ(1, releases);
  otc_video_frame_delete(wrap(OTC_TRUE, memory.size(), 5));
  EXPECT_EQ(2, releases);

  const std::array<const std::uint8_t*, 3> planes = {memory.data(), memory.data(), nullptr};
  const std::array<int, 3> strides = {8, 8, 0};
  otc_video_frame* odd =
      otc_video_frame_new_from_planes(OTC_VIDEO_FRAME_FORMAT_NV12, 5, 3, planes.data(), strides.data());
  EXPECT_EQ(3, otc_video_frame_get_plane_width(odd, 1));
  EXPECT_EQ(2, otc_video_frame_get_plane_height(odd, 1));
  EXPECT_EQ(nullptr, otc_video_frame_get_plane_binary_data(odd, 2));
  otc_video_frame_delete(odd);
}

}  // namespace
