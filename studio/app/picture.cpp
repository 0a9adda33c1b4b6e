#include "app/picture.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <fstream>

namespace studio {

namespace {

constexpr OSType biPlanarVideoRange = 0x34323076;  // '420v'
constexpr GstClockTime pngTimeLimit = 10 * GST_SECOND;

GstVideoInfo infoOf(GstVideoFormat format, std::size_t width, std::size_t height) {
  GstVideoInfo info;
  gst_video_info_set_format(&info, format, static_cast<guint>(width), static_cast<guint>(height));
  return info;
}

// The surface's memory as a buffer; nothing is copied, and the surface is not held.
GstBuffer* wrap(IOSurfaceRef surface, const GstVideoInfo& info) {
  const std::size_t size = IOSurfaceGetAllocSize(surface);
  GstBuffer* buffer =
      gst_buffer_new_wrapped_full({}, IOSurfaceGetBaseAddress(surface), size, 0, size, nullptr, nullptr);
  gsize offsets[GST_VIDEO_MAX_PLANES] = {0};
  gint strides[GST_VIDEO_MAX_PLANES] = {static_cast<gint>(IOSurfaceGetBytesPerRow(surface))};
  gst_buffer_add_video_meta_full(buffer, GST_VIDEO_FRAME_FLAG_NONE, GST_VIDEO_INFO_FORMAT(&info),
                                 static_cast<guint>(GST_VIDEO_INFO_WIDTH(&info)),
                                 static_cast<guint>(GST_VIDEO_INFO_HEIGHT(&info)), 1, offsets, strides);
  return buffer;
}

}  // namespace

void PictureConverter::prepare(const GstVideoInfo& from, const GstVideoInfo& to) {
  if (converter_ && gst_video_info_is_equal(&from, &from_) && gst_video_info_is_equal(&to, &to_)) return;
  from_ = from;
  to_ = to;
  // The largest rectangle of the source's shape that fits.
  const double shape =
      static_cast<double>(from.width) * from.par_n / (static_cast<double>(from.height) * from.par_d);
  const int width = std::clamp(static_cast<int>(std::lround(to.height * shape)), 1, to.width);
  const int height = std::clamp(static_cast<int>(std::lround(to.width / shape)), 1, to.height);
  GstStructure* options = gst_structure_new(
      "options", GST_VIDEO_CONVERTER_OPT_DEST_X, G_TYPE_INT, (to.width - width) / 2,
      GST_VIDEO_CONVERTER_OPT_DEST_Y, G_TYPE_INT, (to.height - height) / 2,
      GST_VIDEO_CONVERTER_OPT_DEST_WIDTH, G_TYPE_INT, width, GST_VIDEO_CONVERTER_OPT_DEST_HEIGHT, G_TYPE_INT,
      height, GST_VIDEO_CONVERTER_OPT_RESAMPLER_METHOD, GST_TYPE_VIDEO_RESAMPLER_METHOD,
      GST_VIDEO_RESAMPLER_METHOD_LINEAR, nullptr);
  converter_.reset(gst_video_converter_new(&from_, &to_, options));
}

bool PictureConverter::convert(GstBuffer* picture, const GstVideoInfo& info, IOSurfaceRef surface) {
  GstVideoInfo target =
      infoOf(GST_VIDEO_FORMAT_BGRA, IOSurfaceGetWidth(surface), IOSurfaceGetHeight(surface));
  target.fps_n = info.fps_n;  // the converter insists, and does nothing with them
  target.fps_d = info.fps_d;
  prepare(info, target);
  if (!converter_) return false;
  GstVideoFrame from;
  if (!gst_video_frame_map(&from, &info, picture, GST_MAP_READ)) return false;
  IOSurfaceLock(surface, 0, nullptr);
  GstBuffer* memory = wrap(surface, target);
  GstVideoFrame to;
  const bool mapped = gst_video_frame_map(&to, &target, memory, GST_MAP_WRITE);
  if (mapped) {
    gst_video_converter_frame(converter_.get(), &from, &to);
    gst_video_frame_unmap(&to);
  }
  gst_buffer_unref(memory);
  IOSurfaceUnlock(surface, 0, nullptr);
  gst_video_frame_unmap(&from);
  return mapped;
}

PictureCopy::PictureCopy(const Frame& frame) : width_(frame.width()), height_(frame.height()) {
  if (frame.format() != biPlanarVideoRange) return;
  GstVideoInfo info = infoOf(GST_VIDEO_FORMAT_NV12, width_, height_);
  // Browsers send this one whatever the size.
  gst_video_colorimetry_from_string(&info.colorimetry, GST_VIDEO_COLORIMETRY_BT601);
  GstBuffer* buffer = gst_buffer_new_allocate(nullptr, GST_VIDEO_INFO_SIZE(&info), nullptr);
  GstVideoFrame copy;
  if (!buffer || !gst_video_frame_map(&copy, &info, buffer, GST_MAP_WRITE)) {
    if (buffer) gst_buffer_unref(buffer);
    return;
  }
  for (std::size_t index = 0; index < frame.planeCount(); ++index) {
    const Plane plane = frame.plane(index);
    const std::size_t bytes = plane.width * (index == 0 ? 1 : 2);
    auto* target = static_cast<std::uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(&copy, index));
    for (std::size_t row = 0; row < plane.height; ++row) {
      std::memcpy(target, plane.data + row * plane.bytesPerRow, bytes);
      target += GST_VIDEO_FRAME_PLANE_STRIDE(&copy, index);
    }
  }
  gst_video_frame_unmap(&copy);
  GstCaps* caps = gst_video_info_to_caps(&info);
  sample_.reset(gst_sample_new(buffer, caps, nullptr, nullptr));
  gst_caps_unref(caps);
  gst_buffer_unref(buffer);
}

std::string PictureCopy::writePng(const std::string& file) const {
  if (!sample_) return "the frame's format has no picture";
  GstCaps* png = gst_caps_new_empty_simple("image/png");
  GError* error = nullptr;
  GstSample* encoded = gst_video_convert_sample(sample_.get(), png, pngTimeLimit, &error);
  gst_caps_unref(png);
  if (!encoded) {
    const std::string reason = error->message;
    g_error_free(error);
    return fmt::format("the picture cannot be encoded: {}", reason);
  }
  GstMapInfo bytes;
  gst_buffer_map(gst_sample_get_buffer(encoded), &bytes, GST_MAP_READ);
  std::ofstream stream(file, std::ios::binary);
  stream.write(reinterpret_cast<const char*>(bytes.data), static_cast<std::streamsize>(bytes.size));
  stream.close();
  gst_buffer_unmap(gst_sample_get_buffer(encoded), &bytes);
  gst_sample_unref(encoded);
  return stream ? "" : fmt::format("{} cannot be written", file);
}

}  // namespace studio
