#include "app/gone_guests.h"

#include <algorithm>

namespace studio {

namespace {

constexpr std::chrono::seconds goneForGood(30);

bool isThere(const GuestRow& row) {
  return row.state == GuestState::ringing || row.state == GuestState::greenroom ||
         row.state == GuestState::live;
}

}  // namespace

bool cameraIsIn(const std::vector<GuestRow>& rows) {
  return std::any_of(rows.begin(), rows.end(), [](const GuestRow& row) {
    return !row.screenShare && (row.state == GuestState::greenroom || row.state == GuestState::live);
  });
}

std::vector<std::string> forgettable(const std::vector<GuestRow>& rows,
                                     std::chrono::steady_clock::time_point now) {
  std::vector<std::string> found;
  if (cameraIsIn(rows) || std::none_of(rows.begin(), rows.end(), isThere)) return found;
  for (const GuestRow& row : rows) {
    if (row.state == GuestState::gone && now - row.since > goneForGood) found.push_back(row.id);
  }
  return found;
}

}  // namespace studio
