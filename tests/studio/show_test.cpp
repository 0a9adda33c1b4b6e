// The show's sources, as they reach the link.
#include <gmock/gmock.h>
#include <gst/gst.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <mutex>
#include <string>
#include <vector>

#include "app/main_loop.h"
#include "app/show.h"

namespace {

using namespace studio;
using testing::HasSubstr;

constexpr std::chrono::seconds deadline(20);

class ShowTest : public testing::Test, public Show::Sink {
 protected:
  static void SetUpTestSuite() { gst_init(nullptr, nullptr); }

  bool showWanted() override { return wanted_; }
  bool showPicture(IOSurfaceRef surface) override {
    const std::lock_guard lock(mutex_);
    ++pictures_;
    const std::size_t width = IOSurfaceGetWidth(surface);
    const std::size_t height = IOSurfaceGetHeight(surface);
    const auto* pixels = static_cast<const std::uint8_t*>(IOSurfaceGetBaseAddress(surface));
    const std::size_t row = IOSurfaceGetBytesPerRow(surface);
    const auto at = [&](std::size_t x, std::size_t y) {
      const std::uint8_t* p = pixels + y * row + 4 * x;
      return std::vector<int>{p[2], p[1], p[0]};  // red, green, blue
    };
    middle_ = at(width / 2, height / 2);
    side_ = at(1, height / 2);
    top_ = at(width / 2, 1);
    return true;
  }
  void showSound(std::span<const std::int16_t> samples) override {
    const std::lock_guard lock(mutex_);
    sounds_.push_back(samples.size());
    for (const std::int16_t sample : samples) loudest_ = std::max(loudest_, std::abs(int{sample}));
  }

  // Runs the main loop until the condition holds.
  template <class Condition>
  bool until(Condition condition) {
    bool late = false;
    Timer limit;
    limit.once(deadline, [&] { late = true; });
    Timer look;
    look.every(std::chrono::milliseconds(5), [] {});
    for (;;) {
      {
        const std::lock_guard lock(mutex_);
        if (condition()) return true;
      }
      if (late) return false;
      g_main_context_iteration(nullptr, TRUE);
    }
  }
  bool isNews(const std::string& state) {
    return std::find(news_.begin(), news_.end(), state) != news_.end();
  }

  static testing::Matcher<std::vector<int>> colour(int red, int green, int blue) {
    using testing::AllOf;
    using testing::ElementsAre;
    const auto near = [](int value) { return AllOf(testing::Ge(value - 12), testing::Le(value + 12)); };
    return ElementsAre(near(red), near(green), near(blue));
  }

  std::atomic<bool> wanted_{true};
  std::mutex mutex_;  // guards what the show's threads write
  int pictures_ = 0;
  std::vector<int> middle_;
  std::vector<int> side_;
  std::vector<int> top_;
  std::vector<std::size_t> sounds_;
  int loudest_ = 0;
  std::vector<std::string> news_;
  Show show_{
      {160, 90, 30}, *this, [this](const std::string& state, const std::string&) { news_.push_back(state); }};
};

TEST_F(ShowTest, TheTestPictureHasPictureAndTone) {
  ASSERT_EQ(show_.play("test"), "");
  EXPECT_TRUE(until([&] { return pictures_ > 10 && sounds_.size() > 10; }));
  EXPECT_EQ(sounds_.at(0), 1920u) << "20 ms of stereo";
  EXPECT_NEAR(loudest_, 3276, 100);
}

TEST_F(ShowTest, AnEndedSourceLeavesItsPictureStandingInItsShape) {
  ASSERT_EQ(show_.play("videotestsrc pattern=red num-buffers=5 ! video/x-raw,width=90,height=90 ! identity"),
            "");
  EXPECT_TRUE(until([&] { return isNews("ended"); }));
  const int before = pictures_;
  EXPECT_TRUE(until([&] { return pictures_ > before + 2; })) << "who comes later sees it as well";
  EXPECT_THAT(middle_, colour(255, 0, 0));
  EXPECT_THAT(side_, colour(0, 0, 0));
  EXPECT_THAT(top_, colour(255, 0, 0));
}

TEST_F(ShowTest, ASourceMayChangeItsSizeAndStall) {
  ASSERT_EQ(
      show_.play(
          "concat name=all ! identity  "
          "videotestsrc pattern=red num-buffers=9 ! video/x-raw,width=90,height=90,framerate=30/1 ! all.  "
          "videotestsrc pattern=blue num-buffers=9 ! video/x-raw,width=320,height=90,framerate=30/1 ! all. "
          "appsrc caps=video/x-raw,format=I420,width=8,height=8,framerate=30/1 ! all."),
      "");
  EXPECT_TRUE(until([&] { return testing::Matches(colour(0, 0, 255))(middle_); }));
  EXPECT_THAT(top_, colour(0, 0, 0));
  EXPECT_TRUE(until([&] { return isNews("stalled"); }));
  ASSERT_EQ(show_.play("videotestsrc is-live=true pattern=green"), "");
  EXPECT_TRUE(until([&] { return testing::Matches(colour(0, 255, 0))(middle_); }));
}

TEST_F(ShowTest, NothingIsConvertedForNobody) {
  wanted_ = false;
  ASSERT_EQ(show_.play("videotestsrc num-buffers=3"), "");
  EXPECT_TRUE(until([&] { return isNews("ended"); }));
  EXPECT_EQ(pictures_, 0);
  wanted_ = true;
  EXPECT_TRUE(until([&] { return pictures_ > 0; }));
}

TEST_F(ShowTest, WhatIsNoSourceIsRefusedAndLeavesTheShowAlone) {
  ASSERT_EQ(show_.play("videotestsrc is-live=true"), "");
  EXPECT_THAT(show_.play("/nowhere/film.webm"), HasSubstr("no such file"));
  EXPECT_THAT(show_.play("videotestsrcc ! identity"), HasSubstr("videotestsrcc"));
  EXPECT_EQ(show_.source(), "videotestsrc is-live=true");
  EXPECT_TRUE(until([&] { return pictures_ > 0; }));
  EXPECT_THAT(show_.play("file:///nowhere/film.webm"), HasSubstr("not found"));
  ASSERT_EQ(show_.play("fakesrc num-buffers=1"), "");
  EXPECT_TRUE(until([&] { return isNews("failed"); })) << "it is neither picture nor sound";
  EXPECT_EQ(show_.play("off"), "");
}

}  // namespace
