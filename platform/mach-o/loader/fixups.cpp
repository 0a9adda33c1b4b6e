#include "fixups.h"

#include <fmt/format.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace platform {
namespace {

// A well-made image fills a pointer in once for itself, once as an import, once as a weak and once as a lazy
// one.
constexpr uint64_t kWritesPerPointer = 4;

// Every pointer is bound when the image is loaded, so no stub ever asks for it later.
[[noreturn]] void lateBinding() {
  fputs("a Mach-O image asked for a lazy binding after it was loaded\n", stderr);
  abort();
}

}  // namespace

FixupTarget::FixupTarget(const ImageLayout& layout, uint8_t* firstByte, const LoadedImage::Resolver& resolve)
    : layout_(layout),
      resolve_(resolve),
      slide_(reinterpret_cast<uint64_t>(firstByte) - layout.firstAddress()) {
  for (const auto& segment : layout.segments) {
    writesLeft_ += segment.filesize / sizeof(uint64_t) * kWritesPerPointer;
  }
}

const segment_command_64& FixupTarget::segment(uint64_t index) const {
  if (index >= layout_.segments.size()) throw ImageRefused(fmt::format("fixups in segment {}", index));
  return layout_.segments[index];
}

uint8_t* FixupTarget::pointer(const segment_command_64& segment, uint64_t offset) const {
  if (segment.filesize < sizeof(uint64_t) || offset > segment.filesize - sizeof(uint64_t)) {
    throw ImageRefused(fmt::format("segment {}: a fixup at {} of {}", segmentName(segment.segname), offset,
                                   segment.filesize));
  }
  // NOLINTNEXTLINE(performance-no-int-to-ptr): images tell addresses as numbers
  return reinterpret_cast<uint8_t*>(slid(segment.vmaddr) + offset);
}

uint64_t FixupTarget::read(const segment_command_64& segment, uint64_t offset) const {
  uint64_t value = 0;
  memcpy(&value, pointer(segment, offset), sizeof value);
  return value;
}

void FixupTarget::write(const segment_command_64& segment, uint64_t offset, uint64_t value) {
  uint8_t* const place = pointer(segment, offset);
  // The load commands were checked as the file has them, and stay what they were.
  if (segment.fileoff == 0) throw ImageRefused("a fixup in the segment of the load commands");
  if (writesLeft_ == 0) throw ImageRefused("more fixups than the image has pointers");
  --writesLeft_;
  memcpy(place, &value, sizeof value);
}

uint64_t FixupTarget::address(const std::string& symbol, bool weak) const {
  if (symbol == "dyld_stub_binder") return reinterpret_cast<uint64_t>(&lateBinding);
  void* const address = resolve_(symbol.starts_with('_') ? symbol.substr(1) : symbol);
  if (address == nullptr && !weak) throw ImageRefused(fmt::format("nobody has \"{}\"", symbol));
  return reinterpret_cast<uint64_t>(address);
}

}  // namespace platform
