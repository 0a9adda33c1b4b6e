#pragma once

#include <opentok.h>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <span>
#include <string>
#include <vector>

// A video SDK that does nothing by itself: it writes down every call, answers what it is told to, holds a
// call back for as long as a test wishes, and lets a test fire any callback from any thread.

struct otc_stream {
  const char* id;
  const char* name;
  int type = OTC_STREAM_VIDEO_TYPE_CAMERA;
  int width = 640;
  int height = 480;
  const otc_connection* connection = nullptr;
};

struct otc_session {
  std::string id;
  otc_session_callbacks callbacks;
};

struct otc_subscriber {
  std::string streamId;
  otc_subscriber_callbacks callbacks;
  bool audio = true;
};

struct otc_publisher_settings {
  otc_video_capturer_callbacks capturer;
};

struct otc_publisher {
  otc_publisher_callbacks callbacks;
  otc_publisher_settings settings;
};

struct otc_video_frame {
  int format;
  int width;
  int height;
  const uint8_t* planes[3];
  int widths[3];
  int heights[3];
  int strides[3];
  int64_t timestamp = 0;
  size_t size = 0;
  otc_video_frame_release_callback release = nullptr;
  void* releaseArgument = nullptr;
};

// A planar 4:2:0 frame with memory of its own, each plane of one value.
struct PlanarFrame {
  PlanarFrame(int width, int height, uint8_t y = 16, uint8_t u = 128, uint8_t v = 128);
  std::vector<uint8_t> memory[3];
  otc_video_frame frame;
};

class ScriptedSdk {
 public:
  static ScriptedSdk& get();

  // Forgets the calls and what was scripted. Objects that were made stay valid.
  void reset();

  // The calls so far, as "function argument ...". Calls that only read something are not written down.
  std::vector<std::string> calls() const;
  void forgetCalls();
  bool waitForCall(const std::string& call) const;

  void answer(const std::string& function, otc_status status);

  // From now on `function` does not return.
  void hold(const std::string& function);

  // Called at the end of each call that is written down, without a lock.
  std::function<void(const std::string& call)> onCall;

  otc_logger_callback logger = nullptr;
  otc_audio_device_callbacks audioDevice = {};
  std::vector<std::unique_ptr<otc_session>> sessions;
  std::vector<std::unique_ptr<otc_subscriber>> subscribers;
  std::vector<std::unique_ptr<otc_publisher>> publishers;
  std::vector<otc_video_frame> providedFrames;
  std::vector<int16_t> capturedSamples;

  otc_session* session() const { return sessions.back().get(); }
  otc_subscriber* subscriber(const std::string& streamId) const;
  void receiveStream(const otc_stream& stream) const;
  void dropStream(const otc_stream& stream) const;
  void sendSignal(const char* type, const char* data) const;
  void renderFrame(const std::string& streamId, const otc_video_frame& frame) const;
  void deliverSound(const std::string& streamId, std::span<int16_t> samples) const;  // stereo
  void startCapturer() const;

  // For the interface's functions.
  otc_status record(const std::string& function, const std::string& call);

 private:
  mutable std::mutex lock_;
  mutable std::condition_variable changed_;
  std::vector<std::string> calls_;
  std::map<std::string, otc_status> answers_;
  std::set<std::string> held_;
};
