#include "streams/pixel_buffer_pool_manager.h"

#include <CoreFoundation/CoreFoundation.h>
#include <IOSurface/IOSurface.h>

#include "support/system_log.h"

namespace {

Ref<CFMutableDictionaryRef> newDictionary() {
  return Ref<CFMutableDictionaryRef>::adopt(CFDictionaryCreateMutable(
      kCFAllocatorDefault, 0, &kCFTypeDictionaryKeyCallBacks, &kCFTypeDictionaryValueCallBacks));
}

void setNumber(CFMutableDictionaryRef dictionary, CFStringRef key, int32_t value) {
  const auto number =
      Ref<CFNumberRef>::adopt(CFNumberCreate(kCFAllocatorDefault, kCFNumberSInt32Type, &value));
  CFDictionarySetValue(dictionary, key, number.get());
}

}  // namespace

std::unique_ptr<ZVPixelBufferPoolManager> ZVPixelBufferPoolManager::newManagerForPurpose(
    const std::string& purpose) {
  return std::unique_ptr<ZVPixelBufferPoolManager>(new ZVPixelBufferPoolManager(purpose));
}

CVPixelBufferRef ZVPixelBufferPoolManager::pixelBufferFromPoolWithWidth(int32_t width, int32_t height,
                                                                        OSType format, bool globalSurface) {
  if (width != pWidth || height != pHeight || format != pFormat || globalSurface != pGlobal) thisPool = {};
  if (height >= 1 && width >= 1 && !thisPool && !createPool(width, height, format, globalSurface)) {
    return nullptr;
  }
  CVPixelBufferRef buffer = nullptr;
  const CVReturn status = CVPixelBufferPoolCreatePixelBuffer(nullptr, thisPool.get(), &buffer);
  if (status != kCVReturnSuccess) {
    systemLog("Failed creating %d x %d pixel buffer for %s (%d)", width, height, callClassName, status);
    return nullptr;
  }
  return buffer;
}

bool ZVPixelBufferPoolManager::createPool(int32_t width, int32_t height, OSType format, bool globalSurface) {
  const auto attributes = newDictionary();
  const auto surfaceProperties = newDictionary();
  // Deprecated where it comes from, as any process finds such a surface by its number; yet it is the only
  // name of what a caller asks for here. The service's own surfaces are not global.
  if (globalSurface) CFDictionarySetValue(surfaceProperties.get(), kIOSurfaceIsGlobal, kCFBooleanTrue);
  setNumber(attributes.get(), kCVPixelBufferPixelFormatTypeKey, static_cast<int32_t>(format));
  setNumber(attributes.get(), kCVPixelBufferWidthKey, width);
  setNumber(attributes.get(), kCVPixelBufferHeightKey, height);
  CFDictionarySetValue(attributes.get(), kCVPixelBufferIOSurfacePropertiesKey, surfaceProperties.get());
  CFDictionarySetValue(attributes.get(), kCVPixelBufferIOSurfaceOpenGLTextureCompatibilityKey,
                       kCFBooleanTrue);
  CFDictionarySetValue(attributes.get(), kCVPixelBufferIOSurfaceOpenGLFBOCompatibilityKey, kCFBooleanTrue);

  CVPixelBufferPoolRef pool = nullptr;
  const CVReturn status = CVPixelBufferPoolCreate(kCFAllocatorDefault, nullptr, attributes.get(), &pool);
  thisPool = Ref<CVPixelBufferPoolRef>::adopt(pool);
  if (status != kCVReturnSuccess || !thisPool) {
    systemLog("Failed creating %d x %d pixel buffer pool for %s (%d)", width, height, callClassName, status);
    return false;
  }
  pWidth = width;
  pHeight = height;
  pFormat = format;
  pGlobal = globalSurface;
  return true;
}
