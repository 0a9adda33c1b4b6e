// What the host types, and what of the guests is shown.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>

#include "app/commands.h"
#include "app/gone_guests.h"
#include "app/guest_board.h"
#include "app/guest_names.h"
#include "app/restart_pause.h"
#include "app/talk_limit.h"
#include "app/terminal_text.h"

namespace {

using namespace studio;
using namespace std::chrono_literals;
using testing::HasSubstr;

Command understood(const std::string& line) {
  return std::get<Command>(parseCommand(line));
}

std::string misunderstood(const std::string& line) {
  return std::get<Misunderstood>(parseCommand(line)).text;
}

TEST(Commands, AreUnderstood) {
  EXPECT_EQ(understood("  admit   #2 \r").guest, "#2");
  EXPECT_EQ(understood("admit Ada  King").guest, "Ada  King");
  EXPECT_EQ(understood("admit \"Ada King\"").guest, "Ada King");
  const Command picture = understood("snapshot \"Ada King\" a b.png");
  EXPECT_EQ(picture.guest, "Ada King");
  EXPECT_EQ(picture.file, "a b.png");
  const Command comment = understood("comment Jo von Ä:  it is 10:30  ");
  EXPECT_EQ(comment.name, "Jo von Ä");
  EXPECT_EQ(comment.text, "it is 10:30");
  EXPECT_TRUE(understood("fav u-1").on);
  EXPECT_EQ(understood("pref {\"title\": \"A  B\"}").text, "{\"title\": \"A  B\"}");
  EXPECT_EQ(understood("snapshot ab my picture.png").file, "my picture.png");
  EXPECT_EQ(understood("record-audio ab 2.5 x.wav").seconds, 2.5);
}

TEST(Commands, ThatAreBrokenSayWhatToDo) {
  EXPECT_EQ(misunderstood("  "), "");
  EXPECT_THAT(misunderstood("Admit x"), HasSubstr("\"help\" lists"));
  EXPECT_THAT(misunderstood("admit"), HasSubstr("usage: admit ID"));
  EXPECT_THAT(misunderstood("record-audio \"\" 1 x.wav"), HasSubstr("which guest"));
  EXPECT_THAT(misunderstood("viewers 1 2"), HasSubstr("\"2\" is too much"));
  EXPECT_THAT(misunderstood("offair maybe"), HasSubstr("\"on\" or \"off\""));
  EXPECT_THAT(misunderstood("viewers -1"), HasSubstr("whole number"));
  EXPECT_THAT(misunderstood("comment no colon"), HasSubstr("colon"));
  EXPECT_THAT(misunderstood("chat : text"), HasSubstr("both"));
  EXPECT_THAT(misunderstood("snapshot a picture.jpg"), HasSubstr(".png"));
  for (const char* seconds : {"0", "-1", "nan", "1e9", "2x", ""}) {
    EXPECT_THAT(misunderstood("record-audio a " + std::string(seconds) + " x.wav"), HasSubstr("seconds"));
  }
  EXPECT_THAT(misunderstood(std::string("chat a: b\0c", 11)), HasSubstr("NUL"));
  EXPECT_THAT(misunderstood(std::string(100'000, 'x')), HasSubstr("no command"));
}

std::string found(const GuestBoard& board, const std::string& words) {
  const auto result = findGuest(board.rows(), words);
  const auto* none = std::get_if<NoGuest>(&result);
  return none ? none->text : std::get<GuestRow>(result).id;
}

TEST(Guests, AreNamedByWhatNoStrangerCanTake) {
  GuestBoard board;
  EXPECT_THAT(found(board, "#1"), HasSubstr("no guest has rung"));
  board.ring("abc1", "Guest - Ann  Øst", false);
  board.ring("abd2", "Guest - Bo", false);
  board.ring("#1", "Guest - abd2", false);  // an id like a number, a name like an id
  board.ring("2", "Guest - Cy", false);
  board.ring("a", "Guest - Di", false);  // the beginning of others' ids
  EXPECT_EQ(found(board, "#1"), "abc1");
  EXPECT_EQ(found(board, "2"), "abd2");
  EXPECT_EQ(found(board, "abc"), "abc1");
  EXPECT_EQ(found(board, " ann øST "), "abc1");
  EXPECT_EQ(found(board, "Cy"), "2");
  EXPECT_THAT(found(board, "abd2"), HasSubstr("#2, #3"));
  EXPECT_THAT(found(board, "a"), HasSubstr("#1, #2, #5"));
  EXPECT_THAT(found(board, "#9"), HasSubstr("no guest is called"));
  board.remove("abd2");
  board.ring("new", "Guest - cy", false);
  EXPECT_THAT(found(board, "cy"), HasSubstr("#4, #6")) << "a number is never given twice";
  board.setState("2", GuestState::gone);
  EXPECT_EQ(found(board, "cy"), "new") << "who is there goes before who has gone";
  EXPECT_EQ(found(board, "#4"), "2");
}

TEST(Guests, ArePutBackAfterTheServiceEnded) {
  GuestBoard board;
  board.ring("a", "Guest - Ann", false);
  board.setState("a", GuestState::live);
  board.setMuted("a", true);
  board.ring("b", "Guest - Bo", false);
  board.setState("b", GuestState::gone);
  board.ring("c", "Guest - Cy", false);
  const auto waits = board.rows().at(2).since;
  board.serviceEnded();
  board.serviceEnded();  // once more before anybody rang
  ASSERT_EQ(board.rows().size(), 2u) << "who had gone is forgotten";
  EXPECT_EQ(board.rows().at(0).state, GuestState::away);
  const auto place = board.ring("a", "Guest - Ann", false);
  ASSERT_TRUE(place);
  EXPECT_EQ(place->state, GuestState::live);
  EXPECT_TRUE(place->muted);
  EXPECT_EQ(board.rows().at(0).number, 1);
  EXPECT_TRUE(board.ring("c", "Guest - Cy", false));
  EXPECT_EQ(board.rows().at(1).since, waits);
  board.serviceEnded();
  EXPECT_FALSE(board.ring("a", "Guest - Eve", false)) << "somebody else";
  board.allGone();
  EXPECT_EQ(board.rows().size(), 1u);
}

TEST(Guests, WhoHaveGoneAreForgottenOnlyWhereNobodyIsHarmed) {
  const auto now = std::chrono::steady_clock::now();
  const auto row = [&](const char* id, GuestState state, std::chrono::seconds ago = 60s,
                       bool screen = false) {
    GuestRow made;
    made.id = id;
    made.state = state;
    made.since = now - ago;
    made.screenShare = screen;
    return made;
  };
  const auto gone = row("g", GuestState::gone);
  const auto away = row("w", GuestState::away);
  const auto rings = row("r", GuestState::ringing);
  const auto of = [&](const std::vector<GuestRow>& rows) { return forgettable(rows, now).size(); };
  EXPECT_EQ(of({gone, gone}), 0u) << "the session would end";
  EXPECT_EQ(of({gone, away}), 0u) << "the service knows nothing of who is away";
  EXPECT_EQ(of({gone, rings, row("h", GuestState::gone, 5s)}), 1u);
  EXPECT_EQ(of({gone, rings, row("s", GuestState::live, 60s, true)}), 1u);
  for (const GuestState in : {GuestState::live, GuestState::greenroom})
    EXPECT_EQ(of({gone, row("i", in)}), 0u);
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

TEST(RestartPause, GrowsOnlyWhileTheServiceDoesNotRun) {
  RestartPause pause;
  RestartPause::Clock::time_point now;
  const auto first = pause.ended(now);
  EXPECT_GT(pause.ended(now), first);
  for (int end = 0; end < 5; ++end) {
    pause.works(now);
    EXPECT_EQ(pause.ended(now += 3s), first);
  }
  for (int end = 0; end < 20; ++end) pause.works(now), pause.ended(now += 1s);
  EXPECT_EQ(pause.ended(now), 10s);
}

TEST(Guests, AreHeardByTheRuleAndMeasuredOnlyAlone) {
  GuestBoard board;
  const auto row = [&](std::size_t index) { return board.rows().at(index); };
  board.ring("a", "Guest - Ann", false);
  board.ring("b", "Guest - Bo", false);
  EXPECT_FALSE(row(0).heard);
  board.setState("a", GuestState::greenroom);
  EXPECT_TRUE(row(0).heard);
  board.setOnAir(true);
  EXPECT_FALSE(row(0).heard);
  board.setOffAirAudio(true);
  EXPECT_TRUE(row(0).heard);

  const std::vector<std::int16_t> samples(960, 16384);  // half of full scale
  EXPECT_TRUE(board.sound(samples));
  EXPECT_FALSE(board.sound(samples));
  ASSERT_TRUE(row(0).level);
  EXPECT_NEAR(*row(0).level, -6, 0.1);
  EXPECT_FALSE(row(1).level);
  board.setState("b", GuestState::live);
  EXPECT_FALSE(row(0).level) << "whose sound it is cannot be told";
  EXPECT_NEAR(*board.level(), -6, 0.1);
}

TEST(Guests, PicturesAreToldOfWhenTheirSizeIsNew) {
  GuestBoard board;
  EXPECT_FALSE(board.frame("nobody", 4, 4));
  board.ring("a", "Guest - Ann", false);
  EXPECT_TRUE(board.frame("a", 640, 360));
  EXPECT_FALSE(board.frame("a", 640, 360));
  EXPECT_TRUE(board.frame("a", 320, 180));
}

TEST(Output, NeitherTerminalNorEyeObeyStrangers) {
  EXPECT_EQ(printable("Zoë 日本 😀 é"), "Zoë 日本 😀 é");
  EXPECT_EQ(printable("\x1b[2Ja\tb\x7f\u009bc"), "<U+001B>[2Ja<U+0009>b<U+007F><U+009B>c");
  EXPECT_EQ(printable("\u202eadA\u2066\u200b\u00ad\u3164\ufe0f\u2028\U000e0041"),
            "<U+202E>adA<U+2066><U+200B><U+00AD><U+3164><U+FE0F><U+2028><U+E0041>");
  EXPECT_EQ(printable(std::string("a\0\xff\xe2\x80", 5)), "a<U+0000>\ufffd\ufffd\ufffd");
  EXPECT_EQ(printableJson("\"\u202e\U000e0041\""), R"("\u202e\udb40\udc41")");
  GuestBoard board;
  board.ring("a\x1b]0;", std::string(500, 'x'), false);
  board.ring("b", "Guest - Bo", false);
  board.ring("c", "Guest - Gone", false);
  board.setState("c", GuestState::gone);
  const std::string table = guestTable(board.rows(), board.level());
  EXPECT_EQ(table.find('\x1b'), std::string::npos);
  EXPECT_LT(table.size(), 500u);
  EXPECT_THAT(table, testing::Not(HasSubstr("Gone")));
  EXPECT_THAT(table, testing::ContainsRegex("Waiting: #1 xxx.* 0:00, #2 Bo 0:00"));
}

}  // namespace
