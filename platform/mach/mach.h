// The kernel calls of a task on itself: its memory map, and the policies of its threads.
#pragma once

#include <mach/kern_return.h>
#include <mach/machine.h>
#include <mach/port.h>
#include <mach/thread_policy.h>
#include <mach/vm_prot.h>
#include <mach/vm_region.h>
#include <pthread.h>

#include <cstdint>

typedef uint32_t mach_msg_type_number_t;
typedef mach_port_t vm_map_t;
typedef mach_port_t thread_act_t;
typedef uintptr_t vm_address_t;
typedef uintptr_t vm_size_t;

extern "C" {

extern mach_port_t mach_task_self_;
#define mach_task_self() mach_task_self_

// Bytes in a page.
extern vm_size_t vm_page_size;

// Finds the region of the calling process's map that holds *address, or the first one above it: sets *address
// and *size to the region's (neighbouring pages of one mapping and one protection) and fills *info. The
// flavour must be VM_REGION_BASIC_INFO_64 and *count at least VM_REGION_BASIC_INFO_COUNT_64, which it is set
// to. Filled on Linux: protection, shared, offset. *object_name becomes MACH_PORT_NULL. KERN_INVALID_ADDRESS
// if nothing is mapped there or above, KERN_INVALID_ARGUMENT for another task, flavour or count. Any thread.
kern_return_t vm_region_64(vm_map_t task, vm_address_t* address, vm_size_t* size, vm_region_flavor_t flavor,
                           vm_region_info_t info, mach_msg_type_number_t* count, mach_port_t* object_name);

// The port of a live thread of this process. (On macOS <pthread.h> declares it.)
mach_port_t pthread_mach_thread_np(pthread_t thread);

// Gives a thread a policy. The flavour must be THREAD_TIME_CONSTRAINT_POLICY: on Linux the thread is
// scheduled under SCHED_DEADLINE, with the policy's three times in nanoseconds; threads that it makes do not
// inherit that. What the kernel refuses comes back as KERN_NO_ACCESS (no right to it), KERN_RESOURCE_SHORTAGE
// (too little of the processors is left), KERN_INVALID_ARGUMENT (times out of order or range, no such thread)
// or KERN_FAILURE.
kern_return_t thread_policy_set(thread_act_t thread, thread_policy_flavor_t flavor, thread_policy_t policy,
                                mach_msg_type_number_t count);
}
