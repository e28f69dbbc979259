#include "platform/dbus.h"

#include <gio/gio.h>
#include <gtest/gtest.h>

#include <atomic>
#include <optional>
#include <thread>

#include "platform/desktop_notifier.h"
#include "platform/run_loop.h"
#include "platform/testing/fakes.h"
#include "platform/testing/test_bus.h"

using namespace std::chrono_literals;

namespace zonara {
namespace {

class DBusTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(bus_.ok());
    std::string error;
    a_ = DBusConnection::openAddress(bus_.address(), &error);
    b_ = DBusConnection::openAddress(bus_.address(), &error);
    ASSERT_TRUE(a_ && b_) << error;
  }
  testing::TestBus bus_;
  std::unique_ptr<DBusConnection> a_, b_;
  RunLoop& loop_ = RunLoop::current();
};

TEST_F(DBusTest, DistributedNotificationsReachObserversOfTheirNameInAnyProcess) {
  DBusDistributedNotificationCenter sender(*a_), receiver(*b_);
  std::vector<DistributedNotification> got;
  std::vector<std::string> selfSeen;
  receiver.addObserver("ZonaraShutdown", [&](const DistributedNotification& n) { got.push_back(n); });
  auto other = receiver.addObserver("Other", [&](const DistributedNotification& n) { got.push_back(n); });
  sender.addObserver("ZonaraShutdown", [&](const DistributedNotification& n) { selfSeen.push_back(n.name); });
  receiver.removeObserver(other);

  sender.post({"Other", "", {}});
  sender.post({"ZonaraShutdown", "obj", {{"key", "value"}}});
  ASSERT_TRUE(loop_.runUntil([&] { return !got.empty() && !selfSeen.empty(); }, 3s));
  loop_.runUntil([] { return false; }, 50ms);  // a stray "Other" would arrive by now
  ASSERT_EQ(got.size(), 1u);
  EXPECT_EQ(got[0].name, "ZonaraShutdown");
  EXPECT_EQ(got[0].object, "obj");
  EXPECT_EQ(got[0].userInfo, (std::map<std::string, std::string>{{"key", "value"}}));
  EXPECT_EQ(selfSeen, std::vector<std::string>{"ZonaraShutdown"});
}

std::string readProperty(const std::string& address, const std::string& property, std::string* error) {
  auto c = DBusConnection::openAddress(address, error);
  if (!c) return "";
  GError* err = nullptr;
  GVariant* r = g_dbus_connection_call_sync(c->get(), "org.quillon.Test", "/", "org.freedesktop.DBus.Properties",
                                            "Get", g_variant_new("(ss)", "org.quillon.Test", property.c_str()),
                                            G_VARIANT_TYPE("(v)"), G_DBUS_CALL_FLAGS_NONE, 2000, nullptr, &err);
  if (!r) {
    *error = err->message;
    g_error_free(err);
    return "";
  }
  GVariant* v = nullptr;
  g_variant_get(r, "(v)", &v);
  std::string value = g_variant_get_string(v, nullptr);
  g_variant_unref(v);
  g_variant_unref(r);
  return value;
}

TEST_F(DBusTest, NameIsOwnedOnceAndPropertiesReadBackAndAnnounceChanges) {
  DBusNameServer first(*a_, "org.quillon.Test");
  DBusNameServer second(*b_, "org.quillon.Test");
  int reads = 0;
  ASSERT_TRUE(first.start({{"Zone", [&] { ++reads; return std::string("Europe/Paris"); }},
                           {"Where", [] { return std::string("N1.0000, W2.0000 (X)"); }}}));
  EXPECT_FALSE(second.start({{"Zone", [] { return std::string("wrong"); }}}));

  // A client on its own thread, while this thread serves.
  std::string zone, where, error;
  std::atomic<bool> done{false};
  std::thread client([&] {
    zone = readProperty(bus_.address(), "Zone", &error);
    where = readProperty(bus_.address(), "Where", &error);
    done = true;
  });
  ASSERT_TRUE(loop_.runUntil([&] { return done.load(); }, 5s));
  client.join();
  EXPECT_EQ(error, "");
  EXPECT_EQ(zone, "Europe/Paris");
  EXPECT_EQ(where, "N1.0000, W2.0000 (X)");
  EXPECT_EQ(reads, 1);

  // PropertiesChanged carries new values and invalidated names.
  std::string results[3];
  guint sub = g_dbus_connection_signal_subscribe(
      b_->get(), nullptr, "org.freedesktop.DBus.Properties", "PropertiesChanged", "/", nullptr,
      G_DBUS_SIGNAL_FLAGS_NONE,
      [](GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*, GVariant* p, gpointer data) {
        auto* out = static_cast<std::string*>(data);
        const gchar* iface;
        GVariant* changed;
        GVariantIter* inv;
        g_variant_get(p, "(&s@a{sv}as)", &iface, &changed, &inv);
        out[0] = iface;
        if (GVariant* v = g_variant_lookup_value(changed, "Zone", G_VARIANT_TYPE_STRING)) {
          out[1] = g_variant_get_string(v, nullptr);
          g_variant_unref(v);
        }
        const gchar* name;
        while (g_variant_iter_next(inv, "&s", &name)) out[2] += name;
        g_variant_iter_free(inv);
        g_variant_unref(changed);
      },
      results, nullptr);
  g_dbus_connection_call_sync(b_->get(), "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus.Peer",
                              "Ping", nullptr, nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
  first.propertiesChanged({{"Zone", "Asia/Tokyo"}}, {"Where"});
  EXPECT_TRUE(loop_.runUntil([&] { return !results[0].empty(); }, 3s));
  EXPECT_EQ(results[0], "org.quillon.Test");
  EXPECT_EQ(results[1], "Asia/Tokyo");
  EXPECT_EQ(results[2], "Where");
  g_dbus_connection_signal_unsubscribe(b_->get(), sub);
}

TEST_F(DBusTest, NameIsFreeAgainAfterTheServerGoes) {
  {
    DBusNameServer first(*a_, "org.quillon.Test");
    ASSERT_TRUE(first.start({}));
  }
  DBusNameServer second(*b_, "org.quillon.Test");
  EXPECT_TRUE(second.start({}));
}

TEST_F(DBusTest, NotificationWithoutAServiceIsDroppedSilently) {
  FreedesktopNotifier notifier(*a_, "Zonara");
  notifier.notify("Zonara", "Launched", "Zonara Launched", "");
  loop_.runUntil([] { return false; }, 100ms);  // the error reply arrives and is ignored
  SUCCEED();
}

// Methods answer their text; a refusal arrives as an error carrying the text
// alone; a method the server does not have is an error too.
TEST_F(DBusTest, MethodsAnswerOrRefuseWithTheirText) {
  DBusNameServer server(*a_, "org.quillon.Test");
  int undos = 0;
  ASSERT_TRUE(server.start({}, {{"Undo", [&] { ++undos; return BusNameServer::MethodResult{true, "done"}; }},
                                {"Refuse", [] { return BusNameServer::MethodResult{false, "nothing to undo"}; }}}));
  std::optional<std::string> done, refused, missing;
  std::string refusal, absence;
  std::atomic<bool> finished{false};
  std::thread client([&] {
    std::string error;
    std::unique_ptr<DBusConnection> c = DBusConnection::openAddress(bus_.address(), &error);
    if (c) {
      done = c->callStringMethod("org.quillon.Test", "Undo", 5s);
      refused = c->callStringMethod("org.quillon.Test", "Refuse", 5s, &refusal);
      missing = c->callStringMethod("org.quillon.Test", "Other", 5s, &absence);
    }
    finished = true;
  });
  ASSERT_TRUE(loop_.runUntil([&] { return finished.load(); }, 10s));
  client.join();
  EXPECT_EQ(done, "done");
  EXPECT_EQ(undos, 1);
  EXPECT_EQ(refused, std::nullopt);
  EXPECT_EQ(refusal, "nothing to undo");
  EXPECT_EQ(missing, std::nullopt);
  EXPECT_FALSE(absence.empty());
}

// A message shown with actions hears of the one the user chose, once; a
// message without a handler, or another message's action, reaches nobody.
TEST_F(DBusTest, TheChosenActionOfAMessageReachesItsHandlerOnce) {
  testing::FakeNotificationService service(*b_);
  FreedesktopNotifier notifier(*a_, "Zonara");
  std::vector<std::string> chosen;
  notifier.show("Zonara", "Timezone changed to: Asia/Tokyo", "Timezone changed", "", {{"undo", "Undo"}},
                [&](const std::string& key) { chosen.push_back("tokyo:" + key); });
  notifier.show("Zonara", "Change time zone to Europe/Paris?", "Change timezone?", "",
                {{"change", "Change"}, {"keep", "Keep"}},
                [&](const std::string& key) { chosen.push_back("paris:" + key); });
  notifier.notify("Zonara", "Launched", "Zonara Launched", "");
  ASSERT_TRUE(loop_.runUntil([&] { return service.received.size() == 3; }, 3s));
  loop_.runUntil([] { return false; }, 50ms);  // the ids reach the notifier
  EXPECT_EQ(service.received[0].actionKeys, std::vector<std::string>{"undo"});
  EXPECT_EQ(service.received[1].actionLabels, (std::vector<std::string>{"Change", "Keep"}));
  EXPECT_TRUE(service.received[2].actionKeys.empty());

  // A signal of the same shape from another client is no choice of the user.
  g_dbus_connection_emit_signal(a_->get(), nullptr, "/org/freedesktop/Notifications", "org.freedesktop.Notifications",
                                "ActionInvoked", g_variant_new("(us)", service.received[0].id, "undo"), nullptr);
  g_dbus_connection_flush_sync(a_->get(), nullptr, nullptr);
  loop_.runUntil([] { return false; }, 50ms);
  EXPECT_TRUE(chosen.empty());

  EXPECT_TRUE(service.invokeAction(service.received[1].id, "keep"));
  EXPECT_FALSE(service.invokeAction(service.received[1].id, "change"));  // closed
  EXPECT_FALSE(service.invokeAction(service.received[2].id, "undo"));
  EXPECT_TRUE(service.invokeAction(0, "undo"));
  ASSERT_TRUE(loop_.runUntil([&] { return chosen.size() == 2; }, 3s));
  loop_.runUntil([] { return false; }, 50ms);  // nothing more arrives
  EXPECT_EQ(chosen, (std::vector<std::string>{"paris:keep", "tokyo:undo"}));
}

}  // namespace
}  // namespace zonara
