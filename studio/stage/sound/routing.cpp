#include "stage/sound/routing.h"

namespace studio::sound {

namespace {

// What is left of everything else while the host talks to somebody.
constexpr float underTalkback = 0.25F;

bool isGuest(Voice voice) {
  return voice != showItself && voice != host && voice != program;
}

bool isSpokenTo(const Talkback& talkback, Voice voice, const Standing& standing) {
  if (!talkback.on || !isGuest(voice)) return false;
  return talkback.guest ? *talkback.guest == voice : standing.place == Place::greenRoom;
}

// As viewers hear it.
float inProgram(const Conversation& conversation, Voice source, const Standing& from) {
  if (from.programMuted) return 0;
  if (source == host && conversation.talkback.on) return 0;
  if (isGuest(source) && from.place != Place::live) return 0;
  return from.fader;
}

bool together(const Conversation& conversation, const Standing& of, const Standing& from) {
  if (!conversation.onAir) return true;
  if (of.place == Place::live) return from.place == Place::live;
  return from.place == Place::greenRoom && of.offAirAudio && from.offAirAudio;
}

}  // namespace

float gain(const Conversation& conversation, Voice listener, const Standing& of, Voice source,
           const Standing& from) {
  if (listener == source || source == program || from.muted) return 0;
  if (isGuest(source) && from.place == Place::outside) return 0;
  if (listener == program) return inProgram(conversation, source, from);
  if (listener == host) return conversation.solo && source != *conversation.solo ? 0.0F : 1.0F;
  if (of.place == Place::outside) return 0;

  const bool spokenTo = isSpokenTo(conversation.talkback, listener, of);
  if (source == host && conversation.talkback.on) return spokenTo ? 1 : 0;
  const float rest = spokenTo ? underTalkback : 1;
  if (isGuest(source) && together(conversation, of, from)) return rest;
  // Who is not in the show hears it as viewers do.
  if (conversation.onAir && of.place == Place::greenRoom) return rest * inProgram(conversation, source, from);
  return isGuest(source) ? 0 : rest;
}

}  // namespace studio::sound
