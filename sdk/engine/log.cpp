#include "log.h"

#include <glib.h>

#include <atomic>
#include <cstring>

namespace engine {
namespace {

std::atomic<otc_logger_callback> logger{nullptr};
std::atomic<bool> logEnabled{false};

const char* mark(LogLevel level) {
  switch (level) {
    case LogLevel::info:
      return "[INFO] ";
    case LogLevel::warning:
      return "[WARN] ";
    case LogLevel::error:
      return "[ERROR] ";
  }
  return "";
}

}  // namespace

std::string harmless(std::string word) {
  constexpr std::size_t longest = 64;
  if (word.size() > longest) word.resize(longest);
  for (char& letter : word) {
    if (g_ascii_isalnum(letter) == FALSE && std::strchr("-_.", letter) == nullptr) letter = '?';
  }
  return word;
}

void setLogger(otc_logger_callback callback) {
  logger = callback;
}

void setLogEnabled(bool enabled) {
  logEnabled = enabled;
}

void logLine(LogLevel level, const std::string& text) {
  const otc_logger_callback callback = logger;
  if (callback == nullptr || !logEnabled) return;
  callback((mark(level) + text).c_str());
}

}  // namespace engine
