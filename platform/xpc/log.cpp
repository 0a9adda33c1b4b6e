#include "log.h"

#include <Foundation/ns_log.h>

void platform::xpc::logLine(const std::string& text) {
  NSLog(CFSTR("%s"), text.c_str());
}
