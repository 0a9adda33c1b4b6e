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

using Buffer = Ref<CVPixelBufferRef>;

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

  // None when it is refused; `status` says why.
  Buffer wrap(CVReturn* status = nullptr) {
    CVPixelBufferRef buffer = nullptr;
    const CVReturn answer = CVPixelBufferCreateWithPlanarBytes(
        nullptr, width, height, format, nullptr, 0, planes, addresses.data(), widths.data(), heights.data(),
        strides.data(),
        [](void* context, const void*, size_t, size_t, const void*[]) { ++*static_cast<int*>(context); },
        &released, nullptr, &buffer);
    if (status) *status = answer;
    return Buffer::adopt(buffer);
  }

  uint8_t at(size_t plane, size_t x, size_t y) const { return bytes[plane][y * strides[plane] + x]; }

  OSType format = planar;
  size_t planes = 3;
  size_t width, height;
  std::array<size_t, 3> widths, heights, strides;
  std::array<std::vector<uint8_t>, 3> bytes;
  std::array<void*, 3> addresses;
  int released = 0;
};

uint8_t at(const Buffer& buffer, size_t plane, size_t x, size_t y) {
  return static_cast<const uint8_t*>(CVPixelBufferGetBaseAddressOfPlane(
      buffer.get(), plane))[y * CVPixelBufferGetBytesPerRowOfPlane(buffer.get(), plane) + x];
}

TEST(PixelBuffer, WrapsPlanesWithoutACopyAndTellsWhenItLetsGo) {
  Picture picture(7, 5);
  auto buffer = picture.wrap();
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
    CVReturn answer = kCVReturnSuccess;
    EXPECT_FALSE(picture.wrap(&answer));
    EXPECT_EQ(0, picture.released);
    return answer;
  };
  EXPECT_EQ(kCVReturnInvalidSize, status([](Picture& picture) { picture.width = 0; }));
  EXPECT_EQ(kCVReturnInvalidSize, status([](Picture& picture) { picture.height = SIZE_MAX; }));
  EXPECT_EQ(kCVReturnInvalidPixelFormat, status([](Picture& picture) { picture.format = 0x20202020; }));
  EXPECT_EQ(kCVReturnInvalidArgument, status([](Picture& picture) { picture.planes = 2; }));
  EXPECT_EQ(kCVReturnInvalidArgument, status([](Picture& picture) { picture.addresses[1] = nullptr; }));
  EXPECT_EQ(kCVReturnInvalidArgument, status([](Picture& picture) { picture.strides[0] = 7; }));
  EXPECT_EQ(kCVReturnInvalidArgument, status([](Picture& picture) { picture.strides[2] = SIZE_MAX - 3; }));
  EXPECT_EQ(kCVReturnInvalidArgument, status([](Picture& picture) { picture.heights[1] = 2; }));
  EXPECT_EQ(kCVReturnInvalidArgument, status([](Picture& picture) { picture.widths[2] = 5; }));
}

TEST(PixelBuffer, CountsAsAUseOfItsSurface) {
  const auto surface = createSurface(bgra, 1024, 576);
  CVPixelBufferRef buffer = nullptr;
  ASSERT_EQ(kCVReturnSuccess, CVPixelBufferCreateWithIOSurface(nullptr, surface.get(), nullptr, &buffer));
  EXPECT_EQ(1, IOSurfaceGetUseCount(surface.get()));
  EXPECT_EQ(IOSurfaceGetBaseAddress(surface.get()), CVPixelBufferGetBaseAddress(buffer));
  CVPixelBufferRelease(buffer);
  EXPECT_FALSE(IOSurfaceIsInUse(surface.get()));
}

TEST(PixelBufferPool, HandsOutWhatNobodyHoldsAndEndsBeforeItsBuffers) {
  auto pool = createPool(biplanar, 320, 180);
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
  pool = {};
  *static_cast<uint8_t*>(CVPixelBufferGetBaseAddress(second.get())) = 1;
}

TEST(PixelBufferPool, EndsAtItsLimitAndShrinksAgain) {
  const auto pool = createPool(biplanar, 16, 16);
  const size_t before = mappedSurfaces();
  {
    std::vector<Buffer> buffers;
    CVReturn last = 0;
    while (auto buffer = takeFrom(pool, &last)) buffers.push_back(buffer);
    EXPECT_EQ(kCVReturnPoolAllocationFailed, last);
    EXPECT_EQ(64U, buffers.size());
  }
  EXPECT_EQ(before + 64, mappedSurfaces());
  EXPECT_TRUE(eventually([&] { return takeFrom(pool) && mappedSurfaces() == before + 3; }));
}

Buffer createBuffer(OSType format, size_t width, size_t height) {
  CVPixelBufferRef buffer = nullptr;
  EXPECT_EQ(kCVReturnSuccess, CVPixelBufferCreate(nullptr, width, height, format, nullptr, &buffer));
  return Buffer::adopt(buffer);
}

OSStatus transfer(const Buffer& from, const Buffer& to) {
  VTPixelTransferSessionRef session = nullptr;
  EXPECT_EQ(noErr, VTPixelTransferSessionCreate(nullptr, &session));
  const auto kept = Ref<VTPixelTransferSessionRef>::adopt(session);
  return VTPixelTransferSessionTransferImage(session, from.get(), to.get());
}

TEST(PixelTransfer, InterleavesChromaAsAPlainLoopDoes) {
  for (const auto& [width, height] : std::vector<std::pair<size_t, size_t>>{
           {1, 1}, {2, 2}, {1, 9}, {9, 1}, {17, 33}, {63, 64}, {65, 31}, {641, 359}, {1280, 720}}) {
    Picture picture(width, height);
    const auto destination = createBuffer(biplanar, width, height);
    ASSERT_EQ(noErr, transfer(picture.wrap(), destination));
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

TEST(PixelTransfer, RefusesAnotherSizeOrFormat) {
  Picture picture(33, 17);
  const auto source = picture.wrap();
  EXPECT_EQ(kVTPixelTransferNotSupportedErr, transfer(source, createBuffer(bgra, 33, 17)));
  EXPECT_EQ(kVTPixelTransferNotSupportedErr, transfer(source, createBuffer(biplanar, 34, 17)));
  EXPECT_EQ(kVTPixelTransferNotSupportedErr, transfer(source, createBuffer(biplanar, 33, 16)));
}

}  // namespace
