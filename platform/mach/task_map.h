// The process's memory map as the kernel tells it.
#pragma once

#include <mach/vm_prot.h>

#include <cstdint>
#include <optional>

namespace platform {

struct MappedRegion {
  uint64_t start;
  uint64_t end;  // one past the last byte
  vm_prot_t protection;
  bool shared;
  uint64_t offset;  // in the mapped file
};

// The region that holds `address`, or else the first one above it; none if there is none. Asks the kernel for
// that one region where it can answer (Linux 6.11 and newer), and else reads the map's text.
std::optional<MappedRegion> regionAtOrAbove(uint64_t address);

// The same, always from the text of /proc/self/maps.
std::optional<MappedRegion> regionFromMapsText(uint64_t address);

}  // namespace platform
