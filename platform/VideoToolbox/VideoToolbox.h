/*
 * Copying and converting pixel buffers.
 */
#pragma once

#include <CoreFoundation/CoreFoundation.h>
#include <CoreVideo/CoreVideo.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef int32_t OSStatus;
enum {
  noErr = 0,
  kVTParameterErr = -12902,
  kVTAllocationFailedErr = -12904,
  kVTPixelTransferNotSupportedErr = -12905
};

/* A CF object. */
typedef struct OpaqueVTPixelTransferSession* VTPixelTransferSessionRef;

OSStatus VTPixelTransferSessionCreate(CFAllocatorRef allocator, VTPixelTransferSessionRef* sessionOut);

/* Copies the picture in `source` into `destination`, in the calling thread and in one pass: between
 * buffers of one format, and from 'y420' to '420v'. Any other pair of formats, and buffers of two
 * sizes (nothing is scaled), answer kVTPixelTransferNotSupportedErr. A session may be used by one
 * thread at a time. */
OSStatus VTPixelTransferSessionTransferImage(VTPixelTransferSessionRef session, CVPixelBufferRef source,
                                             CVPixelBufferRef destination);

#ifdef __cplusplus
}
#endif
