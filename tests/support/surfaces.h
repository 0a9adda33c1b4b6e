// Surfaces, buffers and dictionaries of numbers, in one line each.
#pragma once

#include <CoreVideo/CoreVideo.h>
#include <IOSurface/IOSurface.h>

#include <cstdint>
#include <fstream>
#include <map>
#include <string>

#include "support/ref.h"

inline Ref<CFMutableDictionaryRef> createNumbers(const std::map<CFStringRef, int64_t>& values) {
  auto dictionary = Ref<CFMutableDictionaryRef>::adopt(CFDictionaryCreateMutable(
      kCFAllocatorDefault, 0, &kCFTypeDictionaryKeyCallBacks, &kCFTypeDictionaryValueCallBacks));
  for (const auto& [key, value] : values) {
    const auto number =
        Ref<CFNumberRef>::adopt(CFNumberCreate(kCFAllocatorDefault, kCFNumberSInt64Type, &value));
    CFDictionarySetValue(dictionary.get(), key, number.get());
  }
  return dictionary;
}

inline Ref<IOSurfaceRef> createSurface(OSType format, int64_t width, int64_t height) {
  return Ref<IOSurfaceRef>::adopt(IOSurfaceCreate(
      createNumbers(
          {{kIOSurfaceWidth, width}, {kIOSurfaceHeight, height}, {kIOSurfacePixelFormat, int64_t{format}}})
          .get()));
}

inline Ref<CVPixelBufferPoolRef> createPool(OSType format, int64_t width, int64_t height) {
  CVPixelBufferPoolRef pool = nullptr;
  CVPixelBufferPoolCreate(nullptr, nullptr,
                          createNumbers({{kCVPixelBufferPixelFormatTypeKey, int64_t{format}},
                                         {kCVPixelBufferWidthKey, width},
                                         {kCVPixelBufferHeightKey, height}})
                              .get(),
                          &pool);
  return Ref<CVPixelBufferPoolRef>::adopt(pool);
}

// None when the pool refuses; `status` says why.
inline Ref<CVPixelBufferRef> takeFrom(const Ref<CVPixelBufferPoolRef>& pool, CVReturn* status = nullptr) {
  CVPixelBufferRef buffer = nullptr;
  const CVReturn answer = CVPixelBufferPoolCreatePixelBuffer(nullptr, pool.get(), &buffer);
  if (status) *status = answer;
  return Ref<CVPixelBufferRef>::adopt(buffer);
}

// The surfaces that this process has mapped.
inline std::size_t mappedSurfaces() {
  std::ifstream maps("/proc/self/maps");
  std::size_t count = 0;
  for (std::string line; std::getline(maps, line);) count += line.find("/memfd:") != std::string::npos;
  return count;
}
