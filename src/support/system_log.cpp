#include "support/system_log.h"

#include <CoreFoundation/CoreFoundation.h>

#include "support/ref.h"
#include "support/strings.h"

// Declared here and not by Foundation's header, whose declaration takes an Objective-C string. The two
// string types are the same object.
extern "C" void NSLog(CFStringRef format, ...);

void writeSystemLog(const std::string& text) {
  const auto line = Ref<CFStringRef>::adopt(CFStringCreateWithCString(
      kCFAllocatorDefault, replacingInvalidUTF8(text).c_str(), kCFStringEncodingUTF8));
  if (line) NSLog(CFSTR("%@"), line.get());
}
