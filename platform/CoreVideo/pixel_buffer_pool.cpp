#include <CoreFoundation/cf_runtime.h>
#include <CoreVideo/CoreVideo.h>

#include <algorithm>
#include <chrono>
#include <iterator>
#include <mutex>
#include <optional>
#include <vector>

#include "CoreVideo/pixel_buffer.h"
#include "IOSurface/surface.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t maxSurfaces = 64;
// As many as go round on a busy machine: one that is filled and two that await an answer. To free them and
// make them again would cost more page faults than all the frames between.
constexpr size_t keptSurfaces = 3;
constexpr Clock::duration maxIdle = std::chrono::seconds(1);

}  // namespace

// The pool keeps surfaces and makes a small pixel buffer around one for each request: a buffer then needs
// no way back, and outlives its pool. A surface is free when the pool's reference is the only one and no
// process uses it.
struct __CVPixelBufferPool final : platform::CFObject {
  __CVPixelBufferPool(OSType theFormat, size_t theWidth, size_t theHeight)
      : format_(theFormat), width_(theWidth), height_(theHeight) {}
  ~__CVPixelBufferPool() override {
    for (const Entry& entry : entries_) CFRelease(entry.surface);
  }

  CFTypeID typeId() const override { return platform::typeIdOf<__CVPixelBufferPool>(); }

  CVPixelBufferRef makeBuffer() {
    IOSurfaceRef expired = nullptr;
    CVPixelBufferRef buffer = nullptr;
    {
      const std::lock_guard guard(mutex_);
      const Clock::time_point now = Clock::now();
      if (const IOSurfaceRef surface = take(now)) buffer = new __CVBuffer(surface->layout, surface);
      expired = expire(now);
    }
    if (expired != nullptr) CFRelease(expired);
    return buffer;
  }

 private:
  struct Entry {
    IOSurfaceRef surface;
    Clock::time_point taken;
  };

  static bool isFree(const Entry& entry) {
    return CFGetRetainCount(entry.surface) == 1 && IOSurfaceIsInUse(entry.surface) == 0;
  }

  // The free surface that was taken last, since its pixels are the likeliest to be in a cache; it moves to
  // the end, so that what is not needed any more gathers at the beginning.
  IOSurfaceRef take(Clock::time_point now) {
    const auto free = std::find_if(entries_.rbegin(), entries_.rend(), isFree);
    if (free != entries_.rend()) {
      free->taken = now;
      std::rotate(std::prev(free.base()), free.base(), entries_.end());
    } else {
      if (entries_.size() >= maxSurfaces) return nullptr;
      const IOSurfaceRef made = platform::createSurface(format_, width_, height_);
      if (made == nullptr) return nullptr;
      entries_.push_back({made, now});
    }
    return entries_.back().surface;
  }

  // Takes out the surface that was taken first if it has lain idle for too long: one a call is enough to
  // shrink faster than the pool can grow.
  IOSurfaceRef expire(Clock::time_point now) {
    if (entries_.size() <= keptSurfaces || now - entries_.front().taken < maxIdle ||
        !isFree(entries_.front())) {
      return nullptr;
    }
    const IOSurfaceRef surface = entries_.front().surface;
    entries_.erase(entries_.begin());
    return surface;
  }

  const OSType format_;
  const size_t width_;
  const size_t height_;
  std::mutex mutex_;
  std::vector<Entry> entries_;  // by the time they were taken, the latest at the end
};

namespace {

std::optional<size_t> number(CFDictionaryRef attributes, CFStringRef key) {
  const void* const value = CFDictionaryGetValue(attributes, key);
  int64_t number = 0;
  if (value == nullptr || CFGetTypeID(value) != CFNumberGetTypeID() ||
      !CFNumberGetValue(static_cast<CFNumberRef>(value), kCFNumberSInt64Type, &number) || number < 0) {
    return std::nullopt;
  }
  return static_cast<size_t>(number);
}

}  // namespace

CVReturn CVPixelBufferPoolCreate(CFAllocatorRef, CFDictionaryRef, CFDictionaryRef pixelBufferAttributes,
                                 CVPixelBufferPoolRef* poolOut) {
  if (poolOut == nullptr) return kCVReturnInvalidArgument;
  *poolOut = nullptr;
  if (pixelBufferAttributes == nullptr) return kCVReturnInvalidPixelBufferAttributes;
  const auto format = number(pixelBufferAttributes, kCVPixelBufferPixelFormatTypeKey);
  const auto width = number(pixelBufferAttributes, kCVPixelBufferWidthKey);
  const auto height = number(pixelBufferAttributes, kCVPixelBufferHeightKey);
  if (!format || *format > UINT32_MAX || !width || !height) return kCVReturnInvalidPixelBufferAttributes;
  const auto code = static_cast<OSType>(*format);
  if (!platform::PictureLayout::make(code, 1, 1, 0)) return kCVReturnInvalidPixelFormat;
  if (!platform::PictureLayout::make(code, *width, *height, 0)) return kCVReturnInvalidSize;
  *poolOut = new __CVPixelBufferPool(code, *width, *height);
  return kCVReturnSuccess;
}

CVReturn CVPixelBufferPoolCreatePixelBuffer(CFAllocatorRef, CVPixelBufferPoolRef pool,
                                            CVPixelBufferRef* pixelBufferOut) {
  if (pixelBufferOut == nullptr) return kCVReturnInvalidArgument;
  *pixelBufferOut = nullptr;
  if (pool == nullptr) return kCVReturnInvalidArgument;
  *pixelBufferOut = pool->makeBuffer();
  return *pixelBufferOut != nullptr ? kCVReturnSuccess : kCVReturnPoolAllocationFailed;
}
