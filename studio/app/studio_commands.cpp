// The host's commands.
#include <fmt/format.h>

#include <algorithm>
#include <stdexcept>

#include "app/gone_guests.h"
#include "app/guest_names.h"
#include "app/studio.h"

namespace studio {

namespace {

constexpr std::size_t ownLinesKept = 1000;

std::string newUuid() {
  char* text = g_uuid_string_random();
  std::string uuid = text;
  g_free(text);
  return uuid;
}

bool isIn(const GuestRow& row) {
  return row.state == GuestState::greenroom || row.state == GuestState::live;
}

// Whether the service has a record of the guest.
bool isKnown(const GuestRow& row) {
  return row.state != GuestState::away;
}

}  // namespace

void Studio::onLine(const std::string& line) {
  const auto parsed = parseCommand(line);
  if (const auto* command = std::get_if<Command>(&parsed)) {
    run(*command);
  } else {
    output_.note(std::get<Misunderstood>(parsed).text);
  }
}

void Studio::run(const Command& command) {
  const std::shared_ptr<Client> link = client();
  const bool local = command.verb == Verb::help || command.verb == Verb::exit || command.verb == Verb::link ||
                     command.verb == Verb::log || command.verb == Verb::guests || command.verb == Verb::show;
  if (!link && !local) {
    output_.note("The service is being started anew; try again in a moment.");
    return;
  }
  switch (command.verb) {
    case Verb::admit:
    case Verb::live:
    case Verb::greenroom:
    case Verb::mute:
    case Verb::unmute:
    case Verb::remove:
    case Verb::snapshot:
    case Verb::recordAudio: {
      const auto found = findGuest(board_.rows(), command.guest);
      if (const auto* none = std::get_if<NoGuest>(&found)) {
        output_.note(none->text);
        break;
      }
      const auto& row = std::get<GuestRow>(found);
      if (command.verb == Verb::snapshot) {
        snapshot(row.id, command.file);
      } else if (command.verb == Verb::recordAudio) {
        recordAudio(row.id, command.seconds, command.file);
      } else {
        runForGuest(command.verb, row);
      }
      break;
    }
    case Verb::offair:
      offAirAudio_ = command.on;
      board_.setOffAirAudio(command.on);
      link->setOffAirAudio(command.on);
      guestsChanged();
      break;
    case Verb::golive:
      setShowState(true, false);
      break;
    case Verb::record:
      setShowState(true, true);
      break;
    case Verb::endshow:
      setShowState(false, false);
      break;
    case Verb::viewers:
      link->viewerCount(command.text);
      break;
    case Verb::comment:
    case Verb::chat:
      say(command.verb, command);
      break;
    case Verb::fav:
      link->favourite(command.uuid, command.on ? "yes" : "no");
      break;
    case Verb::pref:
      link->prefUpdate(command.text);
      break;
    case Verb::stop:
      link->stop();
      rejoinAfter_.reset();
      rejoinTimer_.stop();
      board_.allGone();
      guestsChanged();
      output_.note("The session is left; \"rejoin\" joins it again.");
      break;
    case Verb::rejoin:
      join();
      break;
    case Verb::there:
      link->there([this](bool alive) { onMainLoop([this, alive] { event("there", {{"alive", alive}}); }); });
      break;
    case Verb::guests:
      printGuests();
      break;
    case Verb::show:
      playShow(command.text);
      break;
    case Verb::link:
      printLink();
      break;
    case Verb::log:
      printLog_ = command.on;
      break;
    case Verb::help:
      output_.note(helpText(command.text));
      break;
    case Verb::exit:
      quit();
      break;
  }
}

void Studio::runForGuest(Verb verb, const GuestRow& row) {
  const std::shared_ptr<Client> link = client();
  const std::string& id = row.id;
  if (row.state == GuestState::gone && verb != Verb::remove) {
    output_.note(fmt::format("#{} has gone.", row.number));
    return;
  }
  if (row.state == GuestState::away && verb != Verb::remove) {
    output_.note(fmt::format("#{} is away, and is put back as soon as they ring.", row.number));
    return;
  }
  if (row.state == GuestState::ringing && (verb == Verb::live || verb == Verb::greenroom)) {
    output_.note(fmt::format("#{0} only rings as yet: \"admit #{0}\" first.", row.number));
    return;
  }
  if (isIn(row) && verb == Verb::admit) {
    output_.note(fmt::format("#{} is in already: {}.", row.number, nameOf(row.state)));
    return;
  }
  switch (verb) {
    case Verb::admit:
      if (!bringIn(id)) output_.note("There is no session; \"rejoin\" joins it.");
      break;
    case Verb::live:
    case Verb::greenroom:
      link->greenroomStatus(id, verb == Verb::greenroom);
      board_.setState(id, verb == Verb::live ? GuestState::live : GuestState::greenroom);
      break;
    case Verb::mute:
    case Verb::unmute:
      link->remoteMute(id, verb == Verb::mute);
      board_.setMuted(id, verb == Verb::mute);
      break;
    case Verb::remove:
      remove(row);
      break;
    default:
      break;
  }
  guestsChanged();
}

bool Studio::bringIn(const std::string& id) {
  if (!client()->startBroadcast(id)) return false;
  board_.setState(id, GuestState::greenroom);
  return true;
}

// The mute comes first, so that nobody is heard for a moment whom the host has muted.
void Studio::putBack(const std::string& id, const GuestPlace& place) {
  const std::shared_ptr<Client> link = client();
  if (!link) return;
  if (place.muted) {
    link->remoteMute(id, true);
    board_.setMuted(id, true);
  }
  const bool wasIn = place.state == GuestState::greenroom || place.state == GuestState::live;
  if (wasIn && bringIn(id) && place.state == GuestState::live) {
    link->greenroomStatus(id, false);
    board_.setState(id, GuestState::live);
  }
}

void Studio::remove(const GuestRow& row) {
  const auto rows = board_.rows();
  if (row.state == GuestState::gone && cameraIsIn(rows)) {
    output_.note(
        fmt::format("#{} has gone; the service forgets them once no other guest is in.", row.number));
    return;
  }
  // The service ends the session with the last guest it knows of, and then reports that guest's stream as
  // dropped. So when the last who is there is taken out, those who have gone go first.
  const bool isLast = std::all_of(rows.begin(), rows.end(), [&](const GuestRow& other) {
    return other.id == row.id || !isKnown(other) || other.state == GuestState::gone;
  });
  if (isLast && row.state != GuestState::gone) {
    for (const GuestRow& gone : rows) {
      if (gone.id == row.id || !isKnown(gone)) continue;
      client()->stopBroadcast(gone.id);
      board_.remove(gone.id);
    }
  }
  client()->stopBroadcast(row.id);
  board_.remove(row.id);
  const auto left = board_.rows();
  const bool ends = isKnown(row) && std::none_of(left.begin(), left.end(), isKnown);
  if (ends && options_.autoRejoin) rejoinAfter_ = row.id;
}

void Studio::forgetGuests() {
  board_.forgetAway();
  const std::shared_ptr<Client> link = client();
  if (!link) return;
  for (const std::string& id : forgettable(board_.rows(), std::chrono::steady_clock::now())) {
    link->stopBroadcast(id);
    board_.remove(id);
  }
}

// After any change of who is in, or heard.
void Studio::guestsChanged() {
  const auto rows = board_.rows();
  anybodyIn_ = std::any_of(rows.begin(), rows.end(), isIn);
  const std::lock_guard lock(recordingsMutex_);
  for (Recording& recording : recordings_) {
    for (const GuestRow& row : rows) {
      if (row.heard && row.id != recording.guest) recording.spoiled = true;
    }
  }
}

void Studio::setShowState(bool onAir, bool recordOnly) {
  onAir_ = onAir;
  recordOnly_ = recordOnly;
  board_.setOnAir(onAir);
  client()->liveStatus(onAir, recordOnly);
  guestsChanged();
}

void Studio::say(Verb verb, const Command& command) {
  const std::string uuid = newUuid();
  const bool isChat = verb == Verb::chat;
  if (isChat) {
    ownLines_.push_back(uuid);
    if (ownLines_.size() > ownLinesKept) ownLines_.pop_front();
    client()->chat(command.name, command.text, uuid);
  } else {
    client()->comment(command.name, command.text, uuid);
  }
  event(isChat ? "chatSent" : "commentSent",
        {{"name", command.name}, {"text", command.text}, {"uuid", uuid}});
}

void Studio::snapshot(const std::string& id, const std::string& file) {
  snapshots_.request(id, file, [this, id, file](const Snapshots::Outcome& outcome) {
    if (outcome.fault.empty()) {
      event("snapshot", {{"id", id}, {"file", file}, {"width", outcome.width}, {"height", outcome.height}});
    } else {
      output_.note(fmt::format("snapshot: {}", outcome.fault));
    }
    quitWhenDone();
  });
}

void Studio::recordAudio(const std::string& id, double seconds, const std::string& file) {
  for (const GuestRow& row : board_.rows()) {
    if (row.id == id && !row.heard) {
      output_.note(fmt::format("record-audio: #{} is not heard now; \"guests\" shows who is", row.number));
      return;
    }
    if (row.id != id && row.heard) {
      output_.note(
          fmt::format("record-audio: #{} is heard, too, and the service does not say whose sound is whose; "
                      "move others off first (\"golive\" and \"greenroom\" silence them)",
                      row.number));
      return;
    }
  }
  const auto done = [this, id, file](const WavRecorder::Outcome& outcome) {
    Recording ended;
    {
      const std::lock_guard lock(recordingsMutex_);
      const auto found = std::find_if(recordings_.begin(), recordings_.end(),
                                      [&](const Recording& each) { return each.file == file; });
      if (found == recordings_.end()) return;
      ended = std::move(*found);
      recordings_.erase(found);
    }
    if (!outcome.fault.empty()) {
      output_.note(fmt::format("record-audio: {}", outcome.fault));
    } else {
      if (ended.spoiled) output_.note(fmt::format("record-audio: {} has other guests in it, too", file));
      event("recorded",
            {{"id", id}, {"file", file}, {"seconds", outcome.seconds}, {"alone", !ended.spoiled}});
    }
    quitWhenDone();
  };
  try {
    auto recorder = std::make_shared<WavRecorder>(file, seconds, done);
    const std::lock_guard lock(recordingsMutex_);
    recordings_.push_back({id, file, false, std::move(recorder)});
  } catch (const std::runtime_error& error) {
    output_.note(fmt::format("record-audio: {}", error.what()));
  }
}

void Studio::playShow(const std::string& source) {
  if (source.empty()) {
    output_.note("The show: " + show_->source());
    return;
  }
  const std::string fault = show_->play(source);
  if (!fault.empty()) output_.note(fmt::format("show: {}", fault));
  const char* state = !fault.empty() ? "refused" : show_->source() == "off" ? "off" : "playing";
  event("show", {{"state", state}, {"source", show_->source()}});
}

void Studio::printGuests() {
  const auto rows = board_.rows();
  const auto level = board_.level();
  output_.note(guestTable(rows, level));
  if (output_.isTerminal()) return;
  Json guests = Json::array();
  for (const GuestRow& row : rows) {
    guests.push_back({{"number", row.number},
                      {"id", row.id},
                      {"name", row.name},
                      {"screenShare", row.screenShare},
                      {"state", nameOf(row.state)},
                      {"muted", row.muted},
                      {"width", row.width},
                      {"height", row.height},
                      {"fps", row.framesPerSecond},
                      {"heard", row.heard},
                      {"level", row.level ? Json(*row.level) : Json()}});
  }
  event("guests", {{"guests", guests}, {"level", level ? Json(*level) : Json()}});
}

}  // namespace studio
