#pragma once

#include <opentok.h>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <vector>

// A video SDK that does nothing by itself: it writes down every call, throws where a callback is missing,
// answers what a test says, and lets it fire any callback from any thread.

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
  otc_video_frame_release_callback release = nullptr;
  void* releaseArgument = nullptr;
};

// A grey planar 4:2:0 frame with memory of its own.
struct PlanarFrame {
  PlanarFrame(int width, int height);
  std::vector<uint8_t> memory[3];
  otc_video_frame frame;
};

class ScriptedSdk {
 public:
  static ScriptedSdk& get() {
    static auto& sdk = *new ScriptedSdk;
    return sdk;
  }

  // Forgets the calls, the frames, the answers and `onCall`. Objects that were made stay valid.
  void reset() {
    forgetCalls();
    providedFrames.clear();
    onCall = nullptr;
    answer({});
  }

  // These functions answer these statuses from now on, or, where they make an object, make none. All others
  // succeed.
  void answer(const std::map<std::string, otc_status>& statuses) {
    std::lock_guard guard(lock_);
    answers_ = statuses;
  }

  // The calls so far, as "function argument ...". Calls that only read something are not written down.
  std::vector<std::string> calls() const {
    std::lock_guard guard(lock_);
    return calls_;
  }
  void forgetCalls() {
    std::lock_guard guard(lock_);
    calls_.clear();
  }

  // Called at the end of each call that is written down, without a lock.
  std::function<void(const std::string& call)> onCall;

  otc_logger_callback logger = nullptr;
  otc_audio_device_callbacks audioDevice = {};
  std::vector<std::unique_ptr<otc_session>> sessions;
  std::vector<std::unique_ptr<otc_subscriber>> subscribers;  // the newest first
  std::vector<std::unique_ptr<otc_publisher_settings>> settings;
  std::vector<std::unique_ptr<otc_publisher>> publishers;
  std::vector<otc_video_frame> providedFrames;

  otc_session* session() const { return sessions.back().get(); }
  otc_subscriber* subscriber(const std::string& streamId) const {
    for (const auto& subscriber : subscribers) {
      if (subscriber->streamId == streamId) return subscriber.get();
    }
    return nullptr;
  }
  void receiveStream(const otc_stream& stream) const {
    session()->callbacks.on_stream_received(session(), session()->callbacks.user_data, &stream);
  }
  void dropStream(const otc_stream& stream) const {
    session()->callbacks.on_stream_dropped(session(), session()->callbacks.user_data, &stream);
  }
  void sendSignal(const char* type, const char* data) const {
    session()->callbacks.on_signal_received(session(), session()->callbacks.user_data, type, data, nullptr);
  }
  void renderFrame(const std::string& streamId, const otc_video_frame& frame) const {
    otc_subscriber* from = subscriber(streamId);
    from->callbacks.on_render_frame(from, from->callbacks.user_data, &frame);
  }
  void deliverSound(const std::string& streamId, std::span<int16_t> stereo) const {
    const otc_audio_data sound = {stereo.data(), 16, 48000, 2, stereo.size() / 2};
    otc_subscriber* from = subscriber(streamId);
    from->callbacks.on_audio_data(from, from->callbacks.user_data, &sound);
  }
  void startCapturer() const {
    const auto& capturer = publishers.back()->settings.capturer;
    capturer.init(reinterpret_cast<otc_video_capturer*>(1), capturer.user_data);
    capturer.start(reinterpret_cast<otc_video_capturer*>(1), capturer.user_data);
  }

  // For the interface's functions. Gives the function's answer.
  otc_status record(const std::string& function, const std::string& arguments) {
    otc_status status;
    {
      std::lock_guard guard(lock_);
      calls_.push_back(function + arguments);
      const auto answer = answers_.find(function);
      status = answer == answers_.end() ? OTC_SUCCESS : answer->second;
    }
    if (onCall) onCall(function + arguments);
    return status;
  }

 private:
  mutable std::mutex lock_;
  std::vector<std::string> calls_;
  std::map<std::string, otc_status> answers_;
};
