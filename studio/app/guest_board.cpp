#include "app/guest_board.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>

#include "app/guest_names.h"
#include "app/terminal_text.h"

namespace studio {

namespace {

constexpr std::size_t framesMeasured = 60;
constexpr std::chrono::seconds measuredTime(2);
constexpr std::chrono::milliseconds levelWindow(400);
constexpr std::chrono::seconds soundForgotten(1);
constexpr std::chrono::minutes awayLimit(1);

double decibels(double squares, std::size_t samples) {
  constexpr double fullScale = 32768;
  constexpr double silence = -96;
  const double level = 10 * std::log10(squares / static_cast<double>(samples) / (fullScale * fullScale));
  return std::max(level, silence);
}

std::string shortened(const std::string& text, std::size_t length) {
  std::string safe = printable(text);
  if (safe.size() <= length) return safe;
  std::size_t end = length - 1;
  while (end > 0 && (safe[end] & 0xc0) == 0x80) --end;  // not in the middle of a letter
  return safe.substr(0, end) + "…";
}

}  // namespace

std::string_view nameOf(GuestState state) {
  switch (state) {
    case GuestState::ringing:
      return "ringing";
    case GuestState::greenroom:
      return "green room";
    case GuestState::live:
      return "live";
    case GuestState::away:
      return "away";
    case GuestState::gone:
      return "gone";
  }
  return "";
}

std::optional<GuestPlace> GuestBoard::ring(std::string_view id, std::string_view name, bool screenShare) {
  const std::lock_guard lock(mutex_);
  GuestRow& row = guests_[std::string(id)].row;
  std::optional<GuestPlace> place;
  if (row.state == GuestState::away && row.name == name && row.screenShare == screenShare) place = row.before;
  const bool rings = row.number != 0 && row.state == GuestState::ringing;
  // Who waited when the service ended goes on waiting.
  if (place && place->state == GuestState::ringing) {
    row.since = place->since;
  } else if (!rings) {
    row.since = Clock::now();
  }
  if (row.number == 0) row.number = ++lastNumber_;
  row.id = id;
  row.name = name;
  row.screenShare = screenShare;
  row.state = GuestState::ringing;
  row.muted = false;
  row.width = row.height = 0;
  return place;
}

void GuestBoard::setState(const std::string& id, GuestState state) {
  const std::lock_guard lock(mutex_);
  const auto guest = guests_.find(id);
  if (guest == guests_.end() || guest->second.row.state == state) return;
  guest->second.row.state = state;
  guest->second.row.since = Clock::now();
}

void GuestBoard::setMuted(const std::string& id, bool muted) {
  const std::lock_guard lock(mutex_);
  const auto guest = guests_.find(id);
  if (guest != guests_.end()) guest->second.row.muted = muted;
}

void GuestBoard::remove(const std::string& id) {
  const std::lock_guard lock(mutex_);
  guests_.erase(id);
}

void GuestBoard::serviceEnded() {
  const std::lock_guard lock(mutex_);
  std::erase_if(guests_, [](const auto& entry) { return entry.second.row.state == GuestState::gone; });
  for (auto& [id, guest] : guests_) {
    GuestRow& row = guest.row;
    if (row.state == GuestState::away) continue;
    row.before = {row.state, row.muted, row.since};
    row.state = GuestState::away;
    row.since = Clock::now();
  }
}

void GuestBoard::allGone() {
  const std::lock_guard lock(mutex_);
  std::erase_if(guests_, [](const auto& entry) { return entry.second.row.state == GuestState::away; });
  for (auto& [id, guest] : guests_) {
    if (guest.row.state == GuestState::gone) continue;
    guest.row.state = GuestState::gone;
    guest.row.since = Clock::now();
  }
}

void GuestBoard::forgetAway() {
  const std::lock_guard lock(mutex_);
  std::erase_if(guests_, [now = Clock::now()](const auto& entry) {
    const GuestRow& row = entry.second.row;
    return row.state == GuestState::away && now - row.since > awayLimit;
  });
}

void GuestBoard::setOnAir(bool onAir) {
  const std::lock_guard lock(mutex_);
  onAir_ = onAir;
}

void GuestBoard::setOffAirAudio(bool on) {
  const std::lock_guard lock(mutex_);
  offAirAudio_ = on;
}

bool GuestBoard::frame(std::string_view id, std::size_t width, std::size_t height) {
  const std::lock_guard lock(mutex_);
  const auto found = guests_.find(id);
  if (found == guests_.end()) return false;
  Guest& guest = found->second;
  guest.frames.push_back(Clock::now());
  if (guest.frames.size() > framesMeasured) guest.frames.pop_front();
  const bool changed = guest.row.width != width || guest.row.height != height;
  guest.row.width = width;
  guest.row.height = height;
  return changed;
}

bool GuestBoard::sound(std::span<const std::int16_t> samples) {
  const std::lock_guard lock(mutex_);
  const Clock::time_point now = Clock::now();
  const bool first = now - lastSound_ > soundForgotten;
  if (first) {
    squares_ = 0;
    summed_ = 0;
    windowStart_ = now;
    level_.reset();
  }
  for (const std::int16_t sample : samples) squares_ += static_cast<double>(sample) * sample;
  summed_ += samples.size();
  lastSound_ = now;
  if (now - windowStart_ >= levelWindow || !level_) level_ = decibels(squares_, summed_);
  if (now - windowStart_ >= levelWindow) {
    squares_ = 0;
    summed_ = 0;
    windowStart_ = now;
  }
  return first;
}

bool GuestBoard::heard(const GuestRow& row) const {
  if (row.screenShare) return false;  // the page shares none
  if (row.state == GuestState::live) return true;
  return row.state == GuestState::greenroom && (!onAir_ || offAirAudio_);
}

std::optional<double> GuestBoard::levelNow() const {
  return Clock::now() - lastSound_ > soundForgotten ? std::nullopt : level_;
}

std::optional<double> GuestBoard::level() const {
  const std::lock_guard lock(mutex_);
  return levelNow();
}

std::vector<GuestRow> GuestBoard::rows() const {
  const std::lock_guard lock(mutex_);
  const Clock::time_point now = Clock::now();
  std::vector<GuestRow> rows;
  for (const auto& [id, guest] : guests_) {
    GuestRow row = guest.row;
    const auto since = std::find_if(guest.frames.begin(), guest.frames.end(),
                                    [&](auto time) { return now - time < measuredTime; });
    const auto count = guest.frames.end() - since;
    if (count > 1) {
      const std::chrono::duration<double> time = guest.frames.back() - *since;
      row.framesPerSecond = static_cast<double>(count - 1) / time.count();
    }
    row.heard = heard(row);
    rows.push_back(std::move(row));
  }
  std::sort(rows.begin(), rows.end(), [](const auto& a, const auto& b) { return a.number < b.number; });
  const auto isHeard = [](const GuestRow& row) { return row.heard; };
  if (std::count_if(rows.begin(), rows.end(), isHeard) == 1) {
    std::find_if(rows.begin(), rows.end(), isHeard)->level = levelNow();
  }
  return rows;
}

namespace {

std::string waitingTime(const GuestRow& row) {
  const auto time = std::chrono::steady_clock::now() - row.since;
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(time).count();
  return fmt::format("{}:{:02}", seconds / 60, seconds % 60);
}

// Who rings, and for how long, longest first.
std::string waitingLine(std::vector<GuestRow> rows) {
  std::erase_if(rows, [](const GuestRow& row) { return row.state != GuestState::ringing; });
  if (rows.empty()) return {};
  std::sort(rows.begin(), rows.end(), [](const auto& a, const auto& b) { return a.since < b.since; });
  std::vector<std::string> waiting;
  waiting.reserve(rows.size());
  for (const GuestRow& row : rows) {
    waiting.push_back(fmt::format("#{} {} {}", row.number, shortened(std::string(ownName(row.name)), 24),
                                  waitingTime(row)));
  }
  return fmt::format("Waiting: {}\n", fmt::join(waiting, ", "));
}

}  // namespace

std::string guestTable(const std::vector<GuestRow>& rows, std::optional<double> level) {
  const auto isGone = [](const GuestRow& row) { return row.state == GuestState::gone; };
  if (std::all_of(rows.begin(), rows.end(), isGone)) return "No guest is here.";
  std::string text = fmt::format("{:>3}  {:<20} {:<24} {:<11} {:<9} {:>5}  {}\n", "#", "ID", "NAME", "STATE",
                                 "SIZE", "FPS", "SOUND");
  int heard = 0;
  for (const GuestRow& row : rows) {
    if (isGone(row)) continue;
    heard += row.heard ? 1 : 0;
    std::string sound = row.heard ? "heard" : "not heard";
    if (row.level) sound = fmt::format("{:.0f} dB", *row.level);
    if (row.muted) sound += ", muted";
    text += fmt::format("{:>3}  {:<20} {:<24} {:<11} {:<9} {:>5}  {}\n", row.number, shortened(row.id, 20),
                        shortened(row.name + (row.screenShare ? " (screen)" : ""), 24), nameOf(row.state),
                        row.width == 0 ? "-" : fmt::format("{}x{}", row.width, row.height),
                        row.width == 0 ? "-" : fmt::format("{:.0f}", row.framesPerSecond), sound);
  }
  if (heard > 1 && level) text += fmt::format("All heard guests together: {:.0f} dB\n", *level);
  text += waitingLine(rows);
  text.pop_back();
  return text;
}

}  // namespace studio
