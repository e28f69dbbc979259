#include "platform/sleep_watcher.h"

#include <gio/gio.h>

namespace zonara {

LogindSleepWatcher::LogindSleepWatcher(DBusConnection& bus, Callback callback)
    : bus_(bus), callback_(std::move(callback)) {
  subscription_ = g_dbus_connection_signal_subscribe(
      bus_.get(), "org.freedesktop.login1", "org.freedesktop.login1.Manager", "PrepareForSleep",
      "/org/freedesktop/login1", nullptr, G_DBUS_SIGNAL_FLAGS_NONE,
      [](GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*, GVariant* parameters,
         gpointer data) {
        if (!g_variant_is_of_type(parameters, G_VARIANT_TYPE("(b)"))) return;
        gboolean sleeping = FALSE;
        g_variant_get(parameters, "(b)", &sleeping);
        auto* self = static_cast<LogindSleepWatcher*>(data);
        if (self->callback_) self->callback_(sleeping);
      },
      this, nullptr);
}

LogindSleepWatcher::~LogindSleepWatcher() {
  // After unsubscribing no further callback runs on this thread.
  if (subscription_) g_dbus_connection_signal_unsubscribe(bus_.get(), subscription_);
}

std::unique_ptr<DBusConnection> LogindSleepWatcher::openSystemBus(std::string* error) {
  GError* err = nullptr;
  gchar* address = g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SYSTEM, nullptr, &err);
  if (!address) {
    if (error) *error = err ? err->message : "no system bus";
    if (err) g_error_free(err);
    return nullptr;
  }
  std::unique_ptr<DBusConnection> bus = DBusConnection::openAddress(address, error);
  g_free(address);
  return bus;
}

}  // namespace zonara
