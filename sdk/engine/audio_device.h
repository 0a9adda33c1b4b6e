#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <mutex>
#include <vector>

#include "gst.h"
#include "opentok.h"

typedef struct _GstAppSrc GstAppSrc;

namespace engine {

// The process's audio device: what the program writes goes to every publisher, what it reads is the
// mix of every subscriber that is heard. Sound is interleaved 16-bit stereo at 48 kHz throughout.
class AudioDevice {
 public:
  // Never destroyed: callbacks may run while the process ends.
  static AudioDevice& get();

  void setCallbacks(const otc_audio_device_callbacks& callbacks);
  // The engine's thread. The device's two sides start with the first that needs them and keep running.
  void startCapturer();
  void startRenderer();

  // Captured sound goes to this output too, as long as it is not taken out again.
  void addOutput(GstAppSrc* output);
  // On return the output gets no more.
  void removeOutput(GstAppSrc* output);
  // Any thread; returns at once.
  void write(const std::int16_t* samples, std::size_t frames);

  // Sound of one source, from any thread; it is kept only while somebody reads.
  void play(const void* source, const std::int16_t* samples, std::size_t frames);
  void forget(const void* source);
  // Any thread. Fills all of `samples`.
  void read(std::int16_t* samples, std::size_t frames);

 private:
  // What a source has played and nobody has read yet: a ring.
  struct Track {
    std::vector<std::int16_t> samples;
    std::size_t begin = 0;
    std::size_t size = 0;
  };
  // When the sound of an output began, in nanoseconds of its pipeline's running time, and how many
  // sample frames have followed since.
  struct Output {
    std::int64_t begin = 0;
    std::int64_t frames = 0;
    std::int64_t next() const;
  };

  otc_audio_device_callbacks callbacks_ = {};
  bool hasCallbacks_ = false;
  bool initialised_ = false;
  bool capturerStarted_ = false;
  bool rendererStarted_ = false;
  void initialise();

  std::mutex outputsMutex_;
  std::map<GstAppSrc*, Output> outputs_;

  std::mutex tracksMutex_;
  std::map<const void*, Track> tracks_;
  std::int64_t lastRead_ = 0;
  std::vector<std::int32_t> mix_;
};

}  // namespace engine
