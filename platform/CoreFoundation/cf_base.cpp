#include <CoreFoundation/cf_runtime.h>

using platform::object;

const CFAllocatorRef kCFAllocatorDefault = nullptr;

CFTypeRef CFRetain(CFTypeRef cf) {
  object(cf).retain();
  return cf;
}

void CFRelease(CFTypeRef cf) {
  object(cf).release();
}

CFIndex CFGetRetainCount(CFTypeRef cf) {
  return object(cf).retainCount();
}

CFTypeID CFGetTypeID(CFTypeRef cf) {
  return object(cf).typeId();
}

Boolean CFEqual(CFTypeRef cf1, CFTypeRef cf2) {
  if (cf1 == cf2) return true;
  return object(cf1).typeId() == object(cf2).typeId() && object(cf1).equals(object(cf2));
}

CFHashCode CFHash(CFTypeRef cf) {
  return object(cf).hash();
}
