/*
 * CoreFoundation, as far as the guest service and its studio use it.
 *
 * A reference from a function with "Create" or "Copy" in its name belongs to the caller, who gives it
 * back with CFRelease; one from a function with "Get" in its name lives as long as the object it was
 * asked of. Objects may be retained and released on any thread; a mutable dictionary is used by one
 * thread at a time. Allocators are accepted and not asked: all memory comes from the heap.
 */
#pragma once

#include <stddef.h>
#include <stdint.h>

extern "C" {

typedef unsigned char Boolean;
typedef uint8_t UInt8;
typedef int32_t SInt32;
typedef long CFIndex;
typedef unsigned long CFTypeID;
typedef unsigned long CFHashCode;

typedef const void* CFTypeRef;
typedef const struct __CFAllocator* CFAllocatorRef;
typedef const struct __CFString* CFStringRef;
typedef const struct __CFNumber* CFNumberRef;
typedef const struct __CFBoolean* CFBooleanRef;
typedef const struct __CFDictionary* CFDictionaryRef;
typedef struct __CFDictionary* CFMutableDictionaryRef;
typedef struct __CFRunLoop* CFRunLoopRef;
typedef struct __CFRunLoopSource* CFRunLoopSourceRef;
typedef CFStringRef CFRunLoopMode;

extern const CFAllocatorRef kCFAllocatorDefault;

/* ---- Every object. None of these takes NULL. ---- */

/* Takes one more reference and returns the object. */
CFTypeRef CFRetain(CFTypeRef cf);
/* Gives one reference back; with the last one the object goes. */
void CFRelease(CFTypeRef cf);
CFIndex CFGetRetainCount(CFTypeRef cf);
CFTypeID CFGetTypeID(CFTypeRef cf);
/* Objects of the same type and value are equal; those of unlike types never are. */
Boolean CFEqual(CFTypeRef cf1, CFTypeRef cf2);
/* Equal objects have equal hashes. */
CFHashCode CFHash(CFTypeRef cf);

/* ---- Strings: UTF-8, immutable ---- */

typedef uint32_t CFStringEncoding;
enum { kCFStringEncodingUTF8 = 0x08000100 };

/* The string of a literal. It is never destroyed, and the same text gives the same object. */
#define CFSTR(cStr) __CFStringMakeConstantString("" cStr "")
CFStringRef __CFStringMakeConstantString(const char* cStr);

CFTypeID CFStringGetTypeID(void);
/* NULL if the text is not UTF-8 or the encoding is another one. */
CFStringRef CFStringCreateWithCString(CFAllocatorRef alloc, const char* cStr, CFStringEncoding encoding);
/* The string's own NUL-terminated text, valid as long as the string; NULL for another encoding. */
const char* CFStringGetCStringPtr(CFStringRef theString, CFStringEncoding encoding);

/* ---- Numbers and booleans ---- */

typedef CFIndex CFNumberType;
enum {
  kCFNumberSInt32Type = 3,
  kCFNumberSInt64Type = 4,
  kCFNumberIntType = 9,
};

CFTypeID CFNumberGetTypeID(void);
/* Reads the number at valuePtr as the given type; NULL for a type that is not listed above. */
CFNumberRef CFNumberCreate(CFAllocatorRef allocator, CFNumberType theType, const void* valuePtr);
/* Writes the value as the given type; false if it does not fit, and its low bits are written. */
Boolean CFNumberGetValue(CFNumberRef number, CFNumberType theType, void* valuePtr);

extern const CFBooleanRef kCFBooleanTrue;
extern const CFBooleanRef kCFBooleanFalse;
CFTypeID CFBooleanGetTypeID(void);

/* ---- Dictionaries ---- */

typedef const void* (*CFDictionaryRetainCallBack)(CFAllocatorRef allocator, const void* value);
typedef void (*CFDictionaryReleaseCallBack)(CFAllocatorRef allocator, const void* value);
typedef CFStringRef (*CFDictionaryCopyDescriptionCallBack)(const void* value);
typedef Boolean (*CFDictionaryEqualCallBack)(const void* value1, const void* value2);
typedef CFHashCode (*CFDictionaryHashCallBack)(const void* value);

typedef struct {
  CFIndex version;
  CFDictionaryRetainCallBack retain;
  CFDictionaryReleaseCallBack release;
  CFDictionaryCopyDescriptionCallBack copyDescription;
  CFDictionaryEqualCallBack equal;
  CFDictionaryHashCallBack hash;
} CFDictionaryKeyCallBacks;

typedef struct {
  CFIndex version;
  CFDictionaryRetainCallBack retain;
  CFDictionaryReleaseCallBack release;
  CFDictionaryCopyDescriptionCallBack copyDescription;
  CFDictionaryEqualCallBack equal;
} CFDictionaryValueCallBacks;

/* Keys and values are CoreFoundation objects, which the dictionary retains. */
extern const CFDictionaryKeyCallBacks kCFTypeDictionaryKeyCallBacks;
extern const CFDictionaryValueCallBacks kCFTypeDictionaryValueCallBacks;

CFTypeID CFDictionaryGetTypeID(void);
/* An empty dictionary; capacity is a hint. Without callbacks keys and values are plain pointers. */
CFMutableDictionaryRef CFDictionaryCreateMutable(CFAllocatorRef allocator, CFIndex capacity,
                                                 const CFDictionaryKeyCallBacks* keyCallBacks,
                                                 const CFDictionaryValueCallBacks* valueCallBacks);
/* The value of the key, not retained, or NULL. */
const void* CFDictionaryGetValue(CFDictionaryRef theDict, const void* key);
/* Adds the pair, or gives the key that is there its new value. */
void CFDictionarySetValue(CFMutableDictionaryRef theDict, const void* key, const void* value);

/* ---- Run loops: one a thread ---- */

extern const CFRunLoopMode kCFRunLoopDefaultMode;
extern const CFRunLoopMode kCFRunLoopCommonModes;

/* The calling thread's run loop, made when it is first asked for; it ends with its thread. */
CFRunLoopRef CFRunLoopGetCurrent(void);
/* Runs the calling thread's run loop until it is stopped; returns at once if it has no source. */
void CFRunLoopRun(void);
/* Makes the innermost CFRunLoopRun of that run loop return; may be called on any thread. */
void CFRunLoopStop(CFRunLoopRef rl);
/* The source's callbacks run on that run loop's thread from now on. A source has one run loop; modes are
 * not told apart. */
void CFRunLoopAddSource(CFRunLoopRef rl, CFRunLoopSourceRef source, CFRunLoopMode mode);

}  // extern "C"
