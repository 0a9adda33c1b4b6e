#include "macho_loader.h"

#include <fmt/format.h>
#include <mach-o/images.h>
#include <mach-o/nlist.h>
#include <mach/mach.h>
#include <sys/mman.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string_view>

#include "fixups.h"
#include "image_layout.h"

namespace platform {
namespace {

uint64_t wholePages(uint64_t size) {
  return (size + vm_page_size - 1) / vm_page_size * vm_page_size;
}

void protect(uint8_t* start, uint64_t size, vm_prot_t protection) {
  if (mprotect(start, wholePages(size), protection) != 0) {
    throw ImageRefused(fmt::format("mprotect: {}", strerror(errno)));
  }
}

// The symbol table of a mapped image, whose load commands were checked when it was mapped.
struct MappedTables {
  MappedTables(const mach_header_64* header, intptr_t imageSlide) : slide(static_cast<uint64_t>(imageSlide)) {
    const auto* command = reinterpret_cast<const uint8_t*>(header + 1);
    for (uint32_t i = 0; i < header->ncmds; ++i) {
      load_command prefix{};
      memcpy(&prefix, command, sizeof prefix);
      if (prefix.cmd == LC_SEGMENT_64) memcpy(&segments.emplace_back(), command, sizeof(segment_command_64));
      if (prefix.cmd == LC_SYMTAB && prefix.cmdsize >= sizeof symtab) memcpy(&symtab, command, sizeof symtab);
      command += prefix.cmdsize;
    }
  }

  // The bytes that a part of the file became; none unless it lies whole in one segment.
  std::span<const uint8_t> at(uint64_t fileOffset, uint64_t size) const {
    for (const auto& segment : segments) {
      if (fileOffset < segment.fileoff || fileOffset - segment.fileoff > segment.filesize) continue;
      const uint64_t offset = fileOffset - segment.fileoff;
      if (size > segment.filesize - offset) continue;
      // NOLINTNEXTLINE(performance-no-int-to-ptr): images tell addresses as numbers
      return {reinterpret_cast<const uint8_t*>(segment.vmaddr + slide + offset), size};
    }
    return {};
  }

  uint64_t slide;
  std::vector<segment_command_64> segments;
  symtab_command symtab{};
};

}  // namespace

std::unique_ptr<LoadedImage> LoadedImage::load(const std::string& path, const Resolver& resolve,
                                               Processor processor) {
  std::ifstream stream(path, std::ios::binary);
  const std::vector<char> file{std::istreambuf_iterator<char>(stream), {}};
  if (!stream) throw ImageRefused(path + ": cannot be read");
  return load(path, {reinterpret_cast<const uint8_t*>(file.data()), file.size()}, resolve, processor);
}

std::unique_ptr<LoadedImage> LoadedImage::load(const std::string& path, std::span<const uint8_t> file,
                                               const Resolver& resolve, Processor processor) try {
  const ImageLayout layout = readImageLayout(file, processor);
  const uint64_t size = wholePages(layout.endAddress() - layout.firstAddress());
  const size_t reservedSize = size + 2 * vm_page_size;
  void* const reserved =
      mmap(nullptr, reservedSize, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (reserved == MAP_FAILED) throw ImageRefused(fmt::format("mmap: {}", strerror(errno)));

  uint8_t* const firstByte = static_cast<uint8_t*>(reserved) + vm_page_size;
  const auto slide = static_cast<intptr_t>(reinterpret_cast<uint64_t>(firstByte) - layout.firstAddress());
  const auto* const header = reinterpret_cast<const mach_header_64*>(firstByte);
  std::unique_ptr<LoadedImage> image(new LoadedImage(reserved, reservedSize, header, slide));

  const auto startOf = [&](const segment_command_64& segment) {
    return firstByte + (segment.vmaddr - layout.firstAddress());
  };
  for (const auto& segment : layout.segments) {
    protect(startOf(segment), segment.vmsize, VM_PROT_READ | VM_PROT_WRITE);
    if (segment.filesize > 0) memcpy(startOf(segment), file.data() + segment.fileoff, segment.filesize);
  }
  FixupTarget target(layout, firstByte, resolve);
  if (layout.classicFixups) applyClassicFixups(*layout.classicFixups, file, target);
  if (layout.chainedFixups) applyChainedFixups(*layout.chainedFixups, file, target);
  for (const auto& segment : layout.segments) {
    const bool readOnly = (segment.flags & SG_READ_ONLY) != 0;
    protect(startOf(segment), segment.vmsize, readOnly ? VM_PROT_READ : segment.initprot);
  }

  addMachOImage({header, slide, static_cast<size_t>(size), path});
  return image;
} catch (const ImageRefused& refused) {
  throw ImageRefused(path + ": " + refused.what());
}

LoadedImage::LoadedImage(void* reserved, size_t reservedSize, const mach_header_64* header, intptr_t slide)
    : reserved_(reserved), reservedSize_(reservedSize), header_(header), slide_(slide) {}

void* LoadedImage::symbol(const std::string& name) const {
  const MappedTables tables(header_, slide_);
  const auto symbols = tables.at(tables.symtab.symoff, uint64_t{tables.symtab.nsyms} * sizeof(nlist_64));
  const auto strings = tables.at(tables.symtab.stroff, tables.symtab.strsize);
  for (size_t offset = 0; offset < symbols.size(); offset += sizeof(nlist_64)) {
    nlist_64 entry{};
    memcpy(&entry, symbols.data() + offset, sizeof entry);
    const bool exported = (entry.n_type & N_STAB) == 0 && (entry.n_type & N_EXT) != 0;
    if (!exported || (entry.n_type & N_TYPE) != N_SECT || entry.n_un.n_strx >= strings.size()) continue;
    const auto* const text = reinterpret_cast<const char*>(strings.data()) + entry.n_un.n_strx;
    const std::string_view found(text, strnlen(text, strings.size() - entry.n_un.n_strx));
    if (found.size() == name.size() + 1 && found[0] == '_' && found.substr(1) == name) {
      // NOLINTNEXTLINE(performance-no-int-to-ptr): as above
      return reinterpret_cast<void*>(entry.n_value + static_cast<uint64_t>(slide_));
    }
  }
  return nullptr;
}

LoadedImage::~LoadedImage() {
  removeMachOImage(header_);
  munmap(reserved_, reservedSize_);
}

}  // namespace platform
