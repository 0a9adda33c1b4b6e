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
#include <variant>
#include <vector>

namespace studio {

enum class GuestState { ringing, greenroom, live, gone };
std::string_view nameOf(GuestState state);

/// One guest stream, at the moment of asking.
struct GuestRow {
  int number = 0;  ///< in the order of ringing, from 1; never given twice
  std::string id;
  std::string name;
  bool screenShare = false;
  GuestState state = GuestState::ringing;
  bool muted = false;
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
  void ring(std::string_view id, std::string_view name, bool screenShare);
  void setState(const std::string& id, GuestState state);
  void setMuted(const std::string& id, bool muted);
  void remove(const std::string& id);
  void clear();
  /// The session has been left: whoever is still there will ring again.
  void allGone();
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
  /// The id that the words mean (an id, its beginning, "#NUMBER" or a name), or what is wrong with them.
  struct Unknown {
    std::string text;
  };
  std::variant<std::string, Unknown> find(std::string_view words) const;

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

/// The table that `guests` prints.
std::string guestTable(const std::vector<GuestRow>& rows, std::optional<double> level);

}  // namespace studio
