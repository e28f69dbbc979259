#include "app/app_controller.h"

#include <date/date.h>
#include <gio/gio.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "app/notification_controller.h"
#include "app/testing/helper_services.h"
#include "app/zonara_application.h"
#include "platform/system_log.h"
#include "platform/testing/fakes.h"
#include "platform/testing/system_log_capture.h"
#include "platform/testing/test_bus.h"
#include "timezone/testing/built_boundary_file.h"
#include "wps/spi/simulated_clock.h"
#include "wps/spi/testing/http_test_server.h"
#include "wps/spi/testing/temp_dir.h"

using namespace std::chrono_literals;
namespace fs = std::filesystem;

namespace zonara {
namespace {

using testing::HttpRequest;
using testing::HttpResponse;
using testing::HttpTestServer;
using testing::FakeNotificationService;
using testing::FakeWorkspace;

std::string zoneReply(const std::string& id, const std::string& gmt, const std::string& dst) {
  return "<geonames><timezone><timezoneId>" + id + "</timezoneId><gmtOffset>" + gmt + "</gmtOffset><dstOffset>" +
         dst + "</dstOffset></timezone></geonames>";
}

// ---------------------------------------------------------------------------
// Doubles for the services that cannot be real here.

class FakeLocation final : public LocationSource {
 public:
  std::optional<double> currentLongitude() const override { return longitude; }
  std::optional<double> currentLatitude() const override { return latitude; }
  std::optional<PositionQuality> currentQuality() const override {
    return latitude ? std::optional<PositionQuality>(quality) : std::nullopt;
  }
  void set(double lat, double lon, PositionQuality q = {30, PositionSource::PositioningServer}) {
    latitude = lat;
    longitude = lon;
    quality = q;
  }
  std::optional<double> longitude, latitude;
  PositionQuality quality;
};

// A VPN as a test sets it, counting the questions.
class FakeVpn final : public VpnDetector {
 public:
  std::optional<std::string> activeVpn() override {
    ++asked;
    return vpn;
  }
  std::optional<std::string> vpn;
  std::atomic<int> asked{0};
};

class FakeTrigger final : public LocationTrigger {
 public:
  void triggerNotification() override { triggeredAt.push_back(Clock::get().now().time_since_epoch()); }
  std::vector<Clock::Duration> triggeredAt;
};

// ---------------------------------------------------------------------------
// A helper wired to real files, a real command, a real zone database and a
// loopback time-zone service; the present is 15 January 2026, the system zone
// is UTC and the set-time-zone command really changes it.

class AppControllerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    prefs_->setValue("TimezoneServiceURL", PrefValue::string(http_.url()));
    ASSERT_TRUE(prefs_->synchronize());
    http_.setHandler([](const HttpRequest& r) {
      if (r.query().find("lat=-33.9&") != std::string::npos) return HttpResponse(200, zoneReply("Australia/Sydney", "10", "11"));
      if (r.query().find("lat=35.7&") != std::string::npos) return HttpResponse(200, zoneReply("Asia/Tokyo", "9", "9"));
      return HttpResponse(200, zoneReply("Europe/Paris", "1", "2"));
    });
  }

  AppController::Services services() {
    AppController::Services s = helper_.services();
    s.location = &location_;
    s.sensorAggregator = [this] { return &trigger_; };
    return s;
  }
  std::unique_ptr<AppController> start() {
    auto c = AppController::create(services());
    EXPECT_TRUE(c);
    return c;
  }
  std::vector<std::string> commands() { return helper_.commands(); }
  // Lets the controller's look-ups finish and their outcomes reach the main
  // loop (the worker's pauses move virtual time by themselves).
  static void settle(AppController& controller) {
    ASSERT_TRUE(RunLoop::main().runUntil([&] { return !controller.lookupInProgress(); }, 10s));
    while (RunLoop::main().runOnce()) {
    }
  }
  // A new position, and the controller's look-up of it.
  void locateAt(AppController& controller, double lat, double lon) {
    location_.set(lat, lon);
    center_.post(kSensorNotification);
    settle(controller);
  }
  bool logged(const std::string& m) { return log_.has(m); }
  // Moves virtual time on by `step`s, running what falls due.
  void advance(Clock::Duration total, Clock::Duration step) {
    for (Clock::Duration done{0}; done < total; done += step) {
      clock_.advance(step);
      while (RunLoop::main().runOnce()) {
      }
    }
  }
  void setCalendar(std::optional<bool> support) {
    PreferencesDomain ical(AppController::kCalendarDomain, (root_ / "config").string());
    if (support) ical.setValue("TimeZone support enabled", PrefValue::boolean(*support));
    ical.setValue("Other", PrefValue::string("kept"));
    ASSERT_TRUE(ical.synchronize());
  }
  std::optional<std::string> calendarZone() {
    PreferencesDomain ical(AppController::kCalendarDomain, (root_ / "config").string());
    auto v = ical.copyValue("lastViewsTimeZone");
    return v ? std::optional(v->asString()) : std::nullopt;
  }

  testing::SystemLogCapture log_;
  WPS::SPI::SimulatedClock clock_{Clock::WallTime(date::sys_days(date::year(2026) / 1 / 15).time_since_epoch())};
  WPS::SPI::ScopedClock installed_{clock_};
  testing::TempDir scratch_{"app-controller-"};
  const fs::path root_ = scratch_.path();
  testing::HelperServices helper_{scratch_.path()};
  const fs::path tzFile_ = helper_.timezoneFile();
  PreferencesDomain* const prefs_ = &helper_.preferences;
  HttpTestServer http_;
  ZonaraApplication& application_ = helper_.application;
  NotificationCenter& center_ = helper_.center;
  testing::InProcessDistributedNotificationCenter& distributed_ = helper_.distributed;
  testing::FakeBusNameServer& server_ = helper_.server;
  FakeWorkspace& workspace_ = helper_.workspace;
  testing::RecordingDesktopNotifier& notifier_ = helper_.notifier;
  FakeLocation location_;
  FakeTrigger trigger_;
};

TEST_F(AppControllerTest, StartUpMakesFoldersObservesAndSchedulesItsSteps) {
  auto controller = start();
  EXPECT_TRUE(fs::is_directory(root_ / "data/Zonara/Telluro Cache"));
  EXPECT_EQ(distributed_.observerCount(), 2u);  // shutdown, preferences changed
  EXPECT_TRUE(server_.properties.count("DetectedTimezone") && server_.properties.count("CurrentLocation"));
  EXPECT_EQ(notifier_.shown, std::vector<std::string>{});  // not inside start-up itself

  RunLoop::main().runOnce();  // first pass
  EXPECT_TRUE(controller->notificationController());
  EXPECT_EQ(notifier_.shown, std::vector<std::string>{"Zonara|Launched|Zonara Launched|Zonara.png"});
  EXPECT_EQ(controller->sensorAggregator(), nullptr);

  RunLoop::main().runUntilNoTimers();
  EXPECT_EQ(controller->sensorAggregator(), &trigger_);
  EXPECT_EQ(trigger_.triggeredAt, std::vector<Clock::Duration>{3500ms});

  // Existing folders are left alone, quietly.
  log_.clear();
  auto again = std::make_unique<testing::FakeBusNameServer>();
  auto s = services();
  s.server = again.get();
  EXPECT_TRUE(AppController::create(s));
  EXPECT_TRUE(log_.empty());
}

TEST_F(AppControllerTest, WithoutTheBusNameTheHelperIsInert) {
  server_.refuse = true;
  EXPECT_EQ(AppController::create(services()), nullptr);
  EXPECT_TRUE(logged("unable to start ZonaraHelper server"));
  EXPECT_EQ(distributed_.observerCount(), 0u);
  center_.post(kSensorNotification);
  RunLoop::main().runUntilNoTimers();
  EXPECT_TRUE(notifier_.shown.empty());
  EXPECT_EQ(http_.requestCount(), 0u);
}

// A client that sees the name may ask the helper to quit at once, so the
// shutdown observer must be in place when the name is taken -- for the
// running helper, and only for it.
TEST_F(AppControllerTest, TheShutdownObserverIsInPlaceWhenTheNameIsTaken) {
  class WatchingServer final : public BusNameServer {
   public:
    explicit WatchingServer(testing::InProcessDistributedNotificationCenter& center, bool refuse)
        : center_(center), refuse_(refuse) {}
    using BusNameServer::start;
    bool start(const std::map<std::string, PropertyGetter>&, const std::map<std::string, MethodHandler>&) override {
      observersAtStart = center_.observerCount();
      return !refuse_;
    }
    void propertiesChanged(const std::map<std::string, std::string>&, const std::vector<std::string>&) override {}
    size_t observersAtStart = 99;

   private:
    testing::InProcessDistributedNotificationCenter& center_;
    bool refuse_;
  };
  for (bool refuse : {false, true}) {
    WatchingServer server(distributed_, refuse);
    auto s = services();
    s.server = &server;
    auto controller = AppController::create(s);
    EXPECT_EQ(controller != nullptr, !refuse);
    EXPECT_EQ(server.observersAtStart, 1u) << refuse;
    EXPECT_EQ(distributed_.observerCount(), refuse ? 0u : 2u) << refuse;
  }
}

TEST_F(AppControllerTest, ShutdownEndsTheApplicationBeforeTheFirstCheck) {
  auto controller = start();
  RunLoop::main().performAfterDelay(0ms, [&] { distributed_.post({kShutdownNotification, "", {}}); });
  application_.run();  // returns only through terminate
  EXPECT_TRUE(trigger_.triggeredAt.empty());
  EXPECT_LT(clock_.elapsed(), 500ms);
}

TEST_F(AppControllerTest, FoundTimezoneAppliesOnlyRealChanges) {
  auto controller = start();
  int changes = 0;
  controller->addDetectedTimezoneObserver([&] { ++changes; });
  struct Case {
    std::optional<std::string> found;
    std::vector<std::string> commandsAfter;  // the set-time-zone command's arguments so far
    int changesAfter;
    std::optional<std::string> detectedAfter;
  };
  const std::vector<Case> cases = {
      {std::nullopt, {}, 0, std::nullopt},
      {"UTC", {}, 0, "UTC"},  // equal to the system zone: remembered only
      {"Europe/Paris", {"Europe/Paris"}, 1, "Europe/Paris"},
      {"Europe/Paris", {"Europe/Paris"}, 1, "Europe/Paris"},  // the system is on Paris now
      // Unknown: the command runs, but the system cannot be on it, so
      // nothing is stored or announced, and it is not tried again.
      {"Mars/Olympus", {"Europe/Paris", "Mars/Olympus"}, 1, "Europe/Paris"},
      {"Mars/Olympus", {"Europe/Paris", "Mars/Olympus"}, 1, "Europe/Paris"},
  };
  for (const Case& c : cases) {
    controller->foundTimezone(c.found);
    EXPECT_EQ(commands(), c.commandsAfter) << c.found.value_or("nil");
    EXPECT_EQ(changes, c.changesAfter) << c.found.value_or("nil");
    EXPECT_EQ(controller->detectedTimezone(), c.detectedAfter) << c.found.value_or("nil");
  }
  EXPECT_EQ(distributed_.posted, std::vector<std::string>(1, AppController::kClockNotification));
  EXPECT_EQ(server_.events, (std::vector<std::string>{"DetectedTimezone=Europe/Paris"}));
  EXPECT_TRUE(logged("called foundTimezone: (null)"));
  EXPECT_TRUE(logged("just going to set the ivar to UTC"));
  EXPECT_TRUE(logged("reading ivar as UTC"));
  EXPECT_TRUE(logged("setDetectedTimezone: Mars/Olympus"));
  EXPECT_TRUE(logged("timezone = (null)"));
  EXPECT_TRUE(logged("requesting detectedTimezone... returning Europe/Paris"));
}

TEST_F(AppControllerTest, SetTimezoneCommandComesFromPreferencesOrDefault) {
  auto controller = start();
  EXPECT_EQ(controller->setTimezoneCommand().front(), "/bin/sh");
  for (const PrefValue& bad : {PrefValue::string("/bin/true"), PrefValue::array({}),
                               PrefValue::array({PrefValue::string("/bin/echo"), PrefValue::integer(3)})}) {
    prefs_->setValue("SetTimezoneCommand", bad);
    EXPECT_EQ(controller->setTimezoneCommand(), AppController::defaultSetTimezoneCommand());
  }
  prefs_->removeValue("SetTimezoneCommand");
  EXPECT_EQ(controller->setTimezoneCommand(),
            (std::vector<std::string>{"/usr/bin/timedatectl", "--no-ask-password", "set-timezone"}));
}

TEST_F(AppControllerTest, CalendarIsBroughtOverOnlyWhenItsTimeZoneSupportIsOn) {
  auto controller = start();
  workspace_.apps = {{100, "com.apple.iCal", "iCal"}, {150, "org.other", "other"}, {200, "com.apple.iCal", "iCal"}};
  workspace_.onEvent = [&] { return " at " + std::to_string(clock_.elapsed().count()) + " zone " + calendarZone().value_or("-"); };

  // Absent, then off: nothing touched.
  controller->setDetectedTimezone("Europe/Paris");
  EXPECT_FALSE(fs::exists(root_ / "config/com.apple.iCal.plist"));
  setCalendar(false);
  controller->setDetectedTimezone("Europe/Berlin");
  EXPECT_EQ(calendarZone(), std::nullopt);
  EXPECT_TRUE(workspace_.events.empty());

  // On and running: the last matching one quits, 1 s passes, the preference
  // is written, the calendar comes back.
  setCalendar(true);
  controller->setDetectedTimezone("Asia/Tokyo");
  EXPECT_EQ(workspace_.events, (std::vector<std::string>{"quit 200 at 0 zone -", "launch iCal at 1000 zone Asia/Tokyo"}));
  EXPECT_EQ(calendarZone(), "Asia/Tokyo");
  PreferencesDomain ical(AppController::kCalendarDomain, (root_ / "config").string());
  EXPECT_EQ(ical.copyValue("Other")->asString(), "kept");

  // On and not running: written, nothing launched, no wait.
  workspace_.apps.clear();
  workspace_.events.clear();
  controller->setDetectedTimezone("America/Lima");
  EXPECT_EQ(calendarZone(), "America/Lima");
  EXPECT_TRUE(workspace_.events.empty());
  EXPECT_EQ(clock_.elapsed(), 1000ms);
  EXPECT_EQ(commands(), (std::vector<std::string>{"Europe/Paris", "Europe/Berlin", "Asia/Tokyo", "America/Lima"}));
}

TEST_F(AppControllerTest, PositionsNearZeroZeroAreNotLookedUp) {
  auto controller = start();
  struct Case {
    std::optional<double> lat, lon;
    bool lookedUp;
  };
  const std::vector<Case> cases = {{0.4, 0.7, false},    {0.4, 12.0, true},     {-0.9, -0.99, false}, {12.0, 0.4, true},
                                   {std::nullopt, 5, false}, {5, std::nullopt, false}, {-1.0, 0.0, true}};
  for (const Case& c : cases) {
    http_.clearRequests();
    server_.events.clear();
    location_.latitude = c.lat;
    location_.longitude = c.lon;
    center_.post(kSensorNotification);
    settle(*controller);
    EXPECT_EQ(http_.requestCount(), c.lookedUp ? 1u : 0u) << c.lat.value_or(-99) << "," << c.lon.value_or(-99);
    // Every look-up announces that the location description changed.
    EXPECT_EQ(std::count(server_.events.begin(), server_.events.end(), "CurrentLocation?"), c.lookedUp ? 1 : 0);
  }
  EXPECT_EQ(http_.requests().front().query(), "lat=-1&lng=0&style=full");
  EXPECT_TRUE(logged("foundtimezone for (0.4, 12) = Europe/Paris"));
  EXPECT_EQ(commands(), std::vector<std::string>{"Europe/Paris"});  // applied once, confirmed after
}

// A position from the IP address is not used while a VPN carries the default
// route, unless the user trusts it; positions from access points always are.
TEST_F(AppControllerTest, IPPositionsAreNotUsedWhileAVpnCarriesTheDefaultRoute) {
  struct Case {
    const char* name;
    PositionSource source;
    bool vpnUp;
    std::optional<bool> trust;  // TrustIPLocationOverVPN, absent: the default
    bool used;
  };
  const Case cases[] = {
      {"IP, no VPN", PositionSource::IPAddress, false, std::nullopt, true},
      {"IP, VPN", PositionSource::IPAddress, true, std::nullopt, false},
      {"IP, VPN, not trusted", PositionSource::IPAddress, true, false, false},
      {"IP, VPN, trusted", PositionSource::IPAddress, true, true, true},
      {"server, VPN", PositionSource::PositioningServer, true, std::nullopt, true},
      {"tiles, VPN", PositionSource::DeviceTiles, true, std::nullopt, true},
      {"learned, VPN", PositionSource::LearnedPlaces, true, std::nullopt, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    FakeVpn vpn;
    if (c.vpnUp) vpn.vpn = "tun0, a tun interface";
    if (c.trust) {
      prefs_->setValue("TrustIPLocationOverVPN", PrefValue::boolean(*c.trust));
    } else {
      prefs_->removeValue("TrustIPLocationOverVPN");
    }
    AppController::Services s = services();
    s.vpn = &vpn;
    auto controller = AppController::create(s);
    ASSERT_TRUE(controller);
    http_.clearRequests();
    log_.clear();
    location_.set(35.7, 139.7, {20000, c.source});
    center_.post(kSensorNotification);
    settle(*controller);
    EXPECT_EQ(http_.requestCount(), c.used ? 1u : 0u);
    EXPECT_EQ(log_.contains("not using the position from the IP address: a VPN carries the default route (tun0, "
                            "a tun interface)"),
              !c.used);
    // Only positions from the IP address make the helper ask.
    EXPECT_EQ(vpn.asked.load(), c.source == PositionSource::IPAddress && c.trust != true ? 1 : 0);
  }
  EXPECT_EQ(commands(), std::vector<std::string>{"Asia/Tokyo"});
}

// "ZonaraPreferencesChanged": what another process wrote is read at once,
// location sensing is told, the current position is decided again (not for
// "ZonaraEnabled" alone) and a new "RecheckMinutes" counts from the last
// look-up.
TEST_F(AppControllerTest, ChangedPreferencesAreReadAtOnce) {
  FakeVpn vpn;
  vpn.vpn = "wg0, a wireguard interface";
  int reloaded = 0;
  int lookedAgain = 0;
  AppController::Services s = services();
  s.vpn = &vpn;
  s.preferencesReloaded = [&] { ++reloaded; };
  s.lookAgain = [&] { ++lookedAgain; };
  auto controller = AppController::create(s);
  ASSERT_TRUE(controller);
  advance(4s, 100ms);  // the sensors are set up, the first trigger asked for
  ASSERT_EQ(trigger_.triggeredAt.size(), 1u);

  location_.set(35.7, 139.7, {20000, PositionSource::IPAddress});
  center_.post(kSensorNotification);
  settle(*controller);
  EXPECT_TRUE(commands().empty());

  // Another process (`zonara set`) writes the file and tells everyone.
  PreferencesDomain other(kPreferencesDomain, (root_ / "config").string());
  other.setValue("TrustIPLocationOverVPN", PrefValue::boolean(true));
  other.setValue("RecheckMinutes", PrefValue::integer(5));
  ASSERT_TRUE(other.synchronize());
  distributed_.post({kPreferencesChangedNotification, "TrustIPLocationOverVPN", {}});
  RunLoop::main().runOnce();  // delivered
  EXPECT_EQ(reloaded, 1);
  EXPECT_EQ(trigger_.triggeredAt.size(), 2u);  // decided again on the current position
  center_.post(kSensorNotification);           // what the aggregator then posts
  settle(*controller);
  EXPECT_EQ(commands(), std::vector<std::string>{"Asia/Tokyo"});
  EXPECT_TRUE(log_.contains("preferences changed (TrustIPLocationOverVPN): reading them again"));

  // Five minutes after that look-up, one re-check; then one every five.
  advance(299s, 1s);
  EXPECT_EQ(lookedAgain, 0);
  advance(1s, 1s);
  EXPECT_EQ(lookedAgain, 1);
  advance(300s, 10s);
  EXPECT_EQ(lookedAgain, 2);

  distributed_.post({kPreferencesChangedNotification, "ZonaraEnabled", {}});
  RunLoop::main().runOnce();
  EXPECT_EQ(reloaded, 2);
  EXPECT_EQ(trigger_.triggeredAt.size(), 2u);
}

TEST_F(AppControllerTest, NoZoneFoundChangesNothingButTheLocation) {
  auto controller = start();
  http_.setHandler([](const HttpRequest&) { return HttpResponse(200, "<geonames><status value=\"10\"/></geonames>"); });
  location_.set(48.85, 2.35, {1200, PositionSource::DeviceTiles});
  controller->telluroLocationChanged();
  settle(*controller);
  EXPECT_TRUE(logged("looking up the zone at 48.85, 2.35 (accuracy 1200 m, from the device tiles)"));
  EXPECT_TRUE(logged("foundtimezone for (48.85, 2.35) = (null)"));
  EXPECT_EQ(server_.events, (std::vector<std::string>{"LastDecision?", "LastDecisionReason?", "CurrentLocation?",
                                                      "LastPosition?", "ZoneFound?", "BorderDistance?"}));
  EXPECT_EQ(server_.properties.at(kLastDecisionProperty)(), "no change");
  EXPECT_EQ(server_.properties.at(kLastDecisionReasonProperty)(), "no zone found at the position");
  EXPECT_FALSE(fs::exists(root_ / "commands"));
}

// The description answers at once from the position and the zone last found;
// it never asks the service itself.
TEST_F(AppControllerTest, CurrentLocationDescribesThePositionWithTheZoneLastFound) {
  auto controller = start();
  EXPECT_EQ(controller->currentLocation(), "Unknown");
  struct Case {
    double lat, lon;
    bool lookUp;
    const char* expected;
  };
  for (const Case& c : std::vector<Case>{{-33.9, 151.2, false, "S33.9000, W151.2000 ((null))"},
                                         {-33.9, 151.2, true, "S33.9000, W151.2000 (Australia/Sydney)"},
                                         {35.7, 139.7, true, "N35.7000, W139.7000 (Asia/Tokyo)"},
                                         {48.8566, -2.3522, true, "N48.8566, E2.3522 (Europe/Paris)"},
                                         {0.0, 0.0, false, "S0.0000, E0.0000 (Europe/Paris)"}}) {
    location_.set(c.lat, c.lon);
    const size_t requests = http_.requestCount();
    if (c.lookUp) {
      controller->telluroLocationChanged();
      settle(*controller);
    }
    EXPECT_EQ(controller->currentLocation(), c.expected);
    EXPECT_EQ(http_.requestCount(), requests + (c.lookUp ? 1 : 0));
  }
  EXPECT_EQ(server_.properties.at("CurrentLocation")(), "S0.0000, E0.0000 (Europe/Paris)");
}

TEST_F(AppControllerTest, UserHearsOfAppliedChangesOnlyOnceEach) {
  auto controller = start();
  RunLoop::main().runOnce();
  location_.set(48.8566, 2.3522);
  center_.post(kSensorNotification);
  center_.post(kSensorNotification);  // same zone again: the system is there now
  settle(*controller);
  location_.set(35.7, 139.7);
  center_.post(kSensorNotification);
  settle(*controller);
  EXPECT_EQ(notifier_.shown, (std::vector<std::string>{"Zonara|Launched|Zonara Launched|Zonara.png",
                                                       "Zonara|Timezone changed to: Europe/Paris|Timezone changed|Zonara.png",
                                                       "Zonara|Timezone changed to: Asia/Tokyo|Timezone changed|Zonara.png"}));
}

// "Undo" on the change's notification, or the bus method, sets the previous
// zone again; the undone zone is then held against the same answer until the
// network changes or another zone is found. An old notification's "Undo"
// does nothing once a later change was made.
TEST_F(AppControllerTest, UndoRestoresThePreviousZoneAndHoldsItUntilTheNetworkOrTheZoneChanges) {
  auto controller = start();
  RunLoop::main().runOnce();
  auto lookUp = [&](double lat, double lon) { locateAt(*controller, lat, lon); };
  lookUp(48.8566, 2.3522);
  ASSERT_EQ(notifier_.actionKeys.back(), std::vector<std::string>{"undo"});
  const size_t parisMessage = notifier_.shown.size() - 1;
  ASSERT_TRUE(notifier_.chooseLatest("undo"));
  EXPECT_EQ(commands(), (std::vector<std::string>{"Europe/Paris", "UTC"}));
  EXPECT_EQ(notifier_.shown.back(), "Zonara|Timezone changed back to: UTC|Timezone changed|Zonara.png");
  EXPECT_EQ(controller->detectedTimezone(), "UTC");
  EXPECT_EQ(server_.events.back(), "LastDecisionReason?");

  lookUp(48.8566, 2.3522);  // the same answer: held
  EXPECT_EQ(commands().size(), 2u);
  EXPECT_TRUE(log_.contains("not setting Europe/Paris: the change to Europe/Paris was undone"));
  const BusNameServer::MethodResult nothing = server_.methods.at(kUndoMethod)();
  EXPECT_FALSE(nothing.ok);
  EXPECT_EQ(nothing.text, "there is no time-zone change to undo");

  center_.post(kNetworkChangedNotification);
  lookUp(48.8566, 2.3522);
  EXPECT_EQ(commands(), (std::vector<std::string>{"Europe/Paris", "UTC", "Europe/Paris"}));

  lookUp(35.7, 139.7);
  EXPECT_FALSE(notifier_.choose(parisMessage, "undo"));  // answered before
  const BusNameServer::MethodResult undone = server_.methods.at(kUndoMethod)();
  EXPECT_TRUE(undone.ok);
  EXPECT_EQ(undone.text, "Time zone changed back to Europe/Paris");
  lookUp(35.7, 139.7);  // held
  lookUp(-33.9, 151.2);  // another zone: the hold ends
  lookUp(35.7, 139.7);
  EXPECT_EQ(commands(), (std::vector<std::string>{"Europe/Paris", "UTC", "Europe/Paris", "Asia/Tokyo", "Europe/Paris",
                                                  "Australia/Sydney", "Asia/Tokyo"}));
  // The notification of a change that is no longer the last one undoes
  // nothing.
  ASSERT_GE(notifier_.actionKeys.size(), 3u);
  const size_t sydneyMessage = notifier_.shown.size() - 2;
  ASSERT_NE(notifier_.shown[sydneyMessage].find("Australia/Sydney"), std::string::npos);
  EXPECT_TRUE(notifier_.choose(sydneyMessage, "undo"));
  EXPECT_EQ(commands().size(), 7u);
}

// With "AskBeforeChange" the zone is offered, not set: "Change" sets it,
// "Keep" holds the system's zone against it until the network changes. A
// question already asked is not asked again, and an answer to an older
// question is ignored.
TEST_F(AppControllerTest, AskingFirstAppliesOnlyOnChangeAndRemembersKeepUntilTheNetworkChanges) {
  prefs_->setValue(AppController::kAskBeforeChangeKey, PrefValue::boolean(true));
  ASSERT_TRUE(prefs_->synchronize());
  auto controller = start();
  RunLoop::main().runOnce();
  auto lookUp = [&](double lat, double lon) { locateAt(*controller, lat, lon); };
  lookUp(48.8566, 2.3522);
  lookUp(48.8566, 2.3522);
  EXPECT_TRUE(commands().empty());
  ASSERT_EQ(notifier_.shown.size(), 2u);
  EXPECT_EQ(notifier_.shown.back(), "Zonara|Change time zone to Europe/Paris?|Change timezone?|Zonara.png");
  EXPECT_EQ(notifier_.actionKeys.back(), (std::vector<std::string>{"change", "keep"}));
  const size_t parisQuestion = notifier_.shown.size() - 1;

  lookUp(35.7, 139.7);  // a newer question
  EXPECT_TRUE(notifier_.choose(parisQuestion, "change"));
  EXPECT_TRUE(commands().empty());
  ASSERT_TRUE(notifier_.chooseLatest("change"));
  EXPECT_EQ(commands(), std::vector<std::string>{"Asia/Tokyo"});
  EXPECT_EQ(notifier_.shown.back(), "Zonara|Timezone changed to: Asia/Tokyo|Timezone changed|Zonara.png");

  lookUp(48.8566, 2.3522);
  ASSERT_TRUE(notifier_.chooseLatest("keep"));
  const size_t shown = notifier_.shown.size();
  lookUp(48.8566, 2.3522);
  EXPECT_EQ(notifier_.shown.size(), shown);  // kept: not asked again
  center_.post(kNetworkChangedNotification);
  lookUp(48.8566, 2.3522);
  EXPECT_EQ(notifier_.shown.size(), shown + 1);
  EXPECT_EQ(notifier_.shown.back(), "Zonara|Change time zone to Europe/Paris?|Change timezone?|Zonara.png");
  EXPECT_EQ(commands(), std::vector<std::string>{"Asia/Tokyo"});
}

// Every decision and answer goes into the history; the last one, the
// position and the zone found are served for `zonara status`.
TEST_F(AppControllerTest, DecisionsAreKeptInTheHistoryAndServedForTheStatus) {
  auto controller = start();
  RunLoop::main().runOnce();
  EXPECT_EQ(server_.properties.at(kLastDecisionProperty)(), "");
  EXPECT_EQ(server_.properties.at(kLastPositionProperty)(), "");
  location_.set(48.8566, 2.3522, {25, PositionSource::DeviceTiles});
  center_.post(kSensorNotification);
  settle(*controller);
  center_.post(kSensorNotification);
  settle(*controller);
  ASSERT_TRUE(notifier_.chooseLatest("undo"));

  std::vector<std::string> lines;
  std::ifstream in(helper_.historyFile());
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[0].substr(20), "\tdevice tiles\t25 m\t48.85660,2.35220\tEurope/Paris\t-\tapplied\tthe zone at the position");
  EXPECT_EQ(lines[1].substr(20),
            "\tdevice tiles\t25 m\t48.85660,2.35220\tEurope/Paris\t-\tunchanged\tthe zone at the position; already the "
            "system's zone");
  EXPECT_EQ(lines[2].substr(20), "\t-\t-\t-\tUTC\t-\tundone\tthe user undid the change to Europe/Paris");
  EXPECT_EQ(lines[0].substr(0, 20), "2026-01-15T00:00:00Z");

  EXPECT_EQ(server_.properties.at(kLastPositionProperty)(),
            "48.85660, 2.35220 (accuracy 25 m, from the device tiles)");
  EXPECT_EQ(server_.properties.at(kZoneFoundProperty)(), "Europe/Paris");
  EXPECT_EQ(server_.properties.at(kBorderDistanceProperty)(), "");  // no boundary data here
  EXPECT_EQ(server_.properties.at(kLastDecisionProperty)(), "undone UTC");
  EXPECT_EQ(server_.properties.at(kLastDecisionReasonProperty)(),
            "the user undid the change to Europe/Paris");
}

// With boundary data the position's accuracy decides: near the Quintana
// Roo-Yucatan border the zone at the point is applied and the other named;
// the system then stays there when the next position falls on the other side
// of the border within its accuracy; a position worse than 100 km changes
// nothing.
TEST_F(AppControllerTest, BorderAwareDecisionsOnTheRealBoundaries) {
  ZONARA_NEED_BOUNDARY_DATA(path);
  std::string error;
  std::unique_ptr<timezone::BoundaryIndex> index = timezone::BoundaryIndex::open(path, &error);
  ASSERT_TRUE(index) << error;
  prefs_->removeValue("TimezoneServiceURL");
  ASSERT_TRUE(prefs_->synchronize());
  AppController::Services s = services();
  s.boundaries = index.get();
  auto controller = AppController::create(s);
  ASSERT_TRUE(controller);
  RunLoop::main().runOnce();

  location_.set(20.87, -87.55, {30000, PositionSource::LearnedPlaces});
  controller->telluroLocationChanged();
  settle(*controller);
  EXPECT_TRUE(logged("looking up the zone at 20.87, -87.55 (accuracy 30000 m, from the learned places)"));
  EXPECT_EQ(commands(), std::vector<std::string>{"America/Cancun"});
  EXPECT_EQ(notifier_.shown.back(),
            "Zonara|Timezone changed to: America/Cancun (near a border: it may be America/Merida)|Timezone "
            "changed|Zonara.png");

  // Just across the border in Yucatan, as uncertain: the system's zone is
  // among those possible and stays.
  location_.set(20.87, -87.70, {30000, PositionSource::PositioningServer});
  controller->telluroLocationChanged();
  settle(*controller);
  EXPECT_TRUE(logged("near a border: keeping America/Cancun"));
  EXPECT_EQ(commands(), std::vector<std::string>{"America/Cancun"});

  location_.set(48.85, 2.35, {1000000, PositionSource::IPAddress});
  controller->telluroLocationChanged();
  settle(*controller);
  EXPECT_TRUE(logged("decision: no change - (the position is only accurate to 1000 km (worse than 100 km); zones "
                     "nearby: none)"));
  EXPECT_EQ(commands(), std::vector<std::string>{"America/Cancun"});
  EXPECT_EQ(notifier_.shown.size(), 2u);
}

// A set-time-zone command that leaves the system's zone as it was -- refused
// by polkit, or claiming success -- changes nothing the user sees but one
// explanation; the same zone for the same place is not tried again until the
// preferences change, and another place's zone is tried.
TEST_F(AppControllerTest, AZoneTheCommandDidNotApplyIsExplainedOnceAndNotRetriedForTheSamePlace) {
  struct Case {
    const char* what;
    std::string command;  // after recording its argument; the zone stays UTC
    int status;
    std::string reason;  // part of the explanation
  };
  const std::vector<Case> cases = {
      {"refused by polkit", "echo 'Failed to set time zone: Interactive authentication required.' >&2; exit 1", 1,
       "the system asks for an administrator password (polkit). To let Zonara set the time zone, install its rule: "
       "sudo install -m 644 "
       "/usr/share/polkit-1/rules.d/50-zonara-timezone.rules /etc/polkit-1/rules.d/"},
      {"claims success", "exit 0", 0, "the set-time-zone command exited with status 0 without changing it"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    fs::remove(root_ / "commands");
    notifier_.shown.clear();
    distributed_.posted.clear();
    log_.clear();
    const std::string script = "printf '%s\\n' \"$1\" >> '" + (root_ / "commands").string() + "'; " + c.command;
    prefs_->setValue("SetTimezoneCommand", PrefValue::array({PrefValue::string("/bin/sh"), PrefValue::string("-c"),
                                                             PrefValue::string(script), PrefValue::string("set")}));
    auto s = services();
    s.polkitRulePath = "/usr/share/polkit-1/rules.d/50-zonara-timezone.rules";
    auto controller = AppController::create(s);
    ASSERT_TRUE(controller);
    RunLoop::main().runOnce();  // the notification controller
    const std::string explanation = "Zonara|Could not change the time zone to Europe/Paris: " + c.reason +
                                    "|Timezone not changed|Zonara.png";

    location_.set(48.8566, 2.3522);
    for (int i = 0; i < 2; ++i) {
      center_.post(kSensorNotification);
      settle(*controller);
    }
    EXPECT_EQ(commands(), std::vector<std::string>{"Europe/Paris"});
    EXPECT_EQ(notifier_.shown, (std::vector<std::string>{"Zonara|Launched|Zonara Launched|Zonara.png", explanation}));
    EXPECT_TRUE(distributed_.posted.empty());
    EXPECT_EQ(controller->detectedTimezone(), std::nullopt);
    EXPECT_EQ(log_.count("still UTC after the set-time-zone command for Europe/Paris (exit status " +
                         std::to_string(c.status)),
              1u);
    EXPECT_TRUE(logged("not setting Europe/Paris again: the set-time-zone command did not apply it"));

    // New preferences: tried again, the user is not told twice.
    distributed_.post({kPreferencesChangedNotification, "SetTimezoneCommand", {}});
    center_.post(kSensorNotification);
    settle(*controller);
    EXPECT_EQ(commands(), (std::vector<std::string>{"Europe/Paris", "Europe/Paris"}));
    EXPECT_EQ(notifier_.shown.size(), 2u);

    // Another place with another zone: tried, and explained.
    location_.set(35.7, 139.7);
    center_.post(kSensorNotification);
    settle(*controller);
    EXPECT_EQ(commands(), (std::vector<std::string>{"Europe/Paris", "Europe/Paris", "Asia/Tokyo"}));
    ASSERT_EQ(notifier_.shown.size(), 3u);
    EXPECT_NE(notifier_.shown[2].find("Could not change the time zone to Asia/Tokyo"), std::string::npos);
  }
}

TEST_F(AppControllerTest, MissingIconIsLeftOut) {
  auto s = services();
  s.iconPath = (root_ / "no-such.png").string();
  auto controller = AppController::create(s);
  RunLoop::main().runOnce();
  EXPECT_EQ(notifier_.shown, std::vector<std::string>{"Zonara|Launched|Zonara Launched|"});
}

TEST_F(AppControllerTest, MemoryIsResetEveryThirtySecondsWhileTheApplicationRuns) {
  std::vector<long> resets;
  application_.setMemoryResetForTesting([&] {
    resets.push_back(static_cast<long>(clock_.elapsed().count() / 1000));
    if (resets.size() == 3) application_.terminate();
  });
  std::thread driver([&] {
    for (int i = 0; i < 3; ++i) {
      std::this_thread::sleep_for(10ms);
      clock_.advance(30s);
    }
  });
  application_.run();
  driver.join();
  EXPECT_EQ(resets, (std::vector<long>{30, 60, 90}));
  EXPECT_EQ(RunLoop::main().timerCount(), 0u);  // the timer goes with the run
}

// ---------------------------------------------------------------------------
// On a private session bus: the real name server, distributed notifications
// and a fake desktop notification service.


std::string readProperty(const std::string& address, const std::string& property) {
  auto c = DBusConnection::openAddress(address, nullptr);
  if (!c) return "<no connection>";
  GError* err = nullptr;
  GVariant* r = g_dbus_connection_call_sync(
      c->get(), kHelperBusName, "/", "org.freedesktop.DBus.Properties", "Get",
      g_variant_new("(ss)", kHelperBusName, property.c_str()), G_VARIANT_TYPE("(v)"),
      G_DBUS_CALL_FLAGS_NONE, 5000, nullptr, &err);
  if (!r) {
    std::string m = err->message;
    g_error_free(err);
    return "<error " + m + ">";
  }
  GVariant* v = nullptr;
  g_variant_get(r, "(v)", &v);
  std::string value = g_variant_get_string(v, nullptr);
  g_variant_unref(v);
  g_variant_unref(r);
  return value;
}

class AppControllerBusTest : public AppControllerTest {
 protected:
  void SetUp() override {
    AppControllerTest::SetUp();
    ASSERT_TRUE(bus_.ok());
    first_ = DBusConnection::openAddress(bus_.address(), nullptr);
    second_ = DBusConnection::openAddress(bus_.address(), nullptr);
    other_ = DBusConnection::openAddress(bus_.address(), nullptr);
    ASSERT_TRUE(first_ && second_ && other_);
  }
  AppController::Services busServices(DBusConnection& c, DBusNameServer& server,
                                      DBusDistributedNotificationCenter& center, FreedesktopNotifier& notifier) {
    auto s = services();
    s.server = &server;
    s.distributedCenter = &center;
    s.notifier = &notifier;
    (void)c;
    return s;
  }
  // Runs the application; a watchdog ends it after `limit` of real time.
  bool runApplication(std::chrono::milliseconds limit) {
    std::mutex mu;
    std::condition_variable cv;
    bool finished = false, watchdogFired = false;
    std::thread watchdog([&] {
      std::unique_lock<std::mutex> lock(mu);
      if (!cv.wait_for(lock, limit, [&] { return finished; })) {
        watchdogFired = true;
        application_.terminate();
      }
    });
    application_.run();
    {
      std::lock_guard<std::mutex> lock(mu);
      finished = true;
    }
    cv.notify_all();
    watchdog.join();
    return !watchdogFired;
  }

  testing::TestBus bus_;
  std::unique_ptr<DBusConnection> first_, second_, other_;
};

TEST_F(AppControllerBusTest, SecondHelperIsInertAndShutdownEndsTheFirst) {
  DBusNameServer server1(*first_, kHelperBusName), server2(*second_, kHelperBusName);
  DBusDistributedNotificationCenter center1(*first_), center2(*second_), poster(*other_);
  FreedesktopNotifier notifier1(*first_, "Zonara"), notifier2(*second_, "Zonara");
  auto first = AppController::create(busServices(*first_, server1, center1, notifier1));
  ASSERT_TRUE(first);
  log_.clear();
  auto second = AppController::create(busServices(*second_, server2, center2, notifier2));
  EXPECT_EQ(second, nullptr);
  EXPECT_EQ(log_.lines(), std::vector<std::string>{"unable to start ZonaraHelper server"});

  // Posted from another process-like connection while the first check is
  // still 3.5 s away.
  RunLoop::main().performAfterDelay(0ms, [&] { poster.post({kShutdownNotification, "", {}}); });
  EXPECT_TRUE(runApplication(5s));
  EXPECT_TRUE(trigger_.triggeredAt.empty());
}

TEST_F(AppControllerBusTest, AnnouncesItselfAppliesZonesAndAnswersItsProperties) {
  DBusNameServer server(*first_, kHelperBusName);
  DBusDistributedNotificationCenter center(*first_);
  FreedesktopNotifier notifier(*first_, "Zonara");
  FakeNotificationService service(*other_);
  auto controller = AppController::create(busServices(*first_, server, center, notifier));
  ASSERT_TRUE(controller);
  RunLoop& loop = RunLoop::main();
  ASSERT_TRUE(loop.runUntil([&] { return service.received.size() == 1; }, 5s));

  location_.set(48.8566, 2.3522);
  center_.post(kSensorNotification);  // applied
  center_.post(kSensorNotification);  // confirmed
  ASSERT_TRUE(loop.runUntil([&] { return service.received.size() >= 2; }, 5s));
  std::vector<std::string> received;
  for (const auto& n : service.received) {
    received.push_back(n.app + "|" + n.summary + "|" + n.body + "|" + n.name + "|" +
                       fs::path(n.icon).filename().string());
  }
  loop.runUntil([] { return false; }, 200ms);  // a wrong third message would arrive by now
  EXPECT_EQ(received, (std::vector<std::string>{"Zonara|Zonara|Launched|Zonara Launched|Zonara.png",
                                                        "Zonara|Zonara|Timezone changed to: Europe/Paris|Timezone changed|Zonara.png"}));

  std::string zone, where;
  std::atomic<bool> done{false};
  std::thread client([&] {
    zone = readProperty(bus_.address(), "DetectedTimezone");
    where = readProperty(bus_.address(), "CurrentLocation");
    done = true;
  });
  EXPECT_TRUE(loop.runUntil([&] { return done.load(); }, 10s));
  client.join();
  EXPECT_EQ(zone, "Europe/Paris");
  EXPECT_EQ(where, "N48.8566, W2.3522 (Europe/Paris)");
}

}  // namespace
}  // namespace zonara
