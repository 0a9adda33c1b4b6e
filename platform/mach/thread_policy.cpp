#include <mach/mach.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>

namespace {

#ifndef SCHED_DEADLINE
constexpr uint32_t SCHED_DEADLINE = 6;
#endif

// A thread under a deadline may not make threads unless these start out without it.
constexpr uint64_t kResetOnFork = 1;

// The kernel's own structure, which the C library does not declare.
struct SchedAttr {
  uint32_t size;
  uint32_t sched_policy;
  uint64_t sched_flags;
  int32_t sched_nice;
  uint32_t sched_priority;
  uint64_t sched_runtime;
  uint64_t sched_deadline;
  uint64_t sched_period;
};

kern_return_t refusal(int error) {
  switch (error) {
    case EPERM:
      return KERN_NO_ACCESS;
    case EBUSY:
      return KERN_RESOURCE_SHORTAGE;
    case EINVAL:
    case ESRCH:
      return KERN_INVALID_ARGUMENT;
    default:
      return KERN_FAILURE;
  }
}

}  // namespace

mach_port_t pthread_mach_thread_np(pthread_t thread) {
  // The C library gives no thread's id but the caller's own; the kernel's clock id of a thread contains it.
  clockid_t clock = 0;
  if (pthread_getcpuclockid(thread, &clock) != 0) return MACH_PORT_NULL;
  return static_cast<mach_port_t>(~(clock >> 3));
}

kern_return_t thread_policy_set(thread_act_t thread, thread_policy_flavor_t flavor, thread_policy_t policy,
                                mach_msg_type_number_t count) {
  if (thread == MACH_PORT_NULL || flavor != THREAD_TIME_CONSTRAINT_POLICY ||
      count < THREAD_TIME_CONSTRAINT_POLICY_COUNT) {
    return KERN_INVALID_ARGUMENT;
  }
  thread_time_constraint_policy_data_t times{};
  memcpy(&times, policy, sizeof times);
  SchedAttr attributes{};
  attributes.size = sizeof attributes;
  attributes.sched_policy = SCHED_DEADLINE;
  attributes.sched_flags = kResetOnFork;
  attributes.sched_runtime = times.computation;
  attributes.sched_deadline = times.constraint;
  attributes.sched_period = times.period;
  if (syscall(SYS_sched_setattr, thread, &attributes, 0) == 0) return KERN_SUCCESS;
  return refusal(errno);
}
