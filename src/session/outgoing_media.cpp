// The show's picture and sound on their way to the SDK.

#include <pthread.h>
#include <cstdio>

#include "session/guest_session.h"
#include "session/log.h"

namespace {

constexpr int kVideoThreadPriority = 50;

// The SDK has let go of a wrapped BGRA frame.
void releaseCallback(void* argument) {
  auto* buffer = static_cast<CVPixelBufferRef>(argument);
  CVPixelBufferUnlockBaseAddress(buffer, kCVPixelBufferLock_ReadOnly);
  CVPixelBufferRelease(buffer);
}

void raiseThreadPriorityOnce() {
  static dispatch_once_t once;
  dispatch_once(&once, [] {
    sched_param parameters = {};
    parameters.sched_priority = kVideoThreadPriority;
    // NOLINTNEXTLINE(bugprone-posix-return): a process that may not raise it, told so by EPERM, keeps quiet
    if (pthread_setschedparam(pthread_self(), SCHED_RR, &parameters) == -1) {
      std::puts("Failed to change priority.");
    }
  });
}

otc_video_frame* wrapBGRA(CVPixelBufferRef buffer) {
  return otc_video_frame_new_contiguous_memory_wrapper(
      OTC_VIDEO_FRAME_FORMAT_ARGB32, static_cast<int>(CVPixelBufferGetWidth(buffer)),
      static_cast<int>(CVPixelBufferGetHeight(buffer)), OTC_TRUE,
      static_cast<const uint8_t*>(CVPixelBufferGetBaseAddress(buffer)), CVPixelBufferGetDataSize(buffer),
      releaseCallback, buffer);
}

otc_video_frame* wrapPlanes(CVPixelBufferRef buffer) {
  const uint8_t* planes[3];
  int strides[3];
  for (size_t i = 0; i < 3; i++) {
    planes[i] = static_cast<const uint8_t*>(CVPixelBufferGetBaseAddressOfPlane(buffer, i));
    strides[i] = static_cast<int>(CVPixelBufferGetBytesPerRowOfPlane(buffer, i));
  }
  return otc_video_frame_new_from_planes(OTC_VIDEO_FRAME_FORMAT_NV12,
                                         static_cast<int>(CVPixelBufferGetWidth(buffer)),
                                         static_cast<int>(CVPixelBufferGetHeight(buffer)), planes, strides);
}

void provideFrame(const otc_video_capturer* capturer, CVPixelBufferRef buffer) {
  const bool isBGRA = CVPixelBufferGetPixelFormatType(buffer) == kCVPixelFormatType_32BGRA;
  CVPixelBufferLockBaseAddress(buffer, kCVPixelBufferLock_ReadOnly);
  otc_video_frame* frame = isBGRA ? wrapBGRA(buffer) : wrapPlanes(buffer);
  const otc_status status = otc_video_capturer_provide_frame(capturer, 0, frame);
  if (status != OTC_SUCCESS) logMessageToApp("otc_video_capturer_provide_frame: %d", status);
  otc_video_frame_delete(frame);
  // A wrapped BGRA buffer is the SDK's until releaseCallback; without a frame nobody would call that.
  if (!isBGRA || !frame) releaseCallback(buffer);
}

}  // namespace

void ZarvoGuestSession::sendVideoFrame(CVPixelBufferRef buffer) {
  if (!video_connected || !video_capturer) return;
  raiseThreadPriorityOnce();
  CVPixelBufferRetain(buffer);
  dispatch_sync(send_video_queue.get(), [this, buffer] { provideFrame(video_capturer, buffer); });
}

void ZarvoGuestSession::sendAudioData(const int16_t* samples, int32_t numSamples) {
  if (!audio_capture_connected || numSamples < 0) return;
  otc_status status;
  {
    std::lock_guard guard(audioSendLock);
    status = otc_audio_device_write_capture_data(samples, static_cast<size_t>(numSamples));
  }
  if (status != OTC_SUCCESS) logMessageToApp("otc_audio_device_write_capture_data: %d", status);
}
