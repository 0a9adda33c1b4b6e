#include "app/guest_board.h"

#include <fmt/format.h>

#include <algorithm>

#include "app/terminal_text.h"

namespace studio {

namespace {

constexpr std::size_t framesMeasured = 60;
constexpr std::chrono::seconds measuredTime(2);
constexpr float silence = -60;

std::string shortened(const std::string& text, std::size_t length) {
  std::string safe = printable(text);
  if (safe.size() <= length) return safe;
  std::size_t end = length - 1;
  while (end > 0 && (safe[end] & 0xc0) == 0x80) --end;  // not in the middle of a letter
  return safe.substr(0, end) + "…";
}

std::string waitingTime(const Stage::Guest& guest) {
  const auto time = std::chrono::steady_clock::now() - guest.since;
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(time).count();
  return fmt::format("{}:{:02}", seconds / 60, seconds % 60);
}

// Who rings, and for how long, longest first.
std::string waitingLine(std::vector<Stage::Guest> guests) {
  std::erase_if(guests, [](const auto& guest) { return guest.state != Stage::State::ringing; });
  if (guests.empty()) return {};
  std::sort(guests.begin(), guests.end(), [](const auto& a, const auto& b) { return a.since < b.since; });
  std::vector<std::string> waiting;
  for (const Stage::Guest& guest : guests) {
    waiting.push_back(fmt::format("#{} {} {}", guest.number, shortened(guest.name, 24), waitingTime(guest)));
  }
  return fmt::format("Waiting: {}\n", fmt::join(waiting, ", "));
}

std::string remarks(const Stage::Guest& guest) {
  std::vector<std::string> remarks;
  if (guest.muted) remarks.emplace_back("muted");
  if (guest.programMuted) remarks.emplace_back("out of the program");
  if (guest.offAirAudio) remarks.emplace_back("off-air talk");
  if (guest.screen) remarks.emplace_back("screen");
  if (guest.camera == "lost" || guest.camera == "off") remarks.emplace_back("no camera");
  if (guest.microphone == "lost") remarks.emplace_back("no microphone");
  if (guest.hidden) remarks.emplace_back("page in the background");
  return fmt::format("{}", fmt::join(remarks, ", "));
}

}  // namespace

bool GuestBoard::frame(Stage::Number guest, Stage::Kind kind, std::size_t width, std::size_t height) {
  const std::lock_guard lock(mutex_);
  Stream& stream = streams_[{guest, kind}];
  stream.frames.push_back(Clock::now());
  if (stream.frames.size() > framesMeasured) stream.frames.pop_front();
  const bool changed = stream.width != width || stream.height != height;
  stream.width = width;
  stream.height = height;
  return changed;
}

void GuestBoard::levels(std::span<const Stage::Level> levels) {
  const std::lock_guard lock(mutex_);
  for (const Stage::Level& level : levels) levels_[level.number] = level;
}

void GuestBoard::forget(Stage::Number guest) {
  const std::lock_guard lock(mutex_);
  levels_.erase(guest);
  for (const Stage::Kind kind : {Stage::Kind::camera, Stage::Kind::screen}) streams_.erase({guest, kind});
}

GuestMeasure GuestBoard::measure(Stage::Number guest) const {
  const std::lock_guard lock(mutex_);
  GuestMeasure measure;
  const auto level = levels_.find(guest);
  if (level != levels_.end()) measure.level = level->second;
  const auto found = streams_.find({guest, Stage::Kind::camera});
  if (found == streams_.end()) return measure;
  const Stream& stream = found->second;
  measure.width = stream.width;
  measure.height = stream.height;
  const auto now = Clock::now();
  const auto since = std::find_if(stream.frames.begin(), stream.frames.end(),
                                  [&](auto time) { return now - time < measuredTime; });
  const auto count = stream.frames.end() - since;
  if (count > 1) {
    const std::chrono::duration<double> time = now - *since;
    measure.framesPerSecond = static_cast<double>(count - 1) / time.count();
  }
  return measure;
}

std::string guestTable(const std::vector<Stage::Guest>& guests, const GuestBoard& board) {
  if (guests.empty()) return "No guest is here.";
  std::string text = fmt::format("{:>3}  {:<24} {:<11} {:<9} {:>5} {:>7}  {}\n", "#", "NAME", "STATE", "SIZE",
                                 "FPS", "SOUND", "");
  for (const Stage::Guest& guest : guests) {
    const GuestMeasure measure = board.measure(guest.number);
    text += fmt::format(
        "{:>3}  {:<24} {:<11} {:<9} {:>5} {:>7}  {}\n", guest.number, shortened(guest.name, 24),
        nameOf(guest.state), measure.width == 0 ? "-" : fmt::format("{}x{}", measure.width, measure.height),
        measure.width == 0 ? "-" : fmt::format("{:.0f}", measure.framesPerSecond),
        measure.level.rms < silence ? "-" : fmt::format("{:.0f} dB", measure.level.rms), remarks(guest));
  }
  text += waitingLine(guests);
  text.pop_back();
  return text;
}

}  // namespace studio
