#include "platform/sleep_watcher.h"

#include <gio/gio.h>
#include <gtest/gtest.h>

#include "platform/run_loop.h"
#include "platform/testing/test_bus.h"

namespace zonara {
namespace {

using namespace std::chrono_literals;

// A stand-in for logind on a private bus: owns its name and emits
// PrepareForSleep.
class FakeLogind {
 public:
  explicit FakeLogind(const std::string& address) {
    std::string error;
    bus_ = DBusConnection::openAddress(address, &error);
    EXPECT_TRUE(bus_) << error;
    GVariant* reply = g_dbus_connection_call_sync(
        bus_->get(), "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "RequestName",
        g_variant_new("(su)", "org.freedesktop.login1", 4u), G_VARIANT_TYPE("(u)"), G_DBUS_CALL_FLAGS_NONE, -1,
        nullptr, nullptr);
    EXPECT_TRUE(reply);
    if (reply) g_variant_unref(reply);
  }
  void prepareForSleep(bool sleeping, const char* path = "/org/freedesktop/login1") {
    g_dbus_connection_emit_signal(bus_->get(), nullptr, path, "org.freedesktop.login1.Manager", "PrepareForSleep",
                                  g_variant_new("(b)", sleeping), nullptr);
    g_dbus_connection_flush_sync(bus_->get(), nullptr, nullptr);
  }

 private:
  std::unique_ptr<DBusConnection> bus_;
};

TEST(LogindSleepWatcher, DeliversSleepThenWake) {
  testing::TestBus testBus;
  ASSERT_TRUE(testBus.ok());
  FakeLogind logind(testBus.address());
  std::string error;
  std::unique_ptr<DBusConnection> bus = DBusConnection::openAddress(testBus.address(), &error);
  ASSERT_TRUE(bus) << error;
  std::vector<bool> events;
  {
    LogindSleepWatcher watcher(*bus, [&](bool sleeping) { events.push_back(sleeping); });
    // Make sure the match rule is in place before emitting.
    g_dbus_connection_flush_sync(bus->get(), nullptr, nullptr);
    GVariant* ping = g_dbus_connection_call_sync(bus->get(), "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                                 "org.freedesktop.DBus.Peer", "Ping", nullptr, nullptr,
                                                 G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
    if (ping) g_variant_unref(ping);
    logind.prepareForSleep(true);
    logind.prepareForSleep(false, "/elsewhere");  // not logind's manager object
    logind.prepareForSleep(false);
    ASSERT_TRUE(RunLoop::main().runUntil([&] { return events.size() >= 2; }, 3s));
    (void)RunLoop::main().runUntil([] { return false; }, 100ms);
    EXPECT_EQ(events, (std::vector<bool>{true, false}));
  }
  // Gone: no more calls.
  logind.prepareForSleep(true);
  (void)RunLoop::main().runUntil([] { return false; }, 100ms);
  EXPECT_EQ(events.size(), 2u);
}

}  // namespace
}  // namespace zonara
