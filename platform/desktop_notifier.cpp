#include "platform/desktop_notifier.h"

#include <gio/gio.h>

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
  // Asynchronous and unanswered: the reply (or the error when no service
  // runs) is dropped. Calls on one connection keep their order.
  g_dbus_connection_call(bus_.get(), "org.freedesktop.Notifications", "/org/freedesktop/Notifications",
                         "org.freedesktop.Notifications", "Notify", parameters, nullptr,
                         G_DBUS_CALL_FLAGS_NO_AUTO_START, 5000, nullptr, nullptr, nullptr);
}

}  // namespace zonara
