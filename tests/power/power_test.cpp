// Sleep and wake from a mocked logind. Run by with-mock-logind, whose mock-logind plays the system.
#include <CoreFoundation/CoreFoundation.h>
#include <IOKit/pwr_mgt/IOPMLib.h>
#include <gtest/gtest.h>

#include <array>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

using namespace std::chrono_literals;

namespace {

constexpr auto kDeadline = 20s;

std::string mockLogind(const std::string& command) {
  std::string output;
  FILE* pipe = popen(("mock-logind " + command).c_str(), "r");
  std::array<char, 256> piece;
  while (std::fgets(piece.data(), piece.size(), pipe)) output += piece.data();
  EXPECT_EQ(pclose(pipe), 0) << command;
  return output;
}

// Whether the lock is held. The mock sees a closed descriptor a little later.
bool lockIs(bool held) {
  const auto deadline = std::chrono::steady_clock::now() + kDeadline;
  do {
    const std::string locks = mockLogind("locks");
    if (locks.starts_with("sleep power_test ") && locks.ends_with(" delay\n") && held) return true;
    if (locks.empty() && !held) return true;
  } while (std::chrono::steady_clock::now() < deadline);
  return false;
}

// A thread with a run loop that hears of sleep and wake, as a program has it.
class Listener {
 public:
  // beforeListening runs when the registration is made and the run loop does not listen yet.
  explicit Listener(const std::function<void()>& beforeListening = [] {}) {
    std::mutex ready;
    std::unique_lock lock(ready);
    std::condition_variable started;
    thread_ = std::thread([&] {
      IONotificationPortRef port = nullptr;
      io_object_t notifier = 0;
      const io_connect_t connection = IORegisterForSystemPower(this, &port, heard, &notifier);
      beforeListening();
      if (connection) {
        CFRunLoopAddSource(CFRunLoopGetCurrent(), IONotificationPortGetRunLoopSource(port),
                           kCFRunLoopCommonModes);
      }
      {
        const std::lock_guard guard(ready);
        connection_ = connection;
        runLoop_ = CFRunLoopGetCurrent();
        CFRetain(runLoop_);
        started.notify_one();
      }
      CFRunLoopRun();
    });
    started.wait(lock, [this] { return connection_.has_value(); });
  }
  ~Listener() {
    CFRunLoopStop(runLoop_);
    thread_.join();
    CFRelease(runLoop_);
  }

  io_connect_t connection() const { return *connection_; }

  // The next message, with its argument.
  std::pair<uint32_t, intptr_t> next() {
    std::unique_lock lock(lock_);
    if (!arrived_.wait_for(lock, kDeadline, [this] { return !messages_.empty(); })) return {};
    const auto message = messages_.front();
    messages_.pop_front();
    return message;
  }
  bool quiet() {
    const std::lock_guard guard(lock_);
    return messages_.empty();
  }

 private:
  static void heard(void* refcon, io_service_t, uint32_t messageType, void* messageArgument) {
    auto* self = static_cast<Listener*>(refcon);
    const std::lock_guard guard(self->lock_);
    EXPECT_EQ(std::this_thread::get_id(), self->thread_.get_id());
    self->messages_.emplace_back(messageType, reinterpret_cast<intptr_t>(messageArgument));
    self->arrived_.notify_one();
  }

  std::thread thread_;
  std::optional<io_connect_t> connection_;
  CFRunLoopRef runLoop_ = nullptr;
  std::mutex lock_;
  std::condition_variable arrived_;
  std::deque<std::pair<uint32_t, intptr_t>> messages_;
};

}  // namespace

// A registration lasts as long as its process, so one test goes through all of it. It sleeps twice: what was
// taken again at the first wake must hold back the second sleep.
TEST(Power, HoldsTheLockUntilTheSleepIsAllowedAndTakesItAgainAtWake) {
  EXPECT_TRUE(lockIs(false));
  // The first sleep is announced before anybody listens.
  Listener listener([] { mockLogind("sleep"); });
  ASSERT_NE(listener.connection(), 0u);
  EXPECT_EQ(IOAllowPowerChange(listener.connection(), 0), kIOReturnBadArgument);

  intptr_t former = 0;
  for (int round = 0; round < 2; ++round) {
    EXPECT_TRUE(lockIs(true));
    if (round > 0) mockLogind("sleep");
    const auto [message, notification] = listener.next();
    ASSERT_EQ(message, kIOMessageSystemWillSleep);
    EXPECT_TRUE(lockIs(true));
    EXPECT_EQ(IOAllowPowerChange(listener.connection(), former), kIOReturnBadArgument);
    EXPECT_EQ(IOAllowPowerChange(listener.connection() + 1, notification), kIOReturnBadArgument);
    EXPECT_EQ(IOAllowPowerChange(listener.connection(), notification), kIOReturnSuccess);
    EXPECT_TRUE(lockIs(false));
    EXPECT_EQ(IOAllowPowerChange(listener.connection(), notification), kIOReturnBadArgument);

    mockLogind("wake");
    ASSERT_EQ(listener.next().first, kIOMessageSystemHasPoweredOn);
    EXPECT_TRUE(lockIs(true));
    EXPECT_EQ(IOAllowPowerChange(listener.connection(), notification), kIOReturnBadArgument);
    former = notification;
  }
  EXPECT_TRUE(listener.quiet());
}

TEST(Power, RegistersNobodyWithoutASystemBus) {
  const std::string bus = std::getenv("DBUS_SYSTEM_BUS_ADDRESS");
  setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/bus", 1);
  EXPECT_EQ(Listener().connection(), 0u);
  setenv("DBUS_SYSTEM_BUS_ADDRESS", bus.c_str(), 1);
}
