/*
 * Pixel buffers, around a shared surface, around memory of this process, or around somebody else's
 * planes, and pools of buffers of one kind.
 *
 * General rules:
 * - Pixel buffers and pools are CF objects; their own Retain and Release calls also take null.
 * - Functions that return CVReturn write their result only when they answer kCVReturnSuccess, and
 *   else write null to it. The caller releases what it is given.
 * - Getters may be called from any thread. A pool may be used by several threads at once.
 * - The formats are 'BGRA' (one plane of 4 bytes a pixel), 'y420' (planes Y, U, V) and '420v' (planes
 *   Y and interleaved CbCr, video range). Chroma of an odd size is rounded up.
 */
#pragma once

#include <CoreFoundation/CoreFoundation.h>
#include <IOSurface/IOSurface.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef int32_t CVReturn;
enum {
  kCVReturnSuccess = 0,
  kCVReturnInvalidArgument = -6661,
  kCVReturnAllocationFailed = -6662,
  kCVReturnInvalidPixelFormat = -6680,
  kCVReturnInvalidSize = -6681,
  kCVReturnInvalidPixelBufferAttributes = -6682,
  kCVReturnWouldExceedAllocationThreshold = -6689,
  kCVReturnPoolAllocationFailed = -6690,
  kCVReturnInvalidPoolAttributes = -6691
};

enum {
  kCVPixelFormatType_32BGRA = 0x42475241,                      /* 'BGRA' */
  kCVPixelFormatType_420YpCbCr8Planar = 0x79343230,            /* 'y420' */
  kCVPixelFormatType_420YpCbCr8BiPlanarVideoRange = 0x34323076 /* '420v' */
};

typedef uint64_t CVOptionFlags;
typedef CVOptionFlags CVPixelBufferLockFlags;
enum { kCVPixelBufferLock_ReadOnly = 1 };

typedef struct __CVBuffer* CVBufferRef;
typedef CVBufferRef CVImageBufferRef;
typedef CVImageBufferRef CVPixelBufferRef;
typedef struct __CVPixelBufferPool* CVPixelBufferPoolRef;

/* Attributes of a buffer or of a pool's buffers. */
extern const CFStringRef kCVPixelBufferPixelFormatTypeKey; /* CFNumber; required for a pool */
extern const CFStringRef kCVPixelBufferWidthKey;           /* CFNumber, pixels; required for a pool */
extern const CFStringRef kCVPixelBufferHeightKey;          /* CFNumber, pixels; required for a pool */
/* CFDictionary of surface properties, may be empty; when present, each buffer has a surface. */
extern const CFStringRef kCVPixelBufferIOSurfacePropertiesKey;
extern const CFStringRef kCVPixelBufferIOSurfaceOpenGLTextureCompatibilityKey; /* accepted, no effect here */
extern const CFStringRef kCVPixelBufferIOSurfaceOpenGLFBOCompatibilityKey;     /* accepted, no effect here */

/* A new buffer; its pixels are zero. `attributes` may be null. Answers kCVReturnInvalidSize for a size
 * of zero or above 16,384, kCVReturnInvalidPixelFormat for a format not named above. */
CVReturn CVPixelBufferCreate(CFAllocatorRef allocator, size_t width, size_t height, OSType pixelFormatType,
                             CFDictionaryRef attributes, CVPixelBufferRef* pixelBufferOut);

/* A buffer that holds the surface and counts as one use of it as long as it lives. */
CVReturn CVPixelBufferCreateWithIOSurface(CFAllocatorRef allocator, IOSurfaceRef surface,
                                          CFDictionaryRef attributes, CVPixelBufferRef* pixelBufferOut);

/* `releaseRefCon` is the caller's, `dataPtr` and `dataSize` as given at the creation. */
typedef void (*CVPixelBufferReleasePlanarBytesCallback)(void* releaseRefCon, const void* dataPtr,
                                                        size_t dataSize, size_t numberOfPlanes,
                                                        const void* planeAddresses[]);

/* A buffer around planes that belong to the caller: nothing is copied, and they must stay valid until
 * `releaseCallback` (may be null) is called, on the thread that lets the buffer go. The arrays hold
 * `numberOfPlanes` entries and are copied. The planes must be as many, as wide and as high as format
 * and size ask for, and their rows no shorter than their width; else kCVReturnInvalidArgument. */
CVReturn CVPixelBufferCreateWithPlanarBytes(
    CFAllocatorRef allocator, size_t width, size_t height, OSType pixelFormatType, void* dataPtr,
    size_t dataSize, size_t numberOfPlanes, void* planeBaseAddress[], size_t planeWidth[],
    size_t planeHeight[], size_t planeBytesPerRow[], CVPixelBufferReleasePlanarBytesCallback releaseCallback,
    void* releaseRefCon, CFDictionaryRef attributes, CVPixelBufferRef* pixelBufferOut);

CVPixelBufferRef CVPixelBufferRetain(CVPixelBufferRef pixelBuffer);
void CVPixelBufferRelease(CVPixelBufferRef pixelBuffer);

/* The buffer's surface, not retained; null when it has none. */
IOSurfaceRef CVPixelBufferGetIOSurface(CVPixelBufferRef pixelBuffer);

size_t CVPixelBufferGetWidth(CVPixelBufferRef pixelBuffer);
size_t CVPixelBufferGetHeight(CVPixelBufferRef pixelBuffer);
OSType CVPixelBufferGetPixelFormatType(CVPixelBufferRef pixelBuffer);
/* Bytes of all rows of all planes: for 'BGRA' exactly bytes per row times height. */
size_t CVPixelBufferGetDataSize(CVPixelBufferRef pixelBuffer);
void* CVPixelBufferGetBaseAddress(CVPixelBufferRef pixelBuffer); /* of the first plane */

/* Planes are counted for planar formats only: 'BGRA' has 0. An index beyond them answers 0 or null. */
size_t CVPixelBufferGetPlaneCount(CVPixelBufferRef pixelBuffer);
void* CVPixelBufferGetBaseAddressOfPlane(CVPixelBufferRef pixelBuffer, size_t plane);
size_t CVPixelBufferGetBytesPerRowOfPlane(CVPixelBufferRef pixelBuffer, size_t plane);
size_t CVPixelBufferGetWidthOfPlane(CVPixelBufferRef pixelBuffer, size_t plane);

/* Bracket the processor's access to the pixels; the addresses are valid outside of them, too, here. */
CVReturn CVPixelBufferLockBaseAddress(CVPixelBufferRef pixelBuffer, CVPixelBufferLockFlags lockFlags);
CVReturn CVPixelBufferUnlockBaseAddress(CVPixelBufferRef pixelBuffer, CVPixelBufferLockFlags unlockFlags);

/* A pool of buffers with the given attributes. `poolAttributes` may be null; none is acted on. Answers
 * kCVReturnInvalidPixelBufferAttributes when format, width or height are missing, and like
 * CVPixelBufferCreate when they are impossible. */
CVReturn CVPixelBufferPoolCreate(CFAllocatorRef allocator, CFDictionaryRef poolAttributes,
                                 CFDictionaryRef pixelBufferAttributes, CVPixelBufferPoolRef* poolOut);

/* A buffer that nobody holds and whose surface no process uses, made anew if there is none; the pixels
 * of an earlier use are still in it. Of more than three, those that have lain idle for a second are freed
 * on the way. Answers kCVReturnInvalidArgument for a null pool and kCVReturnPoolAllocationFailed when
 * memory runs out or 64 buffers of the pool are held or used: a peer that never lets go cannot fill the
 * memory. */
CVReturn CVPixelBufferPoolCreatePixelBuffer(CFAllocatorRef allocator, CVPixelBufferPoolRef pool,
                                            CVPixelBufferRef* pixelBufferOut);

#ifdef __cplusplus
}
#endif
