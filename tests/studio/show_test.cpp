// The show's sources, as they reach the link.
#include <gmock/gmock.h>
#include <gst/gst.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdlib>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "app/show.h"
#include "run_until.h"

namespace {

using namespace studio;
using testing::Ge;
using testing::HasSubstr;
using testing::Le;

const auto black = testing::Each(Le(12));
const auto blue = testing::ElementsAre(Le(12), Le(12), Ge(243));

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
      return Colour{p[2], p[1], p[0]};
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

  template <class Condition>
  bool until(Condition condition) {
    return runUntil([&] {
      const std::lock_guard lock(mutex_);
      return condition();
    });
  }

  using Colour = std::array<int, 3>;  // red, green, blue
  std::atomic<bool> wanted_{true};
  std::mutex mutex_;  // guards what the show's threads write
  int pictures_ = 0;
  Colour middle_{};
  Colour side_{};
  Colour top_{};
  std::vector<std::size_t> sounds_;
  int loudest_ = 0;
  std::set<std::string> news_;
  Show show_{
      {160, 90, 30}, *this, [this](const std::string& state, const std::string&) { news_.insert(state); }};
};

TEST_F(ShowTest, TheTestPictureHasPictureAndTone) {
  ASSERT_EQ(show_.play("test"), "");
  EXPECT_TRUE(until([&] { return pictures_ > 10 && sounds_.size() > 10; }));
  EXPECT_EQ(sounds_.at(0), 1920u) << "20 ms of stereo";
  EXPECT_NEAR(loudest_, 3276, 100);
}

TEST_F(ShowTest, AnEndedSourceLeavesItsPictureStandingInItsLatestShape) {
  ASSERT_EQ(
      show_.play(
          "concat name=all ! identity  "
          "videotestsrc pattern=red num-buffers=9 ! video/x-raw,width=90,height=90,framerate=30/1 ! all.  "
          "videotestsrc pattern=blue num-buffers=9 ! video/x-raw,width=320,height=90,framerate=30/1 ! all."),
      "");
  EXPECT_TRUE(until([&] { return news_.contains("ended"); }));
  const int before = pictures_;
  EXPECT_TRUE(until([&] { return pictures_ > before + 2; })) << "who comes later sees it as well";
  EXPECT_THAT(middle_, blue);
  EXPECT_THAT(side_, blue);
  EXPECT_THAT(top_, black);
}

TEST_F(ShowTest, NothingIsConvertedForNobody) {
  wanted_ = false;
  ASSERT_EQ(show_.play("videotestsrc num-buffers=3"), "");
  EXPECT_TRUE(until([&] { return news_.contains("ended"); }));
  EXPECT_EQ(pictures_, 0);
  wanted_ = true;
  EXPECT_TRUE(until([&] { return pictures_ > 0; }));
  EXPECT_THAT(side_, black) << "a narrow picture stands between bars";
}

TEST_F(ShowTest, WhatIsNoSourceIsRefusedAndLeavesTheShowAlone) {
  ASSERT_EQ(show_.play("videotestsrc is-live=true"), "");
  EXPECT_THAT(show_.play("/nowhere/film.webm"), HasSubstr("no such file"));
  EXPECT_THAT(show_.play("videotestsrcc ! identity"), HasSubstr("videotestsrcc"));
  EXPECT_EQ(show_.source(), "videotestsrc is-live=true");
  EXPECT_TRUE(until([&] { return pictures_ > 0; }));
  EXPECT_THAT(show_.play("file:///nowhere/film.webm"), HasSubstr("not found"));
  ASSERT_EQ(show_.play("fakesrc num-buffers=1"), "");
  EXPECT_TRUE(until([&] { return news_.contains("failed"); })) << "it is neither picture nor sound";
  EXPECT_EQ(show_.play("off"), "");
}

}  // namespace
