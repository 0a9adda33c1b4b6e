#include "stage/lobby.h"

#include <glib.h>

#include <algorithm>
#include <utility>

#include "stage/secret.h"

namespace studio {

namespace {

constexpr std::chrono::minutes window(1);
constexpr std::size_t mostAddresses = 4096;
constexpr std::size_t longestName = 64;  // in characters

// Takes as long for a wrong key as for one that is nearly right.
bool isKey(std::string_view given, std::string_view key) {
  if (given.size() != key.size()) return false;
  unsigned char different = 0;
  for (std::size_t index = 0; index < key.size(); ++index) {
    different |= static_cast<unsigned char>(given[index] ^ key[index]);
  }
  return different == 0;
}

}  // namespace

Lobby::Lobby(Limits limits, Ledger::Content content)
    : limits_(limits), lastNumber_(content.lastNumber), invitations_(std::move(content.invitations)) {
  for (SeatRecord& record : content.seats) {
    const std::uint32_t number = record.number;
    seats_.emplace(number, Seat{std::move(record), false, false});
  }
  if (invitations_.empty() || !invitations_.front().name.empty()) {
    invitations_.insert(invitations_.begin(), {unguessable(), {}});
  }
}

std::variant<SeatRecord, Lobby::Refusal> Lobby::ask(const std::string& address, std::string_view invitation,
                                                    std::string_view name, Time now) {
  if (tooMany(address, now)) return Refusal::rate;
  const auto shown = std::find_if(invitations_.begin(), invitations_.end(),
                                  [&](const Invitation& each) { return isKey(invitation, each.key); });
  if (shown == invitations_.end()) return Refusal::invitation;
  const std::string called = cleanName(shown->name.empty() ? name : shown->name);
  if (called.empty()) return Refusal::name;
  if (!shown->name.empty()) {
    const auto before = std::find_if(seats_.begin(), seats_.end(), [&](const auto& each) {
      return !each.second.revoked && each.second.record.name == called;
    });
    if (before != seats_.end() && before->second.present) return Refusal::taken;
    if (before != seats_.end()) {
      before->second.record.key = unguessable();  // the link is in another browser now
      return before->second.record;
    }
  }
  if (seats_.size() >= limits_.seats) return Refusal::full;
  const auto offers =
      std::count_if(seats_.begin(), seats_.end(), [](const auto& each) { return each.second.offered; });
  if (static_cast<std::size_t>(offers) >= limits_.offers) return Refusal::busy;
  const SeatRecord record{++lastNumber_, called, unguessable(), Place::outside, false};
  seats_.emplace(record.number, Seat{record});
  return record;
}

std::variant<SeatRecord, Lobby::Refusal> Lobby::comeBack(const std::string& address, std::string_view key,
                                                         Time now) {
  if (tooMany(address, now)) return Refusal::rate;
  const auto number = seatOf(key);
  if (!number) return Refusal::seat;
  return seats_.at(*number).record;
}

std::optional<std::uint32_t> Lobby::seatOf(std::string_view key) const {
  for (const auto& [number, seat] : seats_) {
    if (!seat.revoked && isKey(key, seat.record.key)) return number;
  }
  return std::nullopt;
}

std::string Lobby::keyOf(std::uint32_t number) const {
  const auto seat = seats_.find(number);
  return seat == seats_.end() ? std::string() : seat->second.record.key;
}

void Lobby::rang(std::uint32_t number) {
  const auto seat = seats_.find(number);
  if (seat != seats_.end()) seat->second.offered = false;
}

void Lobby::keep(std::uint32_t number, Place place, bool muted) {
  const auto seat = seats_.find(number);
  if (seat == seats_.end()) return;
  seat->second.record.place = place;
  seat->second.record.muted = muted;
}

void Lobby::setPresent(std::uint32_t number, bool present) {
  const auto seat = seats_.find(number);
  if (seat != seats_.end()) seat->second.present = present;
}

void Lobby::revoke(std::uint32_t number) {
  const auto seat = seats_.find(number);
  if (seat != seats_.end()) seat->second.revoked = true;
}

void Lobby::release(std::uint32_t number) {
  seats_.erase(number);
}

const std::string& Lobby::invitation() const {
  return invitations_.front().key;
}

std::string Lobby::invite(const std::string& name) {
  const std::string called = cleanName(name);
  if (called.empty() != name.empty()) return {};
  auto found = std::find_if(invitations_.begin(), invitations_.end(),
                            [&](const Invitation& each) { return each.name == called; });
  if (found == invitations_.end()) found = invitations_.insert(invitations_.end(), {{}, called});
  found->key = unguessable();
  return found->key;
}

Ledger::Content Lobby::content() const {
  Ledger::Content content{lastNumber_, invitations_, {}};
  for (const auto& [number, seat] : seats_) {
    if (!seat.offered && !seat.revoked) content.seats.push_back(seat.record);
  }
  return content;
}

bool Lobby::tooMany(const std::string& address, Time now) {
  if (requests_.size() >= mostAddresses) {
    std::erase_if(requests_, [now](const auto& each) { return now - each.second.since >= window; });
    // Still so many: nobody new is let in until the minute is over.
    if (requests_.size() >= mostAddresses && !requests_.contains(address)) return true;
  }
  Requests& requests = requests_[address];
  if (requests.count == 0 || now - requests.since >= window) requests = {now, 0};
  return ++requests.count > limits_.requestsAMinute;
}

std::string_view nameOf(Lobby::Refusal refusal) {
  switch (refusal) {
    case Lobby::Refusal::invitation:
      return "invitation";
    case Lobby::Refusal::taken:
      return "taken";
    case Lobby::Refusal::name:
      return "name";
    case Lobby::Refusal::full:
      return "full";
    case Lobby::Refusal::busy:
      return "busy";
    case Lobby::Refusal::rate:
      return "rate";
    case Lobby::Refusal::seat:
      return "seat";
  }
  return "";
}

std::string cleanName(std::string_view name) {
  std::string clean;
  std::size_t characters = 0;
  const std::string valid = [&] {
    char* text = g_utf8_make_valid(name.data(), static_cast<gssize>(name.size()));
    std::string made(text);
    g_free(text);
    return made;
  }();
  for (const char* at = valid.c_str(); *at != '\0' && characters < longestName; at = g_utf8_next_char(at)) {
    const gunichar letter = g_utf8_get_char(at);
    const GUnicodeType type = g_unichar_type(letter);
    const bool blank = g_unichar_isspace(letter) || type == G_UNICODE_CONTROL;
    if (blank) {
      if (!clean.empty() && clean.back() != ' ') {
        clean += ' ';
        ++characters;
      }
    } else if (type != G_UNICODE_FORMAT && type != G_UNICODE_PRIVATE_USE && type != G_UNICODE_UNASSIGNED) {
      clean.append(at, static_cast<std::size_t>(g_utf8_next_char(at) - at));
      ++characters;
    }
  }
  while (clean.ends_with(' ')) clean.pop_back();
  return clean;
}

}  // namespace studio
