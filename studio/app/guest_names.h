// Which guest the host means.
#pragma once

#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "studio/stage.h"

namespace studio {

/// What is wrong with words that name no guest, or more than one.
struct NoGuest {
  std::string text;
};

/// The one guest that the words name: by "#NUMBER" or NUMBER, or by the whole name. Names are chosen by
/// strangers: one counts only where the words are no number of a guest's, and words that fit two guests name
/// neither.
std::variant<Stage::Number, NoGuest> findGuest(const std::vector<Stage::Guest>& guests,
                                               std::string_view words);

}  // namespace studio
