#include "Log.h"

#include <Foundation/NSLog.h>

void platform::xpc::logLine(const std::string& text) {
  NSLog(CFSTR("%s"), text.c_str());
}
