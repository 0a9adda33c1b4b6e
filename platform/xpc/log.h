#pragma once

#include <sys/types.h>

#include <string>

namespace platform::xpc {

// One line in the system log.
void logLine(const std::string& text);
// The same about a process that has done wrong: one line a minute for each, and ten for all together.
void logOffence(pid_t offender, const std::string& text);

}  // namespace platform::xpc
