#pragma once

#include <stdint.h>

typedef int IOReturn;
typedef uint32_t io_object_t;
typedef io_object_t io_connect_t;
typedef io_object_t io_service_t;

enum : IOReturn {
  kIOReturnSuccess = 0,
  kIOReturnBadArgument = (IOReturn)0xe00002c2,
};
