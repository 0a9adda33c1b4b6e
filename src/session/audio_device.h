#pragma once

class ZarvoGuestSession;

// Makes `session` the process's audio device: the SDK opens no microphone and no loudspeaker.
void installAudioDevice(ZarvoGuestSession* session);
