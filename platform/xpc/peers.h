// How many connections each process has to this one. Each takes a descriptor and memory, so one process may
// have so many, and all together no more than half of the descriptors; the rest is for what messages carry.
#pragma once

#include <sys/types.h>

#include <memory>

namespace platform::xpc {

class Peers {
 public:
  // A connection's place among its process's, free again when the last holder lets go of it.
  using Place = std::shared_ptr<const void>;

  Peers();
  // The next connection's place, or null if the process has as many as it may. From any thread.
  Place enter(pid_t process);

 private:
  struct Counts;

  std::shared_ptr<Counts> counts_;  // kept by the places, too
};

}  // namespace platform::xpc
