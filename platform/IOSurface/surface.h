#pragma once

#include <CoreFoundation/cf_runtime.h>
#include <IOSurface/IOSurface.h>
#include <xpc/xpc.h>

#include <memory>
#include <mutex>

#include "IOSurface/picture_layout.h"
#include "IOSurface/surface_memory.h"

struct __IOSurface final : platform::CFObject {
  // The layout lies within the memory. It is this process's own: nothing about it is in shared memory.
  __IOSurface(const platform::PictureLayout& theLayout, std::unique_ptr<platform::SurfaceMemory> theMemory)
      : layout(theLayout), memory(std::move(theMemory)) {}
  ~__IOSurface() override {
    if (message != nullptr) xpc_release(message);
  }

  CFTypeID typeId() const override { return platform::typeIdOf<__IOSurface>(); }
  void* plane(size_t index) const { return memory->bytes() + layout.planes[index].offset; }

  const platform::PictureLayout layout;
  const std::unique_ptr<platform::SurfaceMemory> memory;

  // What the surface looks like in a message: made once, since it never changes.
  std::mutex messageMutex;
  xpc_object_t message = nullptr;
};

namespace platform {

// A new surface; null when the size or the format is impossible, or memory or descriptors run out.
IOSurfaceRef createSurface(OSType format, size_t width, size_t height);

}  // namespace platform
