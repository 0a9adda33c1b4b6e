// What is said in writing, on its way round.
#include "stage/talk.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>

#include "stage/talk_limit.h"

namespace {

using namespace studio;
using namespace std::chrono_literals;

TEST(Talk, GoesRoundOnceUnderTheSeatsName) {
  Talk talk;
  const Line host = talk.fromStudio("Host", "hello", "u");
  EXPECT_EQ(host.uuid, "u");

  const auto line = talk.fromGuest("Ann", "hi", "a-1");
  ASSERT_TRUE(line);
  EXPECT_EQ(line->name, "Ann");
  EXPECT_EQ(line->uuid, "a-1");
  const auto taken = talk.fromGuest("Eve", "not Ann's", "a-1");
  ASSERT_TRUE(taken);
  EXPECT_NE(taken->uuid, "a-1") << "another's line keeps its uuid";
  EXPECT_EQ(talk.fromStudio("Host", "mine", "a-1").uuid.size(), 36u);
  EXPECT_EQ(talk.fromGuest("Ann", "none", "")->uuid.size(), 36u);
  EXPECT_EQ(talk.fromGuest("Ann", "long", std::string(1000, 'x'))->uuid.size(), 36u);
  EXPECT_FALSE(talk.fromGuest("Ann", "", "a-2"));

  std::string letters;
  for (int letter = 0; letter < 3000; ++letter) letters += "é";
  EXPECT_EQ(talk.fromGuest("Ann", "x" + letters, "a-3")->text.size(), 1999u) << "in the middle of no letter";
  EXPECT_EQ(talk.fromStudio("Host", letters, "h-2").text.size(), 2000u);

  for (int each = 0; each < 60; ++each) talk.fromStudio("Host", std::to_string(each), "");
  EXPECT_EQ(talk.lines().size(), 50u);
  EXPECT_EQ(talk.lines().front().text, "10");
}

TEST(Talk, MarksAreNewsOnce) {
  Talk talk;
  EXPECT_FALSE(talk.favourite("u", "no")) << "nothing was marked";
  EXPECT_TRUE(talk.favourite("u", "yes"));
  EXPECT_FALSE(talk.favourite("u", "yes"));
  EXPECT_TRUE(talk.favourite("u", "no"));
  for (const char* state : {"", "maybe", "YES"}) EXPECT_FALSE(talk.favourite("u", state));
  EXPECT_FALSE(talk.favourite("", "yes"));
  EXPECT_FALSE(talk.favourite(std::string(200, 'u'), "yes"));
}

TEST(Talk, IsPassedOnAsFastAsItIsRead) {
  TalkLimit limit;
  auto now = TalkLimit::Clock::now();
  const auto passed = [&](const std::function<std::string(int)>& name, int lines) {
    int taken = 0;
    for (int line = 0; line < lines; ++line) {
      now += 1ms;
      taken += limit.take(name(line), now) ? 1 : 0;
    }
    return taken;
  };
  const auto flood = [](int) { return "Eve"; };
  EXPECT_LT(passed(flood, 10'000), 60);
  EXPECT_TRUE(limit.take("Ann", now)) << "one guest's flood is not another's";
  const auto names = [](int line) { return std::to_string(line); };
  EXPECT_LT(passed(names, 10'000), 300) << "names are free";
  now += 10s;
  for (int line = 0; line < 5; ++line) EXPECT_TRUE(limit.take("Eve", now));
}

}  // namespace
