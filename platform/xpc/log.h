#pragma once

#include <string>

namespace platform::xpc {

// One line in the system log.
void logLine(const std::string& text);

}  // namespace platform::xpc
