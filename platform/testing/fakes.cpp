#include "platform/testing/fakes.h"

#include <fcntl.h>
#include <gio/gunixfdlist.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>

#include "platform/run_loop.h"

namespace zonara::testing {
namespace {

// Asks the bus for `name` without queueing; true when this connection owns it.
bool ownName(DBusConnection& bus, const char* name) {
  GVariant* r = g_dbus_connection_call_sync(bus.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                            "org.freedesktop.DBus", "RequestName", g_variant_new("(su)", name, 4u),
                                            G_VARIANT_TYPE("(u)"), G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
  guint32 result = 0;
  if (r) {
    g_variant_get(r, "(u)", &result);
    g_variant_unref(r);
  }
  return result == 1;
}

}  // namespace

void RecordingDesktopNotifier::show(const std::string& title, const std::string& message,
                                    const std::string& notificationName, const std::string& iconPath,
                                    const std::vector<NotificationAction>& actions, ActionHandler onAction) {
  std::string icon = iconPath.substr(iconPath.rfind('/') + 1);
  shown.push_back(title + "|" + message + "|" + notificationName + "|" + icon);
  std::vector<std::string> keys;
  for (const NotificationAction& action : actions) keys.push_back(action.key);
  actionKeys.push_back(std::move(keys));
  handlers_.push_back(actions.empty() ? ActionHandler{} : std::move(onAction));
}

bool RecordingDesktopNotifier::choose(size_t index, const std::string& key) {
  if (index >= handlers_.size() || !handlers_[index]) return false;
  const std::vector<std::string>& keys = actionKeys[index];
  if (std::find(keys.begin(), keys.end(), key) == keys.end()) return false;
  ActionHandler handler = std::move(handlers_[index]);
  handlers_[index] = nullptr;
  handler(key);
  return true;
}

bool RecordingDesktopNotifier::chooseLatest(const std::string& key) {
  for (size_t i = actionKeys.size(); i-- > 0;) {
    const std::vector<std::string>& keys = actionKeys[i];
    if (std::find(keys.begin(), keys.end(), key) != keys.end()) return choose(i, key);
  }
  return false;
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

namespace {

// Notify(app, replaces, icon, summary, body, actions, hints, timeout).
FakeNotificationService::Notification notificationFrom(GVariant* p, uint32_t id) {
  const gchar *app, *icon, *summary, *body;
  guint32 replaces;
  const gchar** actions = nullptr;
  GVariant* hints;
  gint32 timeout;
  g_variant_get(p, "(&su&s&s&s^a&s@a{sv}i)", &app, &replaces, &icon, &summary, &body, &actions, &hints, &timeout);
  FakeNotificationService::Notification n{id, app, icon, summary, body, "", {}, {}, false};
  for (size_t i = 0; actions && actions[i] && actions[i + 1]; i += 2) {
    n.actionKeys.push_back(actions[i]);
    n.actionLabels.push_back(actions[i + 1]);
  }
  g_free(actions);
  if (GVariant* v = g_variant_lookup_value(hints, "x-zonara-notification-name", G_VARIANT_TYPE_STRING)) {
    n.name = g_variant_get_string(v, nullptr);
    g_variant_unref(v);
  }
  g_variant_unref(hints);
  return n;
}

}  // namespace

FakeNotificationService::FakeNotificationService(DBusConnection& bus) : bus_(bus) {
  static const char* xml =
      "<node><interface name='org.freedesktop.Notifications'><method name='Notify'>"
      "<arg type='s' direction='in'/><arg type='u' direction='in'/><arg type='s' direction='in'/>"
      "<arg type='s' direction='in'/><arg type='s' direction='in'/><arg type='as' direction='in'/>"
      "<arg type='a{sv}' direction='in'/><arg type='i' direction='in'/><arg type='u' direction='out'/>"
      "</method><signal name='ActionInvoked'><arg type='u'/><arg type='s'/></signal>"
      "<signal name='NotificationClosed'><arg type='u'/><arg type='u'/></signal></interface>"
      "<interface name='org.quillon.Zonara.FakeNotifications'><method name='InvokeAction'>"
      "<arg type='u' direction='in'/><arg type='s' direction='in'/></method></interface></node>";
  node_ = g_dbus_node_info_new_for_xml(xml, nullptr);
  static const GDBusInterfaceVTable notifications = {
      [](GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*, GVariant* p,
         GDBusMethodInvocation* invocation, gpointer data) {
        auto* self = static_cast<FakeNotificationService*>(data);
        self->received.push_back(notificationFrom(p, static_cast<uint32_t>(self->received.size() + 1)));
        if (self->onNotification) self->onNotification(self->received.back());
        g_dbus_method_invocation_return_value(invocation, g_variant_new("(u)", self->received.back().id));
      },
      nullptr, nullptr, {nullptr}};
  static const GDBusInterfaceVTable control = {
      [](GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*, GVariant* p,
         GDBusMethodInvocation* invocation, gpointer data) {
        guint32 id = 0;
        const gchar* key = nullptr;
        g_variant_get(p, "(u&s)", &id, &key);
        if (static_cast<FakeNotificationService*>(data)->invokeAction(id, key)) {
          g_dbus_method_invocation_return_value(invocation, nullptr);
        } else {
          g_dbus_method_invocation_return_dbus_error(invocation, "org.freedesktop.DBus.Error.InvalidArgs",
                                                     "no such notification offers that action");
        }
      },
      nullptr, nullptr, {nullptr}};
  registration_ = g_dbus_connection_register_object(bus_.get(), "/org/freedesktop/Notifications",
                                                    node_->interfaces[0], &notifications, this, nullptr, nullptr);
  controlRegistration_ = g_dbus_connection_register_object(bus_.get(), "/org/freedesktop/Notifications",
                                                           node_->interfaces[1], &control, this, nullptr, nullptr);
  (void)ownName(bus_, "org.freedesktop.Notifications");
}

FakeNotificationService::~FakeNotificationService() {
  if (registration_ != 0) g_dbus_connection_unregister_object(bus_.get(), registration_);
  if (controlRegistration_ != 0) g_dbus_connection_unregister_object(bus_.get(), controlRegistration_);
  g_dbus_node_info_unref(node_);
}

bool FakeNotificationService::invokeAction(uint32_t id, const std::string& key) {
  for (size_t i = received.size(); i-- > 0;) {
    Notification& n = received[i];
    if (id != 0 && n.id != id) continue;
    if (n.closed || std::find(n.actionKeys.begin(), n.actionKeys.end(), key) == n.actionKeys.end()) {
      if (id != 0) return false;
      continue;
    }
    g_dbus_connection_emit_signal(bus_.get(), nullptr, "/org/freedesktop/Notifications",
                                  "org.freedesktop.Notifications", "ActionInvoked",
                                  g_variant_new("(us)", n.id, key.c_str()), nullptr);
    g_dbus_connection_emit_signal(bus_.get(), nullptr, "/org/freedesktop/Notifications",
                                  "org.freedesktop.Notifications", "NotificationClosed",
                                  g_variant_new("(uu)", n.id, 2u), nullptr);
    (void)g_dbus_connection_flush_sync(bus_.get(), nullptr, nullptr);
    n.closed = true;
    if (onAction) onAction(n, key);
    return true;
  }
  return false;
}

bool InvokeNotificationAction(DBusConnection& client, uint32_t id, const std::string& key, std::string* why) {
  GError* error = nullptr;
  GVariant* r = g_dbus_connection_call_sync(client.get(), "org.freedesktop.Notifications",
                                            "/org/freedesktop/Notifications", FakeNotificationService::kControlInterface,
                                            "InvokeAction", g_variant_new("(us)", id, key.c_str()), nullptr,
                                            G_DBUS_CALL_FLAGS_NO_AUTO_START, 5000, nullptr, &error);
  if (!r) {
    if (why && error) *why = error->message;
    if (error) g_error_free(error);
    return false;
  }
  g_variant_unref(r);
  return true;
}

FakeLogind::FakeLogind(DBusConnection& bus) : bus_(bus) {
  static const char* xml =
      "<node><interface name='org.freedesktop.login1.Manager'><method name='Inhibit'>"
      "<arg type='s' direction='in'/><arg type='s' direction='in'/><arg type='s' direction='in'/>"
      "<arg type='s' direction='in'/><arg type='h' direction='out'/>"
      "</method><signal name='PrepareForSleep'><arg type='b'/></signal></interface></node>";
  node_ = g_dbus_node_info_new_for_xml(xml, nullptr);
  static const GDBusInterfaceVTable vtable = {
      [](GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*, GVariant* p,
         GDBusMethodInvocation* invocation, gpointer data) {
        auto* self = static_cast<FakeLogind*>(data);
        const gchar *what, *who, *why, *mode;
        g_variant_get(p, "(&s&s&s&s)", &what, &who, &why, &mode);
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0) {
          g_dbus_method_invocation_return_dbus_error(invocation, "org.freedesktop.DBus.Error.Failed", "no pipe");
          return;
        }
        {
          MutexLock lock(self->mu_);
          self->inhibitors_.push_back(Inhibitor{what, who, why, mode});
          self->readEnds_.push_back(ends[0]);
        }
        GUnixFDList* fds = g_unix_fd_list_new();
        const int index = g_unix_fd_list_append(fds, ends[1], nullptr);  // a copy goes to the client
        close(ends[1]);
        g_dbus_method_invocation_return_value_with_unix_fd_list(invocation, g_variant_new("(h)", index), fds);
        g_object_unref(fds);
      },
      nullptr, nullptr, {nullptr}};
  registration_ = g_dbus_connection_register_object(bus_.get(), "/org/freedesktop/login1", node_->interfaces[0],
                                                    &vtable, this, nullptr, nullptr);
  owned_ = ownName(bus_, "org.freedesktop.login1");
}

FakeLogind::~FakeLogind() {
  if (registration_ != 0) g_dbus_connection_unregister_object(bus_.get(), registration_);
  g_dbus_node_info_unref(node_);
  for (int fd : readEnds_) close(fd);
}

bool FakeLogind::prepareForSleep(bool sleeping, const char* path) {
  const gboolean sent = g_dbus_connection_emit_signal(bus_.get(), nullptr, path, "org.freedesktop.login1.Manager",
                                                      "PrepareForSleep", g_variant_new("(b)", sleeping), nullptr);
  return sent && g_dbus_connection_flush_sync(bus_.get(), nullptr, nullptr);
}

std::vector<FakeLogind::Inhibitor> FakeLogind::inhibitors() const {
  MutexLock lock(mu_);
  return inhibitors_;
}

size_t FakeLogind::held() const {
  MutexLock lock(mu_);
  size_t count = 0;
  for (int fd : readEnds_) {
    pollfd p{fd, POLLIN, 0};
    // The write end's last copy closed: hang-up (or end of file).
    if (poll(&p, 1, 0) == 0) ++count;
  }
  return count;
}

FakePolkitAuthority::FakePolkitAuthority(DBusConnection& bus) : bus_(bus) {
  static const char* xml =
      "<node><interface name='org.freedesktop.PolicyKit1.Authority'><method name='CheckAuthorization'>"
      "<arg type='(sa{sv})' direction='in'/><arg type='s' direction='in'/><arg type='a{ss}' direction='in'/>"
      "<arg type='u' direction='in'/><arg type='s' direction='in'/><arg type='(bba{ss})' direction='out'/>"
      "</method></interface></node>";
  node_ = g_dbus_node_info_new_for_xml(xml, nullptr);
  static const GDBusInterfaceVTable vtable = {
      [](GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*, GVariant* p,
         GDBusMethodInvocation* invocation, gpointer data) {
        auto* self = static_cast<FakePolkitAuthority*>(data);
        const gchar *kind, *action, *cancellation;
        GVariant *subject, *details;
        guint32 flags = 0;
        g_variant_get(p, "((&s@a{sv})&s@a{ss}u&s)", &kind, &subject, &action, &details, &flags, &cancellation);
        guint32 pid = 0;
        (void)g_variant_lookup(subject, "pid", "u", &pid);
        g_variant_unref(subject);
        g_variant_unref(details);
        self->questions.push_back(std::string(kind) + " pid=" + std::to_string(pid) + " " + action +
                                  " flags=" + std::to_string(flags));
        GVariantBuilder empty;
        g_variant_builder_init(&empty, G_VARIANT_TYPE("a{ss}"));
        g_dbus_method_invocation_return_value(
            invocation, g_variant_new("((bba{ss}))", self->authorized, self->challenge, &empty));
      },
      nullptr, nullptr, {nullptr}};
  registration_ = g_dbus_connection_register_object(bus_.get(), "/org/freedesktop/PolicyKit1/Authority",
                                                    node_->interfaces[0], &vtable, this, nullptr, nullptr);
  (void)ownName(bus_, "org.freedesktop.PolicyKit1");
}

FakePolkitAuthority::~FakePolkitAuthority() {
  if (registration_ != 0) g_dbus_connection_unregister_object(bus_.get(), registration_);
  g_dbus_node_info_unref(node_);
}

namespace {

std::string activeConnectionPath(size_t index) {
  return "/org/freedesktop/NetworkManager/ActiveConnection/" + std::to_string(index + 1);
}

}  // namespace

FakeNetworkManager::FakeNetworkManager(DBusConnection& bus, std::vector<ActiveConnection> connections)
    : bus_(bus), connections_(std::move(connections)) {
  static const char* xml =
      "<node><interface name='org.freedesktop.NetworkManager'>"
      "<property name='ActiveConnections' type='ao' access='read'/></interface>"
      "<interface name='org.freedesktop.NetworkManager.Connection.Active'>"
      "<property name='Id' type='s' access='read'/><property name='Type' type='s' access='read'/>"
      "<property name='Vpn' type='b' access='read'/><property name='State' type='u' access='read'/>"
      "</interface></node>";
  node_ = g_dbus_node_info_new_for_xml(xml, nullptr);
  static const GDBusInterfaceVTable manager = {
      nullptr,
      [](GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*, GError**, gpointer data) {
        auto* self = static_cast<FakeNetworkManager*>(data);
        GVariantBuilder paths;
        g_variant_builder_init(&paths, G_VARIANT_TYPE("ao"));
        for (size_t i = 0; i < self->connections_.size(); ++i) {
          g_variant_builder_add(&paths, "o", activeConnectionPath(i).c_str());
        }
        return g_variant_builder_end(&paths);
      },
      nullptr, {nullptr}};
  static const GDBusInterfaceVTable active = {
      nullptr,
      [](GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar* property, GError**,
         gpointer data) -> GVariant* {
        const auto* c = static_cast<const ActiveConnection*>(data);
        const std::string name = property;
        if (name == "Id") return g_variant_new_string(c->id.c_str());
        if (name == "Type") return g_variant_new_string(c->type.c_str());
        if (name == "Vpn") return g_variant_new_boolean(c->vpn);
        return g_variant_new_uint32(c->state);
      },
      nullptr, {nullptr}};
  registrations_.push_back(g_dbus_connection_register_object(
      bus_.get(), "/org/freedesktop/NetworkManager", node_->interfaces[0], &manager, this, nullptr, nullptr));
  for (size_t i = 0; i < connections_.size(); ++i) {
    registrations_.push_back(g_dbus_connection_register_object(bus_.get(), activeConnectionPath(i).c_str(),
                                                               node_->interfaces[1], &active, &connections_[i],
                                                               nullptr, nullptr));
  }
  owned_ = ownName(bus_, "org.freedesktop.NetworkManager");
}

FakeNetworkManager::~FakeNetworkManager() {
  GVariant* released = g_dbus_connection_call_sync(
      bus_.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "ReleaseName",
      g_variant_new("(s)", "org.freedesktop.NetworkManager"), nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
  if (released) g_variant_unref(released);
  for (unsigned id : registrations_) {
    if (id != 0) g_dbus_connection_unregister_object(bus_.get(), id);
  }
  g_dbus_node_info_unref(node_);
}

}  // namespace zonara::testing
