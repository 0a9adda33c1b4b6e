// What the stage reports, on its way to the host.
#include <fmt/format.h>

#include "app/studio.h"

namespace studio {

void Studio::onReady(const std::string& link) {
  event("ready", {{"link", link}});
  printLink(link);
  openPrompt();
}

void Studio::onRing(const Stage::Guest& guest) {
  event("ring", {{"guest", guest.number}, {"name", guest.name}});
  output_.note(fmt::format("#{0}, {1}, rings: \"admit #{0}\" brings them in.", guest.number, guest.name));
  output_.bell();
}

void Studio::onChanged(const Stage::Guest& guest) {
  event("guest", {{"guest", guest.number},
                  {"name", guest.name},
                  {"state", nameOf(guest.state)},
                  {"muted", guest.muted},
                  {"offAirAudio", guest.offAirAudio},
                  {"screen", guest.screen},
                  {"hidden", guest.hidden},
                  {"camera", guest.camera},
                  {"microphone", guest.microphone}});
}

void Studio::onGone(Number guest, const std::string& name) {
  board_.forget(guest);
  event("gone", {{"guest", guest}, {"name", name}});
}

void Studio::onChat(Number guest, const std::string& name, const std::string& text, const std::string& uuid) {
  event("chat", {{"guest", guest}, {"name", name}, {"message", text}, {"uuid", uuid}});
}

void Studio::onFavourite(Number guest, const std::string& uuid, const std::string& state) {
  event("fav", {{"guest", guest}, {"uuid", uuid}, {"state", state}});
}

void Studio::onTalkLeftOut(std::size_t lines) {
  event("talkLeftOut", {{"lines", lines}});
  output_.note(fmt::format("Guests wrote more than anybody can read: {} lines were left out.", lines));
}

void Studio::onServiceLost(Number guest, const std::string& reason) {
  event("serviceLost", {{"guest", guest}, {"reason", reason}});
  output_.note(guest == 0 ? fmt::format("The program's service {}; another takes its place.", reason)
                          : fmt::format("#{}'s service {}; another takes its place.", guest, reason));
}

void Studio::onServiceBack(Number guest) {
  event("serviceBack", {{"guest", guest}});
}

void Studio::onSessionServerLost(const std::string& reason) {
  event("sessionServerEnded", {{"reason", reason}});
  output_.note("The session server was " + reason + "; it is being started anew.");
}

void Studio::onSessionServerBack() {
  event("sessionServerBack", Json::object());
  output_.note("The session server is back; guests who are still there come in again.");
}

void Studio::onLog(Number guest, std::string_view line) {
  if (printLog_) event("log", {{"guest", guest}, {"logMessage", line}});
}

void Studio::onFailed(const std::string& reason) {
  fail(reason);
}

void Studio::onFrame(Number guest, Stage::Kind kind, Frame frame) {
  const bool changed = board_.frame(guest, kind, frame.width(), frame.height());
  if (kind == Stage::Kind::camera) snapshots_.offer(guest, frame);
  if (!changed && !options_.everyFrame) return;
  Json fields = {{"guest", guest},         {"screen", kind == Stage::Kind::screen},
                 {"num", frame.number()},  {"timestamp", frame.timestamp()},
                 {"width", frame.width()}, {"height", frame.height()}};
  mainLoop_.post([this, fields = std::move(fields)] { event("frame", fields); });
}

void Studio::onSound(Number guest, std::span<const std::int16_t> block) {
  const std::lock_guard lock(recordingsMutex_);
  for (const Recording& recording : recordings_) {
    if (recording.guest == guest) recording.recorder->add(block);
  }
}

void Studio::onLevels(std::span<const Stage::Level> levels) {
  board_.levels(levels);
}

bool Studio::showWanted() {
  const Stage* stage = playing_;
  return stage && stage->showWanted();
}

bool Studio::showPicture(IOSurfaceRef surface) {
  Stage* stage = playing_;
  return stage && stage->showPicture(surface);
}

void Studio::showSound(std::span<const std::int16_t> samples) {
  if (Stage* stage = playing_) stage->showSound(samples);
}

}  // namespace studio
