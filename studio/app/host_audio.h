// The host's microphone and headphones on this machine.
#pragma once

#include <gst/app/gstappsink.h>
#include <gst/app/gstappsrc.h>
#include <gst/gst.h>

#include <cstdint>
#include <functional>
#include <span>
#include <string>

namespace studio {

/// Brings the host's voice from a GStreamer source. For the main loop's thread.
class Microphone {
 public:
  /// `heard` gets interleaved 16-bit stereo at 48 kHz in pieces of 10 ms, on a thread of the source's.
  explicit Microphone(std::function<void(std::span<const std::int16_t>)> heard) : heard_(std::move(heard)) {}
  ~Microphone() { close(); }
  Microphone(const Microphone&) = delete;
  Microphone& operator=(const Microphone&) = delete;

  /// "off", "auto", a file, or a GStreamer description of a source. Answers why it cannot be opened, or
  /// nothing.
  std::string open(const std::string& source);

 private:
  static GstFlowReturn onSound(GstAppSink* sink, gpointer self);
  void close();

  std::function<void(std::span<const std::int16_t>)> heard_;
  GstElement* pipeline_ = nullptr;
};

/// Plays what the host hears to a GStreamer sink. For the main loop's thread, except where noted.
class Monitor {
 public:
  Monitor() = default;
  ~Monitor() { close(); }
  Monitor(const Monitor&) = delete;
  Monitor& operator=(const Monitor&) = delete;

  /// "off", "auto", a .wav or .flac file, or a GStreamer description of a sink. Answers why it cannot be
  /// opened, or nothing. Not while play() is called.
  std::string open(const std::string& sink);
  /// Interleaved 16-bit stereo at 48 kHz; copied. Any one thread.
  void play(std::span<const std::int16_t> samples);

 private:
  void close();

  GstElement* pipeline_ = nullptr;
  GstElement* source_ = nullptr;
};

}  // namespace studio
