// The road of a guest's frame to the studio, and of the show's frame to the SDK.

#include <fmt/format.h>
#include <studio/surface_pool.h>
#include <sys/mman.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <string>
#include <thread>

#include "allocations.h"
#include "measurements.h"
#include "plain_socket.h"

namespace bench {

namespace {

constexpr int kWarmUp = 50;
constexpr int kFrames = 400;

int64_t frameFloor(Service& service, int width, int height) {
  service.order(frameMessage(Order::frameFloor, width, height));
  int64_t begin = 0;
  receivePlain(service.floorSocket(), &begin, sizeof begin);
  const char reply = 1;
  sendPlain(service.floorSocket(), &reply, sizeof reply);
  return service.answer().nanoseconds;
}

}  // namespace

void rest() {
  std::this_thread::sleep_for(std::chrono::milliseconds(2));
}

Message frameMessage(Order order, int width, int height, int guest) {
  return {.order = order, .guest = guest, .width = width, .height = height};
}

int64_t frame(Service& service, int width, int height, int guest) {
  while (true) {
    service.order(frameMessage(Order::frame, width, height, guest));
    // Two answers may still be under way on a busy machine; a frame that was dropped for it counts for
    // nothing.
    if (const auto duration = service.studio().waitForArrival()) return *duration;
  }
}

void measureFrames(Service& service, Report& report, int width, int height) {
  const std::string name = fmt::format("frame road {}p", height);
  service.ask(frameMessage(Order::prepare, width, height));
  for (int i = 0; i < kWarmUp; ++i) {
    frame(service, width, height);
    frameFloor(service, width, height);
  }

  Durations road;
  Durations floor;
  for (int i = 0; i < kFrames; ++i) {
    rest();
    road.add(frame(service, width, height));
    rest();
    floor.add(frameFloor(service, width, height));
  }
  report.add(name, road, floor, height == 1080 ? 1.15 : 0);

  const Answer before = service.ask({.order = Order::counters, .counting = true});
  countAllocations(true);
  const Allocations studioBefore = allocations();
  const int64_t studioFaults = minorFaults();
  for (int i = 0; i < kFrames; ++i) {
    rest();
    frame(service, width, height);
  }
  const Allocations studioAfter = allocations();
  const int64_t studioFaultsAfter = minorFaults();
  countAllocations(false);
  const Answer after = service.ask({.order = Order::counters});

  const auto each = [](int64_t from, int64_t to) { return static_cast<double>(to - from) / kFrames; };
  report.add(name + ", service: minor faults a frame", each(before.minorFaults, after.minorFaults), "", 0);
  report.add(name + ", service: heap allocations a frame", each(before.allocations, after.allocations), "",
             0);
  report.add(name + ", service: heap bytes a frame", each(before.allocatedBytes, after.allocatedBytes), "B",
             0);
  report.add(name + ", service: largest heap allocation", static_cast<double>(after.largestAllocation), "B",
             0);
  report.add(name + ", studio: minor faults a frame", each(studioFaults, studioFaultsAfter), "", 0);
  report.add(name + ", studio: heap allocations a frame", each(studioBefore.count, studioAfter.count), "", 0);
}

void measureShowFrames(Service& service, Report& report) {
  service.ask({.order = Order::startCapturer});
  studio::SurfacePool pool(3);
  Durations road;
  Durations floor;
  const int descriptor = memfd_create("floor", MFD_CLOEXEC);
  for (int i = 0; i < kFrames; ++i) {
    rest();
    const IOSurfaceRef surface = pool.take(1024, 576);
    const int64_t begin = now();
    std::memcpy(IOSurfaceGetBaseAddress(surface), &begin, sizeof begin);
    service.studio().client.videoFrame(surface);
    road.add(service.answer().nanoseconds);

    rest();
    const Message message{.order = Order::echo};
    const int64_t floorBegin = now();
    sendPlain(service.controlSocket(), &message, sizeof message, descriptor);
    Message reply;
    receivePlain(service.controlSocket(), &reply, sizeof reply);
    floor.add(now() - floorBegin);
  }
  close(descriptor);
  report.add("show frame, studio's send to the SDK's provide call", road, floor, 1.5);
}

}  // namespace bench
