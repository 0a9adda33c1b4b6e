// What vm_region_64() tells of a region.
#pragma once

#include <mach/vm_prot.h>

#include <cstdint>

typedef int vm_region_flavor_t;
typedef int* vm_region_info_t;

#define VM_REGION_BASIC_INFO_64 9

#pragma pack(push, 4)
struct vm_region_basic_info_64 {
  vm_prot_t protection;
  vm_prot_t max_protection;
  uint32_t inheritance;
  uint32_t shared;
  uint32_t reserved;
  uint64_t offset;
  int behavior;
  unsigned short user_wired_count;
};
#pragma pack(pop)

typedef struct vm_region_basic_info_64 vm_region_basic_info_data_64_t;

#define VM_REGION_BASIC_INFO_COUNT_64 \
  (static_cast<mach_msg_type_number_t>(sizeof(vm_region_basic_info_data_64_t) / sizeof(int)))
