// The unit of absolute time.
#pragma once

#include <mach/kern_return.h>

#include <cstdint>

struct mach_timebase_info {
  uint32_t numer;
  uint32_t denom;
};

typedef struct mach_timebase_info mach_timebase_info_data_t;
typedef struct mach_timebase_info* mach_timebase_info_t;

// An absolute-time unit is numer / denom nanoseconds: on Linux one. Always KERN_SUCCESS.
extern "C" kern_return_t mach_timebase_info(mach_timebase_info_t info);
