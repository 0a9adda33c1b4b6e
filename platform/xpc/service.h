// What the process as a service knows of its clients' connections.
#pragma once

#include <xpc/xpc.h>

namespace platform::xpc::service {

// A client's connection counts from its acceptance until it is gone; it is told of the process's end from its
// activation on.
void peerAccepted();
void peerActivated(xpc_connection_t peer);
void peerGone(xpc_connection_t peer);
// Ends a process that was started on demand and has nothing to do.
void endIfIdle();

}  // namespace platform::xpc::service
