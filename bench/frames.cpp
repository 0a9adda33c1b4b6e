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

// One after the other, as with several guests; and after pauses, in which threads and caches go cold.
template <class Road, class Floor>
void measureRoad(Report& report, const std::string& name, const std::string& where, double goal, Road road,
                 Floor floor) {
  for (int i = 0; i < kWarmUp; ++i) {
    road();
    floor();
  }
  for (const bool pausing : {false, true}) {
    Durations roads;
    Durations floors;
    for (int i = 0; i < kFrames; ++i) {
      if (pausing) rest();
      roads.add(road());
      if (pausing) rest();
      floors.add(floor());
    }
    report.add(fmt::format("{}{}, {}", name, pausing ? " after a pause" : "", where), roads, floors,
               pausing ? 0 : goal);
  }
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

void measureFrames(Service& service, Report& report, const std::string& where, int width, int height) {
  service.ask(frameMessage(Order::prepare, width, height));
  measureRoad(
      report, fmt::format("frame road {}p", height), where, 1.1,
      [&] { return frame(service, width, height); }, [&] { return frameFloor(service, width, height); });
}

void measureFrameCosts(Service& service, Report& report, int width, int height) {
  const std::string name = fmt::format("frame {}p", height);
  service.ask(frameMessage(Order::prepare, width, height));
  for (int i = 0; i < kWarmUp; ++i) frame(service, width, height);
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

void measureShowFrames(Service& service, Report& report, const std::string& where) {
  service.ask({.order = Order::startCapturer});
  studio::SurfacePool pool(4);
  const auto showFrame = [&] {
    const IOSurfaceRef surface = pool.take(1024, 576);
    const int64_t begin = now();
    std::memcpy(IOSurfaceGetBaseAddress(surface), &begin, sizeof begin);
    service.studio().client.videoFrame(surface);
    const int64_t duration = service.answer().nanoseconds;
    // The studio sends the next one when this one has been answered.
    service.studio().roundTrip();
    return duration;
  };
  const int descriptor = memfd_create("floor", MFD_CLOEXEC);
  const auto echo = [&] {
    Message message{.order = Order::echo};
    const int64_t begin = now();
    sendPlain(service.controlSocket(), &message, sizeof message, descriptor);
    receivePlain(service.controlSocket(), &message, sizeof message);
    return now() - begin;
  };
  measureRoad(report, "show frame, send to the SDK's provide call", where, 1.4, showFrame, echo);
  close(descriptor);
}

}  // namespace bench
