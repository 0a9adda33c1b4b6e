#include "scripted_sdk.h"

#include <algorithm>
#include <chrono>
#include <cstring>

namespace {

ScriptedSdk& sdk() {
  return ScriptedSdk::get();
}

const char* word(const void* pointer, const char* name) {
  return pointer ? name : "null";
}
std::string labelOf(const otc_subscriber* subscriber) {
  return subscriber ? "subscriber:" + subscriber->streamId : "null";
}
std::string flag(otc_bool on) {
  return on ? "on" : "off";
}

}  // namespace

PlanarFrame::PlanarFrame(int width, int height, uint8_t y, uint8_t u, uint8_t v)
    : frame{OTC_VIDEO_FRAME_FORMAT_YUV420P, width, height, {}, {}, {}, {}} {
  const uint8_t values[] = {y, u, v};
  for (int i = 0; i < 3; i++) {
    frame.widths[i] = i == 0 ? width : (width + 1) / 2;
    frame.heights[i] = i == 0 ? height : (height + 1) / 2;
    frame.strides[i] = frame.widths[i] + 3;
    memory[i].assign(static_cast<size_t>(frame.strides[i] * frame.heights[i]), values[i]);
    frame.planes[i] = memory[i].data();
  }
}

ScriptedSdk& ScriptedSdk::get() {
  static auto& sdk = *new ScriptedSdk;
  return sdk;
}

void ScriptedSdk::reset() {
  std::lock_guard guard(lock_);
  calls_.clear();
  answers_.clear();
  held_.clear();
  providedFrames.clear();
  capturedSamples.clear();
  onCall = nullptr;
  changed_.notify_all();
}

std::vector<std::string> ScriptedSdk::calls() const {
  std::lock_guard guard(lock_);
  return calls_;
}

void ScriptedSdk::forgetCalls() {
  std::lock_guard guard(lock_);
  calls_.clear();
}

bool ScriptedSdk::waitForCall(const std::string& call) const {
  std::unique_lock guard(lock_);
  return changed_.wait_for(guard, std::chrono::seconds(20),
                           [&] { return std::find(calls_.begin(), calls_.end(), call) != calls_.end(); });
}

void ScriptedSdk::answer(const std::string& function, otc_status status) {
  std::lock_guard guard(lock_);
  answers_[function] = status;
}

void ScriptedSdk::hold(const std::string& function) {
  std::lock_guard guard(lock_);
  held_.insert(function);
}

void ScriptedSdk::letGo(const std::string& function) {
  std::lock_guard guard(lock_);
  held_.erase(function);
  changed_.notify_all();
}

otc_subscriber* ScriptedSdk::subscriber(const std::string& streamId) const {
  for (const auto& subscriber : subscribers) {
    if (subscriber->streamId == streamId) return subscriber.get();
  }
  return nullptr;
}

void ScriptedSdk::receiveStream(const otc_stream& stream) const {
  session()->callbacks.on_stream_received(session(), session()->callbacks.user_data, &stream);
}

void ScriptedSdk::dropStream(const otc_stream& stream) const {
  session()->callbacks.on_stream_dropped(session(), session()->callbacks.user_data, &stream);
}

otc_status ScriptedSdk::record(const std::string& function, const std::string& arguments) {
  const std::string call = arguments.empty() ? function : function + " " + arguments;
  otc_status status;
  {
    std::unique_lock guard(lock_);
    calls_.push_back(call);
    changed_.notify_all();
    changed_.wait(guard, [&] { return !held_.contains(function); });
    const auto answer = answers_.find(function);
    status = answer == answers_.end() ? OTC_SUCCESS : answer->second;
  }
  if (onCall) onCall(call);
  return status;
}

otc_status otc_init(void*) {
  return sdk().record("otc_init", "");
}

otc_status otc_log_enable(int level) {
  return sdk().record("otc_log_enable", std::to_string(level));
}

otc_status otc_log_set_logger_callback(otc_logger_callback callback) {
  sdk().logger = callback;
  return sdk().record("otc_log_set_logger_callback", "");
}

const char* otc_stream_get_id(const otc_stream* stream) {
  return stream->id;
}
const char* otc_stream_get_name(const otc_stream* stream) {
  return stream->name;
}
int otc_stream_get_video_type(const otc_stream* stream) {
  return stream->type;
}
int otc_stream_get_video_width(const otc_stream* stream) {
  return stream->width;
}
int otc_stream_get_video_height(const otc_stream* stream) {
  return stream->height;
}
const otc_connection* otc_stream_get_connection(const otc_stream*) {
  return nullptr;
}

otc_session* otc_session_new(const char* apiKey, const char* id, const otc_session_callbacks* callbacks) {
  sdk().sessions.push_back(std::make_unique<otc_session>(apiKey, id, *callbacks));
  sdk().record("otc_session_new", std::string(apiKey) + " " + id);
  return sdk().session();
}

otc_status otc_session_connect(otc_session* session, const char* token) {
  return sdk().record("otc_session_connect", session->id + " " + token);
}

otc_status otc_session_delete(otc_session* session) {
  return sdk().record("otc_session_delete", session->id);
}

otc_status otc_session_send_signal(otc_session* session, const char* type, const char* data) {
  return sdk().record("otc_session_send_signal",
                      std::string(word(session, "session")) + " " + type + " " + data);
}

otc_status otc_session_publish(otc_session* session, otc_publisher* publisher) {
  return sdk().record("otc_session_publish",
                      std::string(word(session, "session")) + " " + word(publisher, "publisher"));
}

otc_status otc_session_unpublish(otc_session*, otc_publisher*) {
  return sdk().record("otc_session_unpublish", "");
}

otc_status otc_session_subscribe(otc_session*, otc_subscriber* subscriber) {
  return sdk().record("otc_session_subscribe", labelOf(subscriber));
}

otc_status otc_session_unsubscribe(otc_session* session, otc_subscriber* subscriber) {
  return sdk().record("otc_session_unsubscribe",
                      std::string(word(session, "session")) + " " + labelOf(subscriber));
}

otc_subscriber* otc_subscriber_new(const otc_stream* stream, const otc_subscriber_callbacks* callbacks) {
  sdk().record("otc_subscriber_new", stream->id ? stream->id : "null");
  sdk().subscribers.insert(sdk().subscribers.begin(),
                           std::make_unique<otc_subscriber>(stream->id ? stream->id : "", *callbacks));
  return sdk().subscribers.front().get();
}

otc_status otc_subscriber_set_subscribe_to_video(otc_subscriber* subscriber, otc_bool on) {
  return sdk().record("otc_subscriber_set_subscribe_to_video", labelOf(subscriber) + " " + flag(on));
}

otc_status otc_subscriber_set_subscribe_to_audio(otc_subscriber* subscriber, otc_bool on) {
  if (subscriber) subscriber->audio = on;
  return sdk().record("otc_subscriber_set_subscribe_to_audio", labelOf(subscriber) + " " + flag(on));
}

otc_bool otc_subscriber_get_subscribe_to_audio(const otc_subscriber* subscriber) {
  return subscriber && subscriber->audio;
}

otc_video_frame* otc_video_frame_new_contiguous_memory_wrapper(int format, int width, int height,
                                                               otc_bool shallow, const uint8_t* data,
                                                               size_t size,
                                                               otc_video_frame_release_callback release,
                                                               void* argument) {
  sdk().record("otc_video_frame_new_contiguous_memory_wrapper",
               std::to_string(format) + " " + std::to_string(width) + "x" + std::to_string(height) + " " +
                   (shallow ? "shallow" : "deep"));
  return new otc_video_frame{format, width, height, {data}, {}, {}, {}, 0, size, release, argument};
}

otc_video_frame* otc_video_frame_new_from_planes(int format, int width, int height,
                                                 const uint8_t* const* planes, const int* strides) {
  sdk().record("otc_video_frame_new_from_planes",
               std::to_string(format) + " " + std::to_string(width) + "x" + std::to_string(height));
  return new otc_video_frame{
      format, width, height, {planes[0], planes[1], planes[2]}, {}, {}, {strides[0], strides[1], strides[2]}};
}

otc_status otc_video_frame_delete(otc_video_frame* frame) {
  delete frame;
  return sdk().record("otc_video_frame_delete", "");
}

int otc_video_frame_get_format(const otc_video_frame* frame) {
  return frame->format;
}
int otc_video_frame_get_width(const otc_video_frame* frame) {
  return frame->width;
}
int otc_video_frame_get_height(const otc_video_frame* frame) {
  return frame->height;
}
const uint8_t* otc_video_frame_get_plane_binary_data(const otc_video_frame* frame, int plane) {
  return frame->planes[plane];
}
int otc_video_frame_get_plane_width(const otc_video_frame* frame, int plane) {
  return frame->widths[plane];
}
int otc_video_frame_get_plane_height(const otc_video_frame* frame, int plane) {
  return frame->heights[plane];
}
int otc_video_frame_get_plane_stride(const otc_video_frame* frame, int plane) {
  return frame->strides[plane];
}
int64_t otc_video_frame_get_timestamp(const otc_video_frame* frame) {
  return frame->timestamp;
}

otc_status otc_video_capturer_provide_frame(const otc_video_capturer*, int rotation,
                                            const otc_video_frame* frame) {
  sdk().providedFrames.push_back(*frame);
  return sdk().record("otc_video_capturer_provide_frame", std::to_string(rotation));
}

otc_publisher_settings* otc_publisher_settings_new() {
  sdk().record("otc_publisher_settings_new", "");
  // The service never frees settings; the SDK keeps an eye on them.
  static auto& made = *new std::vector<std::unique_ptr<otc_publisher_settings>>;
  made.push_back(std::make_unique<otc_publisher_settings>());
  return made.back().get();
}

otc_status otc_publisher_settings_set_name(otc_publisher_settings*, const char* name) {
  return sdk().record("otc_publisher_settings_set_name", name);
}

otc_status otc_publisher_settings_set_video_capturer(otc_publisher_settings* settings,
                                                     const otc_video_capturer_callbacks* capturer) {
  settings->capturer = *capturer;
  return sdk().record("otc_publisher_settings_set_video_capturer", "");
}

otc_status otc_publisher_settings_set_audio_track(otc_publisher_settings*, otc_bool on) {
  return sdk().record("otc_publisher_settings_set_audio_track", flag(on));
}

otc_status otc_publisher_settings_set_video_track(otc_publisher_settings*, otc_bool on) {
  return sdk().record("otc_publisher_settings_set_video_track", flag(on));
}

otc_status otc_publisher_settings_set_stereo(otc_publisher_settings*, otc_bool on) {
  return sdk().record("otc_publisher_settings_set_stereo", flag(on));
}

otc_publisher* otc_publisher_new_with_settings(const otc_publisher_callbacks* callbacks,
                                               const otc_publisher_settings* settings) {
  sdk().publishers.push_back(std::make_unique<otc_publisher>(*callbacks, *settings));
  sdk().record("otc_publisher_new_with_settings", "");
  return sdk().publishers.back().get();
}

otc_status otc_publisher_set_audio_fallback_enabled(otc_publisher*, otc_bool on) {
  return sdk().record("otc_publisher_set_audio_fallback_enabled", flag(on));
}

otc_status otc_set_audio_device(const otc_audio_device_callbacks* callbacks) {
  sdk().audioDevice = *callbacks;
  return sdk().record("otc_set_audio_device", "");
}

otc_status otc_audio_device_write_capture_data(const int16_t* samples, size_t count) {
  sdk().capturedSamples.insert(sdk().capturedSamples.end(), samples, samples + 2 * count);
  return sdk().record("otc_audio_device_write_capture_data", std::to_string(count));
}

size_t otc_audio_device_read_render_data(int16_t* samples, size_t count) {
  std::memset(samples, 0, count * 2 * sizeof(int16_t));
  sdk().record("otc_audio_device_read_render_data", std::to_string(count));
  return count;
}
