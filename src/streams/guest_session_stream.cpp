#include "streams/guest_session_stream.h"

#include "session/guest_session.h"
#include "session/log.h"

ZarvoGuestSessionStream::ZarvoGuestSessionStream(const std::string& streamName, const std::string& andID,
                                                 otc_subscriber* streamSubscriber,
                                                 const otc_connection* streamConnection)
    : pixelBufferManager(ZVPixelBufferPoolManager::newManagerForPurpose("buffers for " + streamName)),
      name(streamName),
      theID(andID),
      subscriber(streamSubscriber),
      connection(streamConnection) {}

void ZarvoGuestSessionStream::ring() {
  ringing = true;
  if (delegate()) delegate()->ringForName(name, theID, isScreenShare());
}

void ZarvoGuestSessionStream::streamHasAudioChanged(bool value) {
  hasAudio = value;
  if (delegate()) delegate()->hasAudioChanged(value);
}

void ZarvoGuestSessionStream::startSubscribing() {
  logMessageToApp("ZarvoGuestSessionStream startSubscribing %s", theID);
  setDropped(false);
  setIsLive(false);
  guestSession()->subscribeToStream(subscriber, theID, isScreenShare());
  greenRoomStatusChanged();
}

void ZarvoGuestSessionStream::stopSubscribing(bool actuallyUnsubscribe) {
  logMessageToApp("ZarvoGuestSessionStream stopSubscribing %s", theID);
  setIsLive(false);
  guestSession()->unsubscribeToStream(subscriber, theID, isScreenShare(), actuallyUnsubscribe);
  guestSession()->updateAudioInfo();
}

void ZarvoGuestSessionStream::greenRoomStatusChanged() {
  // A live guest is always heard; one in the green room only while that cannot disturb the show on air,
  // or when the studio asked for it. A remote mute is the guest's own page's business.
  const bool heard = isLive() || !guestSession()->broadcastLive() || guestSession()->offAirAudio();
  guestSession()->subscribeToAudio(subscriber, theID, heard);
  guestSession()->updateAudioInfo();
}

void ZarvoGuestSessionStream::streamDropped() {
  logMessageToApp("ZarvoGuestSessionStream streamDropped %s", theID);
  setDropped(true);
  setIsLive(false);
  if (delegate()) delegate()->streamDropped(theID);
  guestSession()->updateAudioInfo();
}
