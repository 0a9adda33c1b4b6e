#include "scripted_sdk.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

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
  std::string words;
  for (const Word& argument : arguments) words += " " + argument;
  return sdk().record(function, words);
}

const char* idOf(const otc_session* session) {
  return session ? session->id.c_str() : nullptr;
}

// A callback record is a row of function pointers, a user data pointer and a reserved one.
template <class Record>
const Record& complete(const Record& record) {
  const auto* slots = reinterpret_cast<void* const*>(&record);
  const auto* reserved = slots + sizeof(Record) / sizeof(void*) - 1;
  const bool isComplete = !*reserved && std::find(slots, reserved, nullptr) == reserved;
  if (!isComplete) throw std::logic_error("a callback is missing");
  return record;
}

}  // namespace

PlanarFrame::PlanarFrame(int width, int height)
    : frame{OTC_VIDEO_FRAME_FORMAT_YUV420P, width, height, {}, {}, {}, {}} {
  for (int i = 0; i < 3; i++) {
    frame.widths[i] = i == 0 ? width : (width + 1) / 2;
    frame.heights[i] = i == 0 ? height : (height + 1) / 2;
    frame.strides[i] = frame.widths[i] + 3;
    memory[i].assign(static_cast<size_t>(frame.strides[i] * frame.heights[i]), 128);
    frame.planes[i] = memory[i].data();
  }
}

// Functions that only read a field; they are not written down.
#define READS(result, function, type, field)                 \
  result function(const type* object) {                      \
    return object ? object->field : decltype(type::field)(); \
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
READS(otc_bool, otc_subscriber_get_subscribe_to_audio, otc_subscriber, audio)
READS(int, otc_video_frame_get_format, otc_video_frame, format)
READS(int, otc_video_frame_get_width, otc_video_frame, width)
READS(int, otc_video_frame_get_height, otc_video_frame, height)
READS(int64_t, otc_video_frame_get_timestamp, otc_video_frame, timestamp)
READS_OF_PLANE(const uint8_t*, otc_video_frame_get_plane_binary_data, planes)
READS_OF_PLANE(int, otc_video_frame_get_plane_width, widths)
READS_OF_PLANE(int, otc_video_frame_get_plane_height, heights)
READS_OF_PLANE(int, otc_video_frame_get_plane_stride, strides)

// Functions that do nothing but be written down, with these of their parameters.
#define WRITES_DOWN(function, parameters, ...) \
  otc_status function parameters {             \
    return record(__func__, {__VA_ARGS__});    \
  }

// clang-format off
WRITES_DOWN(otc_log_enable, (int level), level)
WRITES_DOWN(otc_session_connect, (otc_session* session, const char* token), idOf(session), token)
WRITES_DOWN(otc_session_delete, (otc_session* session), idOf(session))
WRITES_DOWN(otc_session_send_signal, (otc_session* session, const char* type, const char* data),
            session, type, data)
WRITES_DOWN(otc_session_publish, (otc_session* session, otc_publisher* publisher), session, publisher)
WRITES_DOWN(otc_session_unpublish, (otc_session* session, otc_publisher* publisher), session, publisher)
WRITES_DOWN(otc_session_subscribe, (otc_session*, otc_subscriber* subscriber), subscriber)
WRITES_DOWN(otc_session_unsubscribe, (otc_session* session, otc_subscriber* subscriber), session, subscriber)
WRITES_DOWN(otc_subscriber_set_subscribe_to_video, (otc_subscriber* subscriber, otc_bool on),
            subscriber, flag(on))
WRITES_DOWN(otc_publisher_settings_set_name, (otc_publisher_settings*, const char* name), name)
WRITES_DOWN(otc_publisher_settings_set_audio_track, (otc_publisher_settings*, otc_bool on), flag(on))
WRITES_DOWN(otc_publisher_settings_set_video_track, (otc_publisher_settings*, otc_bool on), flag(on))
WRITES_DOWN(otc_publisher_settings_set_stereo, (otc_publisher_settings*, otc_bool on), flag(on))
WRITES_DOWN(otc_publisher_set_audio_fallback_enabled, (otc_publisher*, otc_bool on), flag(on))
WRITES_DOWN(otc_audio_device_write_capture_data, (const int16_t*, size_t count), count)
// clang-format on

otc_status otc_init(void*) {
  return record(__func__);
}

otc_status otc_log_set_logger_callback(otc_logger_callback callback) {
  sdk().logger = callback;
  return record(__func__);
}

otc_session* otc_session_new(const char* apiKey, const char* id, const otc_session_callbacks* callbacks) {
  if (record(__func__, {apiKey, id}) != OTC_SUCCESS) return nullptr;
  return sdk().sessions.emplace_back(new otc_session{id, complete(*callbacks)}).get();
}

otc_subscriber* otc_subscriber_new(const otc_stream* stream, const otc_subscriber_callbacks* callbacks) {
  if (record(__func__, {stream->id}) != OTC_SUCCESS) return nullptr;
  auto& made = sdk().subscribers;
  const std::string id = stream->id ? stream->id : "";
  return made.emplace(made.begin(), new otc_subscriber{id, complete(*callbacks)})->get();
}

otc_status otc_subscriber_set_subscribe_to_audio(otc_subscriber* subscriber, otc_bool on) {
  if (subscriber) subscriber->audio = on;
  return record(__func__, {subscriber, flag(on)});
}

otc_video_frame* otc_video_frame_new_contiguous_memory_wrapper(int format, int width, int height,
                                                               otc_bool shallow, const uint8_t* data, size_t,
                                                               otc_video_frame_release_callback release,
                                                               void* argument) {
  if (record(__func__, {format, {width, height}, shallow ? "shallow" : "deep"}) != OTC_SUCCESS)
    return nullptr;
  return new otc_video_frame{format, width, height, {data}, {}, {}, {}, 0, release, argument};
}

otc_video_frame* otc_video_frame_new_from_planes(int format, int width, int height,
                                                 const uint8_t* const* planes, const int* strides) {
  if (record(__func__, {format, {width, height}}) != OTC_SUCCESS) return nullptr;
  return new otc_video_frame{
      format, width, height, {planes[0], planes[1], planes[2]}, {}, {}, {strides[0], strides[1], strides[2]}};
}

otc_status otc_video_frame_delete(otc_video_frame* frame) {
  delete frame;
  return record(__func__);
}

otc_status otc_video_capturer_provide_frame(const otc_video_capturer*, int rotation,
                                            const otc_video_frame* frame) {
  if (frame) sdk().providedFrames.push_back(*frame);
  return record(__func__, {rotation});
}

otc_publisher_settings* otc_publisher_settings_new() {
  record(__func__);
  return sdk().settings.emplace_back(new otc_publisher_settings{}).get();
}

otc_status otc_publisher_settings_set_video_capturer(otc_publisher_settings* settings,
                                                     const otc_video_capturer_callbacks* capturer) {
  settings->capturer = complete(*capturer);
  return record(__func__);
}

otc_publisher* otc_publisher_new_with_settings(const otc_publisher_callbacks* callbacks,
                                               const otc_publisher_settings* settings) {
  if (record(__func__) != OTC_SUCCESS) return nullptr;
  complete(*callbacks);
  return sdk().publishers.emplace_back(new otc_publisher{*settings}).get();
}

otc_status otc_set_audio_device(const otc_audio_device_callbacks* callbacks) {
  sdk().audioDevice = complete(*callbacks);
  return record(__func__);
}

size_t otc_audio_device_read_render_data(int16_t* samples, size_t count) {
  std::memset(samples, 0, count * 2 * sizeof(int16_t));
  record(__func__, {count});
  return count;
}
