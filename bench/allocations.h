// Counts what the process takes from the heap: the file that goes with it stands in for malloc.
#pragma once

#include <cstdint>

namespace bench {

struct Allocations {
  int64_t count;
  int64_t bytes;
  int64_t largest;  // since the last call
};
Allocations allocations();

int64_t minorFaults();

}  // namespace bench
