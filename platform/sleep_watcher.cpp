#include "platform/sleep_watcher.h"

#include <gio/gio.h>
#include <gio/gunixfdlist.h>
#include <unistd.h>

#include "platform/system_log.h"

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
        static_cast<LogindSleepWatcher*>(data)->prepareForSleep(sleeping);
      },
      this, nullptr);
  takeInhibitor();
}

LogindSleepWatcher::~LogindSleepWatcher() {
  // After unsubscribing no further callback runs on this thread.
  if (subscription_) g_dbus_connection_signal_unsubscribe(bus_.get(), subscription_);
  if (pending_) {
    // Its completion sees the cancellation and leaves the watcher alone.
    g_cancellable_cancel(pending_);
    g_object_unref(pending_);
  }
  releaseInhibitor();
}

void LogindSleepWatcher::prepareForSleep(bool sleeping) {
  if (callback_) callback_(sleeping);
  // Handled: the machine may sleep now; after waking, hold it up again.
  if (sleeping) {
    if (pending_) {  // an inhibitor arriving now would hold up this sleep
      g_cancellable_cancel(pending_);
      g_clear_object(&pending_);
    }
    releaseInhibitor();
  } else {
    takeInhibitor();
  }
}

void LogindSleepWatcher::takeInhibitor() {
  if (inhibitor_ >= 0 || pending_) return;
  pending_ = g_cancellable_new();
  g_dbus_connection_call_with_unix_fd_list(
      bus_.get(), "org.freedesktop.login1", "/org/freedesktop/login1", "org.freedesktop.login1.Manager", "Inhibit",
      g_variant_new("(ssss)", "sleep", "Zonara", "Noting the time of sleep for the time zone", "delay"),
      G_VARIANT_TYPE("(h)"), G_DBUS_CALL_FLAGS_NO_AUTO_START, 10000, nullptr, pending_, &inhibitorArrived, this);
}

void LogindSleepWatcher::inhibitorArrived(GObject* source, GAsyncResult* result, void* data) {
  GUnixFDList* fds = nullptr;
  GError* error = nullptr;
  GVariant* reply = g_dbus_connection_call_with_unix_fd_list_finish(G_DBUS_CONNECTION(source), &fds, result, &error);
  if (!reply) {
    const bool cancelled = g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CANCELLED);
    if (!cancelled) {
      auto* self = static_cast<LogindSleepWatcher*>(data);
      g_clear_object(&self->pending_);
      SystemLogAt(LogPriority::Info, "no sleep inhibitor from logind: %s", error->message);
    }
    g_error_free(error);  // cancelled: the watcher is gone; touch nothing
    return;
  }
  auto* self = static_cast<LogindSleepWatcher*>(data);
  g_clear_object(&self->pending_);
  gint32 index = -1;
  g_variant_get(reply, "(h)", &index);
  g_variant_unref(reply);
  const int fd = fds ? g_unix_fd_list_get(fds, index, nullptr) : -1;  // a copy of our own
  if (fds) g_object_unref(fds);
  if (fd < 0) {
    SystemLogAt(LogPriority::Warning, "logind's sleep inhibitor came without a file descriptor");
    return;
  }
  self->inhibitor_ = fd;
}

void LogindSleepWatcher::releaseInhibitor() {
  if (inhibitor_ < 0) return;
  close(inhibitor_);
  inhibitor_ = -1;
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
