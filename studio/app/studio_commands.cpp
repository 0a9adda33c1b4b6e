// The host's commands.
#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <stdexcept>

#include "app/guest_names.h"
#include "app/studio.h"

namespace studio {

namespace {

std::string newUuid() {
  g_autofree char* text = g_uuid_string_random();
  return text;
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
  switch (command.verb) {
    case Verb::admit:
    case Verb::live:
    case Verb::greenroom:
    case Verb::mute:
    case Verb::unmute:
    case Verb::remove:
    case Verb::fade:
    case Verb::snapshot:
    case Verb::recordAudio:
      runForGuest(command);
      break;
    case Verb::talk:
    case Verb::alone:
      talk(command);
      break;
    case Verb::offair:
      stage_->offAirAudio(command.on);
      break;
    case Verb::golive:
      stage_->setShow(true, false);
      break;
    case Verb::record:
      stage_->setShow(true, true);
      break;
    case Verb::endshow:
      stage_->setShow(false, false);
      break;
    case Verb::viewers:
      stage_->viewerCount(command.text);
      break;
    case Verb::comment:
    case Verb::chat:
      say(command.verb, command);
      break;
    case Verb::fav:
      stage_->favourite(command.uuid, command.on ? "yes" : "no");
      break;
    case Verb::pref:
      stage_->preferences(command.text);
      break;
    case Verb::invite: {
      const std::string link = stage_->invite(command.text);
      if (link.empty()) {
        output_.note("invite: that is no name which can be shown");
        break;
      }
      event("invitation", {{"link", link}, {"name", command.text}});
      output_.note(command.text.empty() ? "Guests ring in at  " + link
                                        : fmt::format("{} rings in at  {}", command.text, link));
      break;
    }
    case Verb::guests:
      printGuests();
      break;
    case Verb::show:
      playShow(command.text);
      break;
    case Verb::link:
      printLink(stage_->link());
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

void Studio::runForGuest(const Command& command) {
  const auto guests = stage_->guests();
  const auto found = findGuest(guests, command.guest);
  if (const auto* none = std::get_if<NoGuest>(&found)) {
    output_.note(none->text);
    return;
  }
  const auto guest = std::find_if(guests.begin(), guests.end(),
                                  [&](const auto& each) { return each.number == std::get<Number>(found); });
  runForGuest(command.verb, *guest, command);
}

void Studio::runForGuest(Verb verb, const Stage::Guest& guest, const Command& command) {
  const Number number = guest.number;
  const bool isOutside = guest.state == Stage::State::offered || guest.state == Stage::State::ringing;
  if (isOutside && (verb == Verb::live || verb == Verb::greenroom)) {
    output_.note(fmt::format("#{0} only rings as yet: \"admit #{0}\" first.", number));
    return;
  }
  if (!isOutside && verb == Verb::admit) {
    output_.note(fmt::format("#{} is in already: {}.", number, nameOf(guest.state)));
    return;
  }
  switch (verb) {
    case Verb::admit:
      stage_->admit(number);
      break;
    case Verb::live:
      stage_->live(number);
      break;
    case Verb::greenroom:
      stage_->greenRoom(number);
      break;
    case Verb::mute:
    case Verb::unmute:
      stage_->mute(number, verb == Verb::mute);
      break;
    case Verb::remove:
      stage_->remove(number);
      break;
    case Verb::fade:
      stage_->fade(number,
                   command.decibels <= -60 ? 0 : std::pow(10.0F, static_cast<float>(command.decibels) / 20));
      break;
    case Verb::snapshot:
      snapshot(number, command.file);
      break;
    case Verb::recordAudio:
      recordAudio(number, command.seconds, command.file);
      break;
    default:
      break;
  }
}

void Studio::talk(const Command& command) {
  const bool alone = command.verb == Verb::alone;
  if (command.guest == "off") {
    if (alone) {
      stage_->hearAlone({});
    } else {
      stage_->stopTalking();
    }
    return;
  }
  if (!alone && command.guest == "all") {
    stage_->talkTo({});
    return;
  }
  const auto found = findGuest(stage_->guests(), command.guest);
  if (const auto* none = std::get_if<NoGuest>(&found)) {
    output_.note(none->text);
  } else if (alone) {
    stage_->hearAlone(std::get<Number>(found));
  } else {
    stage_->talkTo(std::get<Number>(found));
  }
}

void Studio::say(Verb verb, const Command& command) {
  const std::string uuid = newUuid();
  const bool isChat = verb == Verb::chat;
  if (isChat) {
    stage_->chat(command.name, command.text, uuid);
  } else {
    stage_->comment(command.name, command.text, uuid);
  }
  event(isChat ? "chatSent" : "commentSent",
        {{"name", command.name}, {"text", command.text}, {"uuid", uuid}});
}

void Studio::snapshot(Number guest, const std::string& file) {
  snapshots_.request(guest, file, [this, guest, file](const Snapshots::Outcome& outcome) {
    if (outcome.fault.empty()) {
      event("snapshot",
            {{"guest", guest}, {"file", file}, {"width", outcome.width}, {"height", outcome.height}});
    } else {
      output_.note(fmt::format("snapshot: {}", outcome.fault));
    }
    quitWhenDone();
  });
}

void Studio::recordAudio(Number guest, double seconds, const std::string& file) {
  const auto done = [this, guest, file](const WavRecorder::Outcome& outcome) {
    {
      const std::lock_guard lock(recordingsMutex_);
      recordings_.remove_if([&](const Recording& each) { return each.file == file; });
    }
    if (!outcome.fault.empty()) {
      output_.note(fmt::format("record-audio: {}", outcome.fault));
    } else {
      event("recorded", {{"guest", guest}, {"file", file}, {"seconds", outcome.seconds}});
    }
    quitWhenDone();
  };
  try {
    auto recorder = std::make_shared<WavRecorder>(file, seconds, done);
    const std::lock_guard lock(recordingsMutex_);
    recordings_.push_back({guest, file, std::move(recorder)});
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
  const auto guests = stage_->guests();
  output_.note(guestTable(guests, board_));
  if (output_.isTerminal()) return;
  Json all = Json::array();
  for (const Stage::Guest& guest : guests) {
    const GuestMeasure measure = board_.measure(guest.number);
    all.push_back({{"guest", guest.number},
                   {"name", guest.name},
                   {"state", nameOf(guest.state)},
                   {"muted", guest.muted},
                   {"offAirAudio", guest.offAirAudio},
                   {"screen", guest.screen},
                   {"hidden", guest.hidden},
                   {"camera", guest.camera},
                   {"microphone", guest.microphone},
                   {"width", measure.width},
                   {"height", measure.height},
                   {"fps", measure.framesPerSecond},
                   {"peak", measure.level.peak},
                   {"rms", measure.level.rms}});
  }
  event("guests", {{"guests", all}});
}

}  // namespace studio
