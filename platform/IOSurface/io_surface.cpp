#include "IOSurface/IOSurface.h"

#include <CoreVideo/CoreVideo.h>
#include <unistd.h>

#include "IOSurface/surface.h"

const CFStringRef kIOSurfaceWidth = CFSTR("IOSurfaceWidth");
const CFStringRef kIOSurfaceHeight = CFSTR("IOSurfaceHeight");
const CFStringRef kIOSurfacePixelFormat = CFSTR("IOSurfacePixelFormat");
const CFStringRef kIOSurfaceBytesPerElement = CFSTR("IOSurfaceBytesPerElement");
const CFStringRef kIOSurfaceIsGlobal = CFSTR("IOSurfaceIsGlobal");

namespace platform {

IOSurfaceRef createSurface(OSType format, size_t width, size_t height) {
  const auto layout = PictureLayout::make(format, width, height, SurfaceMemory::headerSize);
  if (!layout) return nullptr;
  auto memory = SurfaceMemory::create(layout->end());
  return memory != nullptr ? new __IOSurface(*layout, std::move(memory)) : nullptr;
}

}  // namespace platform

namespace {

// The number under a key, `otherwise` if there is none, and 0 for anything that is no number above 0.
size_t positive(CFDictionaryRef properties, CFStringRef key, int64_t otherwise) {
  const void* const value = CFDictionaryGetValue(properties, key);
  if (value == nullptr) return static_cast<size_t>(otherwise);
  int64_t number = 0;
  if (CFGetTypeID(value) != CFNumberGetTypeID() ||
      !CFNumberGetValue(static_cast<CFNumberRef>(value), kCFNumberSInt64Type, &number)) {
    return 0;
  }
  return number > 0 ? static_cast<size_t>(number) : 0;
}

const platform::PlaneLayout* publicPlane(IOSurfaceRef surface, size_t index) {
  return index < IOSurfaceGetPlaneCount(surface) ? &surface->layout.planes[index] : nullptr;
}

}  // namespace

IOSurfaceRef IOSurfaceCreate(CFDictionaryRef properties) {
  const size_t format = positive(properties, kIOSurfacePixelFormat, kCVPixelFormatType_32BGRA);
  const size_t bytesPerElement = positive(properties, kIOSurfaceBytesPerElement, 4);
  if (format > UINT32_MAX || (format == kCVPixelFormatType_32BGRA && bytesPerElement != 4)) return nullptr;
  return platform::createSurface(static_cast<OSType>(format), positive(properties, kIOSurfaceWidth, 0),
                                 positive(properties, kIOSurfaceHeight, 0));
}

IOSurfaceID IOSurfaceGetID(IOSurfaceRef surface) {
  return static_cast<IOSurfaceID>(surface->memory->identity().inode);
}

size_t IOSurfaceGetWidth(IOSurfaceRef surface) {
  return surface->layout.width;
}
size_t IOSurfaceGetHeight(IOSurfaceRef surface) {
  return surface->layout.height;
}
OSType IOSurfaceGetPixelFormat(IOSurfaceRef surface) {
  return surface->layout.format;
}
size_t IOSurfaceGetAllocSize(IOSurfaceRef surface) {
  return surface->memory->size();
}
size_t IOSurfaceGetBytesPerRow(IOSurfaceRef surface) {
  return surface->layout.planes[0].bytesPerRow;
}
void* IOSurfaceGetBaseAddress(IOSurfaceRef surface) {
  return surface->plane(0);
}

size_t IOSurfaceGetPlaneCount(IOSurfaceRef surface) {
  return surface->layout.isPlanar() ? surface->layout.planeCount : 0;
}

size_t IOSurfaceGetWidthOfPlane(IOSurfaceRef surface, size_t plane) {
  const auto* const layout = publicPlane(surface, plane);
  return layout != nullptr ? layout->width : 0;
}

size_t IOSurfaceGetHeightOfPlane(IOSurfaceRef surface, size_t plane) {
  const auto* const layout = publicPlane(surface, plane);
  return layout != nullptr ? layout->height : 0;
}

size_t IOSurfaceGetBytesPerRowOfPlane(IOSurfaceRef surface, size_t plane) {
  const auto* const layout = publicPlane(surface, plane);
  return layout != nullptr ? layout->bytesPerRow : 0;
}

void* IOSurfaceGetBaseAddressOfPlane(IOSurfaceRef surface, size_t plane) {
  return publicPlane(surface, plane) != nullptr ? surface->plane(plane) : nullptr;
}

kern_return_t IOSurfaceLock(IOSurfaceRef, IOSurfaceLockOptions, uint32_t*) {
  return 0;
}
kern_return_t IOSurfaceUnlock(IOSurfaceRef, IOSurfaceLockOptions, uint32_t*) {
  return 0;
}

void IOSurfaceIncrementUseCount(IOSurfaceRef surface) {
  surface->memory->beginUse();
}
void IOSurfaceDecrementUseCount(IOSurfaceRef surface) {
  surface->memory->endUse();
}
int32_t IOSurfaceGetUseCount(IOSurfaceRef surface) {
  return surface->memory->useCount();
}

Boolean IOSurfaceIsInUse(IOSurfaceRef surface) {
  return surface->memory->useCount() != 0 || surface->memory->isUsedElsewhere();
}
