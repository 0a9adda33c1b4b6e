// A limit on what a WebSocket peer may send in one message, however it cuts it up.
#pragma once

#include <glib.h>

#include <cstddef>

namespace studio {

/// The extensions for soup_websocket_connection_new, which takes them over: the connection fails at a message
/// of more than `bytes`. libsoup itself limits only the frames that a message comes in, not their number.
GList* messageLimit(std::size_t bytes);

}  // namespace studio
