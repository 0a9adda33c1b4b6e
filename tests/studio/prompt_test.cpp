// What the host types, and what of the guests is shown.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "app/commands.h"
#include "app/guest_board.h"
#include "app/guest_names.h"
#include "app/terminal_text.h"

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
  const Command fade = understood("fade \"Ada King\" -6.5");
  EXPECT_EQ(fade.guest, "Ada King");
  EXPECT_EQ(fade.decibels, -6.5);
  EXPECT_EQ(understood("talk all").guest, "all");
  EXPECT_EQ(understood("invite Ada King").text, "Ada King");
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
  for (const char* decibels : {"13", "-61", "nan", "x", ""}) {
    EXPECT_THAT(misunderstood("fade 1 " + std::string(decibels)), HasSubstr("decibels"));
  }
  for (const char* seconds : {"0", "-1", "nan", "1e9", "2x", ""}) {
    EXPECT_THAT(misunderstood("record-audio a " + std::string(seconds) + " x.wav"), HasSubstr("seconds"));
  }
  EXPECT_THAT(misunderstood(std::string("chat a: b\0c", 11)), HasSubstr("NUL"));
  EXPECT_THAT(misunderstood(std::string(100'000, 'x')), HasSubstr("no command"));
}

std::vector<Stage::Guest> guestsCalled(std::initializer_list<std::string> names) {
  std::vector<Stage::Guest> guests;
  for (const std::string& name : names) {
    Stage::Guest guest;
    guest.number = static_cast<Stage::Number>(guests.size() + 1);
    guest.name = name;
    guest.state = Stage::State::ringing;
    guest.since = std::chrono::steady_clock::now();
    guests.push_back(guest);
  }
  return guests;
}

std::string found(const std::vector<Stage::Guest>& guests, const std::string& words) {
  const auto result = findGuest(guests, words);
  const auto* none = std::get_if<NoGuest>(&result);
  return none ? none->text : std::to_string(std::get<Stage::Number>(result));
}

TEST(Guests, AreNamedByWhatNoStrangerCanTake) {
  EXPECT_THAT(found({}, "#1"), HasSubstr("no guest has rung"));
  const auto guests = guestsCalled({"Ann  Øst", "Bo", "2", "#9", "bo", "Cy"});
  EXPECT_EQ(found(guests, "#1"), "1");
  EXPECT_EQ(found(guests, "2"), "2") << "a number goes before a name like one";
  EXPECT_EQ(found(guests, " ann øST "), "1");
  EXPECT_EQ(found(guests, "Cy"), "6");
  EXPECT_THAT(found(guests, "BO"), HasSubstr("#2, #5"));
  EXPECT_THAT(found(guests, "C"), HasSubstr("no guest is called")) << "no beginnings";
  EXPECT_THAT(found(guests, "#9"), HasSubstr("no guest is called"));
  EXPECT_THAT(found(guests, "-1\x1b"), HasSubstr("<U+001B>"));
}

TEST(Guests, PicturesAreToldOfWhenTheirSizeIsNew) {
  GuestBoard board;
  EXPECT_TRUE(board.frame(1, Stage::Kind::camera, 640, 360));
  EXPECT_FALSE(board.frame(1, Stage::Kind::camera, 640, 360));
  EXPECT_TRUE(board.frame(1, Stage::Kind::screen, 640, 360));
  EXPECT_TRUE(board.frame(1, Stage::Kind::camera, 320, 180));
  EXPECT_EQ(board.measure(1).height, 180u) << "the camera's";
  board.forget(1);
  EXPECT_EQ(board.measure(1).width, 0u);
}

TEST(Output, NeitherTerminalNorEyeObeyStrangers) {
  EXPECT_EQ(printable("Zoë 日本 😀 é"), "Zoë 日本 😀 é");
  EXPECT_EQ(printable("\x1b[2Ja\tb\x7f\u009bc"), "<U+001B>[2Ja<U+0009>b<U+007F><U+009B>c");
  EXPECT_EQ(printable("\u202eadA\u2066\u200b\u00ad\u3164\ufe0f\u2028\U000e0041"),
            "<U+202E>adA<U+2066><U+200B><U+00AD><U+3164><U+FE0F><U+2028><U+E0041>");
  EXPECT_EQ(printable(std::string("a\0\xff\xe2\x80", 5)), "a<U+0000>\ufffd\ufffd\ufffd");
  EXPECT_EQ(printableJson("\"\u202e\U000e0041\""), R"("\u202e\udb40\udc41")");
  auto guests = guestsCalled({std::string(500, 'x'), "Bo\x1b]0;", "Cy"});
  guests[2].state = Stage::State::live;
  guests[2].muted = true;
  const std::string table = guestTable(guests, GuestBoard());
  EXPECT_EQ(table.find('\x1b'), std::string::npos);
  EXPECT_LT(table.size(), 600u);
  EXPECT_THAT(table, testing::ContainsRegex("3  Cy +live .*muted"));
  EXPECT_THAT(table, testing::ContainsRegex("Waiting: #1 xxx.* 0:00, #2 Bo"));
}

}  // namespace
