// Mach-O images for the tests, and an own view of their pointer tables.
#pragma once

#include <mach-o/loader.h>
#include <mach-o/nlist.h>
#include <mach/mach.h>
#include <mach/task_map.h>
#include <sys/mman.h>

#include <fstream>
#include <iterator>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "macho_loader.h"

// The linker's layouts of "doorman": which sections hold its pointers, and how they are filled in.
inline const std::vector<std::string> kLayouts = {"lazy", "const", "chained", "auth"};

#if defined(__x86_64__)
inline const std::string kThisProcessor = "x86_64";
inline const std::string kOtherProcessor = "arm64";
#else
inline const std::string kThisProcessor = "arm64";
inline const std::string kOtherProcessor = "x86_64";
#endif

inline std::string imagePath(const std::string& name) {
  return std::string(MACHO_IMAGE_DIR) + "/" + name + ".dylib";
}

inline std::string doorman(const std::string& layout, const std::string& processor = kThisProcessor) {
  return imagePath("doorman_" + layout + "_" + processor);
}

inline std::vector<uint8_t> fileBytes(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  const std::string text{std::istreambuf_iterator<char>(file), {}};
  return {text.begin(), text.end()};
}

using GuestFunction = int(int);

template <int kMore>
int add(int guest) {
  return guest + kMore;
}

inline void* address(GuestFunction* function) {
  return reinterpret_cast<void*>(function);
}

// What the images import, when nothing is rebound.
inline constexpr GuestFunction* openDoor = add<100>;
inline constexpr GuestFunction* ringBell = add<200>;
inline int bellCount = 7;

inline void* theOriginal(const std::string& name) {
  if (name == "open_door") return address(openDoor);
  if (name == "ring_bell") return address(ringBell);
  if (name == "Q") return address(add<300>);
  if (name == "qz") return address(add<400>);
  return name == "bell_count" ? &bellCount : nullptr;
}

inline std::unique_ptr<platform::LoadedImage> loadDoorman(const std::string& layout,
                                                          const std::string& processor = kThisProcessor) {
  return platform::LoadedImage::load(doorman(layout, processor), theOriginal,
                                     platform::LoadedImage::Processor::Any);
}

inline int call(const platform::LoadedImage& image, const char* function, int guest) {
  return image.function<GuestFunction>(function)(guest);
}

// The load commands of a kind, in a mapped image or in the bytes of a file.
template <typename Command>
std::vector<Command*> commandsOf(mach_header_64* header, uint32_t kind) {
  std::vector<Command*> found;
  auto* at = reinterpret_cast<char*>(header + 1);
  for (uint32_t i = 0; i < header->ncmds; ++i) {
    const auto* const prefix = reinterpret_cast<const load_command*>(at);
    if (prefix->cmd == kind) found.push_back(reinterpret_cast<Command*>(at));
    at += prefix->cmdsize;
  }
  return found;
}

// Opens the page of a mapped image's header or tables, to change it.
inline void openPage(const void* at) {
  const uintptr_t page = reinterpret_cast<uintptr_t>(at) / vm_page_size * vm_page_size;
  mprotect(reinterpret_cast<void*>(page), vm_page_size, PROT_READ | PROT_WRITE);
}

// One pointer of a section of symbol pointers.
struct Slot {
  std::string symbol;  // as the symbol table has it; "" for a local or absolute entry
  void** address;
  uint32_t* indirectEntry;
  section_64* section;  // in the mapped header
};

// Every slot of a well-made image, whose last segment is the link-edit one.
inline std::vector<Slot> slotsOf(const platform::LoadedImage& image) {
  const auto at = [&](uint64_t address) {
    return reinterpret_cast<char*>(address + static_cast<uint64_t>(image.slide()));
  };
  auto* const header = const_cast<mach_header_64*>(image.header());
  const auto segments = commandsOf<segment_command_64>(header, LC_SEGMENT_64);
  const auto* const symtab = commandsOf<symtab_command>(header, LC_SYMTAB).at(0);
  const auto* const dysymtab = commandsOf<dysymtab_command>(header, LC_DYSYMTAB).at(0);
  char* const linkEdit = at(segments.back()->vmaddr) - segments.back()->fileoff;
  const auto* const symbols = reinterpret_cast<const nlist_64*>(linkEdit + symtab->symoff);
  auto* const indirect = reinterpret_cast<uint32_t*>(linkEdit + dysymtab->indirectsymoff);

  std::vector<Slot> slots;
  for (auto* const segment : segments) {
    const std::span sections(reinterpret_cast<section_64*>(segment + 1), segment->nsects);
    for (section_64& section : sections) {
      const uint32_t type = section.flags & SECTION_TYPE;
      if (type != S_LAZY_SYMBOL_POINTERS && type != S_NON_LAZY_SYMBOL_POINTERS) continue;
      for (uint64_t i = 0; i < section.size / sizeof(void*); ++i) {
        uint32_t* const entry = indirect + section.reserved1 + i;
        const bool named = (*entry & (INDIRECT_SYMBOL_LOCAL | INDIRECT_SYMBOL_ABS)) == 0;
        slots.push_back({named ? linkEdit + symtab->stroff + symbols[*entry].n_un.n_strx : "",
                         reinterpret_cast<void**>(at(section.addr)) + i, entry, &section});
      }
    }
  }
  return slots;
}

// As the process's map has it.
inline vm_prot_t protectionAt(const void* address) {
  return platform::regionFromMapsText(reinterpret_cast<uintptr_t>(address))->protection;
}
