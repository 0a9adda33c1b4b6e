// All mixes of the show, a block of 10 ms at a time.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <span>
#include <utility>
#include <vector>

#include "stage/sound/elastic_buffer.h"
#include "stage/sound/limiter.h"
#include "stage/sound/meter.h"
#include "stage/sound/routing.h"

namespace studio::sound {

struct SourceLevel {
  Voice source = 0;
  Level level;
};

/// Joins the sources into what each listener hears. Guests are sources and listeners; so is the host; the
/// show itself is a source, the program a listener; these three are always there. All but run() may be called
/// from any thread, also while it runs. What changes who hears whom is heard within the next block, which
/// goes from one loudness to the other.
class Mixer {
 public:
  class Listener {
   public:
    virtual ~Listener() = default;
    /// What `listener` is to hear: interleaved 16-bit stereo at 48 kHz, 10 ms. Valid during the call.
    virtual void onMix(Voice listener, std::span<const std::int16_t> block) = 0;
    /// What one source was, as it came into the mixes, for recordings. Valid during the call.
    virtual void onSource(Voice source, std::span<const std::int16_t> block) = 0;
    /// Ten times a second, of all sources as they came, and of the program. Valid during the call.
    virtual void onLevels(std::span<const SourceLevel> levels) = 0;
  };

  /// The listener is called on run()'s thread only, and outlives the mixer.
  explicit Mixer(Listener& listener);

  /// A new guest, who is outside. Numbers are not given twice.
  void add(Voice guest);
  /// The guest fades out within a block, and is told of no more after that. Unknown ones are passed over,
  /// here and below.
  void remove(Voice guest);
  void setStanding(Voice source, const Standing& standing);
  void setConversation(const Conversation& conversation);

  /// A source's sound as it comes: interleaved 16-bit stereo at 48 kHz. One thread for each source.
  void push(Voice source, std::span<const std::int16_t> samples, Time now = std::chrono::steady_clock::now());

  /// Makes the block of each mix that is due at that time, and hands them out, on the caller's thread, which
  /// is always the same. Allocates nothing in a show where nobody comes or goes.
  void run(Time now);

 private:
  // What one listener hears. For run() alone.
  struct Output {
    Limiter limiter;
    std::vector<float> gains;  // of each source as the last block ended, by its place
  };
  struct Source {
    ElasticBuffer buffer;
    Meter meter;  // for run() alone, as what follows
    Block block{};
    bool sounds = false;
    Output output;
  };
  struct Present {
    Voice voice = 0;
    Standing standing;
    std::shared_ptr<Source> source;  // null for the program
    std::size_t place = 0;           // among all gains; nobody else's while this is there
    bool leaves = false;
  };

  std::size_t freePlace() const;
  void mix(const Present& listener, Output& output);
  void letGo();
  void handLevels();

  Listener& listener_;
  std::mutex mutex_;  // guards what follows
  Conversation conversation_;
  std::map<Voice, Present> voices_;

  // For run() alone.
  Conversation now_;
  std::vector<Present> present_;
  Output program_;
  Meter programMeter_;
  Block sum_{};
  std::array<std::int16_t, blockFrames * channels> out_{};
  std::vector<SourceLevel> levels_;
  int blocks_ = 0;
};

}  // namespace studio::sound
