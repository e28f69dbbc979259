#include "wps/spi/network_manager_scan.h"

#include <gio/gio.h>

#include <cerrno>
#include <memory>

#include "wps/spi/logger.h"

namespace WPS {
namespace SPI {

namespace {

struct ObjectUnref {
  void operator()(gpointer object) const { g_object_unref(object); }
};
struct VariantUnref {
  void operator()(GVariant* variant) const { g_variant_unref(variant); }
};
struct ErrorFree {
  void operator()(GError* error) const { g_error_free(error); }
};
using Connection = std::unique_ptr<GDBusConnection, ObjectUnref>;
using Variant = std::unique_ptr<GVariant, VariantUnref>;
using Error = std::unique_ptr<GError, ErrorFree>;

Connection connect(const std::string& busAddress, Error& error) {
  GError* raw = nullptr;
  GDBusConnection* connection = nullptr;
  if (busAddress.empty()) {
    connection = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, &raw);
  } else {
    connection = g_dbus_connection_new_for_address_sync(
        busAddress.c_str(),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, &raw);
  }
  error.reset(raw);
  return Connection(connection);
}

Variant call(GDBusConnection* connection, const char* service, const char* path, const char* interface,
             const char* method, GVariant* parameters, const char* replyType, Error& error) {
  GError* raw = nullptr;
  GVariant* reply = g_dbus_connection_call_sync(connection, service, path, interface, method, parameters,
                                                G_VARIANT_TYPE(replyType), G_DBUS_CALL_FLAGS_NO_AUTO_START,
                                                kNetworkManagerCallTimeoutMilliseconds, nullptr, &raw);
  error.reset(raw);
  return Variant(reply);
}

}  // namespace

int requestNetworkManagerScan(const std::string& ifname, const std::string& busAddress) {
  Logger& logger = Logger::getLogger("WPS.SPI.Nl80211Driver");
  Error error;
  Connection connection = connect(busAddress, error);
  if (!connection) {
    logger.debug("no D-Bus system bus: %s", error ? error->message : "?");
    return ENOENT;
  }

  Variant owned = call(connection.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                       "NameHasOwner", g_variant_new("(s)", kNetworkManagerService), "(b)", error);
  if (!owned) {
    logger.debug("NameHasOwner failed: %s", error->message);
    return EIO;
  }
  gboolean running = FALSE;
  g_variant_get(owned.get(), "(b)", &running);
  if (!running) {
    logger.debug("NetworkManager is not running");
    return ENOENT;
  }

  Variant device = call(connection.get(), kNetworkManagerService, kNetworkManagerPath, kNetworkManagerService,
                        "GetDeviceByIpIface", g_variant_new("(s)", ifname.c_str()), "(o)", error);
  if (!device) {
    logger.debug("NetworkManager knows no device %s: %s", ifname.c_str(), error->message);
    return ENOENT;
  }
  const gchar* path = nullptr;
  g_variant_get(device.get(), "(&o)", &path);

  GVariantBuilder options;
  g_variant_builder_init(&options, G_VARIANT_TYPE("a{sv}"));
  Variant done = call(connection.get(), kNetworkManagerService, path, kNetworkManagerWirelessInterface,
                      "RequestScan", g_variant_new("(a{sv})", &options), "()", error);
  if (!done) {
    logger.debug("NetworkManager RequestScan on %s refused: %s", ifname.c_str(), error->message);
    return EIO;
  }
  logger.debug("NetworkManager scans on %s", ifname.c_str());
  return 0;
}

}  // namespace SPI
}  // namespace WPS
