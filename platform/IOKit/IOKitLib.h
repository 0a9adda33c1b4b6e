// Notification ports: how a program hears of the system's events on a run loop.
#pragma once

#include <CoreFoundation/CoreFoundation.h>
#include <IOKit/IOTypes.h>

typedef struct IONotificationPort* IONotificationPortRef;

// refcon: what was given at registration; service: the object that it is about; messageType: one of
// IOMessage.h; messageArgument: belongs to the message.
typedef void (*IOServiceInterestCallback)(void* refcon, io_service_t service, uint32_t messageType,
                                          void* messageArgument);

extern "C" {

// The port's run-loop source, which belongs to the port. Its callbacks run on the run loop that it is added
// to, and none before that.
CFRunLoopSourceRef IONotificationPortGetRunLoopSource(IONotificationPortRef notify);

}  // extern "C"
