// What becomes of a guest's seat.
#pragma once

#include <string_view>

namespace studio {

/// | state     | what it means                                              | leads to |
/// |-----------|------------------------------------------------------------|-----------------------------------|
/// | offered   | room and key are given, nobody has rung yet                | ringing, gone (unused) | |
/// ringing   | the guest asks to come in; nobody hears or sees them       | greenRoom, gone | | greenRoom |
/// brought in, not in the show                                | live, away, gone                  | | live |
/// in the show                                                | greenRoom, away, gone             | | away |
/// was brought in and is not there; the place is kept         | greenRoom or live as before, gone | | gone |
/// the seat is no more                                        |                                   |
enum class SeatState { offered, ringing, greenRoom, live, away, gone };

constexpr std::string_view nameOf(SeatState state) {
  switch (state) {
    case SeatState::offered:
      return "offered";
    case SeatState::ringing:
      return "ringing";
    case SeatState::greenRoom:
      return "greenRoom";
    case SeatState::live:
      return "live";
    case SeatState::away:
      return "away";
    case SeatState::gone:
      return "gone";
  }
  return "";
}

/// Where the host has put a guest; it stays while they are away.
enum class Place { outside, greenRoom, live };

}  // namespace studio
