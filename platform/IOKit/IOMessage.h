// The messages of the system's power notifications.
#pragma once

#include <stdint.h>

enum : uint32_t {
  // Whether the system may sleep. Not asked on this system.
  kIOMessageCanSystemSleep = 0xe0000270,
  // The system goes to sleep; it waits for IOAllowPowerChange, though not for long.
  kIOMessageSystemWillSleep = 0xe0000280,
  kIOMessageSystemHasPoweredOn = 0xe0000300,
};
