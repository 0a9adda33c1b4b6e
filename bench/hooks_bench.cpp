#include "hooks_bench.h"

#include <mach-o/nlist.h>
#include <sys/mman.h>

#include <chrono>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "macho_loader.h"
#include "symbol_rebinding.h"

namespace bench {

namespace {

constexpr int kWarmUp = 20;
constexpr int kPasses = 500;
constexpr size_t kImports = 10'000;

int anImport() {
  return 1;
}
int oneReplacement() {
  return 2;
}
int otherReplacement() {
  return 3;
}

void* address(int (*function)()) {
  return reinterpret_cast<void*>(function);
}

// The tables of a well-made image, found once.
struct Tables {
  explicit Tables(const platform::LoadedImage& image) {
    const auto at = [&](uint64_t address) {
      return reinterpret_cast<const char*>(address + static_cast<uint64_t>(image.slide()));
    };
    const symtab_command* symtab = nullptr;
    const dysymtab_command* dysymtab = nullptr;
    const char* linkEdit = nullptr;
    const auto* command = reinterpret_cast<const char*>(image.header() + 1);
    for (uint32_t i = 0; i < image.header()->ncmds; ++i) {
      const auto* const prefix = reinterpret_cast<const load_command*>(command);
      if (prefix->cmd == LC_SYMTAB) symtab = reinterpret_cast<const symtab_command*>(command);
      if (prefix->cmd == LC_DYSYMTAB) dysymtab = reinterpret_cast<const dysymtab_command*>(command);
      if (prefix->cmd == LC_SEGMENT_64) {
        const auto* const segment = reinterpret_cast<const segment_command_64*>(command);
        if (strcmp(segment->segname, SEG_LINKEDIT) == 0) linkEdit = at(segment->vmaddr) - segment->fileoff;
        const auto* const section = reinterpret_cast<const section_64*>(segment + 1);
        for (uint32_t s = 0; s < segment->nsects; ++s) {
          const uint32_t type = section[s].flags & SECTION_TYPE;
          if (type == S_LAZY_SYMBOL_POINTERS || type == S_NON_LAZY_SYMBOL_POINTERS)
            sections.push_back(section + s);
        }
      }
      command += prefix->cmdsize;
    }
    for (const auto* section : sections) slots.push_back(reinterpret_cast<void* const*>(at(section->addr)));
    symbols = reinterpret_cast<const nlist_64*>(linkEdit + symtab->symoff);
    strings = linkEdit + symtab->stroff;
    indirect = reinterpret_cast<const uint32_t*>(linkEdit + dysymtab->indirectsymoff);
  }

  std::vector<const section_64*> sections;
  std::vector<void* const*> slots;  // of each section
  const nlist_64* symbols;
  const char* strings;
  const uint32_t* indirect;
};

// Reads every slot, its entry, its symbol and the first two characters of the name. Compares and writes
// nothing.
uint64_t plainPass(const Tables& tables) {
  uint64_t sum = 0;
  for (size_t s = 0; s < tables.sections.size(); ++s) {
    const uint32_t* const indirect = tables.indirect + tables.sections[s]->reserved1;
    for (uint64_t i = 0; i < tables.sections[s]->size / sizeof(void*); ++i) {
      if ((indirect[i] & (INDIRECT_SYMBOL_LOCAL | INDIRECT_SYMBOL_ABS)) != 0) continue;
      const char* const name = tables.strings + tables.symbols[indirect[i]].n_un.n_strx;
      sum += reinterpret_cast<uint64_t>(tables.slots[s][i]) + static_cast<uint64_t>(name[0]) +
             static_cast<uint64_t>(name[1]);
    }
  }
  return sum;
}

volatile uint64_t seen;  // keeps the plain pass from being left out

template <typename Work>
int64_t duration(const Work& work) {
  const auto begin = std::chrono::steady_clock::now();
  work();
  return std::chrono::nanoseconds(std::chrono::steady_clock::now() - begin).count();
}

// Rebinds the names, to one replacement and the other in turn, so that every pass writes; and does the
// floor's work beside it.
template <typename Floor>
void measure(Report& report, const std::string& name, const platform::LoadedImage& image,
             const std::vector<std::string>& names, const Floor& floorsWork, double goal) {
  void* original = nullptr;
  std::vector<SymbolRebinding> turns[2];
  for (const auto& symbol : names) {
    turns[0].push_back({symbol.c_str(), address(oneReplacement), &original});
    turns[1].push_back({symbol.c_str(), address(otherReplacement), &original});
  }
  Durations rebinding;
  Durations floor;
  for (int i = 0; i < kWarmUp + kPasses; ++i) {
    const auto& rebindings = turns[i % 2];
    const int64_t rebound = duration(
        [&] { rebindSymbolsInImage(image.header(), image.slide(), rebindings.data(), rebindings.size()); });
    const int64_t passed = duration(floorsWork);
    if (i < kWarmUp) continue;
    rebinding.add(rebound);
    floor.add(passed);
  }
  report.add(name + ", median", rebinding.microseconds(0.5), "us", floor.microseconds(0.5), goal);
}

void measureOne(Report& report, const std::string& name, const platform::LoadedImage& image,
                const std::string& symbol) {
  const Tables tables(image);
  std::vector<std::pair<void*, size_t>> opened;
  for (size_t i = 0; i < tables.sections.size(); ++i) {
    const section_64* const section = tables.sections[i];
    // The lazy image's one read-only pointer is none of the imports.
    const bool readOnly = strncmp(section->segname, "__DATA_CONST", sizeof section->segname) == 0;
    if (readOnly && section->size > sizeof(void*)) {
      opened.emplace_back(const_cast<void**>(tables.slots[i]), section->size);
    }
  }
  const auto readOnce = [&] {
    for (const auto& [start, size] : opened) mprotect(start, size, PROT_READ | PROT_WRITE);
    seen = plainPass(tables);
    for (const auto& [start, size] : opened) mprotect(start, size, PROT_READ);
  };
  measure(report, name, image, {symbol}, readOnce, 1.4);
}

// Looks the name of every slot up in a map that is there already, and stores what it finds.
void measureAll(Report& report, const std::string& name, const platform::LoadedImage& image,
                const std::vector<std::string>& names) {
  const Tables tables(image);
  std::unordered_map<std::string_view, void*> replacements;
  for (const auto& symbol : names) replacements.emplace(symbol, address(oneReplacement));
  std::vector<void*> stored(names.size() + tables.sections.size());
  const auto lookUpAndStore = [&] {
    size_t slot = 0;
    for (const section_64* const section : tables.sections) {
      const uint32_t* const indirect = tables.indirect + section->reserved1;
      for (uint64_t i = 0; i < section->size / sizeof(void*); ++i) {
        const char* const symbol = tables.strings + tables.symbols[indirect[i]].n_un.n_strx;
        const auto found = replacements.find(symbol + 1);
        if (found != replacements.end()) stored[slot++] = found->second;
      }
    }
    seen = reinterpret_cast<uint64_t>(stored[slot - 1]);
  };
  measure(report, name, image, names, lookUpAndStore, 1.5);
}

}  // namespace

void measureHooks(Report& report) {
  std::vector<std::string> names;
  for (size_t i = 0; i < kImports; ++i) names.push_back("import_" + std::to_string(kImports + i).substr(1));
  const std::string one = names[kImports / 2];

  const auto load = [](const char* path) {
    return platform::LoadedImage::load(path, [](const std::string&) { return address(anImport); });
  };
  const auto lazy = load(LAZY_IMPORTS_IMAGE);
  const auto readOnly = load(READ_ONLY_IMPORTS_IMAGE);
  measureOne(report, "rebinding 1 of 10,000 imports", *lazy, one);
  measureOne(report, "rebinding 1 of 10,000 read-only imports", *readOnly, one);
  measureAll(report, "rebinding all of 10,000 imports", *lazy, names);
}

}  // namespace bench
