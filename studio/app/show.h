// The show's picture and sound, from whatever source, on their way to the guests.
#pragma once

#include <gst/app/gstappsink.h>
#include <gst/gst.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <span>
#include <string>

#include "app/picture.h"
#include "stage/loop.h"
#include "studio/surface_pool.h"

namespace studio {

/// Plays one source at a time. For the main loop's thread.
class Show {
 public:
  struct Settings {
    int width = 1024;
    int height = 576;
    int framesPerSecond = 30;
  };

  /// Called on threads of the show's. A picture is a 'BGRA' surface of the settings' size; the answer is
  /// whether it was taken. Sound is interleaved 16-bit stereo at 48 kHz in pieces of 20 ms.
  class Sink {
   public:
    virtual ~Sink() = default;
    /// Whether anybody is there to see and hear the show; if not, nothing is converted.
    virtual bool showWanted() = 0;
    virtual bool showPicture(IOSurfaceRef surface) = 0;
    virtual void showSound(std::span<const std::int16_t> samples) = 0;
  };

  /// `news` is called on the main loop with what becomes of the source ("stalled", "goes on", "ended" or
  /// "failed") and a text that explains it.
  Show(Settings settings, Sink& sink, std::function<void(std::string state, std::string text)> news);
  ~Show();
  Show(const Show&) = delete;
  Show& operator=(const Show&) = delete;

  /// Plays the source in place of the present one: "test", "off", a file, a URI, a video device, or a
  /// GStreamer description. Answers why it cannot be played, or nothing. A source that has stalled or
  /// ended leaves its last picture standing.
  std::string play(const std::string& source);
  const std::string& source() const { return source_; }

 private:
  static void onDecodedPad(GstElement* element, GstPad* pad, gpointer self);
  static void onSourcePad(GstElement* element, GstPad* pad, gpointer self);
  static GstFlowReturn onPicture(GstAppSink* sink, gpointer self);
  static GstFlowReturn onSound(GstAppSink* sink, gpointer self);
  static gboolean onMessage(GstBus* bus, GstMessage* message, gpointer self);

  std::string testSource() const;
  void decode(GstPad* pad);
  void connect(GstPad* pad);
  void append(GstPad* pad, const std::string& branch, GstFlowReturn (*onSample)(GstAppSink*, gpointer));
  void end();
  void showPicture();
  void watch();

  Settings settings_;
  Sink& sink_;
  std::function<void(std::string state, std::string text)> news_;
  std::string source_ = "off";
  GstElement* pipeline_ = nullptr;
  guint busWatch_ = 0;
  Loop loop_;
  Timer stallWatch_;
  bool stalled_ = false;
  bool over_ = false;  // the source has ended or failed

  // Written by whichever thread of the source brings a pad.
  std::atomic<bool> hasPictures_{false};
  std::atomic<bool> hasSound_{false};

  struct Unref {
    void operator()(GstSample* sample) const { gst_sample_unref(sample); }
  };
  std::mutex pictures_;  // guards what follows
  SurfacePool pool_;
  PictureConverter converter_;
  std::unique_ptr<GstSample, Unref> last_;
  std::chrono::steady_clock::time_point lastTime_;
};

}  // namespace studio
