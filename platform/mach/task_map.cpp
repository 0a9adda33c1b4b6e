#include "task_map.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <memory>

namespace platform {
namespace {

// The kernel's own structure; Debian 12's headers are older than it.
struct ProcmapQuery {
  uint64_t size;
  uint64_t query_flags;
  uint64_t query_addr;
  uint64_t vma_start;
  uint64_t vma_end;
  uint64_t vma_flags;
  uint64_t vma_page_size;
  uint64_t vma_offset;
  uint64_t inode;
  uint32_t dev_major;
  uint32_t dev_minor;
  uint32_t vma_name_size;
  uint32_t build_id_size;
  uint64_t vma_name_addr;
  uint64_t build_id_addr;
};

constexpr unsigned long kProcmapQuery = _IOWR('f', 17, ProcmapQuery);
constexpr uint64_t kCoveringOrNext = 0x10;
constexpr uint64_t kShared = 0x08;

struct CloseFile {
  void operator()(FILE* file) const { fclose(file); }
};

constexpr const char* kMaps = "/proc/self/maps";

// A descriptor of this process's map; -1 if it cannot be opened. Kept open, since opening takes several times
// as long as asking; but one from before a fork would show the parent's map.
int ownMaps() {
  static std::atomic<uint64_t> kept;  // whose it is, and the descriptor
  const auto process = static_cast<uint64_t>(getpid());
  uint64_t found = kept.load(std::memory_order_relaxed);
  if (found >> 32 == process) return static_cast<int>(found & UINT32_MAX);
  const int opened = open(kMaps, O_RDONLY | O_CLOEXEC);
  if (opened < 0 || kept.compare_exchange_strong(found, process << 32 | static_cast<uint32_t>(opened))) {
    return opened;
  }
  close(opened);
  return static_cast<int>(found & UINT32_MAX);
}

}  // namespace

std::optional<MappedRegion> regionAtOrAbove(uint64_t address) {
  ProcmapQuery query{};
  query.size = sizeof query;
  query.query_flags = kCoveringOrNext;
  query.query_addr = address;
  if (ioctl(ownMaps(), kProcmapQuery, &query) == 0) {
    // The kernel's flags for read, write and execute are the bits of a protection.
    return MappedRegion{query.vma_start, query.vma_end, static_cast<vm_prot_t>(query.vma_flags & 7),
                        (query.vma_flags & kShared) != 0, query.vma_offset};
  }
  if (errno == ENOENT) return std::nullopt;
  return regionFromMapsText(address);
}

std::optional<MappedRegion> regionFromMapsText(uint64_t address) {
  const std::unique_ptr<FILE, CloseFile> maps(fopen(kMaps, "re"));
  if (!maps) return std::nullopt;
  char line[512];
  bool atLineStart = true;
  while (fgets(line, sizeof line, maps.get()) != nullptr) {
    const bool wasLineStart = atLineStart;
    atLineStart = false;
    for (const char* c = line; *c != '\0'; ++c) atLineStart = *c == '\n';
    if (!wasLineStart) continue;  // the rest of a long path
    uint64_t start = 0;
    uint64_t end = 0;
    uint64_t offset = 0;
    char flags[5] = {};
    if (sscanf(line, "%" SCNx64 "-%" SCNx64 " %4s %" SCNx64, &start, &end, flags, &offset) != 4) continue;
    if (end <= address) continue;
    const vm_prot_t protection = (flags[0] == 'r' ? VM_PROT_READ : 0) |
                                 (flags[1] == 'w' ? VM_PROT_WRITE : 0) |
                                 (flags[2] == 'x' ? VM_PROT_EXECUTE : 0);
    return MappedRegion{start, end, protection, flags[3] == 's', offset};
  }
  return std::nullopt;
}

}  // namespace platform
