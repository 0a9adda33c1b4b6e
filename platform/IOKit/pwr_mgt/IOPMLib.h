// The system's sleep and wake.
//
// They come from systemd-logind on the system bus (DBUS_SYSTEM_BUS_ADDRESS says where, if set). From its
// registration on a program holds a delay lock, so that the system does not sleep before the program has
// allowed it or logind's InhibitDelayMaxSec has passed.
#pragma once

#include <IOKit/IOKitLib.h>
#include <IOKit/IOMessage.h>

extern "C" {

// Asks for kIOMessageSystemWillSleep, whose messageArgument names it to IOAllowPowerChange, and
// kIOMessageSystemHasPoweredOn. thePortRef receives a notification port, notifier the registration's handle;
// both live as long as the process. Returns the connection for IOAllowPowerChange, or 0 if there is no system
// bus or no logind on it; nothing is written then. May wait some seconds for the bus.
io_connect_t IORegisterForSystemPower(void* refcon, IONotificationPortRef* thePortRef,
                                      IOServiceInterestCallback callback, io_object_t* notifier);

// Lets the sleep that notificationID announced go ahead. kIOReturnBadArgument for another connection or
// notification, or one that was allowed already. May be called on any thread.
IOReturn IOAllowPowerChange(io_connect_t kernelPort, intptr_t notificationID);

}  // extern "C"
