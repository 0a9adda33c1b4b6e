// Where the studio and the service run while they are measured. Left to itself the system puts them now on
// one core and now on two, and the same message takes five times as long on the way to a core that sleeps.
#pragma once

#include <sched.h>
#include <sys/types.h>

#include <string>
#include <vector>

namespace bench {

// A way to place them: the numbers of the cores for all of the studio and for all of the service.
struct Cores {
  std::string name;  // "one core" or "two cores"
  int studio;
  int service;
};

// The ways that this machine has.
std::vector<Cores> waysToPlace();

// This process and the service stay where they are put, with all their threads, while it lives.
class Placement {
 public:
  Placement(pid_t service, const Cores& cores);
  ~Placement();
  Placement(const Placement&) = delete;
  Placement& operator=(const Placement&) = delete;

 private:
  const pid_t service_;
  cpu_set_t before_;
};

}  // namespace bench
