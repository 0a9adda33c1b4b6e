// A source's sound between the network's clock and the studio's.
#pragma once

#include <samplerate.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <span>
#include <vector>

#include "stage/sound/format.h"

namespace studio::sound {

/// Takes in sound as it comes and gives it out in even blocks. What it holds back is as short as the latest
/// of the last eight seconds' arrivals allows, at most 200 ms, and is changed by playing a little faster or
/// slower, which nobody hears; so the source's clock may differ from the studio's. Where there is nothing to
/// play it fades out, and in again.
class ElasticBuffer {
 public:
  /// Throws std::runtime_error where there is no memory for the resampler.
  ElasticBuffer();

  /// Interleaved 16-bit stereo at 48 kHz that arrived now; more than a second is cut off. Any one thread;
  /// allocates nothing.
  void push(std::span<const std::int16_t> samples, Time now);
  /// The block that is due now; false, and silence, while there is nothing to play. To be called each 10 ms
  /// by that clock, from any one thread; allocates nothing.
  bool pull(Block& block, Time now);

 private:
  struct Delete {
    void operator()(SRC_STATE* state) const { src_delete(state); }
  };

  double held() const { return static_cast<double>(written_ - read_); }
  double wanted() const;
  void note(std::size_t frames, double now);
  bool start(Block& block, double now);
  bool goOn(Block& block, double now);
  void catchUp(Block& block, double frames);
  std::size_t play(Block& block, std::size_t start = 0);
  void fadeOut(Block& block, std::size_t frames) const;

  std::mutex mutex_;         // guards all that follows
  std::vector<float> ring_;  // the last second
  std::uint64_t written_;    // frames, ever
  std::uint64_t read_;       // of those, taken into the resampler

  // An arrival is told as the number of frames that were there before it, less the clock's at its time: less
  // is later. The play's place likewise; so only what steers or interrupts it changes it.
  std::array<double, 16> latest_;  // the latest arrival of each of the last half seconds
  std::size_t halfSecond_ = 0;
  int blocks_ = 0;          // of the present half second
  double earliest_ = 0;     // about the earliest arrival, slowly forgotten
  double lastArrival_ = 0;  // the clock's frames

  std::unique_ptr<SRC_STATE, Delete> resampler_;
  Block other_{};  // catchUp()'s
  bool playing_ = false;
  int silentBlocks_ = 0;  // since it played
  double ratio_ = 1;      // frames out for each frame in
  std::array<float, channels> last_{};
};

}  // namespace studio::sound
