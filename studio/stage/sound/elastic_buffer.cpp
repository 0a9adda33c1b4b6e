#include "stage/sound/elastic_buffer.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <stdexcept>

namespace studio::sound {

using std::chrono::milliseconds;

namespace {

constexpr std::size_t ringFrames = framesASecond;
// The latest arrival still comes so long before its sound is due; the resampler looks ahead by part of it.
const double margin = framesIn(milliseconds(4));
constexpr double lookAhead = 32;
// What is later than that is lost rather than waited for.
const double mostJitter = framesIn(milliseconds(180));
// Of a source of which nothing is known yet.
const double firstJitter = framesIn(milliseconds(10));
// So much earlier than the earliest of late, it is not jitter: a stall is over.
const double leap = framesIn(milliseconds(40));
// Beyond this, too old sound is left out; below, it is caught up with by playing faster.
const double mostExcess = framesIn(milliseconds(200));
// Who was not heard for longer has paused; or what is known of their arrivals is no longer true.
constexpr int longestGap = 20;
constexpr double shortestPause = longestGap * static_cast<double>(blockFrames);
constexpr int blocksAHalfSecond = 50;
// How fast the earliest arrival is forgotten; and where sound that is lost brings all later arrivals on
// later.
constexpr double forgetting = 0.05;
constexpr double lossyForgetting = 0.3;
constexpr double mostChange = 0.008;    // of the speed; less than an eighth of a semitone
constexpr double steeringBlocks = 300;  // in which a small error goes down to a third
constexpr std::size_t fadeFrames = 240;
constexpr std::size_t smallPiece = 8;

constexpr double blockLength = static_cast<double>(blockFrames);
constexpr double never = std::numeric_limits<double>::infinity();

double framesAt(Time time) {
  return framesIn(time.time_since_epoch());
}

void fadeIn(Block& block, std::size_t start) {
  for (std::size_t frame = 0; frame < fadeFrames; ++frame) {
    const float gain = static_cast<float>(frame) / static_cast<float>(fadeFrames);
    for (std::size_t channel = 0; channel < channels; ++channel) {
      block[(start + frame) * channels + channel] *= gain;
    }
  }
}

}  // namespace

ElasticBuffer::ElasticBuffer() : ring_(ringFrames * channels), written_(0), read_(0) {
  int error = 0;
  resampler_.reset(src_new(SRC_SINC_FASTEST, static_cast<int>(channels), &error));
  if (!resampler_) throw std::runtime_error(src_strerror(error));
  latest_.fill(never);
}

void ElasticBuffer::push(std::span<const std::int16_t> samples, Time now) {
  const std::lock_guard lock(mutex_);
  const std::size_t frames = std::min(samples.size() / channels, ringFrames);
  if (frames == 0) return;
  note(frames, framesAt(now));
  for (std::size_t frame = 0; frame < frames; ++frame, ++written_) {
    const std::size_t place = written_ % ringFrames * channels;
    for (std::size_t channel = 0; channel < channels; ++channel) {
      ring_[place + channel] = static_cast<float>(samples[frame * channels + channel]) / fullScale;
    }
  }
  if (written_ - read_ > ringFrames) read_ = written_ - ringFrames;
}

void ElasticBuffer::note(std::size_t frames, double now) {
  const double arrival = static_cast<double>(written_) - now;
  const bool unheard = !playing_ && silentBlocks_ > longestGap;
  const bool paused = now - lastArrival_ > shortestPause;
  lastArrival_ = now;
  if (unheard && !paused) latest_.fill(never);
  const double latest = *std::min_element(latest_.begin(), latest_.end());
  if (latest == never) {
    earliest_ = arrival;
    latest_[halfSecond_] = arrival - firstJitter;
    return;
  }
  const bool lossy = earliest_ - latest > mostJitter;
  earliest_ -= (lossy ? lossyForgetting : forgetting) * static_cast<double>(frames);
  if (unheard || arrival > earliest_ + leap) {
    // As jittery as before, but from another time on.
    for (double& each : latest_) each += arrival - earliest_;
    earliest_ = arrival;
  }
  earliest_ = std::max(earliest_, arrival);
  latest_[halfSecond_] = std::min(latest_[halfSecond_], arrival);
}

// Where the play should be.
double ElasticBuffer::wanted() const {
  return std::max(*std::min_element(latest_.begin(), latest_.end()), earliest_ - mostJitter) - margin;
}

bool ElasticBuffer::pull(Block& block, Time now) {
  const std::lock_guard lock(mutex_);
  if (++blocks_ == blocksAHalfSecond) {
    blocks_ = 0;
    halfSecond_ = (halfSecond_ + 1) % latest_.size();
    latest_[halfSecond_] = never;
  }
  const bool sounds = playing_ ? goOn(block, framesAt(now)) : start(block, framesAt(now));
  if (!sounds) {
    block.fill(0);
    silentBlocks_ = std::min(silentBlocks_ + 1, longestGap + 1);
  }
  last_ = {block[block.size() - 2], block[block.size() - 1]};
  return sounds;
}

bool ElasticBuffer::start(Block& block, double now) {
  const double end = wanted() + now;
  if (end + lookAhead > static_cast<double>(written_)) return false;
  const double toSkip = end - blockLength - static_cast<double>(read_);
  const std::size_t silence = toSkip < 0 ? static_cast<std::size_t>(-toSkip) : 0;
  if (silence + fadeFrames > blockFrames) return false;  // not yet
  if (toSkip > 0) read_ += static_cast<std::uint64_t>(toSkip);
  src_reset(resampler_.get());
  ratio_ = 1;
  block.fill(0);
  play(block, silence);
  fadeIn(block, silence);
  playing_ = true;
  silentBlocks_ = 0;
  return true;
}

bool ElasticBuffer::goOn(Block& block, double now) {
  const double excess = wanted() - (static_cast<double>(read_) + blockLength - now);
  if (excess > mostExcess && excess + blockLength + lookAhead < held()) {
    catchUp(block, excess);
    return true;
  }
  ratio_ = 1 / (1 + std::clamp(excess / (steeringBlocks * blockLength), -mostChange, mostChange));
  const std::size_t frames = play(block);
  if (frames < blockFrames) {
    fadeOut(block, frames);
    playing_ = false;
  }
  return true;
}

// Leaves sound out, from what would have come to what shall.
void ElasticBuffer::catchUp(Block& block, double frames) {
  play(block);
  read_ += static_cast<std::uint64_t>(frames - blockLength);
  src_reset(resampler_.get());
  play(other_);
  for (std::size_t frame = 0; frame < blockFrames; ++frame) {
    const float gain = static_cast<float>(frame + 1) / static_cast<float>(blockFrames);
    for (std::size_t index = frame * channels; index < (frame + 1) * channels; ++index) {
      block[index] += (other_[index] - block[index]) * gain;
    }
  }
}

// Fills the block from there on, as far as there is sound for it; answers where that ends. The resampler
// takes all that it is given, and what it holds can be steered no more: it gets a little less than it will
// need, and the rest in small pieces.
std::size_t ElasticBuffer::play(Block& block, std::size_t start) {
  SRC_DATA data{};
  data.src_ratio = ratio_;
  std::size_t made = start;
  while (made < blockFrames) {
    const std::size_t place = read_ % ringFrames;
    const std::size_t left = blockFrames - made;
    const std::size_t piece = std::min({left > 2 * smallPiece ? left - smallPiece : smallPiece,
                                        static_cast<std::size_t>(written_ - read_), ringFrames - place});
    if (piece == 0) break;
    data.data_in = &ring_[place * channels];
    data.input_frames = static_cast<long>(piece);
    data.data_out = &block[made * channels];
    data.output_frames = static_cast<long>(left);
    if (src_process(resampler_.get(), &data) != 0) break;
    read_ += static_cast<std::uint64_t>(data.input_frames_used);
    made += static_cast<std::size_t>(data.output_frames_gen);
  }
  return made;
}

// The sound runs out into silence; where there is too little left for that, its last value does.
void ElasticBuffer::fadeOut(Block& block, std::size_t frames) const {
  const std::size_t start = frames > fadeFrames ? frames - fadeFrames : 0;
  std::array<float, channels> end = last_;
  if (frames > 0) std::copy_n(&block[(frames - 1) * channels], channels, end.begin());
  for (std::size_t frame = start; frame < blockFrames; ++frame) {
    const std::size_t left = fadeFrames - std::min(frame - start, fadeFrames);
    const float gain = static_cast<float>(left) / static_cast<float>(fadeFrames);
    for (std::size_t channel = 0; channel < channels; ++channel) {
      float& sample = block[frame * channels + channel];
      sample = left == 0 ? 0 : (frame < frames ? sample : end[channel]) * gain;
    }
  }
}

}  // namespace studio::sound
