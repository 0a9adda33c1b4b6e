// A surface inside an XPC message is a dictionary:
//
//   "memory"             descriptor: a memfd on tmpfs with the seals F_SEAL_SHRINK, F_SEAL_GROW and
//                        F_SEAL_SEAL, of 4,096 to 2,147,483,647 bytes. Its first 4,096 bytes are the use
//                        counts (see surface_memory.h).
//   "format"             uint64: 'BGRA' (0x42475241), '420v' (0x34323076) or 'y420' (0x79343230)
//   "width", "height"    uint64: pixels, 1 to 16,384
//   "offset0", "stride0" uint64: where the first row of plane 0 begins, counted from the beginning of the
//                        memory, and the bytes from one row to the next; and so on for "1" and "2"
//
// 'BGRA' has one plane, '420v' two (Y, then CbCr interleaved), 'y420' three (Y, Cb, Cr); chroma planes have
// half the width and height, rounded up. Planes begin behind the use counts, lie in their order and do not
// overlap. A surface never changes its layout: the same memory with another one is refused.

#include <dispatch/dispatch.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <map>
#include <vector>

#include "IOSurface/surface.h"
#include "xpc/object.h"

namespace {

using platform::PictureLayout;
using platform::SurfaceMemory;

struct PlaneKeys {
  const char* offset;
  const char* stride;
};
constexpr std::array<PlaneKeys, 3> planeKeys{
    {{"offset0", "stride0"}, {"offset1", "stride1"}, {"offset2", "stride2"}}};

xpc_object_t describe(const __IOSurface& surface) {
  const int descriptor = surface.memory->duplicate();
  if (descriptor < 0) return nullptr;
  const xpc_object_t message = xpc_dictionary_create(nullptr, nullptr, 0);
  xpc_dictionary_set_fd(message, "memory", descriptor);
  close(descriptor);
  const PictureLayout& layout = surface.layout;
  xpc_dictionary_set_uint64(message, "format", layout.format);
  xpc_dictionary_set_uint64(message, "width", layout.width);
  xpc_dictionary_set_uint64(message, "height", layout.height);
  for (size_t plane = 0; plane < layout.planeCount; ++plane) {
    xpc_dictionary_set_uint64(message, planeKeys[plane].offset, layout.planes[plane].offset);
    xpc_dictionary_set_uint64(message, planeKeys[plane].stride, layout.planes[plane].bytesPerRow);
  }
  return message;
}

// The layout that a message tells of; whether it fits its memory is another matter.
std::optional<PictureLayout> readLayout(xpc_object_t message) {
  const uint64_t format = xpc_dictionary_get_uint64(message, "format");
  if (format > UINT32_MAX) return std::nullopt;
  auto layout =
      PictureLayout::make(static_cast<uint32_t>(format), xpc_dictionary_get_uint64(message, "width"),
                          xpc_dictionary_get_uint64(message, "height"), SurfaceMemory::headerSize);
  if (!layout) return std::nullopt;
  for (size_t plane = 0; plane < layout->planeCount; ++plane) {
    layout->planes[plane].offset = xpc_dictionary_get_uint64(message, planeKeys[plane].offset);
    layout->planes[plane].bytesPerRow = xpc_dictionary_get_uint64(message, planeKeys[plane].stride);
  }
  return layout;
}

// The surfaces that this process has received: those that it holds, and those that it held until lately, so
// that a surface that comes again and again is mapped once. The entry of a surface is a reference to it, and
// what has no other reference is idle: only a look-up, under the lock, can take it up again.
class ReceivedSurfaces {
 public:
  // One reference for the caller, or null if the descriptor or the layout is refused.
  IOSurfaceRef find(int descriptor, const PictureLayout& layout) {
    const auto identity = SurfaceMemory::identify(descriptor);
    if (!identity) return nullptr;
    IOSurfaceRef surface = nullptr;
    Surfaces idle;
    {
      const std::lock_guard guard(mutex_);
      const auto known = surfaces_.find(*identity);
      if (known != surfaces_.end()) {
        surface = known->second.surface;
        if (surface->layout != layout) return nullptr;
        known->second.seen = Clock::now();
      } else {
        surface = map(descriptor, layout);
        if (surface == nullptr) return nullptr;
        surfaces_.emplace(*identity, Entry{surface, Clock::now()});
        idle = takeIdle(Clock::time_point::min(), maxIdle);
        planSweep();
      }
      CFRetain(surface);
    }
    release(idle);
    return surface;
  }

 private:
  using Clock = std::chrono::steady_clock;
  using Surfaces = std::vector<IOSurfaceRef>;
  struct Entry {
    IOSurfaceRef surface;
    Clock::time_point seen;
  };

  // Far above what a show's pools hand round, and far below the limit of descriptors.
  static constexpr size_t maxIdle = 64;
  static constexpr int64_t keepSeconds = 2;

  static IOSurfaceRef map(int descriptor, const PictureLayout& layout) {
    const auto inspection = SurfaceMemory::inspect(descriptor);
    if (!inspection || !layout.liesWithin(SurfaceMemory::headerSize, inspection->size)) return nullptr;
    auto memory = SurfaceMemory::open(descriptor, *inspection);
    return memory != nullptr ? new __IOSurface(layout, std::move(memory)) : nullptr;
  }

  // Unmapping takes its time, so it is done without the lock.
  static void release(const Surfaces& surfaces) {
    for (const IOSurfaceRef surface : surfaces) CFRelease(surface);
  }

  // Takes out the idle surfaces that were not seen since `limit`, and of the others, the longest unseen
  // first, as many as there are more than `keep`.
  Surfaces takeIdle(Clock::time_point limit, size_t keep) {
    std::vector<std::map<SurfaceMemory::Identity, Entry>::iterator> idle;
    for (auto entry = surfaces_.begin(); entry != surfaces_.end(); ++entry) {
      if (CFGetRetainCount(entry->second.surface) == 1) idle.push_back(entry);
    }
    std::sort(idle.begin(), idle.end(),
              [](const auto& a, const auto& b) { return a->second.seen < b->second.seen; });
    Surfaces taken;
    for (const auto& entry : idle) {
      if (entry->second.seen > limit && idle.size() - taken.size() <= keep) break;
      taken.push_back(entry->second.surface);
      surfaces_.erase(entry);
    }
    return taken;
  }

  void planSweep() {
    if (sweepPlanned_) return;
    sweepPlanned_ = true;
    dispatch_after(dispatch_time(DISPATCH_TIME_NOW, keepSeconds * static_cast<int64_t>(NSEC_PER_SEC)),
                   dispatch_get_global_queue(QOS_CLASS_UTILITY, 0), [this] { sweep(); });
  }

  void sweep() {
    Surfaces idle;
    {
      const std::lock_guard guard(mutex_);
      sweepPlanned_ = false;
      idle = takeIdle(Clock::now() - std::chrono::seconds(keepSeconds), maxIdle);
      if (!surfaces_.empty()) planSweep();
    }
    release(idle);
  }

  std::mutex mutex_;
  std::map<SurfaceMemory::Identity, Entry> surfaces_;
  bool sweepPlanned_ = false;
};

ReceivedSurfaces& receivedSurfaces() {
  static auto& surfaces =
      *new ReceivedSurfaces;  // never destroyed: threads may use it while the process ends
  return surfaces;
}

}  // namespace

xpc_object_t IOSurfaceCreateXPCObject(IOSurfaceRef surface) {
  const std::lock_guard guard(surface->messageMutex);
  if (surface->message == nullptr) surface->message = describe(*surface);
  return surface->message != nullptr ? xpc_retain(surface->message) : nullptr;
}

IOSurfaceRef IOSurfaceLookupFromXPCObject(xpc_object_t object) {
  if (object == nullptr || xpc_get_type(object) != XPC_TYPE_DICTIONARY) return nullptr;
  const auto layout = readLayout(object);
  if (!layout) return nullptr;
  // Looked at in place: a copy of the descriptor would cost more than all the rest of a look-up.
  const auto* const memory =
      platform::xpc::cast<platform::xpc::Descriptor>(xpc_dictionary_get_value(object, "memory"), XPC_TYPE_FD);
  return memory != nullptr ? receivedSurfaces().find(memory->value.get(), *layout) : nullptr;
}
