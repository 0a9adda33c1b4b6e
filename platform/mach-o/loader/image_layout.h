// What a Mach-O file says of itself, checked against the file's own size.
#pragma once

#include <mach-o/loader.h>

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "macho_loader.h"

namespace platform {

struct ImageLayout {
  std::vector<segment_command_64>
      segments;  // in the order of their addresses; the first one holds the header
  std::optional<dyld_info_command> classicFixups;
  std::optional<linkedit_data_command> chainedFixups;

  uint64_t firstAddress() const { return segments.front().vmaddr; }
  uint64_t endAddress() const { return segments.back().vmaddr + segments.back().vmsize; }
};

// Reads the header and the load commands. Every segment of the result lies inside the file, starts on a page,
// is readable and overlaps no other. Throws ImageRefused, its message without the file's name.
ImageLayout readImageLayout(std::span<const uint8_t> file, LoadedImage::Processor processor);

// The bytes from `offset` on, `size` of them; throws ImageRefused if they are not all there.
std::span<const uint8_t> bytesAt(std::span<const uint8_t> bytes, uint64_t offset, uint64_t size,
                                 const char* what);

// The NUL-terminated string at `offset`; throws ImageRefused if it does not end inside `bytes`.
std::string stringAt(std::span<const uint8_t> bytes, uint64_t offset, const char* what);

std::string segmentName(const char (&name)[16]);

}  // namespace platform
