#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <utility>

namespace platform {

// The memory of one surface as one process sees it: a memfd that can neither shrink nor grow, mapped,
// so that touching it never faults whatever another process does to it.
//
// Its first page holds the use counts: 16 slots of 32 bits, one for each process that has it mapped. A
// process owns slot n as long as it holds a lock on byte n of the file, by an open file description of
// its own. The kernel lets go of that lock when the process ends, however it ends, and with it the
// count in the slot is void: no process id that could be used again, no clearing up. Counting is one
// atomic addition; only who finds a count of somebody else's asks the kernel whether it still stands.
//
// Whatever another process writes into the page can make a surface look used or unused, and no more.
class SurfaceMemory {
 public:
  static constexpr size_t headerSize = 4096;
  static constexpr size_t maxSize = INT32_MAX;

  // What tells one memfd from another as long as it exists.
  struct Identity {
    dev_t device;
    ino_t inode;
    bool operator==(const Identity&) const = default;
    bool operator<(const Identity& other) const {
      return std::pair(device, inode) < std::pair(other.device, other.inode);
    }
  };

  // What a descriptor is, if it may be mapped: a sealed memfd of acceptable size.
  struct Inspection {
    Identity identity;
    size_t size;
  };
  static std::optional<Identity> identify(int descriptor);
  static std::optional<Inspection> inspect(int descriptor);

  // New memory, zero, of at least `size` bytes with the header. Null when memory or descriptors run out.
  static std::unique_ptr<SurfaceMemory> create(size_t size);
  // The memory behind a descriptor that has passed the inspection; the descriptor stays the caller's.
  static std::unique_ptr<SurfaceMemory> open(int descriptor, const Inspection& inspection);
  ~SurfaceMemory();
  SurfaceMemory(const SurfaceMemory&) = delete;
  SurfaceMemory& operator=(const SurfaceMemory&) = delete;

  uint8_t* bytes() const { return bytes_; }
  size_t size() const { return size_; }
  Identity identity() const { return identity_; }

  // A descriptor for another process; the caller closes it. Negative when descriptors run out.
  int duplicate() const;

  void beginUse();
  void endUse();
  int32_t useCount() const { return uses_.load(std::memory_order_acquire); }
  bool isUsedElsewhere() const;

 private:
  static constexpr int slotCount = 16;

  SurfaceMemory(int descriptor, uint8_t* bytes, const Inspection& inspection, int slot);
  static std::unique_ptr<SurfaceMemory> map(int ownDescriptor, const Inspection& inspection, int mapFlags);
  std::atomic<uint32_t>& slot(int index) const;
  bool isOwned(int slot) const;

  const int descriptor_;  // an open file description that no other process shares: it bears the lock
  uint8_t* const bytes_;
  const size_t size_;
  const Identity identity_;
  const int slot_;
  std::atomic<int32_t> uses_{0};  // this process's; the slot only publishes it
};

}  // namespace platform
