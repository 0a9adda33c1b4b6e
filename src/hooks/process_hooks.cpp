#include "process_hooks.h"

#include <mach/mach.h>
#include <mach/mach_time.h>
#include <pthread.h>
#include <sched.h>

#include <cstdint>
#include <cstdio>

#include "symbol_rebinding.h"

namespace {

// The system's functions, which are kept and never called.
void* systemsAudioDeviceDuck = nullptr;
void* systemsSetSchedParam = nullptr;

constexpr double kPeriodMilliseconds = 1000;
constexpr double kComputationMilliseconds = 2;
constexpr double kConstraintMilliseconds = 4;

// Takes what AudioDeviceDuck takes.
int32_t myDuck(uint32_t /*device*/, float /*duckedLevel*/, const void* /*startTime*/,
               float /*rampDuration*/) {
  puts("Unduck");
  return 0;
}

// Takes what pthread_setschedparam takes.
int mySetSchedParam(pthread_t /*thread*/, int policy, const sched_param* parameters) {
  if (parameters == nullptr || policy != SCHED_RR || parameters->sched_priority != 0) return 0;

  mach_timebase_info_data_t timebase{};
  mach_timebase_info(&timebase);
  const double millisecond = static_cast<double>(timebase.denom) / timebase.numer * 1'000'000;
  thread_time_constraint_policy_data_t constraint{};
  constraint.period = static_cast<uint32_t>(kPeriodMilliseconds * millisecond);
  constraint.computation = static_cast<uint32_t>(kComputationMilliseconds * millisecond);
  constraint.constraint = static_cast<uint32_t>(kConstraintMilliseconds * millisecond);
  constraint.preemptible = 1;
  const kern_return_t result =
      thread_policy_set(pthread_mach_thread_np(pthread_self()), THREAD_TIME_CONSTRAINT_POLICY,
                        reinterpret_cast<thread_policy_t>(&constraint), THREAD_TIME_CONSTRAINT_POLICY_COUNT);
  if (result != KERN_SUCCESS) printf("thread_policy_set %d\n", result);
  return 0;
}

const SymbolRebinding duckRebinding{"AudioDeviceDuck", reinterpret_cast<void*>(&myDuck),
                                    &systemsAudioDeviceDuck};
const SymbolRebinding priorityRebinding{"pthread_setschedparam", reinterpret_cast<void*>(&mySetSchedParam),
                                        &systemsSetSchedParam};

}  // namespace

void duckExactlyElevenDucks() {
  rebindSymbols(&duckRebinding, 1);
}

void patchThreadPriority() {
  rebindSymbols(&priorityRebinding, 1);
}
