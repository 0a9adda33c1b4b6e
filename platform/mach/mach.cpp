#include <mach/mach.h>
#include <mach/mach_time.h>
#include <unistd.h>

#include <cstring>

#include "task_map.h"

mach_port_t mach_task_self_ = static_cast<mach_port_t>(getpid());
vm_size_t vm_page_size = static_cast<vm_size_t>(sysconf(_SC_PAGESIZE));

kern_return_t vm_region_64(vm_map_t task, vm_address_t* address, vm_size_t* size, vm_region_flavor_t flavor,
                           vm_region_info_t info, mach_msg_type_number_t* count, mach_port_t* object_name) {
  if (task != mach_task_self() || flavor != VM_REGION_BASIC_INFO_64 ||
      *count < VM_REGION_BASIC_INFO_COUNT_64) {
    return KERN_INVALID_ARGUMENT;
  }
  const auto region = platform::regionAtOrAbove(*address);
  if (!region) return KERN_INVALID_ADDRESS;
  vm_region_basic_info_data_64_t basic{};
  basic.protection = region->protection;
  basic.shared = region->shared;
  basic.offset = region->offset;
  memcpy(info, &basic, sizeof basic);
  *count = VM_REGION_BASIC_INFO_COUNT_64;
  *address = region->start;
  *size = region->end - region->start;
  *object_name = MACH_PORT_NULL;
  return KERN_SUCCESS;
}

kern_return_t mach_timebase_info(mach_timebase_info_t info) {
  *info = {.numer = 1, .denom = 1};
  return KERN_SUCCESS;
}
