// Names of kernel objects. On Linux a thread's port is its thread id, and the task's the process id.
#pragma once

#include <cstdint>

typedef uint32_t mach_port_t;

#define MACH_PORT_NULL (static_cast<mach_port_t>(0))
