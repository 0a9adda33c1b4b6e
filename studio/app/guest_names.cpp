#include "app/guest_names.h"

#include <fmt/format.h>
#include <glib.h>

#include <algorithm>
#include <charconv>
#include <iterator>
#include <optional>

#include "app/terminal_text.h"

namespace studio {

namespace {

constexpr std::string_view guestPrefix = "Guest - ";

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

std::optional<int> numberIn(std::string_view words) {
  if (words.starts_with('#')) words.remove_prefix(1);
  int number = 0;
  const char* end = words.data() + words.size();
  const auto [read, error] = std::from_chars(words.data(), end, number);
  return error == std::errc() && read == end ? std::optional(number) : std::nullopt;
}

}  // namespace

std::string_view ownName(std::string_view name) {
  if (name.starts_with(guestPrefix)) name.remove_prefix(guestPrefix.size());
  return name;
}

std::variant<GuestRow, NoGuest> findGuest(const std::vector<GuestRow>& rows, std::string_view words) {
  if (rows.empty()) return NoGuest{"no guest has rung yet"};
  const auto number = numberIn(words);
  const auto numbered =
      std::find_if(rows.begin(), rows.end(), [&](const GuestRow& row) { return row.number == number; });
  if (numbered != rows.end()) return *numbered;

  const std::string name = folded(words);
  std::vector<GuestRow> found;
  if (!words.starts_with('#')) {
    std::copy_if(rows.begin(), rows.end(), std::back_inserter(found), [&](const GuestRow& row) {
      return row.id.starts_with(words) || folded(ownName(row.name)) == name;
    });
  }
  const auto there = std::stable_partition(found.begin(), found.end(),
                                           [](const GuestRow& row) { return row.state != GuestState::gone; });
  if (there != found.begin()) found.erase(there, found.end());
  if (found.size() == 1) return found.front();
  if (found.empty()) {
    return NoGuest{fmt::format("no guest is called \"{}\"; \"guests\" lists them", printable(words))};
  }
  std::vector<std::string> numbers;
  numbers.reserve(found.size());
  for (const GuestRow& row : found) numbers.push_back(fmt::format("#{}", row.number));
  return NoGuest{
      fmt::format("\"{}\" may be any of {}; say which", printable(words), fmt::join(numbers, ", "))};
}

}  // namespace studio
