// How fast the house is: every figure beside what it cannot be below, measured in the same run, turn and turn
// about, so that whatever else the machine does hits both alike. Arguments name the parts to measure; without
// one, all are; that takes a quarter of an hour, most of it the show of "endurance".

#include <fmt/format.h>
#include <sys/resource.h>

#include <algorithm>
#include <exception>
#include <string>
#include <vector>

#include "hooks_bench.h"
#include "measurements.h"
#include "placement.h"

namespace bench {

namespace {

const std::vector<std::string> allParts{"frames", "messages", "show", "start",    "memory",
                                        "hooks",  "delay",    "load", "endurance"};

int run(const std::vector<std::string>& parts) {
  const auto wanted = [&](const std::string& part) {
    return std::find(parts.begin(), parts.end(), part) != parts.end();
  };
  const auto next = [](const std::string& part) { fmt::print(stderr, "zarvo-bench: measuring {}\n", part); };
  Report report;
  int status = 0;
  // Before the rest raises this process's priority, since processes inherit it.
  for (const std::string part : {"delay", "load", "endurance"}) {
    if (!wanted(part)) continue;
    next(part);
    if (measureMedia(report, part)) continue;
    fmt::print(stderr, "zarvo-bench: \"{}\" was not measured whole; the lines above say why\n", part);
    status = 1;
  }
  // Where that is allowed, so that the machine's other work is heard less; the service inherits it.
  setpriority(PRIO_PROCESS, 0, -20);
  const Surroundings surroundings;
  if (wanted("frames") || wanted("messages") || wanted("show")) {
    next("frames, messages, show");
    Service service;
    service.join();
    service.addGuest();
    for (const Cores& cores : waysToPlace()) {
      const Placement placement(service.process(), cores);
      if (wanted("frames")) {
        measureFrames(service, report, cores.name, 1280, 720);
        measureFrames(service, report, cores.name, 1920, 1080);
      }
      if (wanted("messages")) measureMessages(service, report, cores.name);
      if (wanted("show")) measureShowFrames(service, report, cores.name);
    }
    if (wanted("frames")) {
      measureFrameCosts(service, report, 1280, 720);
      measureFrameCosts(service, report, 1920, 1080);
    }
  }
  if (wanted("start") || wanted("memory") || wanted("hooks")) next("start, memory, hooks");
  if (wanted("start")) measureStart(report);
  if (wanted("memory")) measureMemory(report);
  if (wanted("hooks")) measureHooks(report);
  report.print();
  report.write("build/bench.json");
  return status;
}

}  // namespace

}  // namespace bench

int main(int count, char** arguments) {
  const std::vector<std::string> parts(arguments + 1, arguments + count);
  for (const std::string& part : parts) {
    const auto& all = bench::allParts;
    if (std::find(all.begin(), all.end(), part) == all.end()) {
      fmt::print(stderr, "zarvo-bench measures {}; \"{}\" is none of them\n", fmt::join(all, ", "), part);
      return 2;
    }
  }
  try {
    return bench::run(parts.empty() ? bench::allParts : parts);
  } catch (const std::exception& error) {
    fmt::print(stderr, "zarvo-bench: {}\n", error.what());
    return 1;
  }
}
