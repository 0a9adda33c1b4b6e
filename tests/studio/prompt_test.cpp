// What the host types, and what of the guests is shown.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "app/commands.h"
#include "app/guest_board.h"
#include "app/output.h"

namespace {

using namespace studio;
using testing::HasSubstr;

Command understood(const std::string& line) {
  return std::get<Command>(parseCommand(line));
}

std::string misunderstood(const std::string& line) {
  return std::get<Misunderstood>(parseCommand(line)).text;
}

TEST(Commands, AreUnderstood) {
  EXPECT_EQ(understood("  admit   #2 \r").guest, "#2");
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
  EXPECT_THAT(misunderstood("admit a b"), HasSubstr("\"b\" is too much"));
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
  const auto result = board.find(words);
  const auto* unknown = std::get_if<GuestBoard::Unknown>(&result);
  return unknown ? unknown->text : std::get<std::string>(result);
}

TEST(Guests, AreFoundByWhatNamesThemAlone) {
  GuestBoard board;
  EXPECT_THAT(found(board, "#1"), HasSubstr("no guest has rung"));
  board.ring("abc1", "Guest - Ann", false);
  board.ring("abd2", "Guest - Bo", false);
  board.ring("ab", "Guest - abd2", false);  // a name that would be another's id
  EXPECT_EQ(found(board, "#2"), "abd2");
  EXPECT_EQ(found(board, "abc"), "abc1");
  EXPECT_EQ(found(board, "ab"), "ab");
  EXPECT_EQ(found(board, "abd2"), "abd2");
  EXPECT_EQ(found(board, "ANN"), "abc1");
  EXPECT_THAT(found(board, "a"), HasSubstr("may be any of"));
  EXPECT_THAT(found(board, "#9"), HasSubstr("no guest is called"));
  board.remove("abd2");
  board.ring("xyz", "Guest - Cy", false);
  EXPECT_EQ(found(board, "#4"), "xyz") << "a number is never given twice";
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

TEST(Output, ATerminalIsNotObeying) {
  EXPECT_EQ(printable("Zoë 日本"), "Zoë 日本");
  EXPECT_EQ(printable("\x1b[2Ja\tb\x7f\xc2\x9b"
                      "c"),
            "?[2Ja?b??c");
  GuestBoard board;
  board.ring("a\x1b]0;", std::string(500, 'x'), false);
  const std::string table = guestTable(board.rows(), board.level());
  EXPECT_EQ(table.find('\x1b'), std::string::npos);
  EXPECT_LT(table.size(), 400u);
}

}  // namespace
