#include "CoreVideo/pixel_buffer.h"

#include <IOSurface/surface.h>

#include <new>
#include <utility>

const CFStringRef kCVPixelBufferPixelFormatTypeKey = CFSTR("PixelFormatType");
const CFStringRef kCVPixelBufferWidthKey = CFSTR("Width");
const CFStringRef kCVPixelBufferHeightKey = CFSTR("Height");
const CFStringRef kCVPixelBufferIOSurfacePropertiesKey = CFSTR("IOSurfaceProperties");
const CFStringRef kCVPixelBufferIOSurfaceOpenGLTextureCompatibilityKey =
    CFSTR("IOSurfaceOpenGLTextureCompatibility");
const CFStringRef kCVPixelBufferIOSurfaceOpenGLFBOCompatibilityKey = CFSTR("IOSurfaceOpenGLFBOCompatibility");

using platform::PictureLayout;
using platform::PlaneLayout;

namespace {

std::array<uint8_t*, 3> addressesWithin(uint8_t* memory, const PictureLayout& layout) {
  std::array<uint8_t*, 3> addresses{};
  for (size_t plane = 0; plane < layout.planeCount; ++plane) {
    addresses[plane] = memory + layout.planes[plane].offset;
  }
  return addresses;
}

// Why no layout could be made.
CVReturn refusal(OSType format) {
  return PictureLayout::make(format, 1, 1, 0) ? kCVReturnInvalidSize : kCVReturnInvalidPixelFormat;
}

const PlaneLayout* publicPlane(CVPixelBufferRef buffer, size_t index) {
  return index < CVPixelBufferGetPlaneCount(buffer) ? &buffer->layout.planes[index] : nullptr;
}

}  // namespace

__CVBuffer::__CVBuffer(const PictureLayout& theLayout, IOSurfaceRef theSurface)
    : layout(theLayout),
      addresses(addressesWithin(theSurface->memory->bytes(), theLayout)),
      surface(theSurface) {
  CFRetain(theSurface);
  IOSurfaceIncrementUseCount(surface);
}

__CVBuffer::__CVBuffer(const PictureLayout& theLayout, std::unique_ptr<uint8_t[]> theBytes)
    : layout(theLayout), addresses(addressesWithin(theBytes.get(), theLayout)), bytes_(std::move(theBytes)) {}

__CVBuffer::__CVBuffer(const PictureLayout& theLayout, const std::array<uint8_t*, 3>& theAddresses,
                       const Wrapped& theWrapped)
    : layout(theLayout), addresses(theAddresses), wrapped_(theWrapped) {}

__CVBuffer::~__CVBuffer() {
  if (surface != nullptr) {
    IOSurfaceDecrementUseCount(surface);
    CFRelease(surface);
  }
  if (wrapped_.release != nullptr) {
    std::array<const void*, 3> planes{addresses[0], addresses[1], addresses[2]};
    wrapped_.release(wrapped_.context, wrapped_.data, wrapped_.dataSize, layout.planeCount, planes.data());
  }
}

CVReturn CVPixelBufferCreate(CFAllocatorRef, size_t width, size_t height, OSType pixelFormatType,
                             CFDictionaryRef attributes, CVPixelBufferRef* pixelBufferOut) {
  if (pixelBufferOut == nullptr) return kCVReturnInvalidArgument;
  *pixelBufferOut = nullptr;
  const auto layout = PictureLayout::make(pixelFormatType, width, height, 0);
  if (!layout) return refusal(pixelFormatType);

  if (attributes != nullptr &&
      CFDictionaryGetValue(attributes, kCVPixelBufferIOSurfacePropertiesKey) != nullptr) {
    const IOSurfaceRef surface = platform::createSurface(pixelFormatType, width, height);
    if (surface == nullptr) return kCVReturnAllocationFailed;
    *pixelBufferOut = new __CVBuffer(surface->layout, surface);
    CFRelease(surface);
    return kCVReturnSuccess;
  }
  std::unique_ptr<uint8_t[]> bytes(new (std::nothrow) uint8_t[layout->end()]());
  if (bytes == nullptr) return kCVReturnAllocationFailed;
  *pixelBufferOut = new __CVBuffer(*layout, std::move(bytes));
  return kCVReturnSuccess;
}

CVReturn CVPixelBufferCreateWithIOSurface(CFAllocatorRef, IOSurfaceRef surface, CFDictionaryRef,
                                          CVPixelBufferRef* pixelBufferOut) {
  if (pixelBufferOut == nullptr) return kCVReturnInvalidArgument;
  *pixelBufferOut = nullptr;
  if (surface == nullptr) return kCVReturnInvalidArgument;
  *pixelBufferOut = new __CVBuffer(surface->layout, surface);
  return kCVReturnSuccess;
}

CVReturn CVPixelBufferCreateWithPlanarBytes(
    CFAllocatorRef, size_t width, size_t height, OSType pixelFormatType, void* dataPtr, size_t dataSize,
    size_t numberOfPlanes, void* planeBaseAddress[], size_t planeWidth[], size_t planeHeight[],
    size_t planeBytesPerRow[], CVPixelBufferReleasePlanarBytesCallback releaseCallback, void* releaseRefCon,
    CFDictionaryRef, CVPixelBufferRef* pixelBufferOut) {
  if (pixelBufferOut == nullptr) return kCVReturnInvalidArgument;
  *pixelBufferOut = nullptr;
  auto layout = PictureLayout::make(pixelFormatType, width, height, 0);
  if (!layout) return refusal(pixelFormatType);
  if (numberOfPlanes != layout->planeCount || planeBaseAddress == nullptr || planeWidth == nullptr ||
      planeHeight == nullptr || planeBytesPerRow == nullptr) {
    return kCVReturnInvalidArgument;
  }
  std::array<uint8_t*, 3> addresses{};
  for (size_t index = 0; index < numberOfPlanes; ++index) {
    PlaneLayout& plane = layout->planes[index];
    // Rows longer than any surface's are no picture, and copying counts their bytes in an int.
    if (planeBaseAddress[index] == nullptr || planeWidth[index] != plane.width ||
        planeHeight[index] != plane.height || planeBytesPerRow[index] < plane.width * plane.bytesPerElement ||
        planeBytesPerRow[index] > INT32_MAX) {
      return kCVReturnInvalidArgument;
    }
    addresses[index] = static_cast<uint8_t*>(planeBaseAddress[index]);
    plane.bytesPerRow = planeBytesPerRow[index];
  }
  const __CVBuffer::Wrapped wrapped{releaseCallback, releaseRefCon, dataPtr, dataSize};
  *pixelBufferOut = new __CVBuffer(*layout, addresses, wrapped);
  return kCVReturnSuccess;
}

CVPixelBufferRef CVPixelBufferRetain(CVPixelBufferRef pixelBuffer) {
  if (pixelBuffer != nullptr) CFRetain(pixelBuffer);
  return pixelBuffer;
}

void CVPixelBufferRelease(CVPixelBufferRef pixelBuffer) {
  if (pixelBuffer != nullptr) CFRelease(pixelBuffer);
}

IOSurfaceRef CVPixelBufferGetIOSurface(CVPixelBufferRef pixelBuffer) {
  return pixelBuffer->surface;
}
size_t CVPixelBufferGetWidth(CVPixelBufferRef pixelBuffer) {
  return pixelBuffer->layout.width;
}
size_t CVPixelBufferGetHeight(CVPixelBufferRef pixelBuffer) {
  return pixelBuffer->layout.height;
}
OSType CVPixelBufferGetPixelFormatType(CVPixelBufferRef pixelBuffer) {
  return pixelBuffer->layout.format;
}
void* CVPixelBufferGetBaseAddress(CVPixelBufferRef pixelBuffer) {
  return pixelBuffer->addresses[0];
}

size_t CVPixelBufferGetDataSize(CVPixelBufferRef pixelBuffer) {
  size_t size = 0;
  for (const PlaneLayout& plane : pixelBuffer->layout.planes) size += plane.size();
  return size;
}

size_t CVPixelBufferGetPlaneCount(CVPixelBufferRef pixelBuffer) {
  return pixelBuffer->layout.isPlanar() ? pixelBuffer->layout.planeCount : 0;
}

void* CVPixelBufferGetBaseAddressOfPlane(CVPixelBufferRef pixelBuffer, size_t plane) {
  return publicPlane(pixelBuffer, plane) != nullptr ? pixelBuffer->addresses[plane] : nullptr;
}

size_t CVPixelBufferGetBytesPerRowOfPlane(CVPixelBufferRef pixelBuffer, size_t plane) {
  const auto* const layout = publicPlane(pixelBuffer, plane);
  return layout != nullptr ? layout->bytesPerRow : 0;
}

size_t CVPixelBufferGetWidthOfPlane(CVPixelBufferRef pixelBuffer, size_t plane) {
  const auto* const layout = publicPlane(pixelBuffer, plane);
  return layout != nullptr ? layout->width : 0;
}

CVReturn CVPixelBufferLockBaseAddress(CVPixelBufferRef pixelBuffer, CVPixelBufferLockFlags) {
  return pixelBuffer != nullptr ? kCVReturnSuccess : kCVReturnInvalidArgument;
}

CVReturn CVPixelBufferUnlockBaseAddress(CVPixelBufferRef pixelBuffer, CVPixelBufferLockFlags) {
  return pixelBuffer != nullptr ? kCVReturnSuccess : kCVReturnInvalidArgument;
}
