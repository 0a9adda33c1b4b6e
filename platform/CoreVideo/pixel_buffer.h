#pragma once

#include <CoreFoundation/cf_runtime.h>
#include <CoreVideo/CoreVideo.h>

#include <array>
#include <memory>

#include "IOSurface/picture_layout.h"

// A picture and whatever keeps its memory: a surface, a block of its own, or nothing when it wraps the
// planes of somebody who is told when it lets go.
struct __CVBuffer final : platform::CFObject {
  struct Wrapped {
    CVPixelBufferReleasePlanarBytesCallback release;
    void* context;
    void* data;
    size_t dataSize;
  };

  __CVBuffer(const platform::PictureLayout& theLayout, IOSurfaceRef theSurface);
  __CVBuffer(const platform::PictureLayout& theLayout, std::unique_ptr<uint8_t[]> theBytes);
  __CVBuffer(const platform::PictureLayout& theLayout, const std::array<uint8_t*, 3>& theAddresses,
             const Wrapped& theWrapped);
  ~__CVBuffer() override;

  CFTypeID typeId() const override { return platform::typeIdOf<__CVBuffer>(); }

  // The layout's offsets count from the beginning of the memory; with wrapped planes they mean nothing.
  const platform::PictureLayout layout;
  std::array<uint8_t*, 3> addresses{};
  const IOSurfaceRef surface = nullptr;

 private:
  const std::unique_ptr<uint8_t[]> bytes_;
  const Wrapped wrapped_{};
};
