// What the service reports, on its way to the host.
#include <fmt/format.h>

#include <algorithm>
#include <chrono>

#include "app/guest_names.h"
#include "app/studio.h"

namespace studio {
namespace {

using namespace std::chrono_literals;

// By then the page of a guest who was taken out has left, and does not ring in the session joined anew.
constexpr auto rejoinPause = 500ms;
constexpr auto talkPause = 1000ms;

}  // namespace

// The reports come on the client's queue and refer to the message: what goes on to the main loop is copied.

void Studio::onRing(const Ring& ring) {
  const std::optional<GuestPlace> place = board_.ring(ring.id, ring.name, ring.screenShare);
  Json fields = {{"ring", ring.id},
                 {"name", ring.name},
                 {"sessionId", ring.sessionId},
                 {"screenShare", ring.screenShare}};
  onMainLoop([this, fields = std::move(fields), id = std::string(ring.id), place] {
    event("ring", fields);
    if (place) {
      putBack(id, *place);
    } else {
      announce(id);
    }
    guestsChanged();
  });
}

void Studio::announce(const std::string& id) {
  for (const GuestRow& row : board_.rows()) {
    if (row.id != id) continue;
    output_.note(fmt::format("#{0}, {1}, {2}: \"admit #{0}\" brings them in.", row.number, row.name,
                             row.screenShare ? "would like to share a screen" : "rings"));
    output_.bell();
  }
}

void Studio::onAudioChanged(const AudioChanged& change) {
  Json fields = {{"hasAudio", change.hasAudio}, {"sessionHasAudioChanged", change.sessionId}};
  onMainLoop([this, fields = std::move(fields)] { event("hasAudioChanged", fields); });
}

void Studio::onDropped(const Dropped& dropped) {
  Json fields = {{"dropped", dropped.id}, {"sessionId", dropped.sessionId}};
  onMainLoop([this, fields = std::move(fields), id = std::string(dropped.id)] {
    board_.setState(id, GuestState::gone);
    event("dropped", fields);
    guestsChanged();
    if (rejoinAfter_ == id) {
      output_.note("With the last guest the session has ended: joining it anew.");
      rejoinTimer_.once(rejoinPause, [this] { join(); });
    }
  });
}

// A guest may write faster than anybody reads, and than the main loop prints: what is too much is left out
// before it gets in the way of anything else.
bool Studio::passOn(std::string_view name) {
  if (talk_.take(name, TalkLimit::Clock::now())) return true;
  if (linesLeftOut_.fetch_add(1) == 0) {
    onMainLoop([this] {
      output_.note("Guests write more than anybody can read; what is too much is left out.");
      talkTimer_.every(talkPause, [this] { tellOfTalk(); });
    });
  }
  return false;
}

// Once it is over.
void Studio::tellOfTalk() {
  if (const std::size_t lines = linesLeftOut_; lines != linesSeen_) {
    linesSeen_ = lines;
    return;
  }
  talkTimer_.stop();
  linesSeen_ = 0;
  const std::size_t lines = linesLeftOut_.exchange(0);
  event("talkLeftOut", {{"lines", lines}});
  output_.note(fmt::format("{} lines of the guests' were left out.", lines));
}

void Studio::onChat(const Chat& chat) {
  if (!passOn(chat.name.value_or(""))) return;
  Json fields = Json::object();
  if (chat.text) fields["message"] = *chat.text;
  if (chat.name) fields["name"] = *chat.name;
  fields["uuid"] = chat.uuid;
  fields["sessionId"] = chat.sessionId;
  onMainLoop([this, fields = std::move(fields), uuid = std::string(chat.uuid)]() mutable {
    // Everybody in the session gets a signal, who sent it too.
    if (std::find(ownLines_.begin(), ownLines_.end(), uuid) != ownLines_.end()) fields["own"] = true;
    event("chat", fields);
  });
}

void Studio::onFavourite(const Favourite& favourite) {
  if (!passOn(favourite.uuid.value_or(""))) return;
  Json fields = Json::object();
  if (favourite.uuid) fields["uuid"] = *favourite.uuid;
  fields["state"] = favourite.state;
  fields["sessionId"] = favourite.sessionId;
  onMainLoop([this, fields = std::move(fields)] { event("fav", fields); });
}

void Studio::onFrame(Frame frame) {
  const bool changed = board_.frame(frame.id(), frame.width(), frame.height());
  snapshots_.offer(frame);
  if (!changed && !options_.everyFrame) return;
  Json fields = {{"sessionId", frame.sessionId()}, {"num", frame.number()}, {"timestamp", frame.timestamp()},
                 {"name", frame.name()},           {"id", frame.id()},      {"width", frame.width()},
                 {"height", frame.height()}};
  onMainLoop([this, fields = std::move(fields)] { event("frame", fields); });
}

void Studio::onSound(const Sound& sound) {
  const bool first = board_.sound(sound.samples);
  {
    const std::lock_guard lock(recordingsMutex_);
    for (const Recording& recording : recordings_) recording.recorder->add(sound.samples);
  }
  if (!first && !options_.everySound) return;
  Json fields = {{"sessionId", sound.sessionId}, {"samples", sound.samples.size() / 2}};
  onMainLoop([this, fields = std::move(fields)] { event("sound", fields); });
}

void Studio::onLogLine(std::string_view line) {
  onMainLoop([this, text = std::string(line)] {
    lastLog_ = text;
    if (printLog_) event("log", {{"logMessage", text}});
  });
}

void Studio::onFatalError(std::string_view text) {
  onMainLoop([this, text = std::string(text)] {
    event("fatalError", text.empty() ? Json::object() : Json{{"fatalErrorMessage", text}});
    output_.note(text.empty() ? "The service cannot go on." : "The service cannot go on: " + text);
  });
}

void Studio::onRefused(std::string_view reason) {
  onMainLoop([this, reason = std::string(reason)] {
    output_.note("The service sent " + reason + "; it was thrown away.");
  });
}

void Studio::onLost(Client::Loss loss) {
  const Client* from = nullptr;
  {
    // Only looked at: a reference taken here could be the last one, and the client must not end on its own
    // queue.
    const std::lock_guard lock(clientMutex_);
    from = client_.get();
  }
  onMainLoop([this, loss, from] { onServiceLost(loss, from); });
}

bool Studio::showWanted() {
  return anybodyIn_;
}

bool Studio::showPicture(IOSurfaceRef surface) {
  const std::shared_ptr<Client> link = client();
  return link && link->videoFrame(surface);
}

void Studio::showSound(std::span<const std::int16_t> samples) {
  if (const std::shared_ptr<Client> link = client()) link->audioData(samples);
}

}  // namespace studio
