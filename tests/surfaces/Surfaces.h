// What the surface tests share.
#pragma once

#include <CoreVideo/CoreVideo.h>
#include <IOSurface/IOSurface.h>

#include <cstdint>
#include <fstream>
#include <map>
#include <string>

// A dictionary of numbers, in one line; the caller releases it.
inline CFMutableDictionaryRef createNumbers(const std::map<CFStringRef, int64_t>& values) {
  const CFMutableDictionaryRef dictionary = CFDictionaryCreateMutable(
      kCFAllocatorDefault, 0, &kCFTypeDictionaryKeyCallBacks, &kCFTypeDictionaryValueCallBacks);
  for (const auto& [key, value] : values) {
    const CFNumberRef number = CFNumberCreate(kCFAllocatorDefault, kCFNumberSInt64Type, &value);
    CFDictionarySetValue(dictionary, key, number);
    CFRelease(number);
  }
  return dictionary;
}

inline IOSurfaceRef createSurface(OSType format, int64_t width, int64_t height) {
  const CFMutableDictionaryRef properties = createNumbers(
      {{kIOSurfaceWidth, width}, {kIOSurfaceHeight, height}, {kIOSurfacePixelFormat, int64_t{format}}});
  const IOSurfaceRef surface = IOSurfaceCreate(properties);
  CFRelease(properties);
  return surface;
}

inline CVPixelBufferPoolRef createPool(OSType format, int64_t width, int64_t height) {
  const CFMutableDictionaryRef attributes =
      createNumbers({{kCVPixelBufferPixelFormatTypeKey, int64_t{format}},
                     {kCVPixelBufferWidthKey, width},
                     {kCVPixelBufferHeightKey, height}});
  CVPixelBufferPoolRef pool = nullptr;
  CVPixelBufferPoolCreate(kCFAllocatorDefault, nullptr, attributes, &pool);
  CFRelease(attributes);
  return pool;
}

// The surfaces that this process has mapped.
inline size_t mappedSurfaces() {
  std::ifstream maps("/proc/self/maps");
  size_t count = 0;
  for (std::string line; std::getline(maps, line);) {
    if (line.find("/memfd:") != std::string::npos) ++count;
  }
  return count;
}
