#include "app/guest_names.h"

#include <fmt/format.h>
#include <glib.h>

#include <algorithm>
#include <charconv>
#include <optional>

#include "app/terminal_text.h"

namespace studio {

namespace {

// The name as it is compared: in one case, with single blanks.
std::string folded(std::string_view text) {
  g_autofree gchar* valid = g_utf8_make_valid(text.data(), static_cast<gssize>(text.size()));
  g_autofree gchar* folded = g_utf8_casefold(valid, -1);
  std::string name;
  for (const char* letter = folded; *letter; ++letter) {
    if (*letter != ' ' || (!name.empty() && name.back() != ' ')) name += *letter;
  }
  if (name.ends_with(' ')) name.pop_back();
  return name;
}

std::optional<Stage::Number> numberIn(std::string_view words) {
  if (words.starts_with('#')) words.remove_prefix(1);
  Stage::Number number = 0;
  const char* end = words.data() + words.size();
  const auto [read, error] = std::from_chars(words.data(), end, number);
  return error == std::errc() && read == end ? std::optional(number) : std::nullopt;
}

}  // namespace

std::variant<Stage::Number, NoGuest> findGuest(const std::vector<Stage::Guest>& guests,
                                               std::string_view words) {
  if (guests.empty()) return NoGuest{"no guest has rung yet"};
  const auto number = numberIn(words);
  const auto numbered =
      std::find_if(guests.begin(), guests.end(), [&](const auto& guest) { return guest.number == number; });
  if (numbered != guests.end()) return numbered->number;

  const std::string name = folded(words);
  std::vector<Stage::Number> found;
  for (const Stage::Guest& guest : guests) {
    if (!words.starts_with('#') && folded(guest.name) == name) found.push_back(guest.number);
  }
  if (found.size() == 1) return found.front();
  if (found.empty()) {
    return NoGuest{fmt::format("no guest is called \"{}\"; \"guests\" lists them", printable(words))};
  }
  return NoGuest{
      fmt::format("\"{}\" may be any of #{}; say which", printable(words), fmt::join(found, ", #"))};
}

}  // namespace studio
