// Counts what the process takes from the heap: the file that goes with it stands in for malloc.
#pragma once

#include <cstdint>

namespace bench {

struct Allocations {
  int64_t count;
  int64_t bytes;
  int64_t largest;  // since the last call
};
// Counting begins when it is switched on, and what is timed is timed without it.
void countAllocations(bool on);
Allocations allocations();

int64_t minorFaults();

}  // namespace bench
