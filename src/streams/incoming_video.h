#pragma once

#include <opentok.h>

// The subscriber's render-frame callback: where a guest's frame enters the service. Runs on the SDK's
// threads, for several guests at a time, and returns when the frame's memory is no longer needed.
void on_render_frame(otc_subscriber* subscriber, void* userData, const otc_video_frame* frame);
