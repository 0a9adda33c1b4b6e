// A video SDK for the benchmark: it makes guests, frames and sounds when it is told to, and tells when a call
// of the service's reaches it. It is loaded into the service in the place of the real one.

#include <fcntl.h>
#include <libyuv.h>
#include <opentok.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "allocations.h"
#include "control.h"
#include "plain_socket.h"

using bench::Answer;
using bench::Message;
using bench::now;
using bench::Order;

struct otc_stream {
  std::string id;
  std::string name;
};
struct otc_session {
  otc_session_callbacks callbacks;
};
struct otc_subscriber {
  otc_subscriber_callbacks callbacks;
};
struct otc_publisher_settings {
  otc_video_capturer_callbacks capturer;
};
struct otc_publisher {
  otc_publisher_settings settings;
};
struct otc_video_capturer {};

struct otc_video_frame {
  int format;
  int width;
  int height;
  std::array<const uint8_t*, 3> planes;
  std::array<int, 3> strides;
  int64_t timestamp = 0;
  otc_video_frame_release_callback release = nullptr;
  void* argument = nullptr;
};

namespace {

// Pictures as a decoder leaves them, one after the other in turn, and a warm surface for the floor.
struct Pictures {
  static constexpr size_t kCount = 3;

  Pictures(int theWidth, int theHeight)
      : width(theWidth),
        height(theHeight),
        stride((width + 63) / 64 * 64),
        lumaSize(static_cast<size_t>(stride) * static_cast<size_t>(height)),
        chromaSize(static_cast<size_t>(stride / 2) * static_cast<size_t>((height + 1) / 2)) {
    uint8_t value = 0;
    for (Planes& picture : pictures) {
      for (size_t plane = 0; plane < 3; ++plane) {
        picture[plane].resize(plane == 0 ? lumaSize : chromaSize);
        for (uint8_t& byte : picture[plane]) byte = value++;
      }
    }
    const size_t surfaceSize = lumaSize + 2 * chromaSize;
    surfaceDescriptor = memfd_create("floor", MFD_CLOEXEC);
    if (ftruncate(surfaceDescriptor, static_cast<off_t>(surfaceSize)) != 0) std::abort();
    surface = static_cast<uint8_t*>(
        mmap(nullptr, surfaceSize, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_POPULATE, surfaceDescriptor, 0));
  }

  otc_video_frame next() {
    const Planes& picture = pictures[turn++ % kCount];
    return {OTC_VIDEO_FRAME_FORMAT_YUV420P,
            width,
            height,
            {picture[0].data(), picture[1].data(), picture[2].data()},
            {stride, stride / 2, stride / 2}};
  }

  using Planes = std::array<std::vector<uint8_t>, 3>;
  const int width;
  const int height;
  const int stride;
  const size_t lumaSize;
  const size_t chromaSize;
  std::array<Planes, kCount> pictures;
  size_t turn = 0;
  int surfaceDescriptor;
  uint8_t* surface;
};

// Everything below is touched by the control thread alone, once the session is there.
otc_session* session;
otc_publisher* publisher;
std::vector<otc_subscriber*> subscribers;
std::map<std::pair<int, int>, std::unique_ptr<Pictures>> picturesBySize;
std::array<int16_t, bench::kSoundBytes / sizeof(int16_t)> samples;

const otc_video_capturer capturer;

int descriptorNamed(const char* variable) {
  const char* const text = std::getenv(variable);
  return text != nullptr ? std::atoi(text) : -1;
}

int control() {
  static const int socket = descriptorNamed(bench::kControlVariable);
  return socket;
}

void answer(const Answer& answer) {
  bench::sendPlain(control(), &answer, sizeof answer);
}

Pictures& picturesOf(const Message& message) {
  auto& pictures = picturesBySize[{message.width, message.height}];
  if (!pictures) pictures = std::make_unique<Pictures>(message.width, message.height);
  return *pictures;
}

void announceGuest() {
  const std::string number = std::to_string(subscribers.size());
  const otc_stream stream{"stream-" + number, "Guest - Number " + number};
  session->callbacks.on_stream_received(session, session->callbacks.user_data, &stream);
}

void renderFrame(const Message& message) {
  otc_video_frame frame = picturesOf(message).next();
  otc_subscriber* const subscriber = subscribers.at(static_cast<size_t>(message.guest));
  frame.timestamp = now();
  subscriber->callbacks.on_render_frame(subscriber, subscriber->callbacks.user_data, &frame);
}

void convertAndShare(const Message& message, int floor) {
  Pictures& pictures = picturesOf(message);
  const otc_video_frame frame = pictures.next();
  const int64_t begin = now();
  libyuv::I420ToNV12(frame.planes[0], frame.strides[0], frame.planes[1], frame.strides[1], frame.planes[2],
                     frame.strides[2], pictures.surface, pictures.stride,
                     pictures.surface + pictures.lumaSize, pictures.stride, pictures.width, pictures.height);
  bench::sendPlain(floor, &begin, sizeof begin, pictures.surfaceDescriptor);
  char reply = 0;
  bench::receivePlain(floor, &reply, sizeof reply);
  answer({.nanoseconds = now() - begin});
}

void deliverSound(int guest) {
  const otc_audio_data audio{samples.data(), 16, 48000, 2, samples.size() / 2};
  otc_subscriber* const subscriber = subscribers.at(static_cast<size_t>(guest));
  const int64_t begin = now();
  std::memcpy(samples.data(), &begin, sizeof begin);
  subscriber->callbacks.on_audio_data(subscriber, subscriber->callbacks.user_data, &audio);
}

void sendSound(int floor) {
  const int64_t begin = now();
  std::memcpy(samples.data(), &begin, sizeof begin);
  bench::sendPlain(floor, samples.data(), bench::kSoundBytes);
}

void answerCounters(bool counting) {
  bench::countAllocations(counting);
  const auto [count, bytes, largest] = bench::allocations();
  answer({.nanoseconds = 0,
          .allocations = count,
          .allocatedBytes = bytes,
          .largestAllocation = largest,
          .minorFaults = bench::minorFaults()});
}

void obey(const Message& message, int floor) {
  switch (message.order) {
    case Order::echo:
      bench::sendPlain(control(), &message, sizeof message);
      break;
    case Order::stamp:
      answer({.nanoseconds = now() - message.sent});
      break;
    case Order::prepare:
      picturesOf(message);
      answer({});
      break;
    case Order::announceGuest:
      announceGuest();
      answer({});
      break;
    case Order::startCapturer: {
      const auto& callbacks = publisher->settings.capturer;
      callbacks.init(&capturer, callbacks.user_data);
      callbacks.start(&capturer, callbacks.user_data);
      answer({});
      break;
    }
    case Order::frame:
      renderFrame(message);
      break;
    case Order::frameFloor:
      convertAndShare(message, floor);
      break;
    case Order::sound:
      deliverSound(message.guest);
      break;
    case Order::soundFloor:
      sendSound(floor);
      break;
    case Order::counters:
      answerCounters(message.counting);
      break;
  }
}

void serve() {
  const int floor = descriptorNamed(bench::kFloorVariable);
  Message message;
  while (bench::receivePlain(control(), &message, sizeof message)) obey(message, floor);
}

}  // namespace

otc_status otc_init(void*) {
  return OTC_SUCCESS;
}
otc_status otc_log_enable(int) {
  return OTC_SUCCESS;
}
otc_status otc_log_set_logger_callback(otc_logger_callback) {
  return OTC_SUCCESS;
}

const char* otc_stream_get_id(const otc_stream* stream) {
  return stream->id.c_str();
}
const char* otc_stream_get_name(const otc_stream* stream) {
  return stream->name.c_str();
}
int otc_stream_get_video_type(const otc_stream*) {
  return OTC_STREAM_VIDEO_TYPE_CAMERA;
}
int otc_stream_get_video_width(const otc_stream*) {
  return 1280;
}
int otc_stream_get_video_height(const otc_stream*) {
  return 720;
}
const otc_connection* otc_stream_get_connection(const otc_stream*) {
  return nullptr;
}

otc_session* otc_session_new(const char*, const char*, const otc_session_callbacks* callbacks) {
  session = new otc_session{*callbacks};
  return session;
}

otc_status otc_session_connect(otc_session*, const char*) {
  std::thread(serve).detach();
  answer({.nanoseconds = now()});
  return OTC_SUCCESS;
}

otc_status otc_session_delete(otc_session*) {
  return OTC_SUCCESS;
}

otc_status otc_session_send_signal(otc_session*, const char* type, const char* data) {
  const int64_t arrived = now();
  if (std::strcmp(type, "viewer_count") == 0) {
    const size_t digits = std::strcspn(data, "0123456789");
    answer({.nanoseconds = arrived - std::atoll(data + digits)});
  }
  return OTC_SUCCESS;
}

otc_status otc_session_publish(otc_session*, otc_publisher*) {
  return OTC_SUCCESS;
}
otc_status otc_session_unpublish(otc_session*, otc_publisher*) {
  return OTC_SUCCESS;
}
otc_status otc_session_subscribe(otc_session*, otc_subscriber*) {
  return OTC_SUCCESS;
}
otc_status otc_session_unsubscribe(otc_session*, otc_subscriber*) {
  return OTC_SUCCESS;
}

otc_subscriber* otc_subscriber_new(const otc_stream*, const otc_subscriber_callbacks* callbacks) {
  subscribers.push_back(new otc_subscriber{*callbacks});
  return subscribers.back();
}

otc_status otc_subscriber_set_subscribe_to_video(otc_subscriber*, otc_bool) {
  return OTC_SUCCESS;
}
otc_status otc_subscriber_set_subscribe_to_audio(otc_subscriber*, otc_bool) {
  return OTC_SUCCESS;
}
otc_bool otc_subscriber_get_subscribe_to_audio(const otc_subscriber*) {
  return OTC_TRUE;
}

otc_video_frame* otc_video_frame_new_contiguous_memory_wrapper(int format, int width, int height, otc_bool,
                                                               const uint8_t* data, size_t,
                                                               otc_video_frame_release_callback release,
                                                               void* argument) {
  return new otc_video_frame{format, width, height, {data}, {}, 0, release, argument};
}

otc_video_frame* otc_video_frame_new_from_planes(int format, int width, int height,
                                                 const uint8_t* const* planes, const int* strides) {
  return new otc_video_frame{
      format, width, height, {planes[0], planes[1], planes[2]}, {strides[0], strides[1], strides[2]}};
}

otc_status otc_video_frame_delete(otc_video_frame* frame) {
  if (frame->release != nullptr) frame->release(frame->argument);
  delete frame;
  return OTC_SUCCESS;
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
  return frame->planes.at(static_cast<size_t>(plane));
}
int otc_video_frame_get_plane_width(const otc_video_frame* frame, int plane) {
  return plane == 0 ? frame->width : (frame->width + 1) / 2;
}
int otc_video_frame_get_plane_height(const otc_video_frame* frame, int plane) {
  return plane == 0 ? frame->height : (frame->height + 1) / 2;
}
int otc_video_frame_get_plane_stride(const otc_video_frame* frame, int plane) {
  return frame->strides.at(static_cast<size_t>(plane));
}
int64_t otc_video_frame_get_timestamp(const otc_video_frame* frame) {
  return frame->timestamp;
}

// The studio wrote the time at which it sent the frame into its first pixels.
otc_status otc_video_capturer_provide_frame(const otc_video_capturer*, int, const otc_video_frame* frame) {
  const int64_t arrived = now();
  int64_t sent = 0;
  std::memcpy(&sent, frame->planes[0], sizeof sent);
  answer({.nanoseconds = arrived - sent});
  return OTC_SUCCESS;
}

otc_publisher_settings* otc_publisher_settings_new() {
  return new otc_publisher_settings{};
}
otc_status otc_publisher_settings_set_name(otc_publisher_settings*, const char*) {
  return OTC_SUCCESS;
}
otc_status otc_publisher_settings_set_video_capturer(otc_publisher_settings* settings,
                                                     const otc_video_capturer_callbacks* callbacks) {
  settings->capturer = *callbacks;
  return OTC_SUCCESS;
}
otc_status otc_publisher_settings_set_audio_track(otc_publisher_settings*, otc_bool) {
  return OTC_SUCCESS;
}
otc_status otc_publisher_settings_set_video_track(otc_publisher_settings*, otc_bool) {
  return OTC_SUCCESS;
}
otc_status otc_publisher_settings_set_stereo(otc_publisher_settings*, otc_bool) {
  return OTC_SUCCESS;
}

otc_publisher* otc_publisher_new_with_settings(const otc_publisher_callbacks*,
                                               const otc_publisher_settings* settings) {
  publisher = new otc_publisher{*settings};
  return publisher;
}
otc_status otc_publisher_set_audio_fallback_enabled(otc_publisher*, otc_bool) {
  return OTC_SUCCESS;
}

otc_status otc_set_audio_device(const otc_audio_device_callbacks*) {
  return OTC_SUCCESS;
}
otc_status otc_audio_device_write_capture_data(const int16_t*, size_t) {
  return OTC_SUCCESS;
}
size_t otc_audio_device_read_render_data(int16_t*, size_t number) {
  return number;
}
