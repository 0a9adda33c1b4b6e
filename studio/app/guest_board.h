// All guests of the session as the studio knows them.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace studio {

enum class GuestState {
  ringing,
  greenroom,
  live,
  away,  ///< the service has ended; they are expected to ring again, and are then put back
  gone,
};
std::string_view nameOf(GuestState state);

/// Where a guest is to be put back.
struct GuestPlace {
  GuestState state = GuestState::ringing;
  bool muted = false;
  std::chrono::steady_clock::time_point since;
};

/// One guest stream, at the moment of asking.
struct GuestRow {
  int number = 0;  ///< in the order of ringing, from 1; never given twice
  std::string id;
  std::string name;
  bool screenShare = false;
  GuestState state = GuestState::ringing;
  std::chrono::steady_clock::time_point since;  ///< in that state since then
  bool muted = false;
  GuestPlace before;      ///< of one who is away
  std::size_t width = 0;  ///< of the last frame; 0 before the first
  std::size_t height = 0;
  double framesPerSecond = 0;
  bool heard = false;  ///< the service has its sound sent to the studio
  /// Loudness in dB below full scale, known only while this guest alone is heard and sounds.
  std::optional<double> level;
};

/// Keeps the guests and measures their pictures and sound. May be used from any thread.
class GuestBoard {
 public:
  /// Answers where the guest is to be put back, if they were away: the stream under the name it had.
  std::optional<GuestPlace> ring(std::string_view id, std::string_view name, bool screenShare);
  void setState(const std::string& id, GuestState state);
  void setMuted(const std::string& id, bool muted);
  void remove(const std::string& id);
  /// The service has ended, and knows of nobody any more: whoever was there is away.
  void serviceEnded();
  /// The session has been left: whoever is still there will ring again.
  void allGone();
  /// Gives up on those who have been away for a while.
  void forgetAway();
  /// With the show on air, the green room is heard only if `offAirAudio`.
  void setOnAir(bool onAir);
  void setOffAirAudio(bool on);

  /// Counts a frame; true for a guest's first, and when its size has changed.
  bool frame(std::string_view id, std::size_t width, std::size_t height);
  /// Measures interleaved stereo samples; true for the first after a silence of the link.
  bool sound(std::span<const std::int16_t> samples);

  std::vector<GuestRow> rows() const;
  /// Loudness of everything heard, in dB below full scale; nothing when no sound arrives.
  std::optional<double> level() const;

 private:
  using Clock = std::chrono::steady_clock;
  struct Guest {
    GuestRow row;
    std::deque<Clock::time_point> frames;  // the last ones
  };

  bool heard(const GuestRow& row) const;
  std::optional<double> levelNow() const;

  mutable std::mutex mutex_;
  std::map<std::string, Guest, std::less<>> guests_;
  int lastNumber_ = 0;
  bool onAir_ = false;
  bool offAirAudio_ = false;
  // Squares summed since `windowStart_`, and the loudness of the window before.
  double squares_ = 0;
  std::size_t summed_ = 0;
  Clock::time_point windowStart_;
  Clock::time_point lastSound_;
  std::optional<double> level_;
};

/// The table that `guests` prints: who has gone is not in it, who waits is named, longest first.
std::string guestTable(const std::vector<GuestRow>& rows, std::optional<double> level);

}  // namespace studio
