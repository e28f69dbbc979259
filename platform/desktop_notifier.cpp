#include "platform/desktop_notifier.h"

#include <gio/gio.h>

#include <map>

#include "platform/system_log.h"

namespace zonara {
namespace {

constexpr const char* kService = "org.freedesktop.Notifications";
constexpr const char* kPath = "/org/freedesktop/Notifications";

}  // namespace

// The handlers of shown messages by the service's id. Used on the
// notifier's thread only.
struct NotificationHandlers {
  using ActionHandler = DesktopNotifier::ActionHandler;
  std::map<uint32_t, ActionHandler> byId;

  void remember(uint32_t id, ActionHandler handler) {
    byId[id] = std::move(handler);
    while (byId.size() > FreedesktopNotifier::kRememberedMessages) byId.erase(byId.begin());
  }
  // Runs and forgets the handler of message `id`, if any.
  void invoke(uint32_t id, const std::string& key) {
    auto it = byId.find(id);
    if (it == byId.end()) return;
    ActionHandler handler = std::move(it->second);
    byId.erase(it);
    handler(key);
  }
};

namespace {

using SharedHandlers = std::shared_ptr<NotificationHandlers>;

// The service's answer to Notify: the message's id, under which the handler
// waits for the user's choice.
struct PendingMessage {
  SharedHandlers handlers;
  DesktopNotifier::ActionHandler onAction;
};

void notifyAnswered(GObject* source, GAsyncResult* result, gpointer data) {
  std::unique_ptr<PendingMessage> pending(static_cast<PendingMessage*>(data));
  GError* error = nullptr;
  GVariant* reply = g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, &error);
  if (error) {
    SystemLogAt(LogPriority::Warning, "desktop notification not shown: %s", error->message);
    g_error_free(error);
    return;
  }
  guint32 id = 0;
  g_variant_get(reply, "(u)", &id);
  g_variant_unref(reply);
  if (pending->onAction) pending->handlers->remember(id, std::move(pending->onAction));
}

void actionInvoked(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*, GVariant* parameters,
                   gpointer data) {
  if (!g_variant_is_of_type(parameters, G_VARIANT_TYPE("(us)"))) return;
  guint32 id = 0;
  const gchar* key = nullptr;
  g_variant_get(parameters, "(u&s)", &id, &key);
  (*static_cast<SharedHandlers*>(data))->invoke(id, key);
}

void notificationClosed(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*,
                        GVariant* parameters, gpointer data) {
  if (!g_variant_is_of_type(parameters, G_VARIANT_TYPE("(uu)"))) return;
  guint32 id = 0, reason = 0;
  g_variant_get(parameters, "(uu)", &id, &reason);
  (*static_cast<SharedHandlers*>(data))->byId.erase(id);
}

// Only the notification service's own signals count: the bus matches the
// sender against the owner of its well-known name, so another client cannot
// press a button for the user.
guint subscribe(DBusConnection& bus, const char* signal, GDBusSignalCallback callback, const SharedHandlers& shared) {
  return g_dbus_connection_signal_subscribe(bus.get(), kService, kService, signal, kPath, nullptr,
                                            G_DBUS_SIGNAL_FLAGS_NONE, callback, new SharedHandlers(shared),
                                            [](gpointer data) { delete static_cast<SharedHandlers*>(data); });
}

}  // namespace

FreedesktopNotifier::FreedesktopNotifier(DBusConnection& bus, std::string appName)
    : bus_(bus), appName_(std::move(appName)), handlers_(std::make_shared<NotificationHandlers>()) {
  actionSubscription_ = subscribe(bus_, "ActionInvoked", actionInvoked, handlers_);
  closedSubscription_ = subscribe(bus_, "NotificationClosed", notificationClosed, handlers_);
}

FreedesktopNotifier::~FreedesktopNotifier() {
  if (actionSubscription_) g_dbus_connection_signal_unsubscribe(bus_.get(), actionSubscription_);
  if (closedSubscription_) g_dbus_connection_signal_unsubscribe(bus_.get(), closedSubscription_);
}

void FreedesktopNotifier::show(const std::string& title, const std::string& message,
                               const std::string& notificationName, const std::string& iconPath,
                               const std::vector<NotificationAction>& actions, ActionHandler onAction) {
  GVariantBuilder actionList;
  g_variant_builder_init(&actionList, G_VARIANT_TYPE("as"));
  for (const NotificationAction& action : actions) {
    g_variant_builder_add(&actionList, "s", action.key.c_str());
    g_variant_builder_add(&actionList, "s", action.label.c_str());
  }
  GVariantBuilder hints;
  g_variant_builder_init(&hints, G_VARIANT_TYPE("a{sv}"));
  g_variant_builder_add(&hints, "{sv}", kNameHint, g_variant_new_string(notificationName.c_str()));
  if (!iconPath.empty()) g_variant_builder_add(&hints, "{sv}", "image-path", g_variant_new_string(iconPath.c_str()));
  GVariant* parameters = g_variant_new("(susssasa{sv}i)", appName_.c_str(), 0u, iconPath.c_str(), title.c_str(),
                                       message.c_str(), &actionList, &hints, -1);
  // Asynchronous: an error (no notification service runs, it failed) is
  // logged, since the user then sees nothing. Calls on one connection keep
  // their order. The reply needs nothing of this object, which may be gone
  // by then.
  g_dbus_connection_call(bus_.get(), kService, kPath, kService, "Notify", parameters, G_VARIANT_TYPE("(u)"),
                         G_DBUS_CALL_FLAGS_NO_AUTO_START, 5000, nullptr, notifyAnswered,
                         new PendingMessage{handlers_, actions.empty() ? ActionHandler{} : std::move(onAction)});
}

}  // namespace zonara
