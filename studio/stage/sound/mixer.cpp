#include "stage/sound/mixer.h"

#include <algorithm>
#include <cmath>

namespace studio::sound {

namespace {

constexpr int blocksALevel = 10;
constexpr std::size_t mostVoices = 64;  // more only cost an allocation

void toIntegers(const Block& block, std::span<std::int16_t> out) {
  for (std::size_t index = 0; index < block.size(); ++index) {
    const float value = std::clamp(block[index] * fullScale, -fullScale, fullScale - 1);
    // Rounds half away from zero, without a call.
    out[index] = static_cast<std::int16_t>(value + std::copysign(0.5F, value));
  }
}

// Adds the source, its loudness going from one gain to the other so that no step is heard.
void add(Block& sum, const Block& source, float from, float to) {
  if (from == to) {
    for (std::size_t index = 0; index < sum.size(); ++index) sum[index] += source[index] * to;
    return;
  }
  const float step = (to - from) / static_cast<float>(blockFrames);
  for (std::size_t frame = 0; frame < blockFrames; ++frame) {
    const float gain = from + step * static_cast<float>(frame + 1);
    sum[frame * channels] += source[frame * channels] * gain;
    sum[frame * channels + 1] += source[frame * channels + 1] * gain;
  }
}

}  // namespace

Mixer::Mixer(Listener& listener) : listener_(listener) {
  const Standing always{.place = Place::live};
  for (const Voice voice : {showItself, host, program}) {
    Present present{.voice = voice, .standing = always, .source = {}, .place = freePlace()};
    if (voice != program) present.source = std::make_shared<Source>();
    voices_.emplace(voice, std::move(present));
  }
  present_.reserve(mostVoices);
  levels_.reserve(mostVoices);
}

// The lowest that is free.
std::size_t Mixer::freePlace() const {
  std::size_t place = 0;
  const auto isTaken = [&](const auto& each) { return each.second.place == place; };
  while (std::any_of(voices_.begin(), voices_.end(), isTaken)) ++place;
  return place;
}

void Mixer::add(Voice guest) {
  auto source = std::make_shared<Source>();
  const std::lock_guard lock(mutex_);
  voices_.try_emplace(
      guest, Present{.voice = guest, .standing = {}, .source = std::move(source), .place = freePlace()});
}

void Mixer::remove(Voice guest) {
  const std::lock_guard lock(mutex_);
  const auto voice = voices_.find(guest);
  if (voice == voices_.end() || guest == showItself || guest == host || guest == program) return;
  voice->second.standing.place = Place::outside;
  voice->second.leaves = true;
}

void Mixer::setStanding(Voice source, const Standing& standing) {
  const std::lock_guard lock(mutex_);
  const auto voice = voices_.find(source);
  if (voice != voices_.end() && !voice->second.leaves) voice->second.standing = standing;
}

void Mixer::setConversation(const Conversation& conversation) {
  const std::lock_guard lock(mutex_);
  conversation_ = conversation;
}

void Mixer::push(Voice source, std::span<const std::int16_t> samples, Time now) {
  std::shared_ptr<Source> found;
  {
    const std::lock_guard lock(mutex_);
    const auto voice = voices_.find(source);
    if (voice != voices_.end()) found = voice->second.source;
  }
  if (found) found->buffer.push(samples, now);
}

void Mixer::run(Time now) {
  {
    const std::lock_guard lock(mutex_);
    now_ = conversation_;
    present_.clear();
    for (const auto& [voice, present] : voices_) present_.push_back(present);
  }
  for (const Present& each : present_) {
    if (!each.source) continue;
    each.source->sounds = each.source->buffer.pull(each.source->block, now);
    each.source->meter.add(each.source->block);
    toIntegers(each.source->block, out_);
    listener_.onSource(each.voice, out_);
  }
  for (const Present& each : present_) {
    const bool hears = each.voice != showItself && !each.leaves;
    if (hears) mix(each, each.source ? each.source->output : program_);
  }
  letGo();
  if (++blocks_ % blocksALevel == 0) handLevels();
  present_.clear();
}

void Mixer::mix(const Present& listener, Output& output) {
  sum_.fill(0);
  for (const Present& each : present_) {
    if (!each.source) continue;
    if (output.gains.size() <= each.place) output.gains.resize(std::max(mostVoices, each.place + 1));
    float& known = output.gains[each.place];
    const float before = known;
    known = gain(now_, listener.voice, listener.standing, each.voice, each.standing);
    if (each.source->sounds && (before != 0 || known != 0)) {
      studio::sound::add(sum_, each.source->block, before, known);
    }
  }
  output.limiter.apply(sum_);
  if (listener.voice == program) programMeter_.add(sum_);
  toIntegers(sum_, out_);
  listener_.onMix(listener.voice, out_);
}

// Whoever left has faded out of every mix by now, and leaves the place with no gain anywhere.
void Mixer::letGo() {
  const auto leaves = [](const Present& each) { return each.leaves; };
  if (std::none_of(present_.begin(), present_.end(), leaves)) return;
  const std::lock_guard lock(mutex_);
  for (const Present& each : present_) {
    if (each.leaves) voices_.erase(each.voice);
  }
  std::erase_if(present_, leaves);
}

void Mixer::handLevels() {
  levels_.clear();
  for (const Present& each : present_) {
    levels_.push_back({each.voice, each.source ? each.source->meter.read() : programMeter_.read()});
  }
  listener_.onLevels(levels_);
}

}  // namespace studio::sound
