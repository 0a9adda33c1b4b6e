#include <IOKit/system_power.h>
#include <fcntl.h>
#include <glib-unix.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <utility>

namespace platform {

namespace {

constexpr uint64_t kReplyTimeout = 5'000'000;  // microseconds
constexpr char kLogind[] = "org.freedesktop.login1";
constexpr char kManagerPath[] = "/org/freedesktop/login1";
constexpr char kManager[] = "org.freedesktop.login1.Manager";

struct MessageUnref {
  void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};
using Message = std::unique_ptr<sd_bus_message, MessageUnref>;

}  // namespace

SystemPower* SystemPower::connect(IOServiceInterestCallback callback, void* refcon) {
  sd_bus* opened = nullptr;
  if (sd_bus_open_system(&opened) < 0) return nullptr;
  Bus bus(opened);
  sd_bus_set_method_call_timeout(opened, kReplyTimeout);

  auto* power = new SystemPower(std::move(bus), callback, refcon);
  if (power->takeLock()) return power;
  CFRelease(power);
  return nullptr;
}

// The lock is held as long as the descriptor is open.
bool SystemPower::takeLock() {
  sd_bus_message* made = nullptr;
  if (sd_bus_message_new_method_call(bus_.get(), &made, kLogind, kManagerPath, kManager, "Inhibit") < 0)
    return false;
  const Message call(made);
  sd_bus_message* answer = nullptr;
  // Where logind does not run, it is not to be started for this.
  if (sd_bus_message_set_auto_start(made, 0) < 0 ||
      sd_bus_message_append(made, "ssss", "sleep", program_invocation_short_name,
                            "To be told before the system sleeps", "delay") < 0 ||
      sd_bus_call(bus_.get(), made, 0, nullptr, &answer) < 0)
    return false;
  const Message reply(answer);
  int theirs = -1;  // the message's
  if (sd_bus_message_read(answer, "h", &theirs) < 0) return false;
  const int lock = fcntl(theirs, F_DUPFD_CLOEXEC, 0);
  if (lock < 0) return false;

  const std::lock_guard guard(guard_);
  if (const int former = std::exchange(lock_, lock); former >= 0) close(former);
  return true;
}

void SystemPower::schedule(GMainContext* context) {
  sd_bus_match_signal(
      bus_.get(), nullptr, kLogind, kManagerPath, kManager, "PrepareForSleep",
      [](sd_bus_message* signal, void* self, sd_bus_error*) {
        int sleeping = 0;
        if (sd_bus_message_read(signal, "b", &sleeping) >= 0)
          static_cast<SystemPower*>(self)->prepareForSleep(sleeping != 0);
        return 0;
      },
      this);

  GSource* messages = g_unix_fd_source_new(sd_bus_get_fd(bus_.get()), G_IO_IN);
  const GUnixFDSourceFunc arrived = [](int, GIOCondition, gpointer self) -> gboolean {
    return static_cast<SystemPower*>(self)->listen();
  };
  g_source_set_callback(messages, G_SOURCE_FUNC(arrived), this, nullptr);
  g_source_attach(messages, context);
  g_source_unref(messages);

  // A sleep that was announced between the registration and here, and what came with the answers so far.
  GSource* announced = g_idle_source_new();
  g_source_set_callback(
      announced,
      [](gpointer data) -> gboolean {
        auto* self = static_cast<SystemPower*>(data);
        if (self->isPreparing()) self->prepareForSleep(true);
        self->listen();
        return G_SOURCE_REMOVE;
      },
      this, nullptr);
  g_source_attach(announced, context);
  g_source_unref(announced);
}

bool SystemPower::isPreparing() const {
  int preparing = 0;
  return sd_bus_get_property_trivial(bus_.get(), kLogind, kManagerPath, kManager, "PreparingForSleep",
                                     nullptr, 'b', &preparing) >= 0 &&
         preparing != 0;
}

// Handles what has come; false when the bus has gone.
bool SystemPower::listen() {
  int handled;
  do handled = sd_bus_process(bus_.get(), nullptr);
  while (handled > 0);
  return handled == 0;
}

void SystemPower::prepareForSleep(bool sleeping) {
  // A sleep may be told twice: by the property and by the signal.
  if (std::exchange(sleeping_, sleeping) && sleeping) return;
  if (sleeping) {
    setPending(++announced_);
    // NOLINTNEXTLINE(performance-no-int-to-ptr): the system hands the notification's number on as a pointer
    callback_(refcon_, 0, kIOMessageSystemWillSleep, reinterpret_cast<void*>(announced_));
  } else {
    setPending(0);
    takeLock();
    callback_(refcon_, 0, kIOMessageSystemHasPoweredOn, nullptr);
  }
}

void SystemPower::setPending(intptr_t notification) {
  const std::lock_guard guard(guard_);
  pending_ = notification;
}

bool SystemPower::allow(intptr_t notification) {
  const std::lock_guard guard(guard_);
  if (pending_ == 0 || notification != pending_) return false;
  pending_ = 0;
  if (lock_ >= 0) close(std::exchange(lock_, -1));
  return true;
}

}  // namespace platform
