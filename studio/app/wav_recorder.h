// A guest's sound to a file.
#pragma once

#include <gst/app/gstappsrc.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <string>

#include "stage/loop.h"

namespace studio {

/// Writes stereo sound at 48 kHz to a WAV file until there is enough of it.
class WavRecorder {
 public:
  struct Outcome {
    std::string fault;  ///< what went wrong, or nothing
    double seconds = 0;
  };

  /// `done` is called once, on the main loop, after `seconds` of sound, or when that time and a little more
  /// have gone by; it may destroy this object. Throws std::runtime_error when the file cannot be written.
  WavRecorder(const std::string& file, double seconds, std::function<void(Outcome)> done);
  ~WavRecorder();
  WavRecorder(const WavRecorder&) = delete;
  WavRecorder& operator=(const WavRecorder&) = delete;

  /// Interleaved samples; copied. May be called on any thread; what is too much is left out.
  void add(std::span<const std::int16_t> samples);

 private:
  static gboolean onMessage(GstBus* bus, GstMessage* message, gpointer self);
  void finish();
  void report(std::string fault);

  std::size_t wanted_;  // in 16-bit samples
  std::atomic<std::size_t> taken_{0};
  std::function<void(Outcome)> done_;
  GstElement* pipeline_ = nullptr;
  GstElement* source_ = nullptr;
  guint watch_ = 0;
  Loop loop_;
  Timer limit_;
};

}  // namespace studio
