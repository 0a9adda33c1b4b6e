#include "app/guest_board.h"

#include <fmt/format.h>
#include <strings.h>

#include <algorithm>
#include <charconv>
#include <cmath>

#include "app/output.h"

namespace studio {

namespace {

constexpr std::size_t framesMeasured = 60;
constexpr std::chrono::seconds measuredTime(2);
constexpr std::chrono::milliseconds levelWindow(400);
constexpr std::chrono::seconds soundForgotten(1);
constexpr std::string_view guestPrefix = "Guest - ";

bool sameName(std::string_view name, const std::string& words) {
  if (name.starts_with(guestPrefix)) name.remove_prefix(guestPrefix.size());
  return name.size() == words.size() && strncasecmp(name.data(), words.data(), words.size()) == 0;
}

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
    case GuestState::gone:
      return "gone";
  }
  return "";
}

void GuestBoard::ring(std::string_view id, std::string_view name, bool screenShare) {
  const std::lock_guard lock(mutex_);
  GuestRow& row = guests_[std::string(id)].row;
  if (row.number == 0) row.number = ++lastNumber_;
  row.id = id;
  row.name = name;
  row.screenShare = screenShare;
  row.state = GuestState::ringing;
  row.muted = false;
}

void GuestBoard::setState(const std::string& id, GuestState state) {
  const std::lock_guard lock(mutex_);
  const auto guest = guests_.find(id);
  if (guest != guests_.end()) guest->second.row.state = state;
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

void GuestBoard::clear() {
  const std::lock_guard lock(mutex_);
  guests_.clear();
}

void GuestBoard::allGone() {
  const std::lock_guard lock(mutex_);
  for (auto& [id, guest] : guests_) guest.row.state = GuestState::gone;
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

std::variant<std::string, GuestBoard::Unknown> GuestBoard::find(std::string_view words) const {
  const std::lock_guard lock(mutex_);
  if (guests_.empty()) return Unknown{"no guest has rung yet"};
  const std::string text(words);
  if (guests_.contains(text)) return text;

  std::vector<std::string> found;
  int number = 0;
  const char* end = text.data() + text.size();
  if (text.starts_with('#') && std::from_chars(text.data() + 1, end, number).ptr == end) {
    for (const auto& [id, guest] : guests_) {
      if (guest.row.number == number) found.push_back(id);
    }
  } else {
    for (const auto& [id, guest] : guests_) {
      if (id.starts_with(text)) found.push_back(id);
    }
    if (found.empty()) {
      for (const auto& [id, guest] : guests_) {
        if (sameName(guest.row.name, text)) found.push_back(id);
      }
    }
  }
  if (found.size() == 1) return found.front();
  if (found.empty()) {
    return Unknown{fmt::format("no guest is called \"{}\"; \"guests\" lists them", printable(text))};
  }
  return Unknown{fmt::format("\"{}\" may be any of {}; say more of the ID, or #NUMBER", printable(text),
                             printable(fmt::format("{}", fmt::join(found, ", "))))};
}

std::string guestTable(const std::vector<GuestRow>& rows, std::optional<double> level) {
  if (rows.empty()) return "No guest is here.";
  std::string text = fmt::format("{:>3}  {:<20} {:<24} {:<11} {:<9} {:>5}  {}\n", "#", "ID", "NAME", "STATE",
                                 "SIZE", "FPS", "SOUND");
  int heard = 0;
  for (const GuestRow& row : rows) {
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
  text.pop_back();
  return text;
}

}  // namespace studio
