// Kinds of processor, as a Mach-O header names them.
#pragma once

typedef int cpu_type_t;
typedef int cpu_subtype_t;

#define CPU_ARCH_ABI64 0x01000000

#define CPU_TYPE_X86_64 (static_cast<cpu_type_t>(7 | CPU_ARCH_ABI64))
#define CPU_TYPE_ARM64 (static_cast<cpu_type_t>(12 | CPU_ARCH_ABI64))
