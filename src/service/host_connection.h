#pragma once

#include <xpc/xpc.h>

#include "support/ref.h"

class ServiceDelegate;

// The back channel to the studio: set by an accepted "Init", cleared by an error on any connection. While
// it is empty, reports are dropped.
extern AtomicRef<xpc_connection_t>& appConn;

// Takes a new connection from a studio and serves it on a queue of its own.
void acceptConnection(xpc_connection_t connection);
