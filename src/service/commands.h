#pragma once

#include <xpc/xpc.h>

// Finds the studio's command in a dictionary that arrived on `connection` and carries it out, on the
// calling thread. A dictionary with no known command, or whose arguments are missing or of a wrong type,
// does nothing. "Exit" does not return.
void decodeMessage(xpc_object_t message, xpc_connection_t connection);
