#include "log.h"

#include <Foundation/line_limit.h>
#include <Foundation/ns_log.h>

void platform::xpc::logLine(const std::string& text) {
  NSLog(CFSTR("%s"), text.c_str());
}

void platform::xpc::logOffence(pid_t offender, const std::string& text) {
  static auto& ofEach = *new LineLimit(1);
  static auto& ofAll = *new LineLimit(10);
  const auto now = LineLimit::Clock::now();
  if (ofEach.ask(static_cast<uint64_t>(offender), now).allowed && ofAll.ask(0, now).allowed) logLine(text);
}
