#include "IOSurface/surface_memory.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <linux/magic.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <utility>

namespace platform {

namespace {

constexpr int requiredSeals = F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL;

struct flock lockOn(int slot) {
  struct flock lock {};
  lock.l_type = F_WRLCK;
  lock.l_whence = SEEK_SET;
  lock.l_start = slot;
  lock.l_len = 1;
  return lock;
}

// Opens the memfd once more. A descriptor that came from elsewhere, or was copied, shares its locks
// with the other holders; a new open file description shares nothing.
int reopen(int descriptor) {
  return open(fmt::format("/proc/self/fd/{}", descriptor).c_str(), O_RDWR | O_CLOEXEC);
}

}  // namespace

std::optional<SurfaceMemory::Identity> SurfaceMemory::identify(int descriptor) {
  struct stat status {};
  if (fstat(descriptor, &status) != 0) return std::nullopt;
  return Identity{status.st_dev, status.st_ino};
}

std::optional<SurfaceMemory::Inspection> SurfaceMemory::inspect(int descriptor) {
  const int seals = fcntl(descriptor, F_GET_SEALS);
  if (seals < 0 || (seals & requiredSeals) != requiredSeals) return std::nullopt;
  // A memfd of huge pages can fault for want of one, sealed or not.
  struct statfs fileSystem {};
  if (fstatfs(descriptor, &fileSystem) != 0 || fileSystem.f_type != TMPFS_MAGIC) return std::nullopt;
  struct stat status {};
  if (fstat(descriptor, &status) != 0) return std::nullopt;
  if (status.st_size < static_cast<off_t>(headerSize) || status.st_size > static_cast<off_t>(maxSize)) {
    return std::nullopt;
  }
  return Inspection{{status.st_dev, status.st_ino}, static_cast<size_t>(status.st_size)};
}

std::unique_ptr<SurfaceMemory> SurfaceMemory::create(size_t size) {
  const int descriptor = memfd_create("surface", MFD_CLOEXEC | MFD_ALLOW_SEALING);
  if (descriptor < 0) return nullptr;
  std::unique_ptr<SurfaceMemory> memory;
  if (ftruncate(descriptor, static_cast<off_t>(size)) == 0 &&
      fcntl(descriptor, F_ADD_SEALS, requiredSeals) == 0) {
    if (const auto inspection = inspect(descriptor)) {
      // A new surface is about to be filled: its pages are made at once, not fault by fault.
      memory = map(reopen(descriptor), *inspection, MAP_SHARED | MAP_POPULATE);
    }
  }
  close(descriptor);
  return memory;
}

std::unique_ptr<SurfaceMemory> SurfaceMemory::open(int descriptor, const Inspection& inspection) {
  return map(reopen(descriptor), inspection, MAP_SHARED);
}

std::unique_ptr<SurfaceMemory> SurfaceMemory::map(int ownDescriptor, const Inspection& inspection,
                                                  int mapFlags) {
  if (ownDescriptor < 0) return nullptr;
  for (int slot = 0; slot < slotCount; ++slot) {
    struct flock lock = lockOn(slot);
    if (fcntl(ownDescriptor, F_OFD_SETLK, &lock) != 0) continue;
    void* const bytes = mmap(nullptr, inspection.size, PROT_READ | PROT_WRITE, mapFlags, ownDescriptor, 0);
    if (bytes == MAP_FAILED) break;
    return std::unique_ptr<SurfaceMemory>(
        new SurfaceMemory(ownDescriptor, static_cast<uint8_t*>(bytes), inspection, slot));
  }
  close(ownDescriptor);
  return nullptr;
}

SurfaceMemory::SurfaceMemory(int descriptor, uint8_t* bytes, const Inspection& inspection, int slot)
    : descriptor_(descriptor),
      bytes_(bytes),
      size_(inspection.size),
      identity_(inspection.identity),
      slot_(slot) {
  this->slot(slot_).store(0);  // what a process that was killed may have left
}

SurfaceMemory::~SurfaceMemory() {
  slot(slot_).store(0);
  munmap(bytes_, size_);
  close(descriptor_);
}

int SurfaceMemory::duplicate() const {
  return reopen(descriptor_);
}

void SurfaceMemory::beginUse() {
  uses_.fetch_add(1, std::memory_order_acq_rel);
  slot(slot_).fetch_add(1, std::memory_order_acq_rel);
}

void SurfaceMemory::endUse() {
  slot(slot_).fetch_sub(1, std::memory_order_acq_rel);
  uses_.fetch_sub(1, std::memory_order_acq_rel);
}

bool SurfaceMemory::isUsedElsewhere() const {
  for (int index = 0; index < slotCount; ++index) {
    if (index != slot_ && slot(index).load(std::memory_order_acquire) != 0 && isOwned(index)) return true;
  }
  return false;
}

std::atomic<uint32_t>& SurfaceMemory::slot(int index) const {
  static_assert(sizeof(std::atomic<uint32_t>) == sizeof(uint32_t) &&
                std::atomic<uint32_t>::is_always_lock_free);
  return reinterpret_cast<std::atomic<uint32_t>*>(bytes_)[index];
}

bool SurfaceMemory::isOwned(int slot) const {
  struct flock lock = lockOn(slot);
  return fcntl(descriptor_, F_OFD_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
}

}  // namespace platform
