#include "platform/desktop_notifier.h"

#include <gio/gio.h>

#include "platform/system_log.h"

namespace zonara {

void FreedesktopNotifier::notify(const std::string& title, const std::string& message,
                                 const std::string& notificationName, const std::string& iconPath) {
  GVariantBuilder actions;
  g_variant_builder_init(&actions, G_VARIANT_TYPE("as"));
  GVariantBuilder hints;
  g_variant_builder_init(&hints, G_VARIANT_TYPE("a{sv}"));
  g_variant_builder_add(&hints, "{sv}", kNameHint, g_variant_new_string(notificationName.c_str()));
  if (!iconPath.empty()) g_variant_builder_add(&hints, "{sv}", "image-path", g_variant_new_string(iconPath.c_str()));
  GVariant* parameters = g_variant_new("(susssasa{sv}i)", appName_.c_str(), 0u, iconPath.c_str(), title.c_str(),
                                       message.c_str(), &actions, &hints, -1);
  // Asynchronous: the reply is dropped; an error (no notification service
  // runs, it failed) is logged, since the user then sees nothing. Calls on
  // one connection keep their order. The callback needs nothing of this
  // object, which may be gone by then.
  g_dbus_connection_call(
      bus_.get(), "org.freedesktop.Notifications", "/org/freedesktop/Notifications", "org.freedesktop.Notifications",
      "Notify", parameters, nullptr, G_DBUS_CALL_FLAGS_NO_AUTO_START, 5000, nullptr,
      [](GObject* source, GAsyncResult* result, gpointer) {
        GError* error = nullptr;
        GVariant* reply = g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, &error);
        if (reply) g_variant_unref(reply);
        if (error) {
          SystemLogAt(LogPriority::Warning, "desktop notification not shown: %s", error->message);
          g_error_free(error);
        }
      },
      nullptr);
}

}  // namespace zonara
