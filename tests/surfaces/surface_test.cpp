// One surface in one process: creation, and what is refused on the way in.
#include "Surfaces.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <thread>

namespace {

constexpr OSType bgra = kCVPixelFormatType_32BGRA;
constexpr OSType planar = kCVPixelFormatType_420YpCbCr8Planar;
constexpr OSType biplanar = kCVPixelFormatType_420YpCbCr8BiPlanarVideoRange;
constexpr int allSeals = F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL;

int memory(off_t size, int seals) {
  const int descriptor = memfd_create("test", MFD_CLOEXEC | MFD_ALLOW_SEALING);
  EXPECT_EQ(0, ftruncate(descriptor, size));
  EXPECT_EQ(0, fcntl(descriptor, F_ADD_SEALS, seals));
  return descriptor;
}

// The message of a well-formed '420v' surface of 64 by 32; its descriptor is closed.
xpc_object_t message(int descriptor) {
  const xpc_object_t object = xpc_dictionary_create(nullptr, nullptr, 0);
  xpc_dictionary_set_fd(object, "memory", descriptor);
  close(descriptor);
  xpc_dictionary_set_uint64(object, "format", biplanar);
  xpc_dictionary_set_uint64(object, "width", 64);
  xpc_dictionary_set_uint64(object, "height", 32);
  xpc_dictionary_set_uint64(object, "offset0", 4096);
  xpc_dictionary_set_uint64(object, "stride0", 64);
  xpc_dictionary_set_uint64(object, "offset1", 4096 + 64 * 32);
  xpc_dictionary_set_uint64(object, "stride1", 64);
  return object;
}
constexpr off_t exactSize = 4096 + 64 * 32 + 64 * 16;

bool accepted(xpc_object_t object) {
  const IOSurfaceRef surface = IOSurfaceLookupFromXPCObject(object);
  if (surface != nullptr) CFRelease(surface);
  xpc_release(object);
  return surface != nullptr;
}

TEST(Surface, LaysOutEveryFormatAndOddSizes) {
  const IOSurfaceRef packed = createSurface(bgra, 33, 3);
  ASSERT_NE(nullptr, packed);
  EXPECT_EQ(0U, IOSurfaceGetPlaneCount(packed));
  EXPECT_EQ(192U, IOSurfaceGetBytesPerRow(packed));
  EXPECT_EQ(nullptr, IOSurfaceGetBaseAddressOfPlane(packed, 0));
  std::memset(IOSurfaceGetBaseAddress(packed), 1, 3 * IOSurfaceGetBytesPerRow(packed));
  CFRelease(packed);

  for (const OSType format : {planar, biplanar}) {
    const IOSurfaceRef surface = createSurface(format, 35, 7);
    ASSERT_NE(nullptr, surface);
    const size_t planes = IOSurfaceGetPlaneCount(surface);
    EXPECT_EQ(format == planar ? 3U : 2U, planes);
    const auto* end = static_cast<const uint8_t*>(IOSurfaceGetBaseAddress(surface));
    for (size_t plane = 0; plane < planes; ++plane) {
      EXPECT_EQ(plane == 0 ? 35U : 18U, IOSurfaceGetWidthOfPlane(surface, plane));
      EXPECT_EQ(plane == 0 ? 7U : 4U, IOSurfaceGetHeightOfPlane(surface, plane));
      const size_t size =
          IOSurfaceGetBytesPerRowOfPlane(surface, plane) * IOSurfaceGetHeightOfPlane(surface, plane);
      EXPECT_EQ(end, IOSurfaceGetBaseAddressOfPlane(surface, plane));
      std::memset(IOSurfaceGetBaseAddressOfPlane(surface, plane), 1, size);
      end += size;
    }
    CFRelease(surface);
  }
}

TEST(Surface, RefusesImpossibleProperties) {
  EXPECT_EQ(nullptr, createSurface(bgra, 0, 3));
  EXPECT_EQ(nullptr, createSurface(bgra, 3, -1));
  EXPECT_EQ(nullptr, createSurface(bgra, 3, 16385));
  EXPECT_EQ(nullptr, createSurface(0x20202020, 3, 3));
  const CFMutableDictionaryRef properties =
      createNumbers({{kIOSurfaceWidth, 4}, {kIOSurfaceHeight, 4}, {kIOSurfaceBytesPerElement, 3}});
  EXPECT_EQ(nullptr, IOSurfaceCreate(properties));
  CFRelease(properties);
}

TEST(ReceivedSurface, AcceptsWhatIsSoundAndMapsItOnce) {
  const xpc_object_t object = message(memory(exactSize, allSeals));
  const IOSurfaceRef surface = IOSurfaceLookupFromXPCObject(object);
  ASSERT_NE(nullptr, surface);
  EXPECT_EQ(1, CFGetRetainCount(surface) - 1);  // the other reference is the table's of surfaces received
  const void* const pixels = IOSurfaceGetBaseAddress(surface);
  EXPECT_EQ(surface, IOSurfaceLookupFromXPCObject(object));
  CFRelease(surface);
  CFRelease(surface);
  const size_t mapped = mappedSurfaces();
  const IOSurfaceRef again = IOSurfaceLookupFromXPCObject(object);
  EXPECT_EQ(pixels, IOSurfaceGetBaseAddress(again));
  EXPECT_EQ(mapped, mappedSurfaces());

  // The same memory told to be something else.
  xpc_dictionary_set_uint64(object, "width", 62);
  EXPECT_EQ(nullptr, IOSurfaceLookupFromXPCObject(object));
  CFRelease(again);
  xpc_release(object);
}

TEST(ReceivedSurface, RefusesUnsoundDescriptors) {
  EXPECT_TRUE(accepted(message(memory(exactSize, allSeals))));
  EXPECT_FALSE(accepted(message(memory(exactSize - 1, allSeals)))) << "too small by a byte";
  EXPECT_FALSE(accepted(message(memory(0, allSeals))));
  EXPECT_FALSE(accepted(message(memory(off_t{1} << 40, allSeals)))) << "a terabyte";
  for (const int missing : {F_SEAL_SHRINK, F_SEAL_GROW, F_SEAL_SEAL, allSeals}) {
    EXPECT_FALSE(accepted(message(memory(exactSize, allSeals & ~missing)))) << "without seals " << missing;
  }
  EXPECT_FALSE(accepted(message(memory(exactSize, allSeals | F_SEAL_WRITE)))) << "no use can be counted";
  EXPECT_FALSE(accepted(message(open("/dev/zero", O_RDWR))));
  EXPECT_FALSE(accepted(message(open("/", O_RDONLY))));
  EXPECT_FALSE(accepted(message(eventfd(0, 0)))) << "no file";
}

TEST(ReceivedSurface, RefusesUnsoundGeometry) {
  const auto spoiled = [](const char* key, uint64_t value) {
    const xpc_object_t object = message(memory(exactSize, allSeals));
    xpc_dictionary_set_uint64(object, key, value);
    return accepted(object);
  };
  for (const char* key : {"format", "width", "height", "offset0", "stride0", "offset1", "stride1"}) {
    for (const uint64_t value : {uint64_t{0}, uint64_t{1} << 31, uint64_t{1} << 32, UINT64_MAX / 32 + 2,
                                 UINT64_MAX - 4095, UINT64_MAX}) {
      EXPECT_FALSE(spoiled(key, value)) << key << " " << value;
    }
    const xpc_object_t missing = message(memory(exactSize, allSeals));
    xpc_dictionary_set_value(missing, key, nullptr);
    EXPECT_FALSE(accepted(missing)) << "without " << key;
    const xpc_object_t text = message(memory(exactSize, allSeals));
    xpc_dictionary_set_string(text, key, "64");
    EXPECT_FALSE(accepted(text)) << key << " as a text";
  }
  EXPECT_FALSE(spoiled("offset0", 4095)) << "among the use counts";
  EXPECT_FALSE(spoiled("stride0", 63)) << "rows too short";
  EXPECT_FALSE(spoiled("stride0", 65)) << "planes that overlap";
  EXPECT_FALSE(spoiled("offset1", 4096)) << "one plane on the other";
  EXPECT_FALSE(spoiled("offset1", 4096 + 64 * 32 + 1)) << "a plane that reaches beyond the end";
  EXPECT_FALSE(spoiled("format", planar)) << "a third plane that is not told of";
  EXPECT_FALSE(accepted(xpc_dictionary_create(nullptr, nullptr, 0)));
  EXPECT_FALSE(accepted(xpc_string_create("surface")));
  EXPECT_EQ(nullptr, IOSurfaceLookupFromXPCObject(nullptr));
}

TEST(ReceivedSurface, RefusesOneWhoseUseCannotBeCounted) {
  const int descriptor = memory(exactSize, allSeals);
  struct flock all {};
  all.l_type = F_WRLCK;
  ASSERT_EQ(0, fcntl(descriptor, F_OFD_SETLK, &all));
  const int copy = dup(descriptor);
  EXPECT_FALSE(accepted(message(copy)));
  all.l_type = F_UNLCK;
  ASSERT_EQ(0, fcntl(descriptor, F_OFD_SETLK, &all));
  EXPECT_TRUE(accepted(message(descriptor)));
}

TEST(ReceivedSurface, MappingsOfSurfacesThatNobodyHoldsAreBoundedAndEnd) {
  const size_t before = mappedSurfaces();
  const xpc_object_t kept = message(memory(exactSize, allSeals));
  const IOSurfaceRef held = IOSurfaceLookupFromXPCObject(kept);
  for (int i = 0; i < 200; ++i) EXPECT_TRUE(accepted(message(memory(exactSize, allSeals))));
  EXPECT_LE(mappedSurfaces(), before + 66);

  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (mappedSurfaces() > 1 && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  EXPECT_EQ(1U, mappedSurfaces());
  std::memset(IOSurfaceGetBaseAddress(held), 1, 64);
  CFRelease(held);
  xpc_release(kept);
}

}  // namespace
