#include <IOKit/system_power.h>

#include <deque>

struct IONotificationPort {
  platform::SystemPower* power;
};

namespace {

// Registrations are numbered from 1, and stay.
std::mutex& registrationsLock() {
  static auto& lock = *new std::mutex;
  return lock;
}
std::deque<IONotificationPort>& registrations() {
  static auto& ports = *new std::deque<IONotificationPort>;
  return ports;
}

}  // namespace

CFRunLoopSourceRef IONotificationPortGetRunLoopSource(IONotificationPortRef notify) {
  return notify->power;
}

io_connect_t IORegisterForSystemPower(void* refcon, IONotificationPortRef* thePortRef,
                                      IOServiceInterestCallback callback, io_object_t* notifier) {
  auto* power = platform::SystemPower::connect(callback, refcon);
  if (!power) return 0;
  const std::lock_guard guard(registrationsLock());
  *thePortRef = &registrations().emplace_back(IONotificationPort{power});
  *notifier = static_cast<io_object_t>(registrations().size());
  return *notifier;
}

IOReturn IOAllowPowerChange(io_connect_t kernelPort, intptr_t notificationID) {
  platform::SystemPower* power = nullptr;
  {
    const std::lock_guard guard(registrationsLock());
    if (kernelPort == 0 || kernelPort > registrations().size()) return kIOReturnBadArgument;
    power = registrations()[kernelPort - 1].power;
  }
  return power->allow(notificationID) ? kIOReturnSuccess : kIOReturnBadArgument;
}
