#pragma once

#include <fmt/printf.h>
#include <string>

// Writes one line to the system log.
void writeSystemLog(const std::string& text);

// The same with a format in printf's syntax, whose arguments are checked by type.
template <class... Args>
void systemLog(const char* format, const Args&... args) {
  writeSystemLog(fmt::sprintf(format, args...));
}
