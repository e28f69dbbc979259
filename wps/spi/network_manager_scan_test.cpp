#include "wps/spi/network_manager_scan.h"

#include <gio/gio.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>

namespace WPS {
namespace SPI {
namespace {

const char* kIntrospection =
    "<node>"
    "<interface name='org.freedesktop.NetworkManager'>"
    "<method name='GetDeviceByIpIface'><arg type='s' direction='in'/><arg type='o' direction='out'/></method>"
    "</interface>"
    "<interface name='org.freedesktop.NetworkManager.Device.Wireless'>"
    "<method name='RequestScan'><arg type='a{sv}' direction='in'/></method>"
    "</interface>"
    "</node>";

// NetworkManager as far as the scan request needs it, served from a thread of
// its own: one wireless device "wlan0".
class FakeNetworkManager {
 public:
  explicit FakeNetworkManager(const std::string& address) : address_(address) {
    thread_ = std::thread([this] { run(); });
    std::unique_lock<std::mutex> lock(mu_);
    cv_.wait(lock, [this] { return ready_; });
  }
  ~FakeNetworkManager() {
    g_main_loop_quit(loop_);
    thread_.join();
  }
  bool serving() const { return serving_; }
  int scans() {
    std::lock_guard<std::mutex> lock(mu_);
    return scans_;
  }
  std::string lastOptionsType() {
    std::lock_guard<std::mutex> lock(mu_);
    return optionsType_;
  }
  void refuseScans() {
    std::lock_guard<std::mutex> lock(mu_);
    refuse_ = true;
  }

 private:
  static void onCall(GDBusConnection*, const gchar*, const gchar* path, const gchar* interface, const gchar* method,
                     GVariant* parameters, GDBusMethodInvocation* invocation, gpointer data) {
    auto* self = static_cast<FakeNetworkManager*>(data);
    std::string name = method;
    if (name == "GetDeviceByIpIface") {
      const gchar* ifname = nullptr;
      g_variant_get(parameters, "(&s)", &ifname);
      if (std::string(ifname) == "wlan0") {
        g_dbus_method_invocation_return_value(invocation,
                                              g_variant_new("(o)", "/org/freedesktop/NetworkManager/Devices/3"));
      } else {
        g_dbus_method_invocation_return_dbus_error(invocation, "org.freedesktop.NetworkManager.UnknownDevice",
                                                   "No device found for the requested iface.");
      }
      return;
    }
    if (name == "RequestScan" && std::string(path) == "/org/freedesktop/NetworkManager/Devices/3" &&
        std::string(interface) == kNetworkManagerWirelessInterface) {
      std::lock_guard<std::mutex> lock(self->mu_);
      self->optionsType_ = g_variant_get_type_string(parameters);
      if (self->refuse_) {
        g_dbus_method_invocation_return_dbus_error(invocation, "org.freedesktop.NetworkManager.Device.NotAllowed",
                                                   "Scanning not allowed immediately following previous scan");
        return;
      }
      ++self->scans_;
      g_dbus_method_invocation_return_value(invocation, nullptr);
      return;
    }
    g_dbus_method_invocation_return_dbus_error(invocation, "org.freedesktop.DBus.Error.UnknownMethod", method);
  }

  void run() {
    GMainContext* context = g_main_context_new();
    g_main_context_push_thread_default(context);
    loop_ = g_main_loop_new(context, FALSE);
    GDBusConnection* connection = g_dbus_connection_new_for_address_sync(
        address_.c_str(),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, nullptr);
    GDBusNodeInfo* info = g_dbus_node_info_new_for_xml(kIntrospection, nullptr);
    static const GDBusInterfaceVTable vtable = {&FakeNetworkManager::onCall, nullptr, nullptr, {}};
    if (connection != nullptr && info != nullptr) {
      bool registered =
          g_dbus_connection_register_object(connection, kNetworkManagerPath, info->interfaces[0], &vtable, this,
                                            nullptr, nullptr) > 0 &&
          g_dbus_connection_register_object(connection, "/org/freedesktop/NetworkManager/Devices/3",
                                            info->interfaces[1], &vtable, this, nullptr, nullptr) > 0;
      GVariant* reply = g_dbus_connection_call_sync(
          connection, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "RequestName",
          g_variant_new("(su)", kNetworkManagerService, 4u), G_VARIANT_TYPE("(u)"), G_DBUS_CALL_FLAGS_NONE, 2000,
          nullptr, nullptr);
      if (reply != nullptr) {
        guint32 result = 0;
        g_variant_get(reply, "(u)", &result);
        serving_ = registered && result == 1;
        g_variant_unref(reply);
      }
    }
    {
      std::lock_guard<std::mutex> lock(mu_);
      ready_ = true;
    }
    cv_.notify_all();
    g_main_loop_run(loop_);
    if (connection != nullptr) {
      g_dbus_connection_close_sync(connection, nullptr, nullptr);
      g_object_unref(connection);
    }
    if (info != nullptr) g_dbus_node_info_unref(info);
    g_main_loop_unref(loop_);
    g_main_context_pop_thread_default(context);
    g_main_context_unref(context);
  }

  std::string address_;
  std::thread thread_;
  GMainLoop* loop_ = nullptr;
  std::mutex mu_;
  std::condition_variable cv_;
  bool ready_ = false;
  bool serving_ = false;
  bool refuse_ = false;
  int scans_ = 0;
  std::string optionsType_;
};

// A private dbus-daemon for the length of a test (GLib's test bus: it has
// no service files, so nothing is ever activated on it).
class PrivateBus {
 public:
  PrivateBus() : bus_(g_test_dbus_new(G_TEST_DBUS_NONE)) { g_test_dbus_up(bus_); }
  ~PrivateBus() {
    g_test_dbus_down(bus_);
    g_object_unref(bus_);
  }
  PrivateBus(const PrivateBus&) = delete;
  PrivateBus& operator=(const PrivateBus&) = delete;

  // Empty when the daemon could not be started.
  [[nodiscard]] std::string address() const {
    const char* address = g_test_dbus_get_bus_address(bus_);
    return address ? address : "";
  }

 private:
  GTestDBus* bus_;
};

class NetworkManagerScanTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (bus_.address().empty()) GTEST_SKIP() << "no dbus-daemon";
  }
  PrivateBus bus_;
};

TEST_F(NetworkManagerScanTest, NotRunningIsNoEntry) {
  EXPECT_EQ(requestNetworkManagerScan("wlan0", bus_.address()), ENOENT);
}

TEST_F(NetworkManagerScanTest, RequestsAScanOnTheNamedDevice) {
  FakeNetworkManager nm(bus_.address());
  ASSERT_TRUE(nm.serving());
  EXPECT_EQ(requestNetworkManagerScan("wlan0", bus_.address()), 0);
  EXPECT_EQ(nm.scans(), 1);
  EXPECT_EQ(nm.lastOptionsType(), "(a{sv})");
}

TEST_F(NetworkManagerScanTest, UnknownDeviceIsNoEntry) {
  FakeNetworkManager nm(bus_.address());
  ASSERT_TRUE(nm.serving());
  EXPECT_EQ(requestNetworkManagerScan("wlan9", bus_.address()), ENOENT);
  EXPECT_EQ(nm.scans(), 0);
}

TEST_F(NetworkManagerScanTest, RefusedScanIsAnError) {
  FakeNetworkManager nm(bus_.address());
  ASSERT_TRUE(nm.serving());
  nm.refuseScans();
  EXPECT_EQ(requestNetworkManagerScan("wlan0", bus_.address()), EIO);
  EXPECT_EQ(nm.scans(), 0);
}

TEST(NetworkManagerScanNoBusTest, UnreachableBusIsNoEntry) {
  EXPECT_EQ(requestNetworkManagerScan("wlan0", "unix:path=/nonexistent/zonara-bus"), ENOENT);
}

}  // namespace
}  // namespace SPI
}  // namespace WPS
