// One surface in one process: creation, and what is refused on the way in.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>

#include "surfaces.h"
#include "waiting.h"

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

using Message = Ref<xpc_object_t>;

// A well-formed '420v' surface of 64 by 32.
const std::map<const char*, uint64_t> geometry = {
    {"format", biplanar},        {"width", 64},  {"height", 32}, {"offset0", 4096}, {"stride0", 64},
    {"offset1", 4096 + 64 * 32}, {"stride1", 64}};
constexpr off_t exactSize = 4096 + 64 * 32 + 64 * 16;

// Its message; the descriptor is closed.
Message message(int descriptor = memory(exactSize, allSeals)) {
  const auto object = Message::adopt(xpc_dictionary_create_empty());
  xpc_dictionary_set_fd(object.get(), "memory", descriptor);
  close(descriptor);
  for (const auto& [key, value] : geometry) xpc_dictionary_set_uint64(object.get(), key, value);
  return object;
}

Ref<IOSurfaceRef> lookUp(const Message& object) {
  return Ref<IOSurfaceRef>::adopt(IOSurfaceLookupFromXPCObject(object.get()));
}
bool accepted(const Message& object) {
  return static_cast<bool>(lookUp(object));
}

TEST(Surface, LaysOutEveryFormatAndOddSizes) {
  for (const auto& [format, planes] : {std::pair(bgra, 0U), {planar, 3U}, {biplanar, 2U}}) {
    const auto made = createSurface(format, 35, 7);
    ASSERT_TRUE(made);
    const IOSurfaceRef surface = made.get();
    EXPECT_EQ(planes, IOSurfaceGetPlaneCount(surface));
    EXPECT_EQ(0U, IOSurfaceGetBytesPerRow(surface) % 64);
    EXPECT_EQ(nullptr, IOSurfaceGetBaseAddressOfPlane(surface, planes));
    for (size_t plane = 0; plane < planes; ++plane) {
      EXPECT_EQ(plane == 0 ? 35U : 18U, IOSurfaceGetWidthOfPlane(surface, plane));
      EXPECT_EQ(plane == 0 ? 7U : 4U, IOSurfaceGetHeightOfPlane(surface, plane));
    }
    EXPECT_TRUE(accepted(Message::adopt(IOSurfaceCreateXPCObject(surface)))) << "planes apart, and inside";
  }
}

TEST(Surface, RefusesImpossibleProperties) {
  EXPECT_FALSE(createSurface(bgra, 0, 3));
  EXPECT_FALSE(createSurface(bgra, 3, -1));
  EXPECT_FALSE(createSurface(bgra, 3, 16385));
  EXPECT_FALSE(createSurface(0x20202020, 3, 3));
  const auto properties =
      createNumbers({{kIOSurfaceWidth, 4}, {kIOSurfaceHeight, 4}, {kIOSurfaceBytesPerElement, 3}});
  EXPECT_EQ(nullptr, IOSurfaceCreate(properties.get()));
}

TEST(ReceivedSurface, AcceptsWhatIsSoundAndMapsItOnce) {
  const auto object = message();
  auto surface = lookUp(object);
  ASSERT_TRUE(surface);
  EXPECT_EQ(1, CFGetRetainCount(surface.get()) - 1);  // the other is the table's of surfaces received
  const void* const pixels = IOSurfaceGetBaseAddress(surface.get());
  EXPECT_EQ(surface.get(), lookUp(object).get());
  surface = {};
  const size_t mapped = mappedSurfaces();
  const auto again = lookUp(object);
  EXPECT_EQ(pixels, IOSurfaceGetBaseAddress(again.get()));
  EXPECT_EQ(mapped, mappedSurfaces());

  // The same memory told to be something else.
  xpc_dictionary_set_uint64(object.get(), "width", 62);
  EXPECT_FALSE(accepted(object));
}

TEST(ReceivedSurface, RefusesUnsoundDescriptors) {
  EXPECT_TRUE(accepted(message()));
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
    const auto object = message();
    xpc_dictionary_set_uint64(object.get(), key, value);
    return accepted(object);
  };
  for (const auto& [key, good] : geometry) {
    for (const uint64_t value : {uint64_t{0}, uint64_t{1} << 31, uint64_t{1} << 32, UINT64_MAX / 32 + 2,
                                 UINT64_MAX - 4095, UINT64_MAX}) {
      EXPECT_FALSE(spoiled(key, value)) << key << " " << value;
    }
    const auto object = message();
    xpc_dictionary_set_string(object.get(), key, "64");
    EXPECT_FALSE(accepted(object)) << key << " as a text";
    xpc_dictionary_set_value(object.get(), key, nullptr);
    EXPECT_FALSE(accepted(object)) << "without " << key;
  }
  EXPECT_FALSE(spoiled("offset0", 4095)) << "among the use counts";
  EXPECT_FALSE(spoiled("stride0", 63)) << "rows too short";
  EXPECT_FALSE(spoiled("stride0", 65)) << "planes that overlap";
  EXPECT_FALSE(spoiled("offset1", 4096)) << "one plane on the other";
  EXPECT_FALSE(spoiled("offset1", 4096 + 64 * 32 + 1)) << "a plane that reaches beyond the end";
  EXPECT_FALSE(spoiled("format", planar)) << "a third plane that is not told of";
  EXPECT_FALSE(accepted(Message::adopt(xpc_dictionary_create(nullptr, nullptr, 0))));
  EXPECT_FALSE(accepted(Message::adopt(xpc_string_create("surface"))));
  EXPECT_FALSE(accepted({}));
}

TEST(ReceivedSurface, RefusesOneWhoseUseCannotBeCounted) {
  const int descriptor = memory(exactSize, allSeals);
  struct flock all {};
  all.l_type = F_WRLCK;
  ASSERT_EQ(0, fcntl(descriptor, F_OFD_SETLK, &all));
  EXPECT_FALSE(accepted(message(dup(descriptor))));
  all.l_type = F_UNLCK;
  ASSERT_EQ(0, fcntl(descriptor, F_OFD_SETLK, &all));
  EXPECT_TRUE(accepted(message(descriptor)));
}

TEST(ReceivedSurface, MappingsOfSurfacesThatNobodyHoldsAreBoundedAndEnd) {
  const size_t before = mappedSurfaces();
  const auto kept = message();
  const auto held = lookUp(kept);
  for (int i = 0; i < 200; ++i) EXPECT_TRUE(accepted(message()));
  EXPECT_LE(mappedSurfaces(), before + 66);
  EXPECT_TRUE(eventually([] { return mappedSurfaces() == 1; }));
  std::memset(IOSurfaceGetBaseAddress(held.get()), 1, 64);
}

}  // namespace
