#pragma once

#include <fmt/format.h>

#include <string>
#include <utility>

#include "opentok.h"

namespace engine {

// Lines for the program's log. Any thread. What a peer chose goes through `harmless`.
//
// An error says that the engine cannot go on in this process: a program may end itself on
// one. What one session, one peer or one stream suffers is a warning.
enum class LogLevel { info, warning, error };

// A peer's word without what a log line could be taken for something else by: letters, digits and "-", "_",
// "." of it, and not too much of it.
std::string harmless(std::string word);

void setLogger(otc_logger_callback callback);
void setLogEnabled(bool enabled);
void logLine(LogLevel level, const std::string& text);

template <typename... Args>
void logInfo(fmt::format_string<Args...> format, Args&&... args) {
  logLine(LogLevel::info, fmt::format(format, std::forward<Args>(args)...));
}

template <typename... Args>
void logWarning(fmt::format_string<Args...> format, Args&&... args) {
  logLine(LogLevel::warning, fmt::format(format, std::forward<Args>(args)...));
}

template <typename... Args>
void logError(fmt::format_string<Args...> format, Args&&... args) {
  logLine(LogLevel::error, fmt::format(format, std::forward<Args>(args)...));
}

}  // namespace engine
