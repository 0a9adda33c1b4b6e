// A surface in two processes: its pixels, its uses, and a process that is killed while it uses one.
#include "Surfaces.h"

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <future>
#include <string>

namespace {

constexpr OSType biplanar = kCVPixelFormatType_420YpCbCr8BiPlanarVideoRange;

// A second process at the other end of a connection.
class Peer {
 public:
  Peer() {
    const std::string name = fmt::format("surface-test-{}", ++count_);
    std::promise<xpc_connection_t> connected;
    listener_ =
        xpc_connection_create_mach_service(name.c_str(), nullptr, XPC_CONNECTION_MACH_SERVICE_LISTENER);
    xpc_connection_set_event_handler(listener_, [&connected](xpc_object_t event) {
      if (xpc_get_type(event) != XPC_TYPE_CONNECTION) return;
      const auto connection = static_cast<xpc_connection_t>(xpc_retain(event));
      xpc_connection_set_event_handler(connection, [](xpc_object_t) {});
      xpc_connection_resume(connection);
      connected.set_value(connection);
    });
    xpc_connection_resume(listener_);

    std::string program = PEER_PROGRAM;
    std::string argument = name;
    char* const arguments[] = {program.data(), argument.data(), nullptr};
    EXPECT_EQ(0, posix_spawn(&process_, program.c_str(), nullptr, nullptr, arguments, environ));
    connection_ = connected.get_future().get();
  }

  ~Peer() {
    xpc_connection_cancel(connection_);
    xpc_release(connection_);
    xpc_connection_cancel(listener_);
    xpc_release(listener_);
    if (process_ != 0) waitpid(process_, nullptr, 0);
  }

  // The reply, which the caller releases.
  xpc_object_t ask(const char* command, IOSurfaceRef surface = nullptr) {
    const xpc_object_t message = xpc_dictionary_create(nullptr, nullptr, 0);
    xpc_dictionary_set_string(message, "do", command);
    if (surface != nullptr) {
      const xpc_object_t object = IOSurfaceCreateXPCObject(surface);
      xpc_dictionary_set_value(message, "surface", object);
      xpc_release(object);
    }
    const xpc_object_t reply = xpc_connection_send_message_with_reply_sync(connection_, message);
    xpc_release(message);
    return reply;
  }

  void tell(const char* command, IOSurfaceRef surface = nullptr) { xpc_release(ask(command, surface)); }

  void kill() {
    ::kill(process_, SIGKILL);
    waitpid(process_, nullptr, 0);
    process_ = 0;
  }

 private:
  static inline int count_ = 0;
  xpc_connection_t listener_;
  xpc_connection_t connection_;
  pid_t process_ = 0;
};

TEST(SharedSurface, PixelsAndUsesAreSeenOnBothSides) {
  Peer peer;
  const IOSurfaceRef surface = createSurface(biplanar, 640, 360);
  auto* const pixels = static_cast<uint8_t*>(IOSurfaceGetBaseAddress(surface));
  *pixels = 42;
  EXPECT_FALSE(IOSurfaceIsInUse(surface));

  const xpc_object_t reply = peer.ask("use", surface);
  EXPECT_EQ(42U, xpc_dictionary_get_uint64(reply, "pixel"));
  EXPECT_EQ(IOSurfaceGetID(surface), xpc_dictionary_get_uint64(reply, "id"));
  xpc_release(reply);
  EXPECT_EQ(77, *pixels);
  EXPECT_TRUE(IOSurfaceIsInUse(surface));
  EXPECT_EQ(0, IOSurfaceGetUseCount(surface)) << "the count is this process's own";
  peer.tell("let go");
  EXPECT_FALSE(IOSurfaceIsInUse(surface));
  CFRelease(surface);
}

TEST(SharedSurface, UsesOfAKilledProcessEndWithIt) {
  const IOSurfaceRef surface = createSurface(biplanar, 640, 360);
  for (int i = 0; i < 20; ++i) {  // more often than there are slots for processes
    Peer peer;
    peer.tell("use", surface);
    EXPECT_TRUE(IOSurfaceIsInUse(surface));
    peer.kill();
    EXPECT_FALSE(IOSurfaceIsInUse(surface));
  }
  CFRelease(surface);
}

TEST(SharedSurface, ScribblingOverTheUseCountsHarmsNobodyElse) {
  Peer peer;
  const IOSurfaceRef surface = createSurface(biplanar, 640, 360);
  IOSurfaceIncrementUseCount(surface);
  peer.tell("use", surface);
  peer.tell("scribble");
  EXPECT_EQ(640U, IOSurfaceGetWidth(surface));
  EXPECT_EQ(1, IOSurfaceGetUseCount(surface));
  EXPECT_TRUE(IOSurfaceIsInUse(surface));
  IOSurfaceDecrementUseCount(surface);
  EXPECT_EQ(0, IOSurfaceGetUseCount(surface));
  peer.kill();
  EXPECT_FALSE(IOSurfaceIsInUse(surface)) << "counts of no living process stand for nothing";
  CFRelease(surface);
}

TEST(SharedSurface, APoolWaitsForTheOtherProcess) {
  Peer peer;
  const CVPixelBufferPoolRef pool = createPool(biplanar, 640, 360);
  CVPixelBufferRef buffer = nullptr;
  ASSERT_EQ(kCVReturnSuccess, CVPixelBufferPoolCreatePixelBuffer(nullptr, pool, &buffer));
  const IOSurfaceRef first = CVPixelBufferGetIOSurface(buffer);
  peer.tell("use", first);
  CVPixelBufferRelease(buffer);

  ASSERT_EQ(kCVReturnSuccess, CVPixelBufferPoolCreatePixelBuffer(nullptr, pool, &buffer));
  EXPECT_NE(first, CVPixelBufferGetIOSurface(buffer)) << "the other process still uses it";
  peer.tell("let go");
  CVPixelBufferRef next = nullptr;
  ASSERT_EQ(kCVReturnSuccess, CVPixelBufferPoolCreatePixelBuffer(nullptr, pool, &next));
  EXPECT_EQ(first, CVPixelBufferGetIOSurface(next));
  CVPixelBufferRelease(next);
  CVPixelBufferRelease(buffer);
  CVPixelBufferPoolRelease(pool);
}

// Listeners are made in a directory of the test's own.
class Directory : public testing::Environment {
 public:
  void SetUp() override {
    std::string path = testing::TempDir() + "surfaces-XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(path.data()));
    path_ = path;
    setenv("XDG_RUNTIME_DIR", path_.c_str(), 1);
  }
  void TearDown() override { std::filesystem::remove_all(path_); }

 private:
  std::filesystem::path path_;
};
const auto* const directory = testing::AddGlobalTestEnvironment(new Directory);

}  // namespace
