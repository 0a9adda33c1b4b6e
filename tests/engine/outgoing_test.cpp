// What goes out: the program's pictures and sound, as a browser sees and hears them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
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

std::string server() { return std::getenv("ZARVO_SESSION_SERVER"); }

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

  ~Show() {
    running = false;
    if (feeder.joinable()) feeder.join();
  }

  void feed() {
    feeder = std::thread([this] {
      std::vector<std::int16_t> sound(2 * 1600);
      double phase = 0;
      for (auto next = std::chrono::steady_clock::now(); running; next += 33333us) {
        give_frame();
        for (std::size_t i = 0; i < sound.size(); i += 2) {
          phase += 2 * std::numbers::pi * 660 / 48000;
          sound[i] = sound[i + 1] = static_cast<std::int16_t>(12000 * std::sin(phase));
        }
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

  bool wait(const std::string& call) {
    std::unique_lock lock(mutex);
    return changed.wait_for(lock, 20s, [&] { return std::ranges::count(calls, call) > 0; });
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
  const otc_video_capturer* capturer = nullptr;
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
      if (!there.empty()) {
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
  EXPECT_THAT(show.called_so_far(), ElementsAre("init", "settings", "start", "created ZarvoLive", "stop", "destroy",
                                                "destroyed"));
}

}  // namespace
