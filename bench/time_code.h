// The time of day in a picture, as 24 black and white cells along its upper edge: 20 bits of milliseconds,
// the highest first, and 4 bits by which a picture without a time is told from one with. media/time_code.js
// has the same for browsers.
#pragma once

#include <IOSurface/IOSurface.h>
#include <studio/reports.h>

#include <cstdint>
#include <optional>

namespace bench {

// Writes the present time into a 'BGRA' surface.
void paintTime(IOSurfaceRef surface);

// How long ago, in milliseconds, the time was painted that is in the picture of a plane of luma. Nothing if
// there is none.
std::optional<double> ageOf(const studio::Plane& luma);

}  // namespace bench
