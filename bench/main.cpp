// How fast the house is: every figure beside what it cannot be below, measured in the same run, turn and turn
// about, so that whatever else the machine does hits both alike.

#include <fmt/format.h>

#include <exception>

#include "hooks_bench.h"
#include "measurements.h"

namespace bench {

namespace {

int run() {
  const Surroundings surroundings;
  Report report;
  {
    Service service;
    service.join();
    service.addGuest();
    measureFrames(service, report, 1280, 720);
    measureFrames(service, report, 1920, 1080);
    measureMessages(service, report);
    measureShowFrames(service, report);
  }
  measureStart(report);
  measureMemory(report);
  measureHooks(report);
  report.print();
  report.write("build/bench.json");
  return 0;
}

}  // namespace

}  // namespace bench

int main() {
  try {
    return bench::run();
  } catch (const std::exception& error) {
    fmt::print(stderr, "zarvo-bench: {}\n", error.what());
    return 1;
  }
}
