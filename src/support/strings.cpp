#include "support/strings.h"

#include <string_view>

namespace {

// The length of the valid sequence that `text` begins with, 0 if it begins with none.
size_t validSequenceLength(std::string_view text) {
  const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
  const auto continues = [&](size_t from, size_t to) {
    if (text.size() < to) return false;
    for (size_t i = from; i < to; i++) {
      if ((byte(i) & 0xC0) != 0x80) return false;
    }
    return true;
  };
  const unsigned char first = byte(0);
  if (first < 0x80) return 1;
  if (first >= 0xC2 && first <= 0xDF) return continues(1, 2) ? 2 : 0;
  if (first >= 0xE0 && first <= 0xEF) {
    if (!continues(1, 3)) return 0;
    const bool overlong = first == 0xE0 && byte(1) < 0xA0;
    const bool surrogate = first == 0xED && byte(1) > 0x9F;
    return overlong || surrogate ? 0 : 3;
  }
  if (first >= 0xF0 && first <= 0xF4) {
    if (!continues(1, 4)) return 0;
    const bool overlong = first == 0xF0 && byte(1) < 0x90;
    const bool tooLarge = first == 0xF4 && byte(1) > 0x8F;
    return overlong || tooLarge ? 0 : 4;
  }
  return 0;
}

bool isValidUTF8(std::string_view text) {
  while (!text.empty()) {
    const size_t length = validSequenceLength(text);
    if (length == 0) return false;
    text.remove_prefix(length);
  }
  return true;
}

}  // namespace

std::optional<std::string> stringWithUTF8String(const char* bytes) {
  if (!bytes || !isValidUTF8(bytes)) return std::nullopt;
  return std::string(bytes);
}

std::string replacingInvalidUTF8(const std::string& text) {
  if (isValidUTF8(text)) return text;
  std::string result;
  std::string_view rest = text;
  while (!rest.empty()) {
    const size_t length = validSequenceLength(rest);
    result += length ? rest.substr(0, length) : std::string_view("\uFFFD");
    rest.remove_prefix(length ? length : 1);
  }
  return result;
}
