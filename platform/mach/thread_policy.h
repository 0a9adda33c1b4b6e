// How a thread asks for the processor.
#pragma once

#include <cstdint>

typedef uint32_t thread_policy_flavor_t;
typedef int* thread_policy_t;

#define THREAD_TIME_CONSTRAINT_POLICY 2

// Times in absolute-time units (see <mach/mach_time.h>): in each `period` the thread gets `computation` of
// the processor, not later than `constraint` after it became ready.
struct thread_time_constraint_policy {
  uint32_t period;
  uint32_t computation;
  uint32_t constraint;
  uint32_t preemptible;  // boolean
};

typedef struct thread_time_constraint_policy thread_time_constraint_policy_data_t;
typedef thread_time_constraint_policy_data_t* thread_time_constraint_policy_t;

#define THREAD_TIME_CONSTRAINT_POLICY_COUNT \
  (static_cast<mach_msg_type_number_t>(sizeof(thread_time_constraint_policy_data_t) / sizeof(int)))
