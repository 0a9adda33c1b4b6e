// The show's state and the control of its guests.

#include <uuid/uuid.h>
#include <algorithm>

#include "session/guest_session.h"
#include "session/log.h"
#include "streams/guest_session_stream.h"
#include "support/strings.h"

namespace {

// Many more than there can be whose last frames are still on their way.
constexpr size_t kRemovedStreams = 1000;

}  // namespace

std::shared_ptr<ZarvoGuestSessionStream> ZarvoGuestSession::streamManager(const std::string& id) const {
  std::lock_guard guard(streamLock);
  const auto entry = streamManagers.find(id);
  return entry == streamManagers.end() ? nullptr : entry->second;
}

bool ZarvoGuestSession::isRemoved(const std::string& id) const {
  std::lock_guard guard(streamLock);
  return std::ranges::find(removedStreams, id) != removedStreams.end();
}

ZarvoGuestSession::StreamTable ZarvoGuestSession::copyStreamManagers() const {
  std::lock_guard guard(streamLock);
  return streamManagers;
}

void ZarvoGuestSession::startSubscribing(const std::string& id) {
  const auto stream = streamManager(id);
  if (!stream) return;
  stream->startSubscribing();
  setGuestId(stream->guestId());
}

void ZarvoGuestSession::stopSubscribing(const std::string& id) {
  logMessageToApp("stopSubscribing: %s", id);
  const auto stream = streamManager(id);
  if (!stream) return;
  stream->stopSubscribing(!stream->dropped());

  size_t left;
  {
    std::lock_guard guard(streamLock);
    streamManagers.erase(id);
    removedStreams.push_back(id);
    if (removedStreams.size() > kRemovedStreams) removedStreams.pop_front();
    left = streamManagers.size();
  }
  // With the last guest the session ends; only then does that guest's record report its drop.
  if (left == 0) {
    stopCurrentSession(true);
    stream->streamDropped();
  }
}

void ZarvoGuestSession::greenRoomStatus(bool inGreenRoom, const std::string& forGuest) {
  const auto stream = streamManager(forGuest);
  if (!stream) return;
  logMessageToApp("greenRoomStatus setting to %d", static_cast<int>(inGreenRoom));
  stream->setIsLive(!inGreenRoom);
  stream->greenRoomStatusChanged();
}

void ZarvoGuestSession::setRemoteMute(bool muted, const std::string& forGuest) {
  const auto stream = streamManager(forGuest);
  if (!stream) return;
  stream->setRemoteMuted(muted);
  stream->greenRoomStatusChanged();
}

void ZarvoGuestSession::enableOffAirAudio(bool enable) {
  setOffAirAudio(enable);
  for (const auto& [id, stream] : copyStreamManagers()) stream->greenRoomStatusChanged();
}

void ZarvoGuestSession::broadcastIsLive(bool live, bool onlyRecording) {
  _broadcastIsLive = live;
  recordOnly = onlyRecording;
  for (const auto& [id, stream] : copyStreamManagers()) stream->greenRoomStatusChanged();
}

void ZarvoGuestSession::streamReceived(const std::string& id) {
  std::lock_guard guard(streamLock);
  std::erase(removedStreams, id);
}

void ZarvoGuestSession::streamDropped(const std::string& id) {
  if (const auto stream = streamManager(id)) stream->streamDropped();
}

void ZarvoGuestSession::audioChanged(bool hasAudio, const std::optional<std::string>& forId) {
  if (!forId) return;
  if (const auto stream = streamManager(*forId)) stream->streamHasAudioChanged(hasAudio);
}

void ZarvoGuestSession::sessionDisconnected(otc_session*) {
  logMessageToApp("sessionDisconnected");
  dropAllStreams();
}

void ZarvoGuestSession::dropAllStreams() {
  logMessageToApp("dropAllStreams");
  const StreamTable streams = copyStreamManagers();
  if (streams.empty() && delegate()) delegate()->streamDropped("");
  for (const auto& [id, stream] : streams) stream->streamDropped();
}

void ZarvoGuestSession::reportFatalError(const std::optional<std::string>& text) {
  logMessageToApp("reportFatalError %s", printable(text));
  if (delegate()) delegate()->reportFatalError(text);
}

void ZarvoGuestSession::chatMessage(const std::optional<std::string>& text,
                                    const std::optional<std::string>& name,
                                    const std::optional<std::string>& uuid) {
  if (delegate()) delegate()->chatMessage(text, name, uuid ? *uuid : "GUEST_" + UUIDString());
}

void ZarvoGuestSession::favMessage(const std::optional<std::string>& uuid,
                                   const std::optional<std::string>& state) {
  if (delegate()) delegate()->favMessage(uuid, state);
}

std::string ZarvoGuestSession::UUIDString() {
  uuid_t uuid;
  char text[37];
  uuid_generate_random(uuid);
  uuid_unparse_upper(uuid, text);
  return text;
}
