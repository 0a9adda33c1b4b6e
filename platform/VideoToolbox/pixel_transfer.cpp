#include <CoreFoundation/cf_runtime.h>
#include <VideoToolbox/VideoToolbox.h>
#include <libyuv.h>

#include "CoreVideo/pixel_buffer.h"

struct OpaqueVTPixelTransferSession final : platform::CFObject {
  CFTypeID typeId() const override { return platform::typeIdOf<OpaqueVTPixelTransferSession>(); }
};

namespace {

int stride(CVPixelBufferRef buffer, size_t plane) {
  return static_cast<int>(buffer->layout.planes[plane].bytesPerRow);
}

void copy(CVPixelBufferRef source, CVPixelBufferRef destination) {
  for (size_t index = 0; index < source->layout.planeCount; ++index) {
    const platform::PlaneLayout& plane = source->layout.planes[index];
    libyuv::CopyPlane(source->addresses[index], stride(source, index), destination->addresses[index],
                      stride(destination, index), static_cast<int>(plane.width * plane.bytesPerElement),
                      static_cast<int>(plane.height));
  }
}

void interleaveChroma(CVPixelBufferRef source, CVPixelBufferRef destination) {
  libyuv::I420ToNV12(source->addresses[0], stride(source, 0), source->addresses[1], stride(source, 1),
                     source->addresses[2], stride(source, 2), destination->addresses[0],
                     stride(destination, 0), destination->addresses[1], stride(destination, 1),
                     static_cast<int>(source->layout.width), static_cast<int>(source->layout.height));
}

}  // namespace

OSStatus VTPixelTransferSessionCreate(CFAllocatorRef, VTPixelTransferSessionRef* sessionOut) {
  if (sessionOut == nullptr) return kVTParameterErr;
  *sessionOut = new OpaqueVTPixelTransferSession;
  return noErr;
}

OSStatus VTPixelTransferSessionTransferImage(VTPixelTransferSessionRef session, CVPixelBufferRef source,
                                             CVPixelBufferRef destination) {
  if (session == nullptr || source == nullptr || destination == nullptr) return kVTParameterErr;
  const platform::PictureLayout& from = source->layout;
  const platform::PictureLayout& to = destination->layout;
  if (from.width != to.width || from.height != to.height) return kVTPixelTransferNotSupportedErr;
  if (from.format == to.format) {
    copy(source, destination);
  } else if (from.format == kCVPixelFormatType_420YpCbCr8Planar &&
             to.format == kCVPixelFormatType_420YpCbCr8BiPlanarVideoRange) {
    interleaveChroma(source, destination);
  } else {
    return kVTPixelTransferNotSupportedErr;
  }
  return noErr;
}
