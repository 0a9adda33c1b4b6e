// Who hears whom.
#pragma once

#include <cstdint>
#include <optional>

#include "stage/seat_state.h"

namespace studio::sound {

/// A source and a listener of the show: a guest by the seat's number, or one of these.
using Voice = std::uint32_t;
constexpr Voice showItself = 0;            ///< what the show plays
constexpr Voice host = UINT32_MAX;         ///< the host's microphone, and what the host hears
constexpr Voice program = UINT32_MAX - 1;  ///< what viewers and the recording hear; no source

/// What decides about one source, and about what a guest hears.
struct Standing {
  Place place = Place::outside;  ///< a guest's; outside, nobody hears them and they hear nothing
  bool muted = false;            ///< remotely: silent in every mix
  bool offAirAudio = false;      ///< heard backstage while the show is on air, and hears those there
  float fader = 1;               ///< of the program's mix
  bool programMuted = false;     ///< likewise
};

/// To whom the host talks aside.
struct Talkback {
  bool on = false;
  std::optional<Voice> guest;  ///< one guest; nobody: all who are backstage
};

struct Conversation {
  bool onAir = false;
  Talkback talkback;
  std::optional<Voice> solo;  ///< the only one whom the host wants to hear
};

/// How loud `source` is in what `listener` hears: 0 not at all, 1 as it came. The two standings belong to
/// them; those of the show, the host and the program are live.
float gain(const Conversation& conversation, Voice listener, const Standing& of, Voice source,
           const Standing& from);

}  // namespace studio::sound
