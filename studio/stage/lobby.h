// Who gets a seat: invitations, keys, and limits.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "stage/ledger.h"

namespace studio {

/// The rules by which pages that ask get a seat. Knows nothing of sockets, rooms or services; its clock is
/// its caller's. For one thread.
class Lobby {
 public:
  using Time = std::chrono::steady_clock::time_point;

  struct Limits {
    std::size_t seats = 16;            ///< at once, those of guests who are away included
    std::size_t offers = 8;            ///< of them, those that nobody has rung in yet
    std::size_t requestsAMinute = 30;  ///< of one address
  };

  enum class Refusal {
    invitation,  ///< the link is not valid, or not any more
    taken,       ///< the guest whom the invitation names is there already
    name,        ///< there is none, or none that could be shown
    full,        ///< all seats are taken
    busy,        ///< too many ask at the same time
    rate,        ///< too many requests from this address
    seat,        ///< there is no seat of that key any more
  };

  Lobby(Limits limits, Ledger::Content content);

  /// A new seat, if the key is an invitation's. `name` is what the guest wants to be called.
  std::variant<SeatRecord, Refusal> ask(const std::string& address, std::string_view invitation,
                                        std::string_view name, Time now);
  /// The seat whose key this is.
  std::variant<SeatRecord, Refusal> comeBack(const std::string& address, std::string_view key, Time now);
  /// The number of the seat whose key this is; for a request that is no question.
  std::optional<std::uint32_t> seatOf(std::string_view key) const;

  /// The key of the seat; empty where there is no such seat.
  std::string keyOf(std::uint32_t number) const;

  /// Somebody has rung in the seat: it is no mere offer any more.
  void rang(std::uint32_t number);
  /// What the seat's guest finds again after a restart.
  void keep(std::uint32_t number, Place place, bool muted);
  /// Whether the guest is there: an invitation by name opens a second time only while they are not.
  void setPresent(std::uint32_t number, bool present);
  /// The seat's key is worth nothing from now on, and a restart does not bring the seat back; it counts among
  /// the seats until it is released.
  void revoke(std::uint32_t number);
  /// The seat is no more, and its key is worth nothing.
  void release(std::uint32_t number);

  /// The invitation for everybody.
  const std::string& invitation() const;
  /// Makes another invitation for everybody in place of the present one, or one for the guest of that name in
  /// place of that guest's; empty for a name that cannot be shown. Who has a seat keeps it.
  std::string invite(const std::string& name);

  /// All that is to be kept in the ledger.
  Ledger::Content content() const;

 private:
  struct Seat {
    SeatRecord record;
    bool offered = true;
    bool present = true;
    bool revoked = false;
  };
  struct Requests {
    Time since;
    std::size_t count = 0;
  };

  bool tooMany(const std::string& address, Time now);

  Limits limits_;
  std::uint32_t lastNumber_ = 0;
  std::vector<Invitation> invitations_;  // the first is for everybody
  std::map<std::uint32_t, Seat> seats_;
  std::map<std::string, Requests> requests_;
};

/// The word for a refusal in the lobby's protocol.
std::string_view nameOf(Lobby::Refusal refusal);

/// A name as it may be shown: without what cannot be seen or what changes the direction of writing, blanks
/// folded, cut at 64 characters. Empty where nothing is left.
std::string cleanName(std::string_view name);

}  // namespace studio
