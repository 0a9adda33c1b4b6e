// Who gets a seat, and what of that survives the studio.
#include "stage/lobby.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <iterator>
#include <set>

#include "waiting.h"

namespace {

using namespace studio;
using namespace std::chrono_literals;
using Refusal = Lobby::Refusal;
using Outcome = std::variant<SeatRecord, Refusal>;

class LobbyTest : public testing::Test {
 protected:
  Outcome ask(const std::string& name, const std::string& invitation, const std::string& address = "a") {
    return lobby_.ask(address, invitation, name, now_);
  }
  Outcome ask(const std::string& name) { return ask(name, lobby_.invitation()); }
  static SeatRecord seat(const Outcome& outcome) {
    EXPECT_TRUE(std::holds_alternative<SeatRecord>(outcome));
    return std::holds_alternative<SeatRecord>(outcome) ? std::get<SeatRecord>(outcome) : SeatRecord{};
  }

  static std::optional<Refusal> refusal(const Outcome& outcome) {
    const auto* found = std::get_if<Refusal>(&outcome);
    return found ? std::optional(*found) : std::nullopt;
  }

  Lobby::Time now_{1h};
  Lobby lobby_{{.seats = 3, .offers = 2, .requestsAMinute = 1000}, {}};
};

TEST_F(LobbyTest, SeatsAndOffersAreLimitedAndNumbersNeverGivenTwice) {
  const SeatRecord first = seat(ask("Ann"));
  const SeatRecord second = seat(ask("Ann"));
  EXPECT_NE(first.key, second.key);
  EXPECT_EQ(refusal(ask("Cy")), Refusal::busy);
  lobby_.rang(first.number);
  const SeatRecord third = seat(ask("Cy"));
  lobby_.rang(second.number);
  EXPECT_EQ(refusal(ask("Di")), Refusal::full);
  lobby_.release(third.number);
  EXPECT_EQ(seat(ask("Di")).number, 4u);
  EXPECT_EQ(refusal(lobby_.comeBack("a", third.key, now_)), Refusal::seat);
  EXPECT_EQ(seat(lobby_.comeBack("a", first.key, now_)).number, first.number);
  EXPECT_FALSE(lobby_.seatOf(""));
  EXPECT_FALSE(lobby_.seatOf(first.key + "0"));
  EXPECT_EQ(lobby_.seatOf(second.key), second.number);
}

TEST_F(LobbyTest, ANewInvitationTurnsTheOldOneOffAndLeavesWhoIsIn) {
  const std::string old = lobby_.invitation();
  const SeatRecord in = seat(ask("Ann"));
  EXPECT_EQ(refusal(ask("Bo", "")), Refusal::invitation);
  const std::string made = lobby_.invite("");
  EXPECT_EQ(made, lobby_.invitation());
  EXPECT_EQ(refusal(ask("Bo", old)), Refusal::invitation);
  EXPECT_TRUE(lobby_.seatOf(in.key));
  seat(ask("Bo", made));
}

TEST_F(LobbyTest, AnInvitationByNameIsGoodForOne) {
  const std::string forAll = lobby_.invitation();
  const std::string old = lobby_.invite("Ada");
  const std::string forAda = lobby_.invite(" Ada ");
  EXPECT_EQ(refusal(ask("x", old)), Refusal::invitation);
  EXPECT_EQ(lobby_.invitation(), forAll);
  const SeatRecord ada = seat(ask("Eve", forAda));
  EXPECT_EQ(ada.name, "Ada") << "the link says who it is for";
  EXPECT_EQ(refusal(ask("Eve", forAda)), Refusal::taken);
  lobby_.setPresent(ada.number, false);
  const SeatRecord again = seat(ask("", forAda));
  EXPECT_EQ(again.number, ada.number) << "from another browser";
  EXPECT_NE(again.key, ada.key);
  EXPECT_FALSE(lobby_.seatOf(ada.key));
}

TEST_F(LobbyTest, ARevokedSeatTakesAPlaceUntilItHasEndedAndOpensForNobody) {
  const std::string forAda = lobby_.invite("Ada");
  const SeatRecord ada = seat(ask("", forAda));
  lobby_.rang(ada.number);
  lobby_.setPresent(ada.number, false);
  lobby_.revoke(ada.number);
  EXPECT_FALSE(lobby_.seatOf(ada.key));
  EXPECT_EQ(refusal(lobby_.comeBack("a", ada.key, now_)), Refusal::seat);
  EXPECT_TRUE(lobby_.content().seats.empty()) << "nor after a restart";
  const SeatRecord anew = seat(ask("", forAda));
  EXPECT_NE(anew.number, ada.number) << "a seat that is ending is given to nobody";
  lobby_.rang(anew.number);
  seat(ask("Bo"));
  EXPECT_EQ(refusal(ask("Cy")), Refusal::full) << "its service still runs";
  lobby_.release(ada.number);
  seat(ask("Cy"));
}

TEST_F(LobbyTest, NamesCanBeShown) {
  EXPECT_EQ(refusal(ask(" \n\u200b ")), Refusal::name);
  EXPECT_EQ(cleanName("  Zoë\t\tvon\r\nÄ \u202e😀 "), "Zoë von Ä 😀");
  EXPECT_EQ(cleanName("a\xff\x1b[2J"), "a\ufffd [2J");
  EXPECT_EQ(cleanName(std::string("a\0b", 3)).substr(0, 1), "a");
  std::string longName;
  for (int letter = 0; letter < 100; ++letter) longName += "é";
  EXPECT_EQ(cleanName(longName).size(), 128u);
}

TEST(Lobby, RequestsAreLimitedByAddressAndTheirMemoryIsBounded) {
  Lobby lobby({.seats = 1, .offers = 1, .requestsAMinute = 5}, {});
  Lobby::Time now{1h};
  const auto tries = [&](const std::string& address, int times) {
    int heard = 0;
    for (int each = 0; each < times; ++each) {
      heard += std::get<Refusal>(lobby.comeBack(address, "wrong", now)) == Refusal::seat ? 1 : 0;
    }
    return heard;
  };
  EXPECT_EQ(tries("a", 50), 5);
  EXPECT_EQ(tries("b", 1), 1) << "one address's flood is not another's";
  now += 61s;
  EXPECT_EQ(tries("a", 50), 5);
  int strangers = 0;
  for (int each = 0; each < 20'000; ++each) strangers += tries("s" + std::to_string(each), 1);
  EXPECT_LE(strangers, 4096);
  EXPECT_EQ(tries("a", 1), 0) << "who is over the limit stays so";
  now += 61s;
  EXPECT_EQ(tries("new", 1), 1);
}

class LedgerTest : public testing::Test {
 protected:
  static std::string text(const std::string& file) {
    std::ifstream stream(file);
    return {std::istreambuf_iterator<char>(stream), {}};
  }

  TemporaryFolder folder_;
  const std::string file_ = folder_ / "state/lobby.json";
};

TEST_F(LedgerTest, SeatsAndInvitationsSurvive) {
  Lobby::Time now{1h};
  std::string forAll, forAda, key;
  {
    const Ledger ledger(file_);
    Lobby lobby({}, ledger.read());
    forAll = lobby.invitation();
    forAda = lobby.invite("Ada");
    const auto bo = std::get<SeatRecord>(lobby.ask("a", forAll, "Bo", now));
    lobby.rang(bo.number);
    lobby.keep(bo.number, Place::live, true);
    key = bo.key;
    lobby.ask("a", forAll, "an offer that nobody used", now);
    EXPECT_EQ(ledger.write(lobby.content()), "");
  }
  struct stat kept {};
  ASSERT_EQ(stat(file_.c_str(), &kept), 0);
  EXPECT_EQ(kept.st_mode & 0777, 0600u);

  const Ledger ledger(file_);
  EXPECT_THROW(Ledger second(file_), std::runtime_error) << "one studio has it at a time";
  Lobby lobby({}, ledger.read());
  EXPECT_EQ(lobby.invitation(), forAll);
  EXPECT_EQ(std::get<SeatRecord>(lobby.ask("a", forAda, "", now)).number, 3u)
      << "the offer's number is used up";
  const auto bo = std::get<SeatRecord>(lobby.comeBack("a", key, now));
  EXPECT_EQ(bo.number, 1u);
  EXPECT_EQ(bo.name, "Bo");
  EXPECT_EQ(bo.place, Place::live);
  EXPECT_TRUE(bo.muted);
}

TEST_F(LedgerTest, ADamagedFileIsKeptAsideAndTheStudioStarts) {
  const Ledger ledger(file_);
  const Ledger nothing("");
  EXPECT_EQ(nothing.write({}), "");
  for (const char* damage : {"", "{", "null", "[]", R"({"lastNumber":-1,"invitations":{},"seats":7})",
                             R"({"lastNumber":1,"invitations":[],"seats":[{"number":"1"}]})",
                             R"({"lastNumber":1,"invitations":[{"key":1,"name":2}],"seats":[]})"}) {
    std::ofstream(file_) << damage;
    EXPECT_TRUE(ledger.read().seats.empty()) << damage;
    EXPECT_TRUE(ledger.read().invitations.empty()) << damage;
    EXPECT_EQ(text(file_ + ".damaged"), damage);
    EXPECT_EQ(ledger.write({}), "");
  }
}

}  // namespace
