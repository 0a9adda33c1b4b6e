// How fast the house is: every figure beside what it cannot be below, measured in the same run, turn and turn
// about, so that whatever else the machine does hits both alike. Arguments name the parts to measure: frames,
// messages, show, start, memory, hooks; without one, all.

#include <fmt/format.h>

#include <algorithm>
#include <exception>
#include <string>
#include <utility>
#include <vector>

#include "hooks_bench.h"
#include "measurements.h"

namespace bench {

namespace {

// The parts of the benchmark, by the names that the command line takes.
class Parts {
 public:
  explicit Parts(std::vector<std::string> wanted) : wanted_(std::move(wanted)) {}
  bool wants(const std::string& part) const {
    return wanted_.empty() || std::find(wanted_.begin(), wanted_.end(), part) != wanted_.end();
  }

 private:
  std::vector<std::string> wanted_;
};

int run(const Parts& parts) {
  const Surroundings surroundings;
  Report report;
  {
    Service service;
    service.join();
    service.addGuest();
    if (parts.wants("frames")) {
      measureFrames(service, report, 1280, 720);
      measureFrames(service, report, 1920, 1080);
    }
    if (parts.wants("messages")) measureMessages(service, report);
    if (parts.wants("show")) measureShowFrames(service, report);
  }
  if (parts.wants("start")) measureStart(report);
  if (parts.wants("memory")) measureMemory(report);
  if (parts.wants("hooks")) measureHooks(report);
  report.print();
  report.write("build/bench.json");
  return 0;
}

}  // namespace

}  // namespace bench

int main(int count, char** arguments) {
  try {
    return bench::run(bench::Parts({arguments + 1, arguments + count}));
  } catch (const std::exception& error) {
    fmt::print(stderr, "zarvo-bench: {}\n", error.what());
    return 1;
  }
}
