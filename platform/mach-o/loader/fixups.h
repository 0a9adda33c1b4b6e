// Filling in an image's pointers: to itself (rebase) and to what it imports (bind).
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "image_layout.h"

namespace platform {

// An image while its pointers are filled in: all of its segments mapped, readable and writable.
class FixupTarget {
 public:
  FixupTarget(const ImageLayout& layout, uint8_t* firstByte, const LoadedImage::Resolver& resolve);

  // The address at which a byte that was linked at `address` lies now.
  uint64_t slid(uint64_t address) const { return address + slide_; }
  uint64_t firstByte() const { return slid(layout_.firstAddress()); }

  size_t segmentCount() const { return layout_.segments.size(); }
  const segment_command_64& segment(uint64_t index) const;  // throws ImageRefused for an unknown one

  // Read and write a pointer of a segment. Throw ImageRefused unless it lies whole in the part of the segment
  // that came from the file, and after more writes than a well-made image of this size can need.
  uint64_t read(const segment_command_64& segment, uint64_t offset) const;
  void write(const segment_command_64& segment, uint64_t offset, uint64_t value);

  // What `symbol` (with its leading underscore) is bound to; 0 for a weak import that nobody has. Throws
  // ImageRefused for any other that nobody has.
  uint64_t address(const std::string& symbol, bool weak) const;

 private:
  uint8_t* pointer(const segment_command_64& segment, uint64_t offset) const;

  const ImageLayout& layout_;
  const LoadedImage::Resolver& resolve_;
  uint64_t slide_;
  uint64_t writesLeft_ = 0;
};

// The opcode streams of LC_DYLD_INFO. Lazy pointers are bound at once.
void applyClassicFixups(const dyld_info_command& info, std::span<const uint8_t> file, FixupTarget& target);

// The pointer chains of LC_DYLD_CHAINED_FIXUPS.
void applyChainedFixups(const linkedit_data_command& command, std::span<const uint8_t> file,
                        FixupTarget& target);

}  // namespace platform
