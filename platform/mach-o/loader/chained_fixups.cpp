#include <fmt/format.h>
#include <mach-o/fixup-chains.h>

#include <bit>
#include <cstddef>
#include <cstring>
#include <optional>
#include <vector>

#include "fixups.h"

namespace platform {
namespace {

template <typename T>
T structureAt(std::span<const uint8_t> data, uint64_t offset, const char* what, size_t size = sizeof(T)) {
  T value{};
  memcpy(&value, bytesAt(data, offset, size, what).data(), size);
  return value;
}

struct Import {
  uint64_t nameOffset;
  bool weak;
  uint64_t addend;
};

template <typename Format>
Import importAt(std::span<const uint8_t> data, uint64_t table, uint64_t index) {
  const auto import = structureAt<Format>(data, table + index * sizeof(Format), "chained fixups: import");
  uint64_t addend = 0;
  if constexpr (requires { import.addend; })
    addend = static_cast<uint64_t>(int64_t{static_cast<int64_t>(import.addend)});
  return {import.name_offset, import.weak_import != 0, addend};
}

// The imports of an image, each looked up when a pointer first asks for it.
class Imports {
 public:
  Imports(std::span<const uint8_t> data, const dyld_chained_fixups_header& header, const FixupTarget& target)
      : data_(data), header_(header), target_(target) {
    if (header.symbols_format != 0) throw ImageRefused("chained fixups: compressed symbol names");
    // No import is smaller than four bytes.
    bytesAt(data, header.imports_offset, uint64_t{header.imports_count} * sizeof(dyld_chained_import),
            "chained fixups: imports");
    addresses_.resize(header.imports_count);
  }

  uint64_t address(uint64_t ordinal, uint64_t pointersAddend) {
    if (ordinal >= addresses_.size()) {
      throw ImageRefused(fmt::format("chained fixups: import {} of {}", ordinal, addresses_.size()));
    }
    auto& address = addresses_[ordinal];
    if (!address) address = lookUp(ordinal);
    return *address == 0 ? 0 : *address + pointersAddend;
  }

 private:
  Import import(uint64_t ordinal) const {
    switch (header_.imports_format) {
      case DYLD_CHAINED_IMPORT:
        return importAt<dyld_chained_import>(data_, header_.imports_offset, ordinal);
      case DYLD_CHAINED_IMPORT_ADDEND:
        return importAt<dyld_chained_import_addend>(data_, header_.imports_offset, ordinal);
      case DYLD_CHAINED_IMPORT_ADDEND64:
        return importAt<dyld_chained_import_addend64>(data_, header_.imports_offset, ordinal);
      default:
        throw ImageRefused(fmt::format("chained fixups: imports of format {}", header_.imports_format));
    }
  }

  uint64_t lookUp(uint64_t ordinal) const {
    const Import wanted = import(ordinal);
    const std::string name =
        stringAt(data_, header_.symbols_offset + wanted.nameOffset, "chained fixups: symbol name");
    const uint64_t address = target_.address(name, wanted.weak);
    return address == 0 ? 0 : address + wanted.addend;
  }

  std::span<const uint8_t> data_;
  const dyld_chained_fixups_header& header_;
  const FixupTarget& target_;
  std::vector<std::optional<uint64_t>> addresses_;
};

// One chain: each pointer tells how far up the next one is.
void applyChain(const segment_command_64& segment, uint64_t offset, uint64_t pageEnd, uint16_t format,
                Imports& imports, FixupTarget& target) {
  for (;;) {
    const uint64_t raw = target.read(segment, offset);
    const auto asRebase = std::bit_cast<dyld_chained_ptr_64_rebase>(raw);
    uint64_t value = 0;
    if (asRebase.bind != 0) {
      const auto asBind = std::bit_cast<dyld_chained_ptr_64_bind>(raw);
      value = imports.address(asBind.ordinal, asBind.addend);
    } else {
      const uint64_t pointee = asRebase.target;
      value = format == DYLD_CHAINED_PTR_64 ? target.slid(pointee) : target.firstByte() + pointee;
      value |= uint64_t{asRebase.high8} << 56;
    }
    target.write(segment, offset, value);
    if (asRebase.next == 0) return;
    offset += uint64_t{asRebase.next} * 4;
    if (offset >= pageEnd) {
      throw ImageRefused(fmt::format("segment {}: a chain leaves its page", segmentName(segment.segname)));
    }
  }
}

void applySegment(std::span<const uint8_t> data, uint64_t offset, const segment_command_64& segment,
                  Imports& imports, FixupTarget& target) {
  constexpr size_t kFixedPart = offsetof(dyld_chained_starts_in_segment, page_start);
  const char* const what = "chained fixups: starts in a segment";
  const auto starts = structureAt<dyld_chained_starts_in_segment>(data, offset, what, kFixedPart);
  if (starts.pointer_format != DYLD_CHAINED_PTR_64 && starts.pointer_format != DYLD_CHAINED_PTR_64_OFFSET) {
    throw ImageRefused(fmt::format("chained fixups: pointers of format {}", starts.pointer_format));
  }
  if (starts.page_size != 0x1000 && starts.page_size != 0x4000) {
    throw ImageRefused(fmt::format("chained fixups: pages of {} bytes", starts.page_size));
  }
  if (starts.segment_offset != target.slid(segment.vmaddr) - target.firstByte()) {
    throw ImageRefused(fmt::format("segment {}: its chains are elsewhere", segmentName(segment.segname)));
  }
  for (uint64_t page = 0; page < starts.page_count; ++page) {
    const auto first = structureAt<uint16_t>(data, offset + kFixedPart + page * sizeof(uint16_t), what);
    if (first == DYLD_CHAINED_PTR_START_NONE) continue;
    const uint64_t pageStart = page * starts.page_size;
    if (first >= starts.page_size) {
      throw ImageRefused(
          fmt::format("segment {}: a chain starts outside its page", segmentName(segment.segname)));
    }
    applyChain(segment, pageStart + first, pageStart + starts.page_size, starts.pointer_format, imports,
               target);
  }
}

}  // namespace

void applyChainedFixups(const linkedit_data_command& command, std::span<const uint8_t> file,
                        FixupTarget& target) {
  const auto data = bytesAt(file, command.dataoff, command.datasize, "chained fixups");
  const auto header = structureAt<dyld_chained_fixups_header>(data, 0, "chained fixups: header");
  if (header.fixups_version != 0) {
    throw ImageRefused(fmt::format("chained fixups: version {}", header.fixups_version));
  }
  Imports imports(data, header, target);

  const auto segments = structureAt<uint32_t>(data, header.starts_offset, "chained fixups: starts");
  if (segments > target.segmentCount()) {
    throw ImageRefused(fmt::format("chained fixups: {} segments of {}", segments, target.segmentCount()));
  }
  for (uint64_t i = 0; i < segments; ++i) {
    const uint64_t entry =
        header.starts_offset + offsetof(dyld_chained_starts_in_image, seg_info_offset) + i * sizeof(uint32_t);
    const auto offset = structureAt<uint32_t>(data, entry, "chained fixups: starts");
    if (offset != 0) {
      applySegment(data, uint64_t{header.starts_offset} + offset, target.segment(i), imports, target);
    }
  }
}

}  // namespace platform
