// When the service may forget those who have gone.
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "app/guest_board.h"

namespace studio {

/// The guests whose records the service is to be told to remove. Their records lengthen what it sends to all
/// pages, but a removal makes the service act as if no camera guest were in: so none while one is. Nor one
/// beside which nobody is there, since the session ends with the last record; nor one of a guest who has only
/// just gone, and may be the next to ring in a session joined anew.
std::vector<std::string> forgettable(const std::vector<GuestRow>& rows,
                                     std::chrono::steady_clock::time_point now);

/// Whether a guest with a camera is in the green room or on air.
bool cameraIsIn(const std::vector<GuestRow>& rows);

}  // namespace studio
