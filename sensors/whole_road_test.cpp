// The helper's whole road in one process: the controller with its real
// services on a private session bus (with a stand-in desktop notification
// service), location sensing over the real network watcher, a loopback
// IP-location page and time-zone service, and a set-time-zone command that
// records what it is asked -- in virtual time. The positioning library is a
// scripted one that finds nothing, so the position comes from the page.
#include <date/date.h>
#include <gio/gio.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "app/app_controller.h"
#include "app/zonara_application.h"
#include "platform/system_log.h"
#include "platform/testing/http_test_server.h"
#include "platform/testing/fakes.h"
#include "platform/testing/test_bus.h"
#include "sensors/location_sensing.h"
#include "sensors/sensor_test_support.h"

using namespace std::chrono_literals;
namespace fs = std::filesystem;

namespace zonara {
namespace {

using testing::HttpRequest;
using testing::HttpResponse;

// org.freedesktop.Notifications on the bus, recording "summary|body".
class FakeNotificationService {
 public:
  explicit FakeNotificationService(DBusConnection& bus) : bus_(bus) {
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
          const gchar *app, *icon, *summary, *body;
          guint32 replaces;
          gint32 timeout;
          g_variant_get(p, "(&su&s&s&s^a&s@a{sv}i)", &app, &replaces, &icon, &summary, &body, nullptr, nullptr,
                        &timeout);
          static_cast<FakeNotificationService*>(data)->received.push_back(std::string(summary) + "|" + body);
          g_dbus_method_invocation_return_value(invocation, g_variant_new("(u)", 1u));
        },
        nullptr, nullptr, {nullptr}};
    g_dbus_connection_register_object(bus_.get(), "/org/freedesktop/Notifications", node_->interfaces[0], &vtable,
                                      this, nullptr, nullptr);
    GVariant* r = g_dbus_connection_call_sync(bus_.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                              "org.freedesktop.DBus", "RequestName",
                                              g_variant_new("(su)", "org.freedesktop.Notifications", 4u), nullptr,
                                              G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
    if (r) g_variant_unref(r);
  }
  ~FakeNotificationService() { g_dbus_node_info_unref(node_); }
  std::vector<std::string> received;

 private:
  DBusConnection& bus_;
  GDBusNodeInfo* node_;
};

std::vector<std::string> fileLines(const fs::path& p) {
  std::ifstream in(p);
  std::vector<std::string> out;
  for (std::string line; std::getline(in, line);) out.push_back(line);
  return out;
}

TEST(WholeRoad, HelperLocatesItselfAppliesTheZoneAndNotifiesOnce) {
  SetSystemLogSinkForTesting([](LogPriority, const std::string&) {});
  const fs::path root = fs::path(std::getenv("ZONARA_TEST_TMPDIR")) / "whole-road";
  fs::remove_all(root);
  fs::create_directories(root / "config");
  const fs::path tzFile = root / "timezone";
  std::ofstream(tzFile) << "UTC\n";

  testing::HttpTestServer http;
  http.setHandler([](const HttpRequest& r) {
    if (r.path() == "/app/locate_my_ip")
      return HttpResponse(200, "<table><tr><td>Latitude/Longitude</td><td class=output>48.8566/2.3522</td></tr>");
    if (r.path() == "/timezone")
      return HttpResponse(200,
                          "<geonames><timezone><timezoneId>Europe/Paris</timezoneId><gmtOffset>1</gmtOffset>"
                          "<dstOffset>2</dstOffset></timezone></geonames>");
    return HttpResponse(404, "");
  });

  PreferencesDomain prefs(AppController::kServerName, (root / "config").string());
  prefs.setValue("TimezoneServiceURL", PrefValue::string(http.url()));
  prefs.setValue("IPLocationURL", PrefValue::string(http.url()));
  prefs.setValue("ReachabilityHost", PrefValue::string("localhost"));
  const std::string script = "printf '%s\\n' \"$1\" >> '" + (root / "commands").string() + "' && printf '%s\\n' \"$1\" > '" +
                             tzFile.string() + "'";
  prefs.setValue("SetTimezoneCommand", PrefValue::array({PrefValue::string("/bin/sh"), PrefValue::string("-c"),
                                                         PrefValue::string(script), PrefValue::string("set")}));
  ASSERT_TRUE(prefs.synchronize());

  VirtualClock clock(Clock::WallTime(date::sys_days(date::year(2026) / 1 / 15).time_since_epoch()));
  ScopedClock installed(clock);
  testing::TestBus bus;
  ASSERT_TRUE(bus.ok());
  auto helperBus = DBusConnection::openAddress(bus.address(), nullptr);
  auto serviceBus = DBusConnection::openAddress(bus.address(), nullptr);
  ASSERT_TRUE(helperBus && serviceBus);
  FakeNotificationService service(*serviceBus);

  ZonaraApplication application(RunLoop::main());
  NotificationCenter center;
  DBusDistributedNotificationCenter distributed(*helperBus);
  DBusNameServer server(*helperBus, AppController::kServerName);
  FreedesktopNotifier notifier(*helperBus, "Zonara");
  SubprocessCommandRunner runner;
  testing::FakeWorkspace workspace;
  DateTzDatabase zones(tzFile.string());
  CurlHttpFetcher fetcher;
  testing::FakeLocationLibrary library;
  LinuxReachability reachability;
  std::unique_ptr<LocationSensing> sensing;

  struct Forward final : LocationSource {
    std::optional<double> currentLongitude() const override {
      return sensing && *sensing ? (*sensing)->telluroSensor().currentLongitude() : std::nullopt;
    }
    std::optional<double> currentLatitude() const override {
      return sensing && *sensing ? (*sensing)->telluroSensor().currentLatitude() : std::nullopt;
    }
    std::unique_ptr<LocationSensing>* sensing = nullptr;
  } location;
  location.sensing = &sensing;

  AppController::Services services;
  services.application = &application;
  services.runLoop = &RunLoop::main();
  services.notificationCenter = &center;
  services.distributedCenter = &distributed;
  services.server = &server;
  services.commandRunner = &runner;
  services.workspace = &workspace;
  services.notifier = &notifier;
  services.zones = &zones;
  services.fetcher = &fetcher;
  services.preferences = &prefs;
  services.preferencesDirectory = (root / "config").string();
  services.dataHome = (root / "data").string();
  services.location = &location;
  services.sensorAggregator = [&]() -> LocationTrigger* {
    LocationSensing::Dependencies d;
    d.library = &library;
    d.reachability = &reachability;
    d.fetcher = &fetcher;
    d.center = &center;
    d.dataFolder = (root / "data/Zonara").string();
    d.settings = LocationSensingSettings::fromPreferences(prefs, "");
    sensing = LocationSensing::create(d);
    return &sensing->aggregator();
  };
  auto controller = AppController::create(services);
  ASSERT_TRUE(controller);

  // Twenty seconds of the helper's life.
  for (int i = 0; i < 200; ++i) {
    clock.advance(100ms);
    (void)RunLoop::main().runUntil([] { return false; }, 2ms);
  }
  ASSERT_TRUE(RunLoop::main().runUntil([&] { return service.received.size() >= 2; }, 5s));
  (void)RunLoop::main().runUntil([] { return false; }, 200ms);  // a wrong third message would be here by now

  EXPECT_EQ(service.received, (std::vector<std::string>{"Zonara|Launched", "Zonara|Timezone changed to: Europe/Paris"}));
  EXPECT_EQ(fileLines(root / "commands"), std::vector<std::string>{"Europe/Paris"});
  ASSERT_TRUE(sensing);
  EXPECT_DOUBLE_EQ(*sensing->telluroSensor().currentLatitude(), 48.8566);
  EXPECT_GE(library.lookupCount(), 1u);  // the positioning library was asked first
  bool askedForTheZone = false;
  for (const HttpRequest& r : http.requests())
    askedForTheZone = askedForTheZone || (r.path() == "/timezone" && r.query().find("lat=48.8566&lng=2.3522") == 0);
  EXPECT_TRUE(askedForTheZone);

  controller.reset();
  sensing.reset();
  SetSystemLogSinkForTesting(nullptr);
}

}  // namespace
}  // namespace zonara
