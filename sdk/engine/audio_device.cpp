#include "audio_device.h"

#include <gst/app/gstappsrc.h>

#include <algorithm>
#include <cstring>

#include "callback_scope.h"
#include "engine_thread.h"

struct otc_audio_device {};

namespace engine {
namespace {

const otc_audio_device theDevice;

constexpr std::size_t channels = 2;
constexpr std::int64_t rate = 48000;
// A fifth of a second waits for a reader; what is older than that is too late.
constexpr std::size_t longestTrack = rate / 5 * channels;
// Who has not read for so long is taken not to read.
constexpr std::int64_t readingTime = 1000000;  // microseconds
// Blocks follow each other without a gap unless they come this much too late or too early.
constexpr std::int64_t largestDrift = 100000000;                             // nanoseconds
constexpr guint64 mostWaiting = 5 * rate * channels * sizeof(std::int16_t);  // bytes: five seconds

std::int64_t runningTime(GstAppSrc* output) {
  const Gst<GstClock> clock(gst_element_get_clock(GST_ELEMENT(output)));
  if (clock == nullptr) return 0;
  const GstClockTime now = gst_clock_get_time(clock.get());
  return static_cast<std::int64_t>(now - gst_element_get_base_time(GST_ELEMENT(output)));
}

}  // namespace

AudioDevice& AudioDevice::get() {
  static AudioDevice& device = *new AudioDevice;
  return device;
}

std::int64_t AudioDevice::Output::next() const {
  constexpr std::int64_t second = 1000000000;
  return begin + frames / rate * second + frames % rate * second / rate;
}

void AudioDevice::setCallbacks(const otc_audio_device_callbacks& callbacks) {
  callbacks_ = callbacks;
  hasCallbacks_ = true;
}

void AudioDevice::initialise() {
  if (initialised_) return;
  initialised_ = true;
  callbacks_.init(&theDevice, callbacks_.user_data);
}

void AudioDevice::startCapturer() {
  if (!hasCallbacks_ || capturerStarted_) return;
  capturerStarted_ = true;
  const CallbackScope scope;
  initialise();
  if (callbacks_.is_capturer_initialized(&theDevice, callbacks_.user_data) == OTC_FALSE) {
    callbacks_.init_capturer(&theDevice, callbacks_.user_data);
  }
  callbacks_.start_capturer(&theDevice, callbacks_.user_data);
}

void AudioDevice::startRenderer() {
  if (!hasCallbacks_ || rendererStarted_) return;
  rendererStarted_ = true;
  const CallbackScope scope;
  initialise();
  if (callbacks_.is_renderer_initialized(&theDevice, callbacks_.user_data) == OTC_FALSE) {
    callbacks_.init_renderer(&theDevice, callbacks_.user_data);
  }
  callbacks_.start_renderer(&theDevice, callbacks_.user_data);
}

void AudioDevice::addOutput(GstAppSrc* output) {
  const std::lock_guard lock(outputsMutex_);
  outputs_[output] = {};
}

void AudioDevice::removeOutput(GstAppSrc* output) {
  const std::lock_guard lock(outputsMutex_);
  outputs_.erase(output);
}

void AudioDevice::write(const std::int16_t* samples, std::size_t frames) {
  const std::lock_guard lock(outputsMutex_);
  for (auto& [output, state] : outputs_) {
    const std::size_t bytes = frames * channels * sizeof(std::int16_t);
    if (bytes == 0 || gst_app_src_get_current_level_bytes(output) + bytes > mostWaiting) continue;
    const std::int64_t now = runningTime(output);
    const std::int64_t ahead = state.next() - now;
    // What piled up somewhere and comes at once: time never goes back, so the rest of it is left out.
    if (ahead > largestDrift) continue;
    GstBuffer* buffer = gst_buffer_new_memdup(samples, bytes);
    if (ahead < -largestDrift) {
      GST_BUFFER_FLAG_SET(buffer, GST_BUFFER_FLAG_DISCONT);
      state = {now, 0};
    }
    const std::int64_t begin = state.next();
    state.frames += static_cast<std::int64_t>(frames);
    GST_BUFFER_PTS(buffer) = static_cast<GstClockTime>(std::max<std::int64_t>(begin, 0));
    GST_BUFFER_DURATION(buffer) = static_cast<GstClockTime>(state.next() - begin);
    gst_app_src_push_buffer(output, buffer);
  }
}

void AudioDevice::play(const void* source, const std::int16_t* samples, std::size_t frames) {
  const std::lock_guard lock(tracksMutex_);
  if (g_get_monotonic_time() - lastRead_ > readingTime) {
    tracks_.clear();
    return;
  }
  Track& track = tracks_[source];
  track.samples.resize(longestTrack);
  const std::size_t count = std::min(frames * channels, longestTrack);
  samples += frames * channels - count;
  for (std::size_t i = 0; i < count; ++i) {
    track.samples[(track.begin + track.size + i) % longestTrack] = samples[i];
  }
  track.size += count;
  if (track.size > longestTrack) {
    track.begin = (track.begin + track.size - longestTrack) % longestTrack;
    track.size = longestTrack;
  }
}

void AudioDevice::forget(const void* source) {
  const std::lock_guard lock(tracksMutex_);
  tracks_.erase(source);
}

void AudioDevice::read(std::int16_t* samples, std::size_t frames) {
  const std::lock_guard lock(tracksMutex_);
  lastRead_ = g_get_monotonic_time();
  const std::size_t count = frames * channels;
  mix_.assign(count, 0);
  for (auto& [source, track] : tracks_) {
    const std::size_t taken = std::min(count, track.size);
    for (std::size_t i = 0; i < taken; ++i) mix_[i] += track.samples[(track.begin + i) % longestTrack];
    track.begin = (track.begin + taken) % longestTrack;
    track.size -= taken;
  }
  std::transform(mix_.begin(), mix_.end(), samples, [](std::int32_t sample) {
    return static_cast<std::int16_t>(std::clamp(sample, -32768, 32767));
  });
}

}  // namespace engine

otc_status otc_set_audio_device(const struct otc_audio_device_callbacks* callbacks) {
  if (callbacks == nullptr) return OTC_INVALID_PARAM;
  engine::EngineThread::get().run([callbacks] { engine::AudioDevice::get().setCallbacks(*callbacks); });
  return OTC_SUCCESS;
}

otc_status otc_audio_device_write_capture_data(const int16_t* samples, size_t number_of_samples) {
  if (samples == nullptr && number_of_samples > 0) return OTC_INVALID_PARAM;
  engine::AudioDevice::get().write(samples, number_of_samples);
  return OTC_SUCCESS;
}

size_t otc_audio_device_read_render_data(int16_t* samples, size_t number_of_samples) {
  if (samples == nullptr) return 0;
  engine::AudioDevice::get().read(samples, number_of_samples);
  return number_of_samples;
}
