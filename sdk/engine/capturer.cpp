#include "capturer.h"

#include <gst/app/gstappsrc.h>
#include <gst/video/video.h>
#include <libyuv.h>

#include <array>
#include <utility>

#include "callback_scope.h"
#include "video_frame.h"

namespace {

using engine::Gst;

constexpr int largestSide = 8192;
// More than these wait for the encoder only when it does not keep up.
constexpr guint64 mostWaiting = 2;

bool isPacked(const otc_video_frame& frame) {
  return frame.format == OTC_VIDEO_FRAME_FORMAT_ARGB32 || frame.format == OTC_VIDEO_FRAME_FORMAT_BGRA32;
}

// Whether the frame has the planes that its format needs, with rows that are long enough.
bool isWhole(const otc_video_frame& frame) {
  if (frame.width <= 0 || frame.height <= 0 || frame.width > largestSide || frame.height > largestSide) {
    return false;
  }
  const int chroma = (frame.width + 1) / 2;
  if (frame.planes[0] == nullptr) return false;
  if (isPacked(frame)) return frame.strides[0] >= 4 * frame.width;
  if (frame.strides[0] < frame.width || frame.planes[1] == nullptr) return false;
  if (frame.planes[2] != nullptr) return frame.strides[1] >= chroma && frame.strides[2] >= chroma;
  return frame.format == OTC_VIDEO_FRAME_FORMAT_NV12 && frame.strides[1] >= 2 * chroma;
}

libyuv::RotationMode rotationMode(int degrees) {
  switch (degrees) {
    case 90:
      return libyuv::kRotate90;
    case 180:
      return libyuv::kRotate180;
    case 270:
      return libyuv::kRotate270;
    default:
      return libyuv::kRotate0;
  }
}

// Into 4:2:0 with the colours that browsers expect. libyuv names packed formats by their order in a word,
// the video SDK's numbers name the same orders the other way round.
void convert(const otc_video_frame& from, int rotation, GstVideoFrame& to) {
  const std::array<std::uint8_t*, 3> out = {static_cast<std::uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(&to, 0)),
                                            static_cast<std::uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(&to, 1)),
                                            static_cast<std::uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(&to, 2))};
  const std::array<int, 3> strides = {GST_VIDEO_FRAME_PLANE_STRIDE(&to, 0),
                                      GST_VIDEO_FRAME_PLANE_STRIDE(&to, 1),
                                      GST_VIDEO_FRAME_PLANE_STRIDE(&to, 2)};
  const libyuv::RotationMode mode = rotationMode(rotation);
  const int width = from.width;
  const int height = from.height;
  if (isPacked(from)) {
    const std::uint32_t fourcc = from.format == OTC_VIDEO_FRAME_FORMAT_ARGB32
                                     ? static_cast<std::uint32_t>(libyuv::FOURCC_ARGB)
                                     : static_cast<std::uint32_t>(libyuv::FOURCC_BGRA);
    // Rows may be padded: the padding is cropped.
    libyuv::ConvertToI420(from.planes[0], 0, out[0], strides[0], out[1], strides[1], out[2], strides[2], 0, 0,
                          from.strides[0] / 4, height, width, height, mode, fourcc);
  } else if (from.planes[2] != nullptr) {
    libyuv::I420Rotate(from.planes[0], from.strides[0], from.planes[1], from.strides[1], from.planes[2],
                       from.strides[2], out[0], strides[0], out[1], strides[1], out[2], strides[2], width,
                       height, mode);
  } else {
    libyuv::NV12ToI420Rotate(from.planes[0], from.strides[0], from.planes[1], from.strides[1], out[0],
                             strides[0], out[1], strides[1], out[2], strides[2], width, height, mode);
  }
}

}  // namespace

otc_video_capturer_settings otc_video_capturer::init() {
  const engine::CallbackScope scope;
  initialised_ = true;
  callbacks_.init(this, callbacks_.user_data);
  otc_video_capturer_settings settings = {};
  callbacks_.get_capture_settings(this, callbacks_.user_data, &settings);
  return settings;
}

void otc_video_capturer::start() {
  if (started_) return;
  const engine::CallbackScope scope;
  started_ = true;
  callbacks_.start(this, callbacks_.user_data);
}

void otc_video_capturer::stopAndDestroy() {
  const engine::CallbackScope scope;
  if (std::exchange(started_, false)) callbacks_.stop(this, callbacks_.user_data);
  if (std::exchange(initialised_, false)) callbacks_.destroy(this, callbacks_.user_data);
}

void otc_video_capturer::setOutput(GstAppSrc* output) {
  const std::lock_guard lock(mutex_);
  output_ = output;
  if (output == nullptr) dropPool();  // the capturer stays, its memory need not
}

void otc_video_capturer::dropPool() {
  if (pool_ != nullptr) gst_buffer_pool_set_active(pool_.get(), FALSE);
  pool_.reset();
}

otc_status otc_video_capturer::provide(const otc_video_frame& frame, int rotation) {
  if (!isWhole(frame)) return OTC_INVALID_PARAM;
  const std::lock_guard lock(mutex_);
  if (output_ == nullptr || gst_app_src_get_current_level_buffers(output_) >= mostWaiting) return OTC_SUCCESS;

  const bool turned = rotation == 90 || rotation == 270;
  const int width = turned ? frame.height : frame.width;
  const int height = turned ? frame.width : frame.height;
  if (pool_ == nullptr || width != info_.width || height != info_.height) {
    gst_video_info_set_format(&info_, GST_VIDEO_FORMAT_I420, static_cast<guint>(width),
                              static_cast<guint>(height));
    caps_.reset(gst_video_info_to_caps(&info_));
    dropPool();
    pool_.reset(gst_video_buffer_pool_new());
    GstStructure* config = gst_buffer_pool_get_config(pool_.get());
    gst_buffer_pool_config_set_params(config, caps_.get(), static_cast<guint>(GST_VIDEO_INFO_SIZE(&info_)), 0,
                                      0);
    gst_buffer_pool_set_config(pool_.get(), config);
    gst_buffer_pool_set_active(pool_.get(), TRUE);
  }
  GstBuffer* buffer = nullptr;
  GstVideoFrame mapped;
  if (gst_buffer_pool_acquire_buffer(pool_.get(), &buffer, nullptr) != GST_FLOW_OK) return OTC_FATAL;
  if (gst_video_frame_map(&mapped, &info_, buffer, GST_MAP_WRITE) == FALSE) {
    gst_buffer_unref(buffer);
    return OTC_FATAL;
  }
  convert(frame, rotation, mapped);
  gst_video_frame_unmap(&mapped);
  const Gst<GstSample> sample(gst_sample_new(buffer, caps_.get(), nullptr, nullptr));
  gst_buffer_unref(buffer);
  gst_app_src_push_sample(output_, sample.get());
  return OTC_SUCCESS;
}

otc_status otc_video_capturer_provide_frame(const otc_video_capturer* capturer, int rotation,
                                            const otc_video_frame* frame) {
  if (capturer == nullptr || frame == nullptr) return OTC_INVALID_PARAM;
  // The interface hands the capturer out as const; what changes in it is not the program's.
  return const_cast<otc_video_capturer*>(capturer)->provide(*frame, rotation);
}
