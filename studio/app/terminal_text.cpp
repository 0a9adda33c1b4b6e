#include "app/terminal_text.h"

#include <fmt/format.h>
#include <glib.h>

#include <algorithm>
#include <iterator>

namespace studio {

namespace {

struct Range {
  gunichar first;
  gunichar last;
};
// Seen as nothing, though they count as letters or marks.
constexpr Range unseen[] = {
    {0x034f, 0x034f}, {0x115f, 0x1160}, {0x17b4, 0x17b5}, {0x180b, 0x180f},   {0x2800, 0x2800},
    {0x3164, 0x3164}, {0xfe00, 0xfe0f}, {0xffa0, 0xffa0}, {0xe0000, 0xe0fff},
};

bool isHarmless(gunichar letter) {
  switch (g_unichar_type(letter)) {
    case G_UNICODE_CONTROL:
    case G_UNICODE_FORMAT:  // the direction of writing, joiners, spaces without width
    case G_UNICODE_LINE_SEPARATOR:
    case G_UNICODE_PARAGRAPH_SEPARATOR:
    case G_UNICODE_PRIVATE_USE:
    case G_UNICODE_UNASSIGNED:
      return false;
    default:
      return std::none_of(std::begin(unseen), std::end(unseen),
                          [&](const Range& range) { return letter >= range.first && letter <= range.last; });
  }
}

// Has `show` write what is not harmless.
template <class Show>
std::string withShown(std::string_view text, Show show) {
  std::string safe;
  while (!text.empty()) {
    const gunichar letter =
        text.front() == '\0' ? 0 : g_utf8_get_char_validated(text.data(), static_cast<gssize>(text.size()));
    if (letter >= 0x110000) {  // no letter begins here
      safe += "\xef\xbf\xbd";
      text.remove_prefix(1);
      continue;
    }
    const auto length = static_cast<std::size_t>(g_unichar_to_utf8(letter, nullptr));
    safe += isHarmless(letter) ? std::string(text.substr(0, length)) : show(letter);
    text.remove_prefix(length);
  }
  return safe;
}

}  // namespace

std::string printable(std::string_view text) {
  return withShown(text, [](gunichar letter) { return fmt::format("<U+{:04X}>", letter); });
}

std::string printableJson(std::string_view json) {
  return withShown(json, [](gunichar letter) {
    if (letter < 0x10000) return fmt::format("\\u{:04x}", letter);
    return fmt::format("\\u{:04x}\\u{:04x}", 0xd800 + ((letter - 0x10000) >> 10),
                       0xdc00 + ((letter - 0x10000) & 0x3ff));
  });
}

}  // namespace studio
