// A bare SOCK_SEQPACKET socket: the floor that the link is measured against.
#pragma once

#include <cstddef>

namespace bench {

// Sends one datagram, with a descriptor if one is given. Ends the process if that fails.
void sendPlain(int socket, const void* bytes, size_t size, int descriptor = -1);

// Waits for one datagram of that size; a descriptor that came with it is closed. False at the end.
bool receivePlain(int socket, void* bytes, size_t size);

}  // namespace bench
