// The road of a guest's frame: render-frame callback, the session's routing, the record's one copy into a
// pooled surface.

#include "streams/incoming_video.h"

#include <CoreVideo/CoreVideo.h>
#include <VideoToolbox/VideoToolbox.h>

#include "session/guest_session.h"
#include "session/log.h"
#include "streams/guest_session_stream.h"
#include "support/ref.h"

namespace {

constexpr size_t kPlanes = 3;

// Wraps the frame's planes without a copy: valid while the callback runs.
Ref<CVPixelBufferRef> wrapPlanes(const otc_video_frame* frame) {
  void* addresses[kPlanes];
  size_t widths[kPlanes];
  size_t heights[kPlanes];
  size_t strides[kPlanes];
  for (size_t i = 0; i < kPlanes; i++) {
    const int plane = static_cast<int>(i);
    addresses[i] = const_cast<uint8_t*>(otc_video_frame_get_plane_binary_data(frame, plane));
    widths[i] = static_cast<size_t>(otc_video_frame_get_plane_width(frame, plane));
    heights[i] = static_cast<size_t>(otc_video_frame_get_plane_height(frame, plane));
    strides[i] = static_cast<size_t>(otc_video_frame_get_plane_stride(frame, plane));
  }
  CVPixelBufferRef buffer = nullptr;
  const CVReturn status = CVPixelBufferCreateWithPlanarBytes(
      kCFAllocatorDefault, static_cast<size_t>(otc_video_frame_get_width(frame)),
      static_cast<size_t>(otc_video_frame_get_height(frame)), kCVPixelFormatType_420YpCbCr8Planar, nullptr, 0,
      kPlanes, addresses, widths, heights, strides, nullptr, nullptr, nullptr, &buffer);
  if (status != kCVReturnSuccess) {
    logMessageToApp("CVPixelBufferCreateWithPlanarBytes: %d %s", status, "(null)");
  }
  return Ref<CVPixelBufferRef>::adopt(buffer);
}

}  // namespace

void on_render_frame(otc_subscriber* subscriber, void* userData, const otc_video_frame* frame) {
  const int format = otc_video_frame_get_format(frame);
  if (format != OTC_VIDEO_FRAME_FORMAT_YUV420P) {
    logMessageToApp("on_render_frame %d which we don't deal with.", format);
    return;
  }
  // A frame that cannot be wrapped goes on as none, and the guest rings.
  const auto buffer = wrapPlanes(frame);
  const auto* info = static_cast<const SubscriberInfo*>(userData);
  if (!subscriber || !info) return;
  sharedGuestSession.load(std::memory_order_acquire)
      ->pixelBufferReceived(buffer.get(), info->name, info->subid, subscriber, nullptr, info->type,
                            otc_video_frame_get_timestamp(frame));
}

void ZarvoGuestSession::pixelBufferReceived(CVPixelBufferRef buffer, const std::string& forName,
                                            const std::string& andID, otc_subscriber* subscriber,
                                            const otc_connection* connection, int type, int64_t timestamp) {
  auto stream = streamManager(andID);
  if (!stream) {
    // The SDK unsubscribes in the background, and frames may come after their guest's removal. A record made
    // of them would never be removed, and the session would never end.
    if (isRemoved(andID)) return;
    stream = std::make_shared<ZarvoGuestSessionStream>(forName, andID, subscriber, connection);
    stream->setDelegate(delegate());
    stream->setGuestSession(this);
    stream->setIsScreenShare(type == OTC_STREAM_VIDEO_TYPE_SCREEN);
    std::lock_guard guard(streamLock);
    streamManagers[andID] = stream;
  }
  if (buffer) {
    stream->pixelBufferReceived(buffer, timestamp);
  } else {
    stream->ring();
  }
}

void ZarvoGuestSessionStream::pixelBufferReceived(CVPixelBufferRef source, int64_t timestamp) {
  if (!mPixelTransfer) VTPixelTransferSessionCreate(kCFAllocatorDefault, &mPixelTransfer);
  auto destination = Ref<CVPixelBufferRef>::adopt(pixelBufferManager->pixelBufferFromPoolWithWidth(
      static_cast<int32_t>(CVPixelBufferGetWidth(source)),
      static_cast<int32_t>(CVPixelBufferGetHeight(source)), kCVPixelFormatType_420YpCbCr8BiPlanarVideoRange,
      false));
  if (!destination) {
    logMessageToApp("pixelBufferFromPoolWithWidth 4 fails");
    return;
  }
  if (VTPixelTransferSessionTransferImage(mPixelTransfer, source, destination.get()) != 0) {
    logMessageToApp("VTPixelTransferSessionTransferImage  4 fails");
    return;
  }
  GuestSessionDelegate* receiver = delegate();
  if (!receiver) return;
  receiver->pixelBufferReceived(destination.leak(), name, theID, static_cast<uint64_t>(timestamp));
}
