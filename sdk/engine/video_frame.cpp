#include "video_frame.h"

namespace {

bool isPacked(int format) {
  return format == OTC_VIDEO_FRAME_FORMAT_ARGB32 || format == OTC_VIDEO_FRAME_FORMAT_BGRA32;
}

int half(int length) {
  return length / 2 + length % 2;
}

// The planes of 4:2:0 in two or three planes.
bool isChroma(int plane) {
  return plane > 0;
}

bool hasPlane(const otc_video_frame* frame, int plane) {
  return frame != nullptr && plane >= 0 && plane < 3 && frame->planes.at(static_cast<std::size_t>(plane));
}

}  // namespace

int otc_video_frame_get_format(const otc_video_frame* frame) {
  return frame == nullptr ? 0 : frame->format;
}

int otc_video_frame_get_width(const otc_video_frame* frame) {
  return frame == nullptr ? 0 : frame->width;
}

int otc_video_frame_get_height(const otc_video_frame* frame) {
  return frame == nullptr ? 0 : frame->height;
}

const uint8_t* otc_video_frame_get_plane_binary_data(const otc_video_frame* frame, int plane) {
  return hasPlane(frame, plane) ? frame->planes.at(static_cast<std::size_t>(plane)) : nullptr;
}

int otc_video_frame_get_plane_width(const otc_video_frame* frame, int plane) {
  if (!hasPlane(frame, plane)) return 0;
  return isChroma(plane) ? half(frame->width) : frame->width;
}

int otc_video_frame_get_plane_height(const otc_video_frame* frame, int plane) {
  if (!hasPlane(frame, plane)) return 0;
  return isChroma(plane) ? half(frame->height) : frame->height;
}

int otc_video_frame_get_plane_stride(const otc_video_frame* frame, int plane) {
  return hasPlane(frame, plane) ? frame->strides.at(static_cast<std::size_t>(plane)) : 0;
}

int64_t otc_video_frame_get_timestamp(const otc_video_frame* frame) {
  return frame == nullptr ? 0 : frame->timestamp;
}

otc_video_frame* otc_video_frame_new_contiguous_memory_wrapper(int format, int width, int height,
                                                               otc_bool shallow, const uint8_t* data,
                                                               size_t size,
                                                               otc_video_frame_release_callback release,
                                                               void* argument) {
  if (data == nullptr || width <= 0 || height <= 0) return nullptr;
  const auto w = static_cast<std::size_t>(width);
  const auto h = static_cast<std::size_t>(height);
  const auto halfW = static_cast<std::size_t>(half(width));
  const auto halfH = static_cast<std::size_t>(half(height));
  auto* frame = new otc_video_frame;
  frame->format = format;
  frame->width = width;
  frame->height = height;
  std::array<std::size_t, 3> offsets = {};
  std::size_t needed = 0;
  if (isPacked(format)) {
    // Rows may be padded: what the block holds beyond the rows is spread over them.
    const std::size_t stride = size / h / 4 * 4;
    needed = 4 * w * h;
    frame->strides[0] = static_cast<int>(stride);
  } else if (format == OTC_VIDEO_FRAME_FORMAT_YUV420P) {
    frame->strides = {width, half(width), half(width)};
    offsets = {0, w * h, w * h + halfW * halfH};
    needed = w * h + 2 * halfW * halfH;
  } else if (format == OTC_VIDEO_FRAME_FORMAT_NV12) {
    frame->strides = {width, 2 * half(width), 0};
    offsets = {0, w * h, 0};
    needed = w * h + 2 * halfW * halfH;
  }
  if (needed == 0 || size < needed) {
    delete frame;
    return nullptr;
  }
  const uint8_t* base = data;
  if (shallow != OTC_FALSE) {
    frame->release = release;
    frame->releaseArgument = argument;
  } else {
    frame->copy.assign(data, data + size);
    base = frame->copy.data();
    if (release != nullptr) release(argument);
  }
  for (std::size_t plane = 0; plane < 3; ++plane) {
    if (frame->strides.at(plane) > 0) frame->planes.at(plane) = base + offsets.at(plane);
  }
  return frame;
}

otc_video_frame* otc_video_frame_new_from_planes(int format, int width, int height,
                                                 const uint8_t* const* planes, const int* strides) {
  if (planes == nullptr || strides == nullptr || planes[0] == nullptr || width <= 0 || height <= 0) {
    return nullptr;
  }
  auto* frame = new otc_video_frame;
  frame->format = format;
  frame->width = width;
  frame->height = height;
  for (std::size_t plane = 0; plane < 3; ++plane) {
    frame->planes.at(plane) = planes[plane];
    frame->strides.at(plane) = strides[plane];
  }
  return frame;
}

otc_status otc_video_frame_delete(otc_video_frame* frame) {
  if (frame == nullptr) return OTC_INVALID_PARAM;
  if (frame->release != nullptr) frame->release(frame->releaseArgument);
  delete frame;
  return OTC_SUCCESS;
}
