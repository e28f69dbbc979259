#include "platform/dbus.h"

#include <gio/gio.h>

#include "platform/system_log.h"

namespace zonara {
namespace {

std::string takeError(GError* error) {
  std::string message = error ? error->message : "unknown error";
  if (error) g_error_free(error);
  return message;
}

}  // namespace

// ---------------------------------------------------------------------------
// DBusConnection

DBusConnection::~DBusConnection() {
  g_dbus_connection_flush_sync(connection_, nullptr, nullptr);
  g_dbus_connection_close_sync(connection_, nullptr, nullptr);
  g_object_unref(connection_);
}

std::unique_ptr<DBusConnection> DBusConnection::openSession(std::string* error) {
  GError* err = nullptr;
  gchar* address = g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SESSION, nullptr, &err);
  if (!address) {
    if (error) *error = takeError(err);
    else takeError(err);
    return nullptr;
  }
  auto connection = openAddress(address, error);
  g_free(address);
  return connection;
}

std::unique_ptr<DBusConnection> DBusConnection::openAddress(const std::string& address, std::string* error) {
  GError* err = nullptr;
  GDBusConnection* c = g_dbus_connection_new_for_address_sync(
      address.c_str(),
      static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                        G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
      nullptr, nullptr, &err);
  if (!c) {
    if (error) *error = takeError(err);
    else takeError(err);
    return nullptr;
  }
  // The process decides when to end, not the bus.
  g_dbus_connection_set_exit_on_close(c, FALSE);
  return std::unique_ptr<DBusConnection>(new DBusConnection(c));
}

std::string DBusConnection::uniqueName() const {
  const gchar* name = g_dbus_connection_get_unique_name(connection_);
  return name ? name : "";
}

bool DBusConnection::nameHasOwner(const std::string& name) const {
  GVariant* r = g_dbus_connection_call_sync(connection_, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                            "org.freedesktop.DBus", "NameHasOwner", g_variant_new("(s)", name.c_str()),
                                            G_VARIANT_TYPE("(b)"), G_DBUS_CALL_FLAGS_NONE, 5000, nullptr, nullptr);
  gboolean owned = FALSE;
  if (r) {
    g_variant_get(r, "(b)", &owned);
    g_variant_unref(r);
  }
  return owned;
}

std::optional<std::string> DBusConnection::stringProperty(const std::string& busName, const std::string& property,
                                                          std::chrono::milliseconds timeout, std::string* why) const {
  GError* error = nullptr;
  GVariant* r = g_dbus_connection_call_sync(
      connection_, busName.c_str(), "/", "org.freedesktop.DBus.Properties", "Get",
      g_variant_new("(ss)", busName.c_str(), property.c_str()), G_VARIANT_TYPE("(v)"), G_DBUS_CALL_FLAGS_NO_AUTO_START,
      static_cast<gint>(timeout.count()), nullptr, &error);
  if (!r) {
    if (error) {
      if (why) *why = error->message;
      g_error_free(error);
    }
    return std::nullopt;
  }
  GVariant* value = nullptr;
  g_variant_get(r, "(v)", &value);
  std::optional<std::string> text;
  if (g_variant_is_of_type(value, G_VARIANT_TYPE_STRING)) text = g_variant_get_string(value, nullptr);
  g_variant_unref(value);
  g_variant_unref(r);
  return text;
}

std::optional<std::string> DBusConnection::callStringMethod(const std::string& busName, const std::string& method,
                                                            std::chrono::milliseconds timeout, std::string* why) const {
  GError* error = nullptr;
  GVariant* r = g_dbus_connection_call_sync(connection_, busName.c_str(), "/", busName.c_str(), method.c_str(),
                                            nullptr, G_VARIANT_TYPE("(s)"), G_DBUS_CALL_FLAGS_NO_AUTO_START,
                                            static_cast<gint>(timeout.count()), nullptr, &error);
  if (!r) {
    if (error) {
      g_dbus_error_strip_remote_error(error);
      if (why) *why = error->message;
      g_error_free(error);
    }
    return std::nullopt;
  }
  const gchar* text = nullptr;
  g_variant_get(r, "(&s)", &text);
  std::string answer = text;
  g_variant_unref(r);
  return answer;
}

// ---------------------------------------------------------------------------
// DBusDistributedNotificationCenter

DBusDistributedNotificationCenter::~DBusDistributedNotificationCenter() {
  for (ObserverId id : subscriptions_) {
    g_dbus_connection_signal_unsubscribe(bus_.get(), static_cast<guint>(id));
  }
}

void DBusDistributedNotificationCenter::post(const DistributedNotification& notification) {
  GVariantBuilder info;
  g_variant_builder_init(&info, G_VARIANT_TYPE("a{sv}"));
  for (const auto& [key, value] : notification.userInfo) {
    g_variant_builder_add(&info, "{sv}", key.c_str(), g_variant_new_string(value.c_str()));
  }
  GError* err = nullptr;
  if (!g_dbus_connection_emit_signal(bus_.get(), nullptr, kPath, kInterface, kSignal,
                                     g_variant_new("(ssa{sv})", notification.name.c_str(),
                                                   notification.object.c_str(), &info),
                                     &err)) {
    SystemLogAt(LogPriority::Warning, "cannot post %s: %s", notification.name.c_str(), takeError(err).c_str());
    return;
  }
  g_dbus_connection_flush_sync(bus_.get(), nullptr, nullptr);
}

DistributedNotificationCenter::ObserverId DBusDistributedNotificationCenter::addObserver(const std::string& name,
                                                                                           Observer observer) {
  auto owned = std::make_unique<Observer>(std::move(observer));
  auto callback = [](GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*,
                     GVariant* parameters, gpointer data) {
    if (!g_variant_is_of_type(parameters, G_VARIANT_TYPE("(ssa{sv})"))) return;
    DistributedNotification n;
    const gchar* name = nullptr;
    const gchar* object = nullptr;
    GVariantIter* iter = nullptr;
    g_variant_get(parameters, "(&s&sa{sv})", &name, &object, &iter);
    n.name = name;
    n.object = object;
    const gchar* key = nullptr;
    GVariant* value = nullptr;
    while (g_variant_iter_loop(iter, "{&sv}", &key, &value)) {
      if (g_variant_is_of_type(value, G_VARIANT_TYPE_STRING)) {
        n.userInfo[key] = g_variant_get_string(value, nullptr);
      } else {
        gchar* text = g_variant_print(value, FALSE);
        n.userInfo[key] = text;
        g_free(text);
      }
    }
    g_variant_iter_free(iter);
    (*static_cast<Observer*>(data))(n);
  };
  guint id = g_dbus_connection_signal_subscribe(bus_.get(), nullptr, kInterface, kSignal, kPath, name.c_str(),
                                                G_DBUS_SIGNAL_FLAGS_NONE, callback, owned.release(),
                                                [](gpointer data) { delete static_cast<Observer*>(data); });
  if (id == 0) return 0;
  subscriptions_.insert(id);
  // Make sure the match rule is in place before the caller goes on, so a
  // notification posted right after is not missed.
  g_dbus_connection_call_sync(bus_.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus",
                              "org.freedesktop.DBus.Peer", "Ping", nullptr, nullptr, G_DBUS_CALL_FLAGS_NONE, -1,
                              nullptr, nullptr);
  return id;
}

void DBusDistributedNotificationCenter::removeObserver(ObserverId id) {
  if (subscriptions_.erase(id) == 0) return;
  g_dbus_connection_signal_unsubscribe(bus_.get(), static_cast<guint>(id));
}

// ---------------------------------------------------------------------------
// DBusNameServer

struct DBusNameServer::Exported {
  std::string name;
  std::map<std::string, PropertyGetter> properties;
  std::map<std::string, MethodHandler> methods;
  GDBusNodeInfo* node = nullptr;
  guint registration = 0;
  bool ownsName = false;
};

DBusNameServer::DBusNameServer(DBusConnection& bus, std::string name) : bus_(bus), name_(std::move(name)) {}

DBusNameServer::~DBusNameServer() {
  if (!exported_) return;
  if (exported_->registration) g_dbus_connection_unregister_object(bus_.get(), exported_->registration);
  if (exported_->node) g_dbus_node_info_unref(exported_->node);
  if (exported_->ownsName) {
    GVariant* r = g_dbus_connection_call_sync(bus_.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                              "org.freedesktop.DBus", "ReleaseName", g_variant_new("(s)", name_.c_str()),
                                              nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
    if (r) g_variant_unref(r);
  }
}

namespace {

// Answers a method call with the handler's text, or its refusal as the error
// "<interface>.Failed".
void callMethod(const std::string& interface, const BusNameServer::MethodHandler* handler, const gchar* method,
                GDBusMethodInvocation* invocation) {
  if (!handler) {
    g_dbus_method_invocation_return_error(invocation, G_DBUS_ERROR, G_DBUS_ERROR_UNKNOWN_METHOD, "no method %s",
                                          method);
    return;
  }
  BusNameServer::MethodResult result = (*handler)();
  if (!g_utf8_validate(result.text.c_str(), -1, nullptr)) result.text.clear();
  if (result.ok) {
    g_dbus_method_invocation_return_value(invocation, g_variant_new("(s)", result.text.c_str()));
  } else {
    g_dbus_method_invocation_return_dbus_error(invocation, (interface + ".Failed").c_str(), result.text.c_str());
  }
}

}  // namespace

bool DBusNameServer::start(const std::map<std::string, PropertyGetter>& properties,
                           const std::map<std::string, MethodHandler>& methods) {
  if (exported_) return true;
  auto exported = std::make_unique<Exported>();
  exported->name = name_;
  exported->properties = properties;
  exported->methods = methods;

  std::string xml = "<node><interface name='" + name_ + "'>";
  for (const auto& [property, getter] : properties) {
    xml += "<property name='" + property + "' type='s' access='read'/>";
  }
  for (const auto& [method, handler] : methods) {
    xml += "<method name='" + method + "'><arg type='s' direction='out'/></method>";
  }
  xml += "</interface></node>";
  GError* err = nullptr;
  exported->node = g_dbus_node_info_new_for_xml(xml.c_str(), &err);
  if (!exported->node) {
    SystemLogAt(LogPriority::Error, "bad interface description: %s", takeError(err).c_str());
    return false;
  }

  // The object goes up first so that a client that sees the name can read
  // the properties at once.
  static const GDBusInterfaceVTable vtable = {
      [](GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar* method, GVariant*,
         GDBusMethodInvocation* invocation, gpointer data) {
        auto* ex = static_cast<Exported*>(data);
        auto it = ex->methods.find(method);
        callMethod(ex->name, it == ex->methods.end() ? nullptr : &it->second, method, invocation);
      },
      [](GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar* property, GError** error,
         gpointer data) -> GVariant* {
        auto* ex = static_cast<Exported*>(data);
        auto it = ex->properties.find(property);
        if (it == ex->properties.end()) {
          g_set_error(error, G_DBUS_ERROR, G_DBUS_ERROR_UNKNOWN_PROPERTY, "no property %s", property);
          return nullptr;
        }
        std::string value = it->second();
        if (!g_utf8_validate(value.c_str(), -1, nullptr)) value.clear();
        return g_variant_new_string(value.c_str());
      },
      nullptr,
      {nullptr}};
  exported->registration = g_dbus_connection_register_object(bus_.get(), "/", exported->node->interfaces[0], &vtable,
                                                             exported.get(), nullptr, &err);
  if (exported->registration == 0) {
    SystemLogAt(LogPriority::Error, "cannot export %s: %s", name_.c_str(), takeError(err).c_str());
    g_dbus_node_info_unref(exported->node);
    return false;
  }

  GVariant* reply = g_dbus_connection_call_sync(
      bus_.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "RequestName",
      g_variant_new("(su)", name_.c_str(), 4u /* DBUS_NAME_FLAG_DO_NOT_QUEUE */), G_VARIANT_TYPE("(u)"),
      G_DBUS_CALL_FLAGS_NONE, -1, nullptr, &err);
  guint32 result = 0;
  if (reply) {
    g_variant_get(reply, "(u)", &result);
    g_variant_unref(reply);
  } else {
    takeError(err);
  }
  // 1: primary owner now; 4: already the owner.
  if (result != 1 && result != 4) {
    g_dbus_connection_unregister_object(bus_.get(), exported->registration);
    g_dbus_node_info_unref(exported->node);
    return false;
  }
  exported->ownsName = true;
  exported_ = std::move(exported);
  return true;
}

void DBusNameServer::propertiesChanged(const std::map<std::string, std::string>& changed,
                                       const std::vector<std::string>& invalidated) {
  if (!exported_) return;
  GVariantBuilder values;
  g_variant_builder_init(&values, G_VARIANT_TYPE("a{sv}"));
  for (const auto& [key, value] : changed) {
    g_variant_builder_add(&values, "{sv}", key.c_str(), g_variant_new_string(value.c_str()));
  }
  GVariantBuilder names;
  g_variant_builder_init(&names, G_VARIANT_TYPE("as"));
  for (const auto& name : invalidated) g_variant_builder_add(&names, "s", name.c_str());
  g_dbus_connection_emit_signal(bus_.get(), nullptr, "/", "org.freedesktop.DBus.Properties", "PropertiesChanged",
                                g_variant_new("(sa{sv}as)", name_.c_str(), &values, &names), nullptr);
  g_dbus_connection_flush_sync(bus_.get(), nullptr, nullptr);
}

}  // namespace zonara
