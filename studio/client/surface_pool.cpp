#include "studio/surface_pool.h"

#include <algorithm>
#include <memory>

namespace studio {

namespace {

using Number = std::unique_ptr<std::remove_pointer_t<CFNumberRef>, decltype(&CFRelease)>;

void set(CFMutableDictionaryRef properties, CFStringRef key, std::size_t value) {
  const auto integer = static_cast<std::int64_t>(value);
  const Number number(CFNumberCreate(kCFAllocatorDefault, kCFNumberSInt64Type, &integer), CFRelease);
  CFDictionarySetValue(properties, key, number.get());
}

Surface makeSurface(std::size_t width, std::size_t height) {
  const std::unique_ptr<std::remove_pointer_t<CFMutableDictionaryRef>, decltype(&CFRelease)> properties(
      CFDictionaryCreateMutable(kCFAllocatorDefault, 0, &kCFTypeDictionaryKeyCallBacks,
                                &kCFTypeDictionaryValueCallBacks),
      CFRelease);
  set(properties.get(), kIOSurfaceWidth, width);
  set(properties.get(), kIOSurfaceHeight, height);
  set(properties.get(), kIOSurfaceBytesPerElement, 4);
  set(properties.get(), kIOSurfacePixelFormat, 0x42475241);  // 'BGRA'
  return Surface(IOSurfaceCreate(properties.get()));
}

}  // namespace

IOSurfaceRef SurfacePool::take(std::size_t width, std::size_t height) {
  if (width != width_ || height != height_) {
    surfaces_.clear();
    width_ = width;
    height_ = height;
  }
  const auto free = std::find_if(surfaces_.begin(), surfaces_.end(),
                                 [](const Surface& surface) { return !IOSurfaceIsInUse(surface.get()); });
  if (free != surfaces_.end()) return free->get();
  if (surfaces_.size() == limit_) return nullptr;
  Surface made = makeSurface(width, height);
  if (!made) return nullptr;
  return surfaces_.emplace_back(std::move(made)).get();
}

}  // namespace studio
