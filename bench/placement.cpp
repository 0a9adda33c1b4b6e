#include "placement.h"

#include <fmt/format.h>
#include <unistd.h>

#include <filesystem>

namespace bench {

namespace {

cpu_set_t allowed() {
  cpu_set_t cores;
  CPU_ZERO(&cores);
  sched_getaffinity(0, sizeof cores, &cores);
  return cores;
}

cpu_set_t only(int core) {
  cpu_set_t cores;
  CPU_ZERO(&cores);
  CPU_SET(core, &cores);
  return cores;
}

// Threads that they start from then on inherit it.
void confine(pid_t process, const cpu_set_t& cores) {
  for (const auto& thread : std::filesystem::directory_iterator(fmt::format("/proc/{}/task", process))) {
    sched_setaffinity(std::stoi(thread.path().filename()), sizeof cores, &cores);
  }
}

}  // namespace

std::vector<Cores> waysToPlace() {
  const cpu_set_t cores = allowed();
  std::vector<int> found;
  for (int core = 0; core < CPU_SETSIZE; ++core) {
    if (CPU_ISSET(core, &cores)) found.push_back(core);
  }
  std::vector<Cores> ways = {{"one core", found.front(), found.front()}};
  if (found.size() > 1) ways.push_back({"two cores", found[0], found[1]});
  return ways;
}

Placement::Placement(pid_t service, const Cores& cores) : service_(service), before_(allowed()) {
  confine(getpid(), only(cores.studio));
  confine(service_, only(cores.service));
}

Placement::~Placement() {
  confine(getpid(), before_);
  confine(service_, before_);
}

}  // namespace bench
