// Pixel buffers, their pools, and pixel transfer against a plain reference.
#include "Surfaces.h"

#include <VideoToolbox/VideoToolbox.h>
#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <random>
#include <thread>
#include <vector>

namespace {

constexpr OSType bgra = kCVPixelFormatType_32BGRA;
constexpr OSType planar = kCVPixelFormatType_420YpCbCr8Planar;
constexpr OSType biplanar = kCVPixelFormatType_420YpCbCr8BiPlanarVideoRange;

// Planes of somebody else's, of random content, with some bytes between the rows.
struct Picture {
  Picture(size_t theWidth, size_t theHeight) : width(theWidth), height(theHeight) {
    static std::minstd_rand random;
    widths = {width, (width + 1) / 2, (width + 1) / 2};
    heights = {height, (height + 1) / 2, (height + 1) / 2};
    for (size_t plane = 0; plane < 3; ++plane) {
      strides[plane] = widths[plane] + 5;
      bytes[plane].resize(strides[plane] * heights[plane]);
      for (uint8_t& byte : bytes[plane]) byte = static_cast<uint8_t>(random());
      addresses[plane] = bytes[plane].data();
    }
  }

  CVReturn wrap(CVPixelBufferRef* out, OSType format = planar, size_t planes = 3) {
    return CVPixelBufferCreateWithPlanarBytes(
        nullptr, width, height, format, nullptr, 0, planes, addresses.data(), widths.data(), heights.data(),
        strides.data(),
        [](void* context, const void*, size_t, size_t, const void*[]) { ++*static_cast<int*>(context); },
        &released, nullptr, out);
  }

  uint8_t at(size_t plane, size_t x, size_t y) const { return bytes[plane][y * strides[plane] + x]; }

  size_t width, height;
  std::array<size_t, 3> widths, heights, strides;
  std::array<std::vector<uint8_t>, 3> bytes;
  std::array<void*, 3> addresses;
  int released = 0;
};

uint8_t at(CVPixelBufferRef buffer, size_t plane, size_t x, size_t y) {
  return static_cast<const uint8_t*>(CVPixelBufferGetBaseAddressOfPlane(
      buffer, plane))[y * CVPixelBufferGetBytesPerRowOfPlane(buffer, plane) + x];
}

CVPixelBufferRef createBuffer(OSType format, size_t width, size_t height) {
  CVPixelBufferRef buffer = nullptr;
  EXPECT_EQ(kCVReturnSuccess, CVPixelBufferCreate(nullptr, width, height, format, nullptr, &buffer));
  return buffer;
}

TEST(PixelBuffer, WrapsPlanesWithoutACopyAndTellsWhenItLetsGo) {
  Picture picture(7, 5);
  CVPixelBufferRef buffer = nullptr;
  ASSERT_EQ(kCVReturnSuccess, picture.wrap(&buffer));
  EXPECT_TRUE(CVPixelBufferIsPlanar(buffer));
  EXPECT_EQ(nullptr, CVPixelBufferGetIOSurface(buffer));
  EXPECT_EQ(picture.addresses[2], CVPixelBufferGetBaseAddressOfPlane(buffer, 2));
  EXPECT_EQ(nullptr, CVPixelBufferGetBaseAddressOfPlane(buffer, 3));
  EXPECT_EQ(4U, CVPixelBufferGetWidthOfPlane(buffer, 1));
  CVPixelBufferRetain(buffer);
  CVPixelBufferRelease(buffer);
  EXPECT_EQ(0, picture.released);
  CVPixelBufferRelease(buffer);
  EXPECT_EQ(1, picture.released);
}

TEST(PixelBuffer, RefusesPlanesThatDoNotMakeThePicture) {
  const auto status = [](auto spoil) {
    Picture picture(8, 6);
    spoil(picture);
    CVPixelBufferRef buffer = nullptr;
    const CVReturn answer = picture.wrap(&buffer);
    EXPECT_EQ(nullptr, buffer);
    return answer;
  };
  EXPECT_EQ(kCVReturnInvalidSize, status([](Picture& picture) { picture.width = 0; }));
  EXPECT_EQ(kCVReturnInvalidSize, status([](Picture& picture) { picture.height = SIZE_MAX; }));
  EXPECT_EQ(kCVReturnInvalidArgument, status([](Picture& picture) { picture.addresses[1] = nullptr; }));
  EXPECT_EQ(kCVReturnInvalidArgument, status([](Picture& picture) { picture.strides[0] = 7; }));
  EXPECT_EQ(kCVReturnInvalidArgument, status([](Picture& picture) { picture.strides[2] = SIZE_MAX - 3; }));
  EXPECT_EQ(kCVReturnInvalidArgument, status([](Picture& picture) { picture.heights[1] = 2; }));
  EXPECT_EQ(kCVReturnInvalidArgument, status([](Picture& picture) { picture.widths[2] = 5; }));

  Picture picture(8, 6);
  CVPixelBufferRef buffer = nullptr;
  EXPECT_EQ(kCVReturnInvalidArgument, picture.wrap(&buffer, planar, 2));
  EXPECT_EQ(kCVReturnInvalidPixelFormat, picture.wrap(&buffer, 0x20202020));
  EXPECT_EQ(0, picture.released);
}

TEST(PixelBuffer, CountsAsAUseOfItsSurface) {
  const IOSurfaceRef surface = createSurface(bgra, 1024, 576);
  CVPixelBufferRef buffer = nullptr;
  ASSERT_EQ(kCVReturnSuccess, CVPixelBufferCreateWithIOSurface(nullptr, surface, nullptr, &buffer));
  EXPECT_EQ(1, IOSurfaceGetUseCount(surface));
  EXPECT_EQ(IOSurfaceGetBaseAddress(surface), CVPixelBufferGetBaseAddress(buffer));
  EXPECT_EQ(1024U * 576 * 4, CVPixelBufferGetDataSize(buffer));
  EXPECT_FALSE(CVPixelBufferIsPlanar(buffer));
  EXPECT_EQ(0U, CVPixelBufferGetPlaneCount(buffer));
  EXPECT_EQ(nullptr, CVPixelBufferGetBaseAddressOfPlane(buffer, 0));
  CVPixelBufferRelease(buffer);
  EXPECT_FALSE(IOSurfaceIsInUse(surface));
  CFRelease(surface);
  EXPECT_EQ(kCVReturnInvalidArgument, CVPixelBufferCreateWithIOSurface(nullptr, nullptr, nullptr, &buffer));
}

TEST(PixelBuffer, HasASurfaceWhenAskedForOne) {
  const CFMutableDictionaryRef attributes = createNumbers({});
  const CFMutableDictionaryRef surfaceProperties = createNumbers({});
  CFDictionarySetValue(attributes, kCVPixelBufferIOSurfacePropertiesKey, surfaceProperties);
  CFRelease(surfaceProperties);
  CVPixelBufferRef buffer = nullptr;
  EXPECT_EQ(kCVReturnSuccess, CVPixelBufferCreate(nullptr, 3, 3, biplanar, attributes, &buffer));
  CFRelease(attributes);
  ASSERT_NE(nullptr, CVPixelBufferGetIOSurface(buffer));
  EXPECT_EQ(1, IOSurfaceGetUseCount(CVPixelBufferGetIOSurface(buffer)));
  CVPixelBufferRelease(buffer);
  EXPECT_EQ(kCVReturnInvalidSize, CVPixelBufferCreate(nullptr, 0, 3, biplanar, nullptr, &buffer));
  EXPECT_EQ(kCVReturnInvalidPixelFormat, CVPixelBufferCreate(nullptr, 3, 3, 1, nullptr, &buffer));
}

struct Pool {
  explicit Pool(size_t width = 320, size_t height = 180)
      : ref(createPool(biplanar, static_cast<int64_t>(width), static_cast<int64_t>(height))) {}
  ~Pool() { CVPixelBufferPoolRelease(ref); }
  CVPixelBufferRef take() const {
    CVPixelBufferRef buffer = nullptr;
    last = CVPixelBufferPoolCreatePixelBuffer(nullptr, ref, &buffer);
    return buffer;
  }
  const CVPixelBufferPoolRef ref;
  mutable CVReturn last = 0;
};

TEST(PixelBufferPool, HandsOutWhatNobodyHoldsAndNothingElse) {
  const Pool pool;
  CVPixelBufferRef first = pool.take();
  CVPixelBufferRef second = pool.take();
  const IOSurfaceRef firstSurface = CVPixelBufferGetIOSurface(first);
  EXPECT_NE(firstSurface, CVPixelBufferGetIOSurface(second));

  CVPixelBufferRelease(first);
  first = pool.take();
  EXPECT_EQ(firstSurface, CVPixelBufferGetIOSurface(first));

  CFRetain(firstSurface);  // nobody has the buffer, yet somebody holds the surface
  CVPixelBufferRelease(first);
  first = pool.take();
  EXPECT_NE(firstSurface, CVPixelBufferGetIOSurface(first));
  CFRelease(firstSurface);
  CVPixelBufferRelease(first);
  CVPixelBufferRelease(second);
}

TEST(PixelBufferPool, EndsAtItsLimitAndBeforeItsBuffers) {
  std::vector<CVPixelBufferRef> buffers;
  {
    const Pool pool(16, 16);
    while (const CVPixelBufferRef buffer = pool.take()) buffers.push_back(buffer);
    EXPECT_EQ(kCVReturnPoolAllocationFailed, pool.last);
    EXPECT_EQ(64U, buffers.size());
  }
  for (CVPixelBufferRef buffer : buffers) {
    *static_cast<uint8_t*>(CVPixelBufferGetBaseAddress(buffer)) = 1;
    CVPixelBufferRelease(buffer);
  }
}

TEST(PixelBufferPool, ShrinksAgain) {
  const Pool pool(16, 16);
  const size_t before = mappedSurfaces();
  std::array<CVPixelBufferRef, 5> buffers{};
  for (CVPixelBufferRef& buffer : buffers) buffer = pool.take();
  for (CVPixelBufferRef buffer : buffers) CVPixelBufferRelease(buffer);
  EXPECT_EQ(before + 5, mappedSurfaces());

  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (mappedSurfaces() > before + 3 && std::chrono::steady_clock::now() < deadline) {
    CVPixelBufferRelease(pool.take());
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  EXPECT_EQ(before + 3, mappedSurfaces());
}

TEST(PixelBufferPool, RefusesAttributesThatMakeNoBuffer) {
  CVPixelBufferPoolRef pool = nullptr;
  const auto status = [&](const std::map<CFStringRef, int64_t>& values) {
    const CFMutableDictionaryRef attributes = createNumbers(values);
    const CVReturn answer = CVPixelBufferPoolCreate(nullptr, nullptr, attributes, &pool);
    CFRelease(attributes);
    EXPECT_EQ(nullptr, pool);
    return answer;
  };
  EXPECT_EQ(kCVReturnInvalidPixelBufferAttributes, CVPixelBufferPoolCreate(nullptr, nullptr, nullptr, &pool));
  EXPECT_EQ(kCVReturnInvalidPixelBufferAttributes,
            status({{kCVPixelBufferWidthKey, 8}, {kCVPixelBufferHeightKey, 8}}));
  EXPECT_EQ(kCVReturnInvalidPixelFormat, status({{kCVPixelBufferPixelFormatTypeKey, 0x20202020},
                                                 {kCVPixelBufferWidthKey, 8},
                                                 {kCVPixelBufferHeightKey, 8}}));
  EXPECT_EQ(kCVReturnInvalidSize, status({{kCVPixelBufferPixelFormatTypeKey, biplanar},
                                          {kCVPixelBufferWidthKey, 0},
                                          {kCVPixelBufferHeightKey, 8}}));
  CVPixelBufferRef buffer = nullptr;
  EXPECT_EQ(kCVReturnInvalidArgument, CVPixelBufferPoolCreatePixelBuffer(nullptr, nullptr, &buffer));
}

TEST(PixelTransfer, InterleavesChromaAsAPlainLoopDoes) {
  VTPixelTransferSessionRef session = nullptr;
  ASSERT_EQ(noErr, VTPixelTransferSessionCreate(nullptr, &session));
  for (const auto& [width, height] : std::vector<std::pair<size_t, size_t>>{
           {1, 1}, {2, 2}, {1, 9}, {9, 1}, {17, 33}, {63, 64}, {65, 31}, {641, 359}, {1280, 720}}) {
    Picture picture(width, height);
    CVPixelBufferRef source = nullptr;
    ASSERT_EQ(kCVReturnSuccess, picture.wrap(&source));
    const CVPixelBufferRef destination = createBuffer(biplanar, width, height);
    ASSERT_EQ(noErr, VTPixelTransferSessionTransferImage(session, source, destination));
    size_t wrong = 0;
    for (size_t y = 0; y < height; ++y) {
      for (size_t x = 0; x < width; ++x) {
        wrong += at(destination, 0, x, y) != picture.at(0, x, y) ? 1 : 0;
        wrong += at(destination, 1, x / 2 * 2, y / 2) != picture.at(1, x / 2, y / 2) ? 1 : 0;
        wrong += at(destination, 1, x / 2 * 2 + 1, y / 2) != picture.at(2, x / 2, y / 2) ? 1 : 0;
      }
    }
    EXPECT_EQ(0U, wrong) << width << " x " << height;
    CVPixelBufferRelease(source);
    CVPixelBufferRelease(destination);
  }
  CFRelease(session);
}

TEST(PixelTransfer, CopiesWithinAFormatAndRefusesTheRest) {
  VTPixelTransferSessionRef session = nullptr;
  ASSERT_EQ(noErr, VTPixelTransferSessionCreate(nullptr, &session));
  Picture picture(33, 17);
  CVPixelBufferRef source = nullptr;
  ASSERT_EQ(kCVReturnSuccess, picture.wrap(&source));
  const CVPixelBufferRef copy = createBuffer(planar, 33, 17);
  ASSERT_EQ(noErr, VTPixelTransferSessionTransferImage(session, source, copy));
  for (size_t plane = 0; plane < 3; ++plane) {
    EXPECT_EQ(picture.at(plane, picture.widths[plane] - 1, picture.heights[plane] - 1),
              at(copy, plane, picture.widths[plane] - 1, picture.heights[plane] - 1));
  }
  const auto status = [&](OSType format, size_t width, size_t height) {
    const CVPixelBufferRef destination = createBuffer(format, width, height);
    const OSStatus answer = VTPixelTransferSessionTransferImage(session, source, destination);
    CVPixelBufferRelease(destination);
    return answer;
  };
  EXPECT_EQ(kVTPixelTransferNotSupportedErr, status(bgra, 33, 17));
  EXPECT_EQ(kVTPixelTransferNotSupportedErr, status(biplanar, 34, 17));
  EXPECT_EQ(kVTParameterErr, VTPixelTransferSessionTransferImage(session, source, nullptr));
  VTPixelTransferSessionInvalidate(session);
  EXPECT_EQ(kVTInvalidSessionErr, status(biplanar, 33, 17));
  CVPixelBufferRelease(copy);
  CVPixelBufferRelease(source);
  CFRelease(session);
}

}  // namespace
