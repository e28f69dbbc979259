#include "platform/sleep_watcher.h"

#include <gio/gio.h>
#include <gtest/gtest.h>

#include "platform/run_loop.h"
#include "platform/testing/fakes.h"
#include "platform/testing/test_bus.h"

namespace zonara {
namespace {

using namespace std::chrono_literals;

// A private bus with the stand-in logind, and the watcher's own connection.
class LogindSleepWatcherTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(testBus_.ok());
    std::string error;
    logindBus_ = DBusConnection::openAddress(testBus_.address(), &error);
    ASSERT_TRUE(logindBus_) << error;
    logind_ = std::make_unique<testing::FakeLogind>(*logindBus_);
    ASSERT_TRUE(logind_->ok());
    bus_ = DBusConnection::openAddress(testBus_.address(), &error);
    ASSERT_TRUE(bus_) << error;
  }

  testing::TestBus testBus_;
  std::unique_ptr<DBusConnection> logindBus_;
  std::unique_ptr<testing::FakeLogind> logind_;
  std::unique_ptr<DBusConnection> bus_;
};

TEST_F(LogindSleepWatcherTest, DeliversSleepThenWake) {
  testing::FakeLogind& logind = *logind_;
  DBusConnection* bus = bus_.get();
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

// The delay inhibitor: held from the start, still held while the coming sleep
// is handled, released right after, taken again after waking, released when
// the watcher goes.
TEST_F(LogindSleepWatcherTest, HoldsADelayInhibitorUntilTheComingSleepIsHandled) {
  testing::FakeLogind& logind = *logind_;
  DBusConnection* bus = bus_.get();
  RunLoop& loop = RunLoop::main();
  std::vector<std::string> events;
  {
    std::unique_ptr<LogindSleepWatcher> watcher;
    watcher = std::make_unique<LogindSleepWatcher>(*bus, [&](bool sleeping) {
      events.push_back(std::string(sleeping ? "sleep" : "wake") + " held=" + std::to_string(logind.held()) +
                       (watcher->holdsInhibitor() ? " holding" : ""));
    });
    ASSERT_TRUE(loop.runUntil([&] { return watcher->holdsInhibitor(); }, 5s));
    ASSERT_EQ(logind.inhibitors().size(), 1u);
    const testing::FakeLogind::Inhibitor first = logind.inhibitors()[0];
    EXPECT_EQ(first.what, "sleep");
    EXPECT_EQ(first.who, "Zonara");
    EXPECT_EQ(first.mode, "delay");
    EXPECT_FALSE(first.why.empty());
    EXPECT_EQ(logind.held(), 1u);

    ASSERT_TRUE(logind.prepareForSleep(true));
    ASSERT_TRUE(loop.runUntil([&] { return events.size() == 1; }, 5s));
    EXPECT_EQ(events[0], "sleep held=1 holding");  // handled before the machine may sleep
    EXPECT_FALSE(watcher->holdsInhibitor());
    // The bus may still hold a copy of the descriptor for a moment.
    EXPECT_TRUE(loop.runUntil([&] { return logind.held() == 0; }, 5s));

    ASSERT_TRUE(logind.prepareForSleep(false));
    ASSERT_TRUE(loop.runUntil([&] { return watcher->holdsInhibitor(); }, 5s));
    EXPECT_EQ(events, (std::vector<std::string>{"sleep held=1 holding", "wake held=0"}));
    EXPECT_EQ(logind.inhibitors().size(), 2u);
    EXPECT_EQ(logind.held(), 1u);
  }
  EXPECT_TRUE(RunLoop::main().runUntil([&] { return logind.held() == 0; }, 5s));
}

// Without logind the watcher works without an inhibitor and goes quietly.
TEST_F(LogindSleepWatcherTest, WithoutLogindThereIsNoInhibitor) {
  logind_.reset();
  logindBus_.reset();  // the name goes with the connection
  auto watcher = std::make_unique<LogindSleepWatcher>(*bus_, [](bool) {});
  (void)RunLoop::main().runUntil([] { return false; }, 200ms);
  EXPECT_FALSE(watcher->holdsInhibitor());
  watcher.reset();
  // A watcher destroyed while its request is in flight is left alone by the
  // answer.
  watcher = std::make_unique<LogindSleepWatcher>(*bus_, [](bool) {});
  watcher.reset();
  (void)RunLoop::main().runUntil([] { return false; }, 200ms);
}

}  // namespace
}  // namespace zonara
