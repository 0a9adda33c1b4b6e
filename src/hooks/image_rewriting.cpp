#include "image_rewriting.h"

#include <dlfcn.h>
#include <mach-o/nlist.h>
#include <mach/mach.h>
#include <pthread.h>
#include <sys/mman.h>

#include <algorithm>
#include <cstring>
#include <optional>

namespace {

// Taken while the protection of read-only sections is off: two threads must not take each other's "readable
// and writable" for what is to be put back.
pthread_mutex_t readOnlySections = PTHREAD_MUTEX_INITIALIZER;

bool isNamed(const char (&field)[16], const char* name) {
  return strncmp(field, name, sizeof field) == 0;
}

// Images tell addresses as numbers.
template <typename T>
T* pointerTo(uint64_t address) {
  return reinterpret_cast<T*>(address);  // NOLINT(performance-no-int-to-ptr)
}

// Whether `size` bytes at `start` lie in the `room` bytes at `from`.
bool liesIn(uint64_t start, uint64_t size, uint64_t from, uint64_t room) {
  return start >= from && start - from <= room && size <= room - (start - from);
}

// The load commands of an image, one after the other.
class LoadCommands {
 public:
  explicit LoadCommands(const mach_header_64* header)
      : position_(reinterpret_cast<const char*>(header + 1)),
        end_(position_ + header->sizeofcmds),
        left_(header->ncmds) {}

  // Goes to the next command; false when there is none, or none that lies whole among the commands.
  bool next() {
    position_ += current_.cmdsize;
    const auto room = static_cast<size_t>(end_ - position_);
    if (left_ == 0 || room < sizeof current_) return false;
    --left_;
    memcpy(&current_, position_, sizeof current_);
    return current_.cmdsize >= sizeof current_ && current_.cmdsize <= room;
  }

  // Copies the current command out if it is of this kind and long enough.
  template <typename Command>
  bool read(uint32_t kind, Command& command) const {
    if (current_.cmd != kind || current_.cmdsize < sizeof command) return false;
    memcpy(&command, position_, sizeof command);
    return true;
  }

  // The current command's sections, if it is a segment's: no more than it has room for.
  const char* sections() const { return position_ + sizeof(segment_command_64); }
  uint32_t sectionCount(const segment_command_64& segment) const {
    const size_t room = (current_.cmdsize - sizeof segment) / sizeof(section_64);
    return std::min(segment.nsects, static_cast<uint32_t>(room));
  }

 private:
  const char* position_;
  const char* end_;
  uint32_t left_;
  load_command current_{};
};

// The tables that tell which symbol a pointer slot belongs to. All lie in the link-edit segment.
class ImportTables {
 public:
  // False if the image has no such tables.
  bool find(const mach_header_64* header, intptr_t slide) {
    symtab_command symtab{};
    dysymtab_command dysymtab{};
    segment_command_64 linkEdit{};
    segment_command_64 segment{};
    for (LoadCommands commands(header); commands.next();) {
      commands.read(LC_SYMTAB, symtab);
      commands.read(LC_DYSYMTAB, dysymtab);
      if (commands.read(LC_SEGMENT_64, segment) && isNamed(segment.segname, SEG_LINKEDIT)) linkEdit = segment;
    }
    if (symtab.cmd == 0 || dysymtab.cmd == 0 || linkEdit.cmd == 0 || dysymtab.nindirectsyms == 0)
      return false;

    symbolCount_ = symtab.nsyms;
    stringsSize_ = symtab.strsize;
    indirectCount_ = dysymtab.nindirectsyms;
    const auto hasTable = [&](uint64_t offset, uint64_t size) {
      return liesIn(offset, size, linkEdit.fileoff, linkEdit.vmsize);
    };
    if (!hasTable(symtab.symoff, symbolCount_ * sizeof(nlist_64)) || !hasTable(symtab.stroff, stringsSize_) ||
        !hasTable(dysymtab.indirectsymoff, indirectCount_ * sizeof(uint32_t))) {
      return false;
    }
    const uint64_t base = static_cast<uint64_t>(slide) + linkEdit.vmaddr - linkEdit.fileoff;
    symbols_ = pointerTo<const char>(base + symtab.symoff);
    strings_ = pointerTo<const char>(base + symtab.stroff);
    indirect_ = pointerTo<const char>(base + dysymtab.indirectsymoff);
    return true;
  }

  uint64_t indirectCount() const { return indirectCount_; }

  // The first entry of the indirect table from `entry` on, before `end`, that names a symbol whose name
  // passes the sieve; `end` if there is none. The leading underscore takes no part in a name. Called on a
  // copy, and with one: so the compiler knows that they stay the same from entry to entry.
  uint64_t nextToPass(uint64_t entry, uint64_t end, const NameSieve& sieve) const {
    for (; entry < end; ++entry) {
      const uint32_t symbol = symbolAt(entry);
      if (symbol < symbolCount_ && sieve.passes(strings_, stringsSize_, uint64_t{nameOf(symbol)} + 1)) break;
    }
    return entry;
  }

  // The rebinding for the symbol of an entry (below indirectCount()); nullptr if there is none, or if the
  // entry names no symbol.
  const SymbolRebinding* rebinding(const RebindingIndex& rebindings, uint64_t entry) const {
    const uint32_t symbol = symbolAt(entry);
    if (symbol >= symbolCount_) return nullptr;  // local and absolute entries are higher than any
    const uint32_t name = nameOf(symbol);
    // A name of one character is only an underscore.
    if (name >= stringsSize_ || strings_[name] == '\0') return nullptr;
    return rebindings.find(strings_ + name + 1, stringsSize_ - name - 1);
  }

 private:
  // The tables are read with memcpy: a file may have them at any offset.
  uint32_t symbolAt(uint64_t entry) const {
    uint32_t symbol = 0;
    memcpy(&symbol, indirect_ + entry * sizeof symbol, sizeof symbol);
    return symbol;
  }
  uint32_t nameOf(uint32_t symbol) const {
    uint32_t offset = 0;
    memcpy(&offset, symbols_ + symbol * sizeof(nlist_64) + offsetof(nlist_64, n_un), sizeof offset);
    return offset;
  }

  const char* symbols_ = nullptr;
  const char* strings_ = nullptr;
  const char* indirect_ = nullptr;
  uint64_t symbolCount_ = 0;
  uint64_t stringsSize_ = 0;
  uint64_t indirectCount_ = 0;
};

// Opens the pages of a read-only section, and closes them again as they were.
class WritableSection {
 public:
  WritableSection(void** bindings, uint64_t size) {
    pthread_mutex_lock(&readOnlySections);
    const uintptr_t start = reinterpret_cast<uintptr_t>(bindings) / vm_page_size * vm_page_size;
    start_ = pointerTo<void>(start);
    size_ = reinterpret_cast<uintptr_t>(bindings) + size - start;

    vm_address_t address = start;
    vm_size_t regionSize = 0;
    vm_region_basic_info_data_64_t region{};
    mach_msg_type_number_t count = VM_REGION_BASIC_INFO_COUNT_64;
    mach_port_t object = MACH_PORT_NULL;
    if (vm_region_64(mach_task_self(), &address, &regionSize, VM_REGION_BASIC_INFO_64,
                     reinterpret_cast<vm_region_info_t>(&region), &count, &object) == KERN_SUCCESS) {
      protection_ = region.protection & (VM_PROT_READ | VM_PROT_WRITE | VM_PROT_EXECUTE);
    }
    mprotect(start_, size_, PROT_READ | PROT_WRITE);
  }

  ~WritableSection() {
    mprotect(start_, size_, protection_);
    pthread_mutex_unlock(&readOnlySections);
  }

  WritableSection(const WritableSection&) = delete;
  WritableSection& operator=(const WritableSection&) = delete;

 private:
  void* start_;
  size_t size_;
  int protection_ = PROT_READ;
};

// Puts the rebinding that a slot's symbol has, if any, into the slot. Other threads may call through the
// slot, and may be rewriting it with a newer rebinding at this moment. That one must win: so the rebinding is
// looked up after the slot is read, and put in only if the slot is still that.
void redirect(void** slot, const ImportTables& tables, const RebindingIndex& rebindings, uint64_t entry) {
  void* current = __atomic_load_n(slot, __ATOMIC_ACQUIRE);
  for (;;) {
    const SymbolRebinding* const rebinding = tables.rebinding(rebindings, entry);
    if (rebinding == nullptr || current == rebinding->replacement) return;
    if (rebinding->replaced != nullptr) __atomic_store_n(rebinding->replaced, current, __ATOMIC_RELEASE);
    if (__atomic_compare_exchange_n(slot, &current, rebinding->replacement, false, __ATOMIC_ACQ_REL,
                                    __ATOMIC_ACQUIRE)) {
      return;
    }
  }
}

void rewriteSection(const section_64& section, intptr_t slide, const ImportTables tables,
                    const RebindingIndex& rebindings) {
  const uint64_t first = section.reserved1;
  if (first >= tables.indirectCount()) return;
  const uint64_t end = first + std::min(section.size / sizeof(void*), tables.indirectCount() - first);
  auto** const slots = pointerTo<void*>(static_cast<uint64_t>(slide) + section.addr);
  const NameSieve sieve = rebindings.sieve();

  // Most images import none of the names, and opening pages costs far more than going over the table.
  bool closed = isNamed(section.segname, "__DATA_CONST") || isNamed(section.segname, "__AUTH_CONST");
  std::optional<WritableSection> open;
  for (uint64_t entry = first; (entry = tables.nextToPass(entry, end, sieve)) != end; ++entry) {
    if (closed) {
      if (tables.rebinding(rebindings, entry) == nullptr) continue;
      open.emplace(slots, section.size);
      closed = false;
    }
    redirect(slots + (entry - first), tables, rebindings, entry);
  }
}

bool holdsSymbolPointers(const section_64& section, const segment_command_64& segment) {
  const uint32_t type = section.flags & SECTION_TYPE;
  return (type == S_LAZY_SYMBOL_POINTERS || type == S_NON_LAZY_SYMBOL_POINTERS) &&
         liesIn(section.addr, section.size, segment.vmaddr, segment.vmsize) &&
         section.addr % sizeof(void*) == 0;
}

}  // namespace

void rewriteImage(const RebindingIndex& rebindings, const mach_header_64* header, intptr_t slide) {
  Dl_info info;
  if (dladdr(header, &info) == 0 || header->magic != MH_MAGIC_64) return;
  ImportTables tables;
  if (!tables.find(header, slide)) return;

  segment_command_64 segment{};
  for (LoadCommands commands(header); commands.next();) {
    if (!commands.read(LC_SEGMENT_64, segment)) continue;
    if (!isNamed(segment.segname, SEG_DATA) && !isNamed(segment.segname, "__DATA_CONST") &&
        !isNamed(segment.segname, "__AUTH_CONST")) {
      continue;
    }
    for (uint32_t i = 0; i < commands.sectionCount(segment); ++i) {
      section_64 section{};
      memcpy(&section, commands.sections() + i * sizeof section, sizeof section);
      if (holdsSymbolPointers(section, segment)) rewriteSection(section, slide, tables, rebindings);
    }
  }
}
