#pragma once

#include <libsoup/soup.h>

#include <cstdint>
#include <set>
#include <string>

namespace engine {

// Closes the WebSocket when what was written has left, and lets go of it when the server has said goodbye,
// too. Takes it over.
void closeWebsocket(SoupWebsocketConnection* websocket);

// Destroys a Janus session and closes its WebSocket, which it takes over, as soon as the transactions are
// answered, and after five seconds at the latest: Janus 1.1 may use what it has freed when a session goes
// while a plugin is at work for it. Returns at once; on the engine's thread.
void destroyWhenAnswered(SoupWebsocketConnection* websocket, std::uint64_t session,
                         std::set<std::string> transactions);

}  // namespace engine
