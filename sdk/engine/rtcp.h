#pragma once

#include "gst.h"

namespace engine {

// Makes a receiver's requests for a key frame arrive. Janus takes a compound RTCP packet as being about
// the source of its first report block, and drops one without: a request is lost where there is none, or
// where sound is reported first. So a report of the source that is asked stands first in such a packet.
// `rtpsession` is an element of that kind.
void reportWhatIsAsked(GstElement* rtpsession);

}  // namespace engine
