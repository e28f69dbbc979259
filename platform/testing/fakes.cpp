#include "platform/testing/fakes.h"

#include "platform/run_loop.h"

namespace zonara::testing {

void RecordingDesktopNotifier::notify(const std::string& title, const std::string& message,
                                      const std::string& notificationName, const std::string& iconPath) {
  std::string icon = iconPath.substr(iconPath.rfind('/') + 1);
  shown.push_back(title + "|" + message + "|" + notificationName + "|" + icon);
}

void InProcessDistributedNotificationCenter::post(const DistributedNotification& notification) {
  posted.push_back(notification.name);
  RunLoop& loop = RunLoop::current();
  pending_.emplace_back(&loop, loop.performAfterDelay(Clock::Duration(0), [this, notification] { deliver(notification); }));
}

InProcessDistributedNotificationCenter::~InProcessDistributedNotificationCenter() {
  for (const auto& [loop, id] : pending_) loop->cancelTimer(id);
}

DistributedNotificationCenter::ObserverId InProcessDistributedNotificationCenter::addObserver(const std::string& name,
                                                                                                Observer observer) {
  observers_[++lastId_] = {name, std::move(observer)};
  return lastId_;
}

void InProcessDistributedNotificationCenter::deliver(const DistributedNotification& notification) {
  auto snapshot = observers_;
  for (const auto& [id, entry] : snapshot) {
    if (entry.first == notification.name && observers_.count(id)) entry.second(notification);
  }
}

FakeNotificationService::FakeNotificationService(DBusConnection& bus) : bus_(bus) {
  static const char* xml =
      "<node><interface name='org.freedesktop.Notifications'><method name='Notify'>"
      "<arg type='s' direction='in'/><arg type='u' direction='in'/><arg type='s' direction='in'/>"
      "<arg type='s' direction='in'/><arg type='s' direction='in'/><arg type='as' direction='in'/>"
      "<arg type='a{sv}' direction='in'/><arg type='i' direction='in'/><arg type='u' direction='out'/>"
      "</method></interface></node>";
  node_ = g_dbus_node_info_new_for_xml(xml, nullptr);
  static const GDBusInterfaceVTable vtable = {
      [](GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*, GVariant* p,
         GDBusMethodInvocation* invocation, gpointer data) {
        auto* self = static_cast<FakeNotificationService*>(data);
        const gchar *app, *icon, *summary, *body;
        guint32 replaces;
        GVariant* hints;
        gint32 timeout;
        g_variant_get(p, "(&su&s&s&s^a&s@a{sv}i)", &app, &replaces, &icon, &summary, &body, nullptr, &hints,
                      &timeout);
        Notification n{app, icon, summary, body, ""};
        if (GVariant* v = g_variant_lookup_value(hints, "x-zonara-notification-name", G_VARIANT_TYPE_STRING)) {
          n.name = g_variant_get_string(v, nullptr);
          g_variant_unref(v);
        }
        g_variant_unref(hints);
        self->received.push_back(std::move(n));
        if (self->onNotification) self->onNotification(self->received.back());
        g_dbus_method_invocation_return_value(invocation, g_variant_new("(u)", 1u));
      },
      nullptr, nullptr, {nullptr}};
  registration_ = g_dbus_connection_register_object(bus_.get(), "/org/freedesktop/Notifications",
                                                    node_->interfaces[0], &vtable, this, nullptr, nullptr);
  GVariant* r = g_dbus_connection_call_sync(bus_.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                            "org.freedesktop.DBus", "RequestName",
                                            g_variant_new("(su)", "org.freedesktop.Notifications", 4u), nullptr,
                                            G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
  if (r) g_variant_unref(r);
}

FakeNotificationService::~FakeNotificationService() {
  if (registration_ != 0) g_dbus_connection_unregister_object(bus_.get(), registration_);
  g_dbus_node_info_unref(node_);
}

}  // namespace zonara::testing
