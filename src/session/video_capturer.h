#pragma once

#include <opentok.h>

class ZarvoGuestSession;

// The capturer through which `session` publishes the show: the SDK opens no camera.
otc_video_capturer_callbacks videoCapturerCallbacks(ZarvoGuestSession* session);
