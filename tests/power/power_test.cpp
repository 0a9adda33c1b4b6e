// Sleep and wake from a mocked logind. Run by with-mock-logind, whose mock-logind plays the system.
#include <CoreFoundation/CoreFoundation.h>
#include <IOKit/pwr_mgt/IOPMLib.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <future>
#include <string>
#include <thread>

#include "waiting.h"

namespace {

int mockLogind(const std::string& command) {
  return std::system(("mock-logind " + command).c_str());
}

// Whether the lock is held. The mock sees a closed descriptor a little later.
bool lockIs(bool held) {
  return eventually(
      [&] { return (mockLogind("locks | grep -qx 'sleep power_test .* delay'") == 0) == held; });
}

// A thread with a run loop that hears of sleep and wake, as a program has it.
class Listener {
 public:
  // beforeListening runs when the registration is made and the run loop does not listen yet.
  explicit Listener(const std::function<void()>& beforeListening = [] {}) {
    std::promise<void> started;
    thread_ = std::thread([&] {
      IONotificationPortRef port = nullptr;
      io_object_t notifier = 0;
      connection = IORegisterForSystemPower(this, &port, heard, &notifier);
      beforeListening();
      runLoop_ = CFRunLoopGetCurrent();
      CFRetain(runLoop_);
      if (connection) {
        CFRunLoopAddSource(runLoop_, IONotificationPortGetRunLoopSource(port), kCFRunLoopCommonModes);
      }
      started.set_value();
      CFRunLoopRun();
    });
    started.get_future().wait();
  }
  ~Listener() {
    CFRunLoopStop(runLoop_);
    thread_.join();
    CFRelease(runLoop_);
  }

  io_connect_t connection = 0;
  Mailbox<std::pair<uint32_t, intptr_t>> messages;  // with their arguments

 private:
  static void heard(void* refcon, io_service_t, uint32_t messageType, void* messageArgument) {
    auto* self = static_cast<Listener*>(refcon);
    EXPECT_EQ(std::this_thread::get_id(), self->thread_.get_id());
    self->messages.put({messageType, reinterpret_cast<intptr_t>(messageArgument)});
  }

  std::thread thread_;
  CFRunLoopRef runLoop_ = nullptr;
};

}  // namespace

// A registration lasts as long as its process, so one test goes through all of it. It sleeps twice: what was
// taken again at the first wake must hold back the second sleep.
TEST(Power, HoldsTheLockUntilTheSleepIsAllowedAndTakesItAgainAtWake) {
  EXPECT_TRUE(lockIs(false));
  // The first sleep is announced before anybody listens.
  Listener listener([] { EXPECT_EQ(mockLogind("sleep"), 0); });
  ASSERT_NE(listener.connection, 0u);
  EXPECT_EQ(IOAllowPowerChange(listener.connection, 0), kIOReturnBadArgument);

  intptr_t former = 0;
  for (int round = 0; round < 2; ++round) {
    EXPECT_TRUE(lockIs(true));
    if (round > 0) {
      ASSERT_EQ(mockLogind("sleep"), 0);
    }
    const auto [message, notification] = listener.messages.next();
    ASSERT_EQ(message, kIOMessageSystemWillSleep);
    EXPECT_TRUE(lockIs(true));
    EXPECT_EQ(IOAllowPowerChange(listener.connection, former), kIOReturnBadArgument);
    EXPECT_EQ(IOAllowPowerChange(listener.connection + 1, notification), kIOReturnBadArgument);
    EXPECT_EQ(IOAllowPowerChange(listener.connection, notification), kIOReturnSuccess);
    EXPECT_TRUE(lockIs(false));
    EXPECT_EQ(IOAllowPowerChange(listener.connection, notification), kIOReturnBadArgument);

    ASSERT_EQ(mockLogind("wake"), 0);
    ASSERT_EQ(listener.messages.next().first, kIOMessageSystemHasPoweredOn);
    EXPECT_TRUE(lockIs(true));
    EXPECT_EQ(IOAllowPowerChange(listener.connection, notification), kIOReturnBadArgument);
    former = notification;
  }
  EXPECT_EQ(listener.messages.count(), 0u);
  // Whose sleep was slept before the registration.
  ASSERT_EQ(mockLogind("wake"), 0);
  EXPECT_EQ(listener.messages.next().first, kIOMessageSystemHasPoweredOn);
}

TEST(Power, RegistersNobodyWithoutASystemBus) {
  const std::string bus = std::getenv("DBUS_SYSTEM_BUS_ADDRESS");
  setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/bus", 1);
  EXPECT_EQ(Listener().connection, 0u);
  setenv("DBUS_SYSTEM_BUS_ADDRESS", bus.c_str(), 1);
}
