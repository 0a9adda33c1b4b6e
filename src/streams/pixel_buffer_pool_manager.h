#pragma once

#include <CoreVideo/CoreVideo.h>
#include <cstdint>
#include <memory>
#include <string>

#include "support/ref.h"

// Hands out surface-backed pixel buffers of one size and format from a pool that is thrown away when
// another size, format or kind of surface is asked for. One thread at a time.
class ZVPixelBufferPoolManager {
 public:
  // `purpose` says in failure messages what the buffers are for.
  static std::unique_ptr<ZVPixelBufferPoolManager> newManagerForPurpose(const std::string& purpose);

  // A buffer that the caller must release and that outlives the manager, or null. Sizes are in pixels;
  // one below 1 gives null.
  CVPixelBufferRef pixelBufferFromPoolWithWidth(int32_t width, int32_t height, OSType format,
                                                bool globalSurface);

 private:
  explicit ZVPixelBufferPoolManager(const std::string& className) : callClassName(className) {}

  bool createPool(int32_t width, int32_t height, OSType format, bool globalSurface);

  Ref<CVPixelBufferPoolRef> thisPool;
  int32_t pWidth = 0;
  int32_t pHeight = 0;
  OSType pFormat = 0x20202020;
  int32_t pGlobal = -1;  // equal to neither answer, so that the first request makes a pool
  const std::string callClassName;
};
