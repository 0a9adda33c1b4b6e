// Which guest the host means.
#pragma once

#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "app/guest_board.h"

namespace studio {

/// What is wrong with words that name no guest, or more than one.
struct NoGuest {
  std::string text;
};

/// The one guest that the words name: by "#NUMBER" or NUMBER, by the whole name, or by an id or its
/// beginning. Ids and names are chosen by strangers: an id counts only where the words are no number of a
/// guest's, and words that fit two guests name neither. Who has gone is named only by what fits nobody who is
/// there.
std::variant<GuestRow, NoGuest> findGuest(const std::vector<GuestRow>& rows, std::string_view words);

/// The name without what the session puts before it.
std::string_view ownName(std::string_view name);

}  // namespace studio
