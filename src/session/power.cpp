// The system's sleep and wake. The service never survives a sleep: it lets it proceed and ends.

#include <CoreFoundation/CoreFoundation.h>
#include <IOKit/IOMessage.h>
#include <IOKit/pwr_mgt/IOPMLib.h>
#include <unistd.h>
#include <cstdlib>

#include "session/guest_session.h"
#include "support/system_log.h"
#include "support/waits.h"

namespace {

IONotificationPortRef notifyPortRef;
io_object_t notifierObject;
std::atomic<io_connect_t> root_port;

void MySleepCallBack(void* refCon, io_service_t, uint32_t messageType, void* messageArgument) {
  auto* session = static_cast<ZarvoGuestSession*>(refCon);
  switch (messageType) {
    case kIOMessageSystemWillSleep:
      systemLog("Guest process going to sleep");
      session->setSleepMode(true);
      IOAllowPowerChange(root_port, reinterpret_cast<intptr_t>(messageArgument));
      usleep(static_cast<useconds_t>(kExitDelay.count()));
      systemLog("Guest process exiting");
      exit(0);
    case kIOMessageSystemHasPoweredOn:
      systemLog("Guest Came out of sleep");
      session->setSleepMode(false);
      break;
    default:
      break;
  }
}

}  // namespace

void ZarvoGuestSession::registerForSleepNotifications() {
  root_port = IORegisterForSystemPower(this, &notifyPortRef, MySleepCallBack, &notifierObject);
  if (root_port == 0) return;
  CFRunLoopAddSource(CFRunLoopGetCurrent(), IONotificationPortGetRunLoopSource(notifyPortRef),
                     kCFRunLoopCommonModes);
  CFRunLoopRun();
}
