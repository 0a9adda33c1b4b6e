/*
 * Pictures in memory that several processes share.
 *
 * A surface is a sealed memfd and its mapping. It travels to another process inside an XPC message
 * as the object that IOSurfaceCreateXPCObject makes; the receiver's IOSurfaceLookupFromXPCObject
 * trusts nothing in it: the descriptor must be a memfd that can neither shrink nor grow, and the
 * geometry must lie inside it, before anything is mapped. The wire form is described in surface_message.cpp.
 *
 * General rules:
 * - An IOSurfaceRef is a CF object: CFRetain and CFRelease hold it and let it go.
 * - All functions may be called from any thread. None may be given a null surface.
 * - A process has one IOSurfaceRef for a surface that it received, however often that surface arrives
 *   while it is held; its mapping is kept for a few seconds after the last holder lets go, so that a
 *   surface out of a pool is not mapped anew for each frame.
 * - Holding a reference is not using the surface. Who reads or writes its pixels while others may want
 *   to reuse it raises the use count, directly or by a pixel buffer around it. A sender keeps a use of
 *   its own until the receiver has answered: a surface inside a message is used by nobody.
 */
#pragma once

#include <CoreFoundation/CoreFoundation.h>
#include <stddef.h>
#include <stdint.h>
#include <xpc/xpc.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct __IOSurface* IOSurfaceRef;
typedef uint32_t IOSurfaceID;
typedef uint32_t OSType; /* a four-character code, first character in the highest byte */
typedef int kern_return_t;

/* Properties for IOSurfaceCreate; every value but the last is a CFNumber. */
extern const CFStringRef kIOSurfaceWidth;           /* pixels, required */
extern const CFStringRef kIOSurfaceHeight;          /* pixels, required */
extern const CFStringRef kIOSurfacePixelFormat;     /* 'BGRA', '420v' or 'y420'; absent: 'BGRA' */
extern const CFStringRef kIOSurfaceBytesPerElement; /* if given, must suit the format: 4 for 'BGRA' */
extern const CFStringRef kIOSurfaceIsGlobal;        /* CFBoolean; accepted, and without effect here */

typedef uint32_t IOSurfaceLockOptions;
enum { kIOSurfaceLockReadOnly = 1 };

/* A new surface, its pixels zero, its rows aligned to 64 bytes; chroma of an odd size is rounded up.
 * Null for a size of zero or above 16,384, an unknown format, or when memory or descriptors run out. */
IOSurfaceRef IOSurfaceCreate(CFDictionaryRef properties);

/* The surface as a value for an XPC message; the caller releases it. Null when descriptors run out. */
xpc_object_t IOSurfaceCreateXPCObject(IOSurfaceRef surface);

/* The surface that such a value stands for; the caller releases it. Null when the value is none, when
 * its descriptor or geometry is refused, or when it cannot be mapped. */
IOSurfaceRef IOSurfaceLookupFromXPCObject(xpc_object_t object);

/* The same number in every process that has the surface; another surface that lives has another one. */
IOSurfaceID IOSurfaceGetID(IOSurfaceRef surface);

size_t IOSurfaceGetWidth(IOSurfaceRef surface);  /* pixels */
size_t IOSurfaceGetHeight(IOSurfaceRef surface); /* pixels */
OSType IOSurfaceGetPixelFormat(IOSurfaceRef surface);
size_t IOSurfaceGetAllocSize(IOSurfaceRef surface);   /* bytes mapped, all planes and their padding */
size_t IOSurfaceGetBytesPerRow(IOSurfaceRef surface); /* of the first plane */
void* IOSurfaceGetBaseAddress(IOSurfaceRef surface);  /* of the first plane; valid as long as the surface */

/* The planes of '420v' (2) and 'y420' (3); 0 planes for 'BGRA'. An index beyond them answers 0 or null. */
size_t IOSurfaceGetPlaneCount(IOSurfaceRef surface);
size_t IOSurfaceGetWidthOfPlane(IOSurfaceRef surface, size_t plane);  /* elements */
size_t IOSurfaceGetHeightOfPlane(IOSurfaceRef surface, size_t plane); /* rows */
size_t IOSurfaceGetBytesPerRowOfPlane(IOSurfaceRef surface, size_t plane);
void* IOSurfaceGetBaseAddressOfPlane(IOSurfaceRef surface, size_t plane);

/* Bracket the processor's access to the pixels. Memory is coherent here, so they only answer 0
 * (success); `seed` is not written. */
kern_return_t IOSurfaceLock(IOSurfaceRef surface, IOSurfaceLockOptions options, uint32_t* seed);
kern_return_t IOSurfaceUnlock(IOSurfaceRef surface, IOSurfaceLockOptions options, uint32_t* seed);

/* The use count of this process, and whether any process has one above zero. The uses of a process
 * end with it, however it ends. */
void IOSurfaceIncrementUseCount(IOSurfaceRef surface);
void IOSurfaceDecrementUseCount(IOSurfaceRef surface);
int32_t IOSurfaceGetUseCount(IOSurfaceRef surface);
Boolean IOSurfaceIsInUse(IOSurfaceRef surface);

#ifdef __cplusplus
}
#endif
