#include "image_layout.h"

#include <fmt/format.h>
#include <mach/mach.h>

#include <algorithm>
#include <cstring>

namespace platform {
namespace {

constexpr uint64_t kLargestImage = uint64_t{1} << 30;

#if defined(__x86_64__)
constexpr cpu_type_t kThisProcessor = CPU_TYPE_X86_64;
#elif defined(__aarch64__)
constexpr cpu_type_t kThisProcessor = CPU_TYPE_ARM64;
#endif

template <typename T>
T readAt(std::span<const uint8_t> bytes, uint64_t offset, const char* what) {
  T value;
  memcpy(&value, bytesAt(bytes, offset, sizeof value, what).data(), sizeof value);
  return value;
}

mach_header_64 readHeader(std::span<const uint8_t> file, LoadedImage::Processor processor) {
  const auto header = readAt<mach_header_64>(file, 0, "header");
  if (header.magic != MH_MAGIC_64) throw ImageRefused("not a 64-bit Mach-O file");
  if (header.filetype != MH_DYLIB && header.filetype != MH_BUNDLE) {
    throw ImageRefused(fmt::format("file type {} is neither a library nor a bundle", header.filetype));
  }
  if (processor == LoadedImage::Processor::ThisOne && header.cputype != kThisProcessor) {
    throw ImageRefused(fmt::format("made for another processor (type {:#x})", header.cputype));
  }
  return header;
}

// Sections are left to those who read them, except for what their names say of the pages that they are on.
void checkSections(std::span<const uint8_t> command, const segment_command_64& segment) {
  const std::string name = segmentName(segment.segname);
  if (uint64_t{segment.nsects} * sizeof(section_64) > command.size() - sizeof segment) {
    throw ImageRefused(
        fmt::format("segment {}: {} sections do not fit its load command", name, segment.nsects));
  }
  for (uint32_t i = 0; i < segment.nsects; ++i) {
    const auto section = readAt<section_64>(command, sizeof segment + i * sizeof(section_64), "section");
    if (segmentName(section.segname) != name) {
      throw ImageRefused(fmt::format("segment {}: section {} says that it is in {}", name,
                                     segmentName(section.sectname), segmentName(section.segname)));
    }
  }
}

void checkSegment(const segment_command_64& segment, uint64_t fileSize) {
  const std::string name = segmentName(segment.segname);
  const auto refuse = [&](const char* fault) {
    throw ImageRefused(fmt::format("segment {}: {}", name, fault));
  };
  if (segment.fileoff > fileSize || segment.filesize > fileSize - segment.fileoff) {
    refuse("lies outside the file");
  }
  if (segment.filesize > segment.vmsize) refuse("is larger in the file than in memory");
  if (segment.vmaddr % vm_page_size != 0) refuse("does not start on a page");
  if (segment.vmsize == 0 || segment.vmsize > kLargestImage) refuse("is empty or too large");
  if (segment.vmaddr > UINT64_MAX - kLargestImage) refuse("lies outside the address space");
  const vm_prot_t protection = segment.initprot;
  if ((protection & ~(VM_PROT_READ | VM_PROT_WRITE | VM_PROT_EXECUTE)) != 0)
    refuse("has unknown protections");
  if ((protection & VM_PROT_READ) == 0) refuse("cannot be read");
  if ((protection & VM_PROT_WRITE) != 0 && (protection & VM_PROT_EXECUTE) != 0) {
    refuse("is both writable and executable");
  }
  if (name == SEG_DATA && ((protection & VM_PROT_WRITE) == 0 || (segment.flags & SG_READ_ONLY) != 0)) {
    refuse("cannot be written");
  }
}

// The segments as a whole, and the header's place in them.
void checkSegments(const ImageLayout& layout, const mach_header_64& header) {
  if (layout.segments.empty()) throw ImageRefused("no segment");
  const segment_command_64& first = layout.segments.front();
  if (first.fileoff != 0 || first.filesize < sizeof header + uint64_t{header.sizeofcmds}) {
    throw ImageRefused("the first segment does not hold the header and the load commands");
  }
  for (size_t i = 1; i < layout.segments.size(); ++i) {
    const segment_command_64& before = layout.segments[i - 1];
    if (layout.segments[i].vmaddr < before.vmaddr + before.vmsize) {
      throw ImageRefused(fmt::format("segment {}: lies in or before segment {}",
                                     segmentName(layout.segments[i].segname), segmentName(before.segname)));
    }
  }
  if (layout.endAddress() - layout.firstAddress() > kLargestImage)
    throw ImageRefused("the image is too large");
}

}  // namespace

std::span<const uint8_t> bytesAt(std::span<const uint8_t> bytes, uint64_t offset, uint64_t size,
                                 const char* what) {
  if (offset > bytes.size() || size > bytes.size() - offset) {
    throw ImageRefused(fmt::format("{}: {} bytes at {} of {}", what, size, offset, bytes.size()));
  }
  return bytes.subspan(offset, size);
}

std::string stringAt(std::span<const uint8_t> bytes, uint64_t offset, const char* what) {
  const auto rest = bytesAt(bytes, offset, bytes.size() - std::min<uint64_t>(offset, bytes.size()), what);
  const auto end = std::find(rest.begin(), rest.end(), uint8_t{0});
  if (end == rest.end()) throw ImageRefused(fmt::format("{}: the string at {} does not end", what, offset));
  return {rest.begin(), end};
}

std::string segmentName(const char (&name)[16]) {
  return {name, strnlen(name, sizeof name)};
}

ImageLayout readImageLayout(std::span<const uint8_t> file, LoadedImage::Processor processor) {
  const mach_header_64 header = readHeader(file, processor);
  const auto commands = bytesAt(file, sizeof header, header.sizeofcmds, "load commands");

  ImageLayout layout;
  uint64_t offset = 0;
  for (uint32_t i = 0; i < header.ncmds; ++i) {
    const auto prefix = readAt<load_command>(commands, offset, "load command");
    if (prefix.cmdsize < sizeof prefix || prefix.cmdsize % 8 != 0) {
      throw ImageRefused(fmt::format("load command {}: its size is {}", i, prefix.cmdsize));
    }
    const auto command = bytesAt(commands, offset, prefix.cmdsize, "load command");
    offset += prefix.cmdsize;
    switch (prefix.cmd) {
      case LC_SEGMENT_64: {
        const auto segment = readAt<segment_command_64>(command, 0, "segment command");
        checkSections(command, segment);
        checkSegment(segment, file.size());
        layout.segments.push_back(segment);
        break;
      }
      case LC_DYLD_INFO:
      case LC_DYLD_INFO_ONLY:
        layout.classicFixups = readAt<dyld_info_command>(command, 0, "fixup command");
        break;
      case LC_DYLD_CHAINED_FIXUPS:
        layout.chainedFixups = readAt<linkedit_data_command>(command, 0, "fixup command");
        break;
      default:
        break;
    }
  }
  checkSegments(layout, header);
  return layout;
}

}  // namespace platform
