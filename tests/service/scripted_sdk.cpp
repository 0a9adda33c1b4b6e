#include "scripted_sdk.h"

#include <algorithm>
#include <chrono>
#include <cstring>

namespace {

ScriptedSdk& sdk() {
  return ScriptedSdk::get();
}

// How an argument is written down.
struct Word : std::string {
  Word(const char* text) : std::string(text ? text : "null") {}
  Word(const std::string& text) : std::string(text) {}
  Word(size_t number) : std::string(std::to_string(number)) {}
  Word(int number) : std::string(std::to_string(number)) {}
  Word(int width, int height) : std::string(std::to_string(width) + "x" + std::to_string(height)) {}
  Word(const otc_session* session) : Word(session ? "session" : nullptr) {}
  Word(const otc_publisher* publisher) : Word(publisher ? "publisher" : nullptr) {}
  Word(const otc_subscriber* subscriber)
      : std::string(subscriber ? "subscriber:" + subscriber->streamId : "null") {}
};
const char* flag(otc_bool on) {
  return on ? "on" : "off";
}

otc_status record(const std::string& function, std::initializer_list<Word> arguments = {}) {
  std::string call = function;
  for (const Word& argument : arguments) call += " " + argument;
  return sdk().record(function, call);
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
  providedFrames.clear();
  capturedSamples.clear();
  onCall = nullptr;
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

void ScriptedSdk::sendSignal(const char* type, const char* data) const {
  session()->callbacks.on_signal_received(session(), session()->callbacks.user_data, type, data, nullptr);
}

void ScriptedSdk::renderFrame(const std::string& streamId, const otc_video_frame& frame) const {
  otc_subscriber* from = subscriber(streamId);
  from->callbacks.on_render_frame(from, from->callbacks.user_data, &frame);
}

void ScriptedSdk::deliverSound(const std::string& streamId, std::span<int16_t> samples) const {
  const otc_audio_data sound = {samples.data(), 16, 48000, 2, samples.size() / 2};
  otc_subscriber* from = subscriber(streamId);
  from->callbacks.on_audio_data(from, from->callbacks.user_data, &sound);
}

void ScriptedSdk::startCapturer() const {
  const auto& capturer = publishers.back()->settings.capturer;
  capturer.init(reinterpret_cast<otc_video_capturer*>(1), capturer.user_data);
  capturer.start(reinterpret_cast<otc_video_capturer*>(1), capturer.user_data);
}

otc_status ScriptedSdk::record(const std::string& function, const std::string& call) {
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
  return record(__func__);
}

otc_status otc_log_enable(int level) {
  return record(__func__, {level});
}

otc_status otc_log_set_logger_callback(otc_logger_callback callback) {
  sdk().logger = callback;
  return record(__func__);
}

// Functions that only read a field; they are not written down.
#define READS(result, function, type, field) \
  result function(const type* object) {      \
    return object->field;                    \
  }
#define READS_OF_PLANE(result, function, field)              \
  result function(const otc_video_frame* frame, int plane) { \
    return frame->field[plane];                              \
  }

READS(const char*, otc_stream_get_id, otc_stream, id)
READS(const char*, otc_stream_get_name, otc_stream, name)
READS(int, otc_stream_get_video_type, otc_stream, type)
READS(int, otc_stream_get_video_width, otc_stream, width)
READS(int, otc_stream_get_video_height, otc_stream, height)
READS(const otc_connection*, otc_stream_get_connection, otc_stream, connection)
READS(int, otc_video_frame_get_format, otc_video_frame, format)
READS(int, otc_video_frame_get_width, otc_video_frame, width)
READS(int, otc_video_frame_get_height, otc_video_frame, height)
READS(int64_t, otc_video_frame_get_timestamp, otc_video_frame, timestamp)
READS_OF_PLANE(const uint8_t*, otc_video_frame_get_plane_binary_data, planes)
READS_OF_PLANE(int, otc_video_frame_get_plane_width, widths)
READS_OF_PLANE(int, otc_video_frame_get_plane_height, heights)
READS_OF_PLANE(int, otc_video_frame_get_plane_stride, strides)

otc_session* otc_session_new(const char* apiKey, const char* id, const otc_session_callbacks* callbacks) {
  sdk().sessions.emplace_back(new otc_session{id, *callbacks});
  record(__func__, {apiKey, id});
  return sdk().session();
}

otc_status otc_session_connect(otc_session* session, const char* token) {
  return record(__func__, {session->id, token});
}

otc_status otc_session_delete(otc_session* session) {
  return record(__func__, {session->id});
}

otc_status otc_session_send_signal(otc_session* session, const char* type, const char* data) {
  return record(__func__, {session, type, data});
}

otc_status otc_session_publish(otc_session* session, otc_publisher* publisher) {
  return record(__func__, {session, publisher});
}

otc_status otc_session_unpublish(otc_session*, otc_publisher*) {
  return record(__func__);
}

otc_status otc_session_subscribe(otc_session*, otc_subscriber* subscriber) {
  return record(__func__, {subscriber});
}

otc_status otc_session_unsubscribe(otc_session* session, otc_subscriber* subscriber) {
  return record(__func__, {session, subscriber});
}

otc_subscriber* otc_subscriber_new(const otc_stream* stream, const otc_subscriber_callbacks* callbacks) {
  record(__func__, {stream->id});
  auto& made = sdk().subscribers;
  made.emplace(made.begin(), new otc_subscriber{stream->id ? stream->id : "", *callbacks});
  return made.front().get();
}

otc_status otc_subscriber_set_subscribe_to_video(otc_subscriber* subscriber, otc_bool on) {
  return record(__func__, {subscriber, flag(on)});
}

otc_status otc_subscriber_set_subscribe_to_audio(otc_subscriber* subscriber, otc_bool on) {
  if (subscriber) subscriber->audio = on;
  return record(__func__, {subscriber, flag(on)});
}

otc_bool otc_subscriber_get_subscribe_to_audio(const otc_subscriber* subscriber) {
  return subscriber && subscriber->audio;
}

otc_video_frame* otc_video_frame_new_contiguous_memory_wrapper(int format, int width, int height,
                                                               otc_bool shallow, const uint8_t* data,
                                                               size_t size,
                                                               otc_video_frame_release_callback release,
                                                               void* argument) {
  record(__func__, {format, {width, height}, shallow ? "shallow" : "deep"});
  return new otc_video_frame{format, width, height, {data}, {}, {}, {}, 0, size, release, argument};
}

otc_video_frame* otc_video_frame_new_from_planes(int format, int width, int height,
                                                 const uint8_t* const* planes, const int* strides) {
  record(__func__, {format, {width, height}});
  return new otc_video_frame{
      format, width, height, {planes[0], planes[1], planes[2]}, {}, {}, {strides[0], strides[1], strides[2]}};
}

otc_status otc_video_frame_delete(otc_video_frame* frame) {
  delete frame;
  return record(__func__);
}

otc_status otc_video_capturer_provide_frame(const otc_video_capturer*, int rotation,
                                            const otc_video_frame* frame) {
  sdk().providedFrames.push_back(*frame);
  return record(__func__, {rotation});
}

otc_publisher_settings* otc_publisher_settings_new() {
  record(__func__);
  // The service never frees settings; the SDK keeps an eye on them.
  static auto& made = *new std::vector<std::unique_ptr<otc_publisher_settings>>;
  made.push_back(std::make_unique<otc_publisher_settings>());
  return made.back().get();
}

otc_status otc_publisher_settings_set_name(otc_publisher_settings*, const char* name) {
  return record(__func__, {name});
}

otc_status otc_publisher_settings_set_video_capturer(otc_publisher_settings* settings,
                                                     const otc_video_capturer_callbacks* capturer) {
  settings->capturer = *capturer;
  return record(__func__);
}

otc_status otc_publisher_settings_set_audio_track(otc_publisher_settings*, otc_bool on) {
  return record(__func__, {flag(on)});
}

otc_status otc_publisher_settings_set_video_track(otc_publisher_settings*, otc_bool on) {
  return record(__func__, {flag(on)});
}

otc_status otc_publisher_settings_set_stereo(otc_publisher_settings*, otc_bool on) {
  return record(__func__, {flag(on)});
}

otc_publisher* otc_publisher_new_with_settings(const otc_publisher_callbacks* callbacks,
                                               const otc_publisher_settings* settings) {
  sdk().publishers.emplace_back(new otc_publisher{*callbacks, *settings});
  record(__func__);
  return sdk().publishers.back().get();
}

otc_status otc_publisher_set_audio_fallback_enabled(otc_publisher*, otc_bool on) {
  return record(__func__, {flag(on)});
}

otc_status otc_set_audio_device(const otc_audio_device_callbacks* callbacks) {
  sdk().audioDevice = *callbacks;
  return record(__func__);
}

otc_status otc_audio_device_write_capture_data(const int16_t* samples, size_t count) {
  sdk().capturedSamples.insert(sdk().capturedSamples.end(), samples, samples + 2 * count);
  return record(__func__, {count});
}

size_t otc_audio_device_read_render_data(int16_t* samples, size_t count) {
  std::memset(samples, 0, count * 2 * sizeof(int16_t));
  record(__func__, {count});
  return count;
}
