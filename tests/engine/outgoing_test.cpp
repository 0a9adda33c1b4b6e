// What goes out: the program's pictures and sound, as a browser sees and hears them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <numbers>
#include <thread>

#include "browser.h"
#include "program.h"

namespace {

using json = nlohmann::json;
using namespace std::chrono_literals;
using testing::ElementsAre;

constexpr const char* token = "the-token";

std::string server() {
  const char* address = std::getenv("ZARVO_SESSION_SERVER");
  return address == nullptr ? "" : address;
}

void fill_tone(std::vector<std::int16_t>& stereo, double frequency, double& phase) {
  for (std::size_t i = 0; i < stereo.size(); i += 2) {
    phase += 2 * std::numbers::pi * frequency / 48000;
    stereo[i] = stereo[i + 1] = static_cast<std::int16_t>(12000 * std::sin(phase));
  }
}

// A program's own show: a capturer and an audio device that note what the SDK asks of them, and a
// thread that feeds them a picture of one colour and a tone.
class Show {
 public:
  Show() {
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
    callbacks.on_stream_created = [](otc_publisher*, void* show, const otc_stream* stream) {
      called(show, std::string("created ") + otc_stream_get_name(stream));
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

  ~Show() { stop(); }
  void stop() {
    running = false;
    if (feeder.joinable()) feeder.join();
  }
  bool stopped() const { return !running; }

  void feed() {
    feeder = std::thread([this] {
      std::vector<std::int16_t> sound(3200);
      double phase = 0;
      for (auto next = std::chrono::steady_clock::now(); running; next += 33333us) {
        give_frame();
        fill_tone(sound, 660, phase);
        otc_audio_device_write_capture_data(sound.data(), sound.size() / 2);
        std::this_thread::sleep_until(next);
      }
    });
  }

  void give_frame() {
    const std::uint32_t argb = color;
    const int w = width;
    const int h = height;
    if (planar) {
      // Blue in BT.601: two planes, or three.
      const std::vector<std::uint8_t> y(static_cast<std::size_t>(w * h), 41);
      const std::vector<std::uint8_t> u(static_cast<std::size_t>(w * h / 2), 240);
      const std::vector<std::uint8_t> v(static_cast<std::size_t>(w * h / 2), 110);
      const std::array<const std::uint8_t*, 3> planes = {y.data(), u.data(), v.data()};
      const std::array<int, 3> strides = {w, (w + 1) / 2, (w + 1) / 2};
      give(otc_video_frame_new_from_planes(OTC_VIDEO_FRAME_FORMAT_NV12, w, h, planes.data(), strides.data()));
      return;
    }
    auto* pixels = new std::vector<std::uint32_t>(static_cast<std::size_t>(w * h), argb);
    ++given;
    give(otc_video_frame_new_contiguous_memory_wrapper(
        OTC_VIDEO_FRAME_FORMAT_ARGB32, w, h, OTC_TRUE, reinterpret_cast<const std::uint8_t*>(pixels->data()),
        pixels->size() * 4,
        [](void* argument) {
          ++released;
          delete static_cast<std::vector<std::uint32_t>*>(argument);
        },
        pixels));
  }

  void give(otc_video_frame* frame) {
    otc_video_capturer_provide_frame(capturer, 0, frame);
    otc_video_frame_delete(frame);
  }

  bool wait(const std::string& call, int times = 1) {
    std::unique_lock lock(mutex);
    return changed.wait_for(lock, 60s, [&] { return std::ranges::count(calls, call) >= times; });
  }
  std::vector<std::string> called_so_far() {
    const std::lock_guard lock(mutex);
    return calls;
  }

  static otc_bool called(void* show, const std::string& call) {
    auto* self = static_cast<Show*>(show);
    const std::lock_guard lock(self->mutex);
    self->calls.push_back(call);
    self->changed.notify_all();
    return OTC_TRUE;
  }

  otc_publisher* publisher = nullptr;
  std::atomic<const otc_video_capturer*> capturer = nullptr;
  std::atomic<std::uint32_t> color{0xff00ff00};
  std::atomic<int> width{1024};
  std::atomic<int> height{576};
  std::atomic<bool> planar{false};
  static inline std::atomic<int> given{0};
  static inline std::atomic<int> released{0};

 private:
  std::mutex mutex;
  std::condition_variable changed;
  std::vector<std::string> calls;
  std::atomic<bool> running{true};
  std::thread feeder;
};

class Outgoing : public testing::Test {
 protected:
  static void SetUpTestSuite() { browser = new Browser; }
  static void TearDownTestSuite() { delete browser; }

  void SetUp() override {
    static int rooms = 0;
    room = "room " + std::to_string(++rooms);
    const json place = {{"server", server()}, {"room", room}, {"token", token}, {"as", "Guest - Ada"}};
    browser->call("makeRoom", place);
    browser->call("joinRoom", place);
    program.connect(room, token);
    ASSERT_TRUE(program.wait_event("connected"));
  }

  // Polls what the browser sees until it is so; the last look, whether or not it came to be.
  static json look_until(const std::function<bool(const json&)>& so) {
    json seen;
    for (int i = 0; i < 100; ++i) {
      seen = browser->call("look", {{"as", "Guest - Ada"}});
      if (so(seen)) break;
      std::this_thread::sleep_for(100ms);
    }
    return seen;
  }
  static json watch_show() {
    for (int i = 0; i < 100; ++i) {
      const json there = browser->call("publishers", {{"as", "Guest - Ada"}});
      // While there are two, one is about to go.
      if (there.size() == 1) {
        EXPECT_EQ("ZarvoLive", there[0]["display"]);
        browser->call("watch", {{"as", "Guest - Ada"}, {"feed", there[0]["id"]}});
        return there[0];
      }
      std::this_thread::sleep_for(100ms);
    }
    ADD_FAILURE() << "the show is not in the room";
    return {};
  }
  static bool near(const json& color, int r, int g, int b) {
    return std::abs(color[0].get<int>() - r) < 24 && std::abs(color[1].get<int>() - g) < 24 &&
           std::abs(color[2].get<int>() - b) < 24;
  }

  static inline Browser* browser = nullptr;
  std::string room;
  Show show;
  Program program;
};

TEST_F(Outgoing, PicturesAndSoundReachTheBrowser) {
  ASSERT_EQ(OTC_SUCCESS, otc_session_publish(program.session(), show.publisher));
  ASSERT_TRUE(show.wait("created ZarvoLive"));
  EXPECT_THAT(show.called_so_far(), ElementsAre("init", "settings", "start", "created ZarvoLive"));
  show.feed();
  watch_show();
  json seen = look_until([](const json& s) { return near(s["color"], 0, 255, 0) && s["level"] > -40; });
  EXPECT_TRUE(near(seen["color"], 0, 255, 0)) << seen;
  EXPECT_EQ(1024, seen["width"]);
  EXPECT_NEAR(660, seen["tone"].get<double>(), 12) << seen;

  // Another size and another layout, in the middle of it.
  show.width = 640;
  show.height = 360;
  show.planar = true;
  seen = look_until([](const json& s) { return s["width"] == 640 && near(s["color"], 0, 0, 255); });
  EXPECT_TRUE(near(seen["color"], 0, 0, 255)) << seen;
  EXPECT_EQ(0, program.streams.size()) << "our own stream came back";

  ASSERT_EQ(OTC_SUCCESS, otc_session_unpublish(program.session(), show.publisher));
  EXPECT_THAT(show.called_so_far(),
              ElementsAre("init", "settings", "start", "created ZarvoLive", "stop", "destroy", "destroyed"));
}

TEST_F(Outgoing, PublishingStartsAndStopsWithEverythingInFlight) {
  show.feed();
  // From a second thread, and faster than anybody encodes; but the rest of the test needs a core, too.
  std::jthread other([this](const std::stop_token& stop) {
    while (!stop.stop_requested()) {
      show.give_frame();
      std::this_thread::sleep_for(1ms);
    }
  });
  for (int turn = 0; turn < 6; ++turn) {
    ASSERT_EQ(OTC_SUCCESS, otc_session_publish(program.session(), show.publisher));
    if (turn % 2 == 0) {
      ASSERT_TRUE(show.wait("created ZarvoLive", turn / 2 + 1));
    }
    if (turn == 2) {  // the session goes first, and the publisher is published into the next
      program.disconnect();
      program.events.clear();
      program.connect(room, token);
      ASSERT_TRUE(program.wait_event("connected"));
    } else {
      ASSERT_EQ(OTC_SUCCESS, otc_session_unpublish(program.session(), show.publisher));
    }
  }
  ASSERT_EQ(OTC_SUCCESS, otc_session_publish(program.session(), show.publisher));
  ASSERT_TRUE(show.wait("created ZarvoLive", 4));
  watch_show();
  const json seen = look_until([](const json& s) { return near(s["color"], 0, 255, 0); });
  EXPECT_TRUE(near(seen["color"], 0, 255, 0)) << seen;
  program.disconnect();
  show.stop();
  other = {};
  EXPECT_EQ(Show::given, Show::released);
}

TEST_F(Outgoing, AnyPaceAndAnyBlock) {
  ASSERT_EQ(OTC_SUCCESS, otc_session_publish(program.session(), show.publisher));
  ASSERT_TRUE(show.wait("created ZarvoLive"));
  watch_show();
  // Blocks that do not divide anything, as one tone.
  std::thread sound([this] {
    double phase = 0;
    const std::array<std::size_t, 4> blocks = {1, 7, 960, 4801};
    auto next = std::chrono::steady_clock::now();
    for (std::size_t i = 0; !show.stopped(); ++i) {
      std::vector<std::int16_t> samples(2 * blocks.at(i % blocks.size()));
      fill_tone(samples, 880, phase);
      otc_audio_device_write_capture_data(samples.data(), samples.size() / 2);
      next += std::chrono::nanoseconds(samples.size() / 2 * 1000000000 / 48000);
      std::this_thread::sleep_until(next);
    }
  });
  const auto frames_seen = [this](std::chrono::milliseconds pause) {
    const int before = browser->call("look", {{"as", "Guest - Ada"}})["frames"];
    const auto end = std::chrono::steady_clock::now() + 2s;
    for (auto next = std::chrono::steady_clock::now(); next < end; next += pause) {
      show.give_frame();
      std::this_thread::sleep_until(next);
    }
    return browser->call("look", {{"as", "Guest - Ada"}})["frames"].get<int>() - before;
  };
  EXPECT_GE(frames_seen(200ms), 5);
  EXPECT_GE(frames_seen(8ms), 10);
  const json seen = look_until([](const json& s) { return std::abs(s["tone"].get<double>() - 880) < 12; });
  EXPECT_NEAR(880, seen["tone"].get<double>(), 12) << seen;
  show.stop();
  sound.join();
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
  EXPECT_EQ(20, otc_video_frame_get_plane_stride(copied, 0));
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
