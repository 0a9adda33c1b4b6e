#pragma once

#include <memory>
#include <optional>
#include <string>

// What comes over the link, from the SDK and from guests may be no text at all. A string is taken over
// once, here, and is valid UTF-8 from then on.

// The text, or none when `bytes` is null or not valid UTF-8.
std::optional<std::string> stringWithUTF8String(const char* bytes);

// The text with every byte that is not part of valid UTF-8 replaced by U+FFFD.
std::string replacingInvalidUTF8(const std::string& text);

// A C string for a log line: "(null)" for null.
inline const char* printable(const char* text) {
  return text ? text : "(null)";
}
inline const char* printable(const std::optional<std::string>& text) {
  return text ? text->c_str() : "(null)";
}
inline const char* printable(const std::shared_ptr<const std::string>& text) {
  return text ? text->c_str() : "(null)";
}
