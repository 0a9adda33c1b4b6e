// The service as a process: how soon it is there, and what it takes.

#include <fmt/format.h>
#include <sys/socket.h>
#include <unistd.h>

#include <fstream>
#include <stdexcept>
#include <string>

#include "measurements.h"
#include "plain_socket.h"

namespace bench {

namespace {

constexpr int kStarts = 15;

int64_t startFloor() {
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0)
    throw std::runtime_error("no sockets");
  char byte = 1;
  const int64_t begin = now();
  const pid_t process = start(START_FLOOR_PROGRAM, {ends[1]});
  sendPlain(ends[0], &byte, sizeof byte);
  receivePlain(ends[0], &byte, sizeof byte);
  const int64_t duration = now() - begin;
  end(process);
  close(ends[0]);
  close(ends[1]);
  return duration;
}

// Resident memory, in KiB.
double residentMemory(pid_t process) {
  std::ifstream rollup(fmt::format("/proc/{}/smaps_rollup", process));
  for (std::string word; rollup >> word;) {
    if (word != "Rss:") continue;
    double kibibytes = 0;
    rollup >> kibibytes;
    return kibibytes;
  }
  throw std::runtime_error("the process's memory cannot be read");
}

}  // namespace

void measureStart(Report& report) {
  Durations starts;
  Durations floor;
  for (int i = 0; i < kStarts; ++i) {
    Service service;
    starts.add(service.join());
    floor.add(startFloor());
  }
  report.add("process start to the first accepted \"Init\", median", starts.microseconds(0.5), "us",
             floor.microseconds(0.5), 3);
}

void measureMemory(Report& report) {
  constexpr int kGuests = 8;
  constexpr int kFramesEach = 30;
  constexpr double kSurface = 1280 * 720 * 1.5 / 1024;

  Service service;
  service.join();
  service.studio().roundTrip();
  const double idle = residentMemory(service.process());
  report.add("resident memory, idle, without the SDK's", idle, "KiB", 0);

  service.ask(frameMessage(Order::prepare, 1280, 720));
  const double before = residentMemory(service.process());
  for (int guest = 0; guest < kGuests; ++guest) {
    service.addGuest();
    for (int i = 0; i < kFramesEach; ++i) {
      rest();
      frame(service, 1280, 720, guest);
    }
  }
  report.add("resident memory, each further guest of 720p",
             (residentMemory(service.process()) - before) / kGuests, "KiB", kSurface);
}

}  // namespace bench
