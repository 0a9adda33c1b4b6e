// A surface in two processes: its pixels, its uses, and a process that is killed while it uses one.
#include <gtest/gtest.h>

#include "child.h"
#include "link.h"
#include "surfaces.h"

namespace {

constexpr OSType biplanar = kCVPixelFormatType_420YpCbCr8BiPlanarVideoRange;

// A second process at the other end of a connection.
class Peer {
 public:
  ~Peer() { xpc_connection_cancel(asConnection(connection_)); }

  Object ask(const char* command, const Ref<IOSurfaceRef>& surface = {}) {
    const Object asked = message("do", command);
    if (surface) xpc_dictionary_set_value(asked, "surface", Object(IOSurfaceCreateXPCObject(surface.get())));
    return Object(xpc_connection_send_message_with_reply_sync(asConnection(connection_), asked));
  }

  void kill() {
    process_.sendSignal(SIGKILL);
    process_.waitForEnd();
  }

 private:
  TemporaryFolder folder_;
  Events peers_;
  Connection listener_{listener("surface-test"), accepting([this](xpc_connection_t peer) {
                         xpc_connection_set_event_handler(peer, [](xpc_object_t) {});
                         peers_.put(peer);
                       })};
  Child process_{{PEER_PROGRAM}};
  Object connection_ = peers_.next();
};

TEST(SharedSurface, PixelsAndUsesAreSeenOnBothSides) {
  Peer peer;
  const auto surface = createSurface(biplanar, 640, 360);
  auto* const pixels = static_cast<uint8_t*>(IOSurfaceGetBaseAddress(surface.get()));
  *pixels = 42;
  EXPECT_FALSE(IOSurfaceIsInUse(surface.get()));

  const auto reply = peer.ask("use", surface);
  EXPECT_EQ(42U, xpc_dictionary_get_uint64(reply, "pixel"));
  EXPECT_EQ(IOSurfaceGetID(surface.get()), xpc_dictionary_get_uint64(reply, "id"));
  EXPECT_EQ(77, *pixels);
  EXPECT_TRUE(IOSurfaceIsInUse(surface.get()));
  EXPECT_EQ(0, IOSurfaceGetUseCount(surface.get())) << "the count is this process's own";
  peer.ask("let go");
  EXPECT_FALSE(IOSurfaceIsInUse(surface.get()));
}

TEST(SharedSurface, UsesOfAKilledProcessEndWithIt) {
  const auto surface = createSurface(biplanar, 640, 360);
  for (int i = 0; i < 20; ++i) {  // more often than there are slots for processes
    Peer peer;
    peer.ask("use", surface);
    EXPECT_TRUE(IOSurfaceIsInUse(surface.get()));
    peer.kill();
    EXPECT_FALSE(IOSurfaceIsInUse(surface.get()));
  }
}

TEST(SharedSurface, ScribblingOverTheUseCountsHarmsNobodyElse) {
  Peer peer;
  const auto surface = createSurface(biplanar, 640, 360);
  IOSurfaceIncrementUseCount(surface.get());
  peer.ask("use", surface);
  peer.ask("scribble");
  EXPECT_EQ(640U, IOSurfaceGetWidth(surface.get()));
  EXPECT_EQ(1, IOSurfaceGetUseCount(surface.get()));
  EXPECT_TRUE(IOSurfaceIsInUse(surface.get()));
  IOSurfaceDecrementUseCount(surface.get());
  EXPECT_EQ(0, IOSurfaceGetUseCount(surface.get()));
  peer.kill();
  EXPECT_FALSE(IOSurfaceIsInUse(surface.get())) << "counts of no living process stand for nothing";
}

TEST(SharedSurface, APoolWaitsForTheOtherProcess) {
  Peer peer;
  const auto pool = createPool(biplanar, 640, 360);
  auto buffer = takeFrom(pool);
  const IOSurfaceRef first = CVPixelBufferGetIOSurface(buffer.get());
  peer.ask("use", Ref<IOSurfaceRef>::retain(first));
  buffer = {};

  buffer = takeFrom(pool);
  EXPECT_NE(first, CVPixelBufferGetIOSurface(buffer.get())) << "the other process still uses it";
  peer.ask("let go");
  EXPECT_EQ(first, CVPixelBufferGetIOSurface(takeFrom(pool).get()));
}

}  // namespace
