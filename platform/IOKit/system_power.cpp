#include <IOKit/system_power.h>
#include <gio/gunixconnection.h>
#include <gio/gunixcredentialsmessage.h>
#include <gio/gunixfdlist.h>
#include <gio/gunixfdmessage.h>
#include <gio/gunixsocketaddress.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace platform {

namespace {

constexpr int kReplyTimeout = 5000;  // milliseconds
constexpr char kLogind[] = "org.freedesktop.login1";
constexpr char kManagerPath[] = "/org/freedesktop/login1";
constexpr char kManager[] = "org.freedesktop.login1.Manager";

struct VariantUnref {
  void operator()(GVariant* variant) const { g_variant_unref(variant); }
};
using Variant = std::unique_ptr<GVariant, VariantUnref>;

// In GLib a thread that makes a type waits for one that makes a class, and that one, where its class names
// the type, for the first: both for ever. The bus is sought on a thread of its own while others may connect
// to somewhere, so all that a connection with it takes is made before there are threads.
[[gnu::constructor]] void makeTypesOfConnections() {
  for (const GType type : {G_TYPE_DBUS_CONNECTION,
                           G_TYPE_DBUS_MESSAGE,
                           G_TYPE_DBUS_AUTH_OBSERVER,
                           G_TYPE_SOCKET_CLIENT,
                           G_TYPE_SOCKET,
                           G_TYPE_UNIX_CONNECTION,
                           G_TYPE_TCP_CONNECTION,
                           G_TYPE_UNIX_SOCKET_ADDRESS,
                           G_TYPE_INET_SOCKET_ADDRESS,
                           G_TYPE_PROXY_ADDRESS,
                           G_TYPE_PROXY_ADDRESS_ENUMERATOR,
                           G_TYPE_UNIX_FD_LIST,
                           G_TYPE_UNIX_FD_MESSAGE,
                           G_TYPE_UNIX_CREDENTIALS_MESSAGE,
                           G_TYPE_CREDENTIALS,
                           G_TYPE_CANCELLABLE,
                           G_TYPE_TASK,
                           G_TYPE_DATA_INPUT_STREAM,
                           G_TYPE_DATA_OUTPUT_STREAM,
                           G_TYPE_MEMORY_INPUT_STREAM,
                           G_TYPE_MEMORY_OUTPUT_STREAM}) {
    g_type_class_ref(type);
  }
}

}  // namespace

SystemPower* SystemPower::connect(IOServiceInterestCallback callback, void* refcon) {
  g_autofree char* address = g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
  if (!address) return nullptr;
  // Not the shared connection: that one ends the process when the bus goes.
  const auto flags = static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                                       G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION);
  Bus bus(g_dbus_connection_new_for_address_sync(address, flags, nullptr, nullptr, nullptr));
  if (!bus) return nullptr;

  auto* power = new SystemPower(std::move(bus), callback, refcon);
  if (power->takeLock()) return power;
  CFRelease(power);
  return nullptr;
}

// The lock is held as long as the descriptor is open.
bool SystemPower::takeLock() {
  GUnixFDList* descriptors = nullptr;
  const Variant reply(g_dbus_connection_call_with_unix_fd_list_sync(
      bus_.get(), kLogind, kManagerPath, kManager, "Inhibit",
      g_variant_new("(ssss)", "sleep", program_invocation_short_name, "To be told before the system sleeps",
                    "delay"),
      G_VARIANT_TYPE("(h)"), G_DBUS_CALL_FLAGS_NO_AUTO_START, kReplyTimeout, nullptr, &descriptors, nullptr,
      nullptr));
  if (!reply) return false;
  g_autoptr(GUnixFDList) list = descriptors;
  gint32 index = 0;
  g_variant_get(reply.get(), "(h)", &index);
  const int lock = list ? g_unix_fd_list_get(list, index, nullptr) : -1;
  if (lock < 0) return false;

  const std::lock_guard guard(guard_);
  if (const int former = std::exchange(lock_, lock); former >= 0) close(former);
  return true;
}

void SystemPower::schedule(GMainContext* context) {
  g_main_context_push_thread_default(context);
  g_dbus_connection_signal_subscribe(
      bus_.get(), kLogind, kManager, "PrepareForSleep", kManagerPath, nullptr, G_DBUS_SIGNAL_FLAGS_NONE,
      [](GDBusConnection*, const char*, const char*, const char*, const char*, GVariant* parameters,
         gpointer self) {
        if (!g_variant_is_of_type(parameters, G_VARIANT_TYPE("(b)"))) return;
        gboolean sleeping = FALSE;
        g_variant_get(parameters, "(b)", &sleeping);
        static_cast<SystemPower*>(self)->prepareForSleep(sleeping != FALSE);
      },
      this, nullptr);
  g_main_context_pop_thread_default(context);

  // A sleep that was announced between the registration and here.
  if (!isPreparing()) return;
  GSource* announced = g_idle_source_new();
  g_source_set_callback(
      announced,
      [](gpointer self) -> gboolean {
        static_cast<SystemPower*>(self)->prepareForSleep(true);
        return G_SOURCE_REMOVE;
      },
      this, nullptr);
  g_source_attach(announced, context);
  g_source_unref(announced);
}

bool SystemPower::isPreparing() const {
  const Variant reply(
      g_dbus_connection_call_sync(bus_.get(), kLogind, kManagerPath, "org.freedesktop.DBus.Properties", "Get",
                                  g_variant_new("(ss)", kManager, "PreparingForSleep"), G_VARIANT_TYPE("(v)"),
                                  G_DBUS_CALL_FLAGS_NO_AUTO_START, kReplyTimeout, nullptr, nullptr));
  if (!reply) return false;
  GVariant* inner = nullptr;
  g_variant_get(reply.get(), "(v)", &inner);
  const Variant value(inner);
  return g_variant_is_of_type(inner, G_VARIANT_TYPE_BOOLEAN) && g_variant_get_boolean(inner);
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
