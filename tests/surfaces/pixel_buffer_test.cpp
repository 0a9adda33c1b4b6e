// Pixel buffers, their pools, and pixel transfer against a plain reference.
#include <VideoToolbox/VideoToolbox.h>
#include <gtest/gtest.h>

#include <array>
#include <random>
#include <vector>

#include "surfaces.h"
#include "waiting.h"

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

using Buffer = Ref<CVPixelBufferRef>;

uint8_t at(const Buffer& buffer, size_t plane, size_t x, size_t y) {
  return static_cast<const uint8_t*>(CVPixelBufferGetBaseAddressOfPlane(
      buffer.get(), plane))[y * CVPixelBufferGetBytesPerRowOfPlane(buffer.get(), plane) + x];
}

Buffer createBuffer(OSType format, size_t width, size_t height, CFDictionaryRef attributes = nullptr) {
  CVPixelBufferRef buffer = nullptr;
  EXPECT_EQ(kCVReturnSuccess, CVPixelBufferCreate(nullptr, width, height, format, attributes, &buffer));
  return Buffer::adopt(buffer);
}
Buffer wrapped(Picture& picture) {
  CVPixelBufferRef buffer = nullptr;
  EXPECT_EQ(kCVReturnSuccess, picture.wrap(&buffer));
  return Buffer::adopt(buffer);
}

TEST(PixelBuffer, WrapsPlanesWithoutACopyAndTellsWhenItLetsGo) {
  Picture picture(7, 5);
  auto buffer = wrapped(picture);
  EXPECT_TRUE(CVPixelBufferIsPlanar(buffer.get()));
  EXPECT_EQ(nullptr, CVPixelBufferGetIOSurface(buffer.get()));
  EXPECT_EQ(picture.addresses[2], CVPixelBufferGetBaseAddressOfPlane(buffer.get(), 2));
  EXPECT_EQ(nullptr, CVPixelBufferGetBaseAddressOfPlane(buffer.get(), 3));
  EXPECT_EQ(4U, CVPixelBufferGetWidthOfPlane(buffer.get(), 1));
  auto second = buffer;
  second = {};
  EXPECT_EQ(0, picture.released);
  buffer = {};
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
  const auto surface = createSurface(bgra, 1024, 576);
  CVPixelBufferRef buffer = nullptr;
  ASSERT_EQ(kCVReturnSuccess, CVPixelBufferCreateWithIOSurface(nullptr, surface.get(), nullptr, &buffer));
  EXPECT_EQ(1, IOSurfaceGetUseCount(surface.get()));
  EXPECT_EQ(IOSurfaceGetBaseAddress(surface.get()), CVPixelBufferGetBaseAddress(buffer));
  EXPECT_EQ(1024U * 576 * 4, CVPixelBufferGetDataSize(buffer));
  EXPECT_FALSE(CVPixelBufferIsPlanar(buffer));
  EXPECT_EQ(nullptr, CVPixelBufferGetBaseAddressOfPlane(buffer, 0));
  CVPixelBufferRelease(buffer);
  EXPECT_FALSE(IOSurfaceIsInUse(surface.get()));
  EXPECT_EQ(kCVReturnInvalidArgument, CVPixelBufferCreateWithIOSurface(nullptr, nullptr, nullptr, &buffer));
}

TEST(PixelBuffer, HasASurfaceWhenAskedForOne) {
  const auto attributes = createNumbers({});
  CFDictionarySetValue(attributes.get(), kCVPixelBufferIOSurfacePropertiesKey, createNumbers({}).get());
  const auto buffer = createBuffer(biplanar, 3, 3, attributes.get());
  ASSERT_NE(nullptr, CVPixelBufferGetIOSurface(buffer.get()));
  EXPECT_EQ(1, IOSurfaceGetUseCount(CVPixelBufferGetIOSurface(buffer.get())));
  CVPixelBufferRef none = nullptr;
  EXPECT_EQ(kCVReturnInvalidSize, CVPixelBufferCreate(nullptr, 0, 3, biplanar, nullptr, &none));
  EXPECT_EQ(kCVReturnInvalidPixelFormat, CVPixelBufferCreate(nullptr, 3, 3, 1, nullptr, &none));
}

TEST(PixelBufferPool, HandsOutWhatNobodyHoldsAndNothingElse) {
  const auto pool = createPool(biplanar, 320, 180);
  auto first = takeFrom(pool);
  const auto second = takeFrom(pool);
  const IOSurfaceRef firstSurface = CVPixelBufferGetIOSurface(first.get());
  EXPECT_NE(firstSurface, CVPixelBufferGetIOSurface(second.get()));

  first = {};
  first = takeFrom(pool);
  EXPECT_EQ(firstSurface, CVPixelBufferGetIOSurface(first.get()));

  const auto held = Ref<IOSurfaceRef>::retain(firstSurface);
  first = {};
  EXPECT_NE(firstSurface, CVPixelBufferGetIOSurface(takeFrom(pool).get())) << "nobody has the buffer";
}

TEST(PixelBufferPool, EndsAtItsLimitAndBeforeItsBuffers) {
  std::vector<Buffer> buffers;
  {
    const auto pool = createPool(biplanar, 16, 16);
    CVReturn last = 0;
    while (auto buffer = takeFrom(pool, &last)) buffers.push_back(buffer);
    EXPECT_EQ(kCVReturnPoolAllocationFailed, last);
    EXPECT_EQ(64U, buffers.size());
  }
  for (const auto& buffer : buffers) *static_cast<uint8_t*>(CVPixelBufferGetBaseAddress(buffer.get())) = 1;
}

TEST(PixelBufferPool, ShrinksAgain) {
  const auto pool = createPool(biplanar, 16, 16);
  const size_t before = mappedSurfaces();
  {
    std::array<Buffer, 5> buffers;
    for (Buffer& buffer : buffers) buffer = takeFrom(pool);
  }
  EXPECT_EQ(before + 5, mappedSurfaces());
  EXPECT_TRUE(eventually([&] { return takeFrom(pool) && mappedSurfaces() == before + 3; }));
}

TEST(PixelBufferPool, RefusesAttributesThatMakeNoBuffer) {
  const auto status = [](const std::map<CFStringRef, int64_t>& values) {
    CVPixelBufferPoolRef pool = nullptr;
    const CVReturn answer = CVPixelBufferPoolCreate(nullptr, nullptr, createNumbers(values).get(), &pool);
    EXPECT_EQ(nullptr, pool);
    return answer;
  };
  const auto format = kCVPixelBufferPixelFormatTypeKey;
  const auto width = kCVPixelBufferWidthKey;
  const auto height = kCVPixelBufferHeightKey;
  EXPECT_EQ(kCVReturnInvalidPixelBufferAttributes, status({{width, 8}, {height, 8}}));
  EXPECT_EQ(kCVReturnInvalidPixelFormat, status({{format, 0x20202020}, {width, 8}, {height, 8}}));
  EXPECT_EQ(kCVReturnInvalidSize, status({{format, biplanar}, {width, 0}, {height, 8}}));
  CVPixelBufferPoolRef pool = nullptr;
  EXPECT_EQ(kCVReturnInvalidPixelBufferAttributes, CVPixelBufferPoolCreate(nullptr, nullptr, nullptr, &pool));
  CVPixelBufferRef buffer = nullptr;
  EXPECT_EQ(kCVReturnInvalidArgument, CVPixelBufferPoolCreatePixelBuffer(nullptr, nullptr, &buffer));
}

class PixelTransfer : public testing::Test {
 protected:
  PixelTransfer() { EXPECT_EQ(noErr, VTPixelTransferSessionCreate(nullptr, &session_)); }
  ~PixelTransfer() override { CFRelease(session_); }
  OSStatus transfer(const Buffer& from, const Buffer& to) {
    return VTPixelTransferSessionTransferImage(session_, from.get(), to.get());
  }

  VTPixelTransferSessionRef session_ = nullptr;
};

TEST_F(PixelTransfer, InterleavesChromaAsAPlainLoopDoes) {
  for (const auto& [width, height] : std::vector<std::pair<size_t, size_t>>{
           {1, 1}, {2, 2}, {1, 9}, {9, 1}, {17, 33}, {63, 64}, {65, 31}, {641, 359}, {1280, 720}}) {
    Picture picture(width, height);
    const auto destination = createBuffer(biplanar, width, height);
    ASSERT_EQ(noErr, transfer(wrapped(picture), destination));
    size_t wrong = 0;
    for (size_t y = 0; y < height; ++y) {
      for (size_t x = 0; x < width; ++x) {
        wrong += at(destination, 0, x, y) != picture.at(0, x, y);
        wrong += at(destination, 1, x / 2 * 2, y / 2) != picture.at(1, x / 2, y / 2);
        wrong += at(destination, 1, x / 2 * 2 + 1, y / 2) != picture.at(2, x / 2, y / 2);
      }
    }
    EXPECT_EQ(0U, wrong) << width << " x " << height;
  }
}

TEST_F(PixelTransfer, CopiesWithinAFormatAndRefusesTheRest) {
  Picture picture(33, 17);
  const auto source = wrapped(picture);
  const auto copy = createBuffer(planar, 33, 17);
  ASSERT_EQ(noErr, transfer(source, copy));
  for (size_t plane = 0; plane < 3; ++plane) {
    EXPECT_EQ(picture.at(plane, picture.widths[plane] - 1, picture.heights[plane] - 1),
              at(copy, plane, picture.widths[plane] - 1, picture.heights[plane] - 1));
  }
  EXPECT_EQ(kVTPixelTransferNotSupportedErr, transfer(source, createBuffer(bgra, 33, 17)));
  EXPECT_EQ(kVTPixelTransferNotSupportedErr, transfer(source, createBuffer(biplanar, 34, 17)));
  EXPECT_EQ(kVTParameterErr, transfer(source, {}));
  VTPixelTransferSessionInvalidate(session_);
  EXPECT_EQ(kVTInvalidSessionErr, transfer(source, createBuffer(biplanar, 33, 17)));
}

}  // namespace
