// Mach-O images for the tests, and an own view of their pointer tables.
#pragma once

#include <mach-o/loader.h>
#include <mach-o/nlist.h>
#include <mach/task_map.h>

#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "MachOLoader.h"

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

// What the images import, when nothing is rebound.
inline int openDoor(int guest) {
  return guest + 100;
}
inline int ringBell(int guest) {
  return guest + 200;
}
inline int oneLetter(int guest) {
  return guest + 300;
}
inline int noUnderscore(int guest) {
  return guest + 400;
}
inline int bellCount = 7;

using GuestFunction = int(int);

inline void* address(GuestFunction* function) {
  return reinterpret_cast<void*>(function);
}

inline void* theOriginal(const std::string& name) {
  static const std::map<std::string, void*> known = {{"open_door", address(openDoor)},
                                                     {"ring_bell", address(ringBell)},
                                                     {"Q", address(oneLetter)},
                                                     {"qz", address(noUnderscore)},
                                                     {"bell_count", &bellCount}};
  const auto found = known.find(name);
  return found == known.end() ? nullptr : found->second;
}

inline std::unique_ptr<platform::LoadedImage> loadDoorman(const std::string& layout,
                                                          const std::string& processor = kThisProcessor) {
  return platform::LoadedImage::load(doorman(layout, processor), theOriginal,
                                     platform::LoadedImage::Processor::Any);
}

inline int call(const platform::LoadedImage& image, const char* function, int guest) {
  return image.function<GuestFunction>(function)(guest);
}

// One pointer of a section of symbol pointers.
struct Slot {
  std::string symbol;  // as the symbol table has it; "" for a local or absolute entry
  std::string segment;
  std::string section;
  void** address;
  uint32_t* indirectEntry;
};

// Every slot of a well-made image.
inline std::vector<Slot> slotsOf(const platform::LoadedImage& image) {
  const auto at = [&](uint64_t address) {
    return reinterpret_cast<char*>(address + static_cast<uint64_t>(image.slide()));
  };
  const symtab_command* symtab = nullptr;
  const dysymtab_command* dysymtab = nullptr;
  char* linkEdit = nullptr;
  std::vector<const section_64*> sections;
  const auto* command = reinterpret_cast<const char*>(image.header() + 1);
  for (uint32_t i = 0; i < image.header()->ncmds; ++i) {
    const auto* const prefix = reinterpret_cast<const load_command*>(command);
    if (prefix->cmd == LC_SYMTAB) symtab = reinterpret_cast<const symtab_command*>(command);
    if (prefix->cmd == LC_DYSYMTAB) dysymtab = reinterpret_cast<const dysymtab_command*>(command);
    if (prefix->cmd == LC_SEGMENT_64) {
      const auto* const segment = reinterpret_cast<const segment_command_64*>(command);
      if (std::string(segment->segname) == SEG_LINKEDIT) linkEdit = at(segment->vmaddr) - segment->fileoff;
      const auto* const first = reinterpret_cast<const section_64*>(segment + 1);
      for (uint32_t s = 0; s < segment->nsects; ++s) sections.push_back(first + s);
    }
    command += prefix->cmdsize;
  }
  std::vector<Slot> slots;
  for (const section_64* section : sections) {
    const uint32_t type = section->flags & SECTION_TYPE;
    if (type != S_LAZY_SYMBOL_POINTERS && type != S_NON_LAZY_SYMBOL_POINTERS) continue;
    for (uint64_t i = 0; i < section->size / sizeof(void*); ++i) {
      auto* const entry =
          reinterpret_cast<uint32_t*>(linkEdit + dysymtab->indirectsymoff) + section->reserved1 + i;
      std::string symbol;
      if ((*entry & (INDIRECT_SYMBOL_LOCAL | INDIRECT_SYMBOL_ABS)) == 0) {
        const auto* const symbols = reinterpret_cast<const nlist_64*>(linkEdit + symtab->symoff);
        symbol = linkEdit + symtab->stroff + symbols[*entry].n_un.n_strx;
      }
      slots.push_back({symbol,
                       {section->segname, strnlen(section->segname, 16)},
                       {section->sectname, strnlen(section->sectname, 16)},
                       reinterpret_cast<void**>(at(section->addr)) + i,
                       entry});
    }
  }
  return slots;
}

// As the process's map has it.
inline vm_prot_t protectionAt(const void* address) {
  return platform::regionFromMapsText(reinterpret_cast<uintptr_t>(address))->protection;
}
