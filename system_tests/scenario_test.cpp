// Scenarios of the whole system: the real helper process with private buses,
// a stand-in desktop notification service and logind, loopback positioning,
// time-zone and IP-location services, a scan file and a recording
// set-time-zone command (system_tests/helper_system.h).
#include <gtest/gtest.h>

#include <signal.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "system_tests/helper_system.h"

namespace zonara {
namespace {

using namespace std::chrono_literals;
using testing::HelperSystem;
using Service = HelperSystem::Service;
using Clock = std::chrono::steady_clock;
namespace fs = std::filesystem;

std::chrono::milliseconds patience(std::chrono::milliseconds base) { return HelperSystem::timeout(base); }

const std::string kLaunched = "Zonara|Launched";
std::string changedTo(const std::string& zone) { return "Zonara|Timezone changed to: " + zone; }

// Checks that the system was built, starts its helper and waits for the
// helper's bus name.
#define START_SYSTEM(system)                                   \
  ASSERT_TRUE((system).ok()) << (system).error();              \
  ASSERT_TRUE((system).startHelper()) << (system).error();     \
  ASSERT_TRUE((system).waitForHelperName(true, patience(10s))) \
      << (system).helperLogFile()

// A system whose helper runs `scale` times faster than real time.
HelperSystem::Options scaled(double scale) {
  HelperSystem::Options options;
  options.timeScale = scale;
  return options;
}

// Start-up in real time: the silent refresh finds the position at once but
// tells no one; the first trigger comes 3.5 s after start and the aggregator's
// quiet period of 4 s follows, so the zone is applied no earlier than 7.5 s
// after start, exactly once, with one notification besides "Launched".
TEST(ScenarioTest, StartUpFindsTheZoneAfterTheQuietPeriodAndNotifiesOnce) {
  HelperSystem system;
  const auto started = Clock::now();
  START_SYSTEM(system);

  // The silent refresh asks the positioning server; nothing is applied yet.
  ASSERT_TRUE(HelperSystem::waitUntil([&] { return system.positioningServer().countTo("/location") >= 1; },
                                      patience(7s)))
      << system.helperLogFile();
  EXPECT_TRUE(system.appliedZones().empty());
  EXPECT_EQ(system.timezoneRequests(), 0u);

  ASSERT_TRUE(system.waitForAppliedZones(1, patience(20s))) << system.helperLogFile();
  const auto applied = Clock::now() - started;
  EXPECT_GE(applied, 7500ms);
  EXPECT_EQ(system.appliedZones(), std::vector<std::string>{"Europe/Paris"});
  EXPECT_EQ(system.systemZone(), "Europe/Paris");

  ASSERT_TRUE(system.waitForNotifications(2, patience(5s)));
  HelperSystem::sleepFor(500ms);  // a wrong extra message would be here by now
  EXPECT_EQ(system.notificationTexts(), (std::vector<std::string>{kLaunched, changedTo("Europe/Paris")}));
  EXPECT_EQ(system.helperProperty("DetectedTimezone"), "Europe/Paris");
  EXPECT_EQ(system.logCount("aggregator found telluroChanged"), 1u);
  EXPECT_EQ(system.stopHelper(), 0);
}


// The machine joins a network in another city: the network watcher asks for
// a fresh position, which the new scan places in Tokyo.
TEST(ScenarioTest, ANetworkChangeInAnotherCityAppliesItsZone) {
  HelperSystem system(scaled(5));
  if (!system.hasWirelessInterface()) GTEST_SKIP() << "no network namespace here: cannot change the network";
  START_SYSTEM(system);
  ASSERT_TRUE(system.waitForAppliedZones(1, patience(10s))) << system.helperLogFile();
  ASSERT_TRUE(system.waitForNotifications(2, patience(5s)));
  const size_t lookupsBefore = system.positioningServer().countTo("/location");

  // Leaving the network changes nothing; the scan then shows Tokyo and the
  // interface joins a network there.
  // The helper must see the searching state before the join, or both land in
  // one read of the links and cancel out.
  const std::string searching = "path = State:/Network/Interface/zw0/AirPort, change = {Busy = 1;";
  ASSERT_TRUE(system.wirelessSearch());
  ASSERT_TRUE(system.waitForLog(searching, patience(5s))) << system.helperLogFile();
  system.travelTo("Tokyo");
  ASSERT_TRUE(system.wirelessJoin());
  ASSERT_TRUE(system.waitForAppliedZones(2, patience(15s))) << system.helperLogFile();
  EXPECT_EQ(system.appliedZones(), (std::vector<std::string>{"Europe/Paris", "Asia/Tokyo"}));
  EXPECT_EQ(system.systemZone(), "Asia/Tokyo");
  EXPECT_GT(system.positioningServer().countTo("/location"), lookupsBefore);
  EXPECT_GE(system.logCount("NetworkSensor change detected, path = State:/Network/Interface/zw0/AirPort"), 1u);
  ASSERT_TRUE(system.waitForNotifications(3, patience(5s)));
  EXPECT_EQ(system.notificationTexts().back(), changedTo("Asia/Tokyo"));
  EXPECT_EQ(system.helperProperty("DetectedTimezone"), "Asia/Tokyo");

  // Powering the interface off is no reason to look again.
  const size_t lookups = system.positioningServer().countTo("/location");
  const size_t changes = system.logCount("NetworkSensor change detected");
  ASSERT_TRUE(system.wirelessOff());
  ASSERT_TRUE(system.waitForLog("NetworkSensor change detected", patience(5s), changes + 1));
  HelperSystem::sleepFor(600ms);  // 3 s of the helper's time: a look-up would have started
  EXPECT_EQ(system.positioningServer().countTo("/location"), lookups);
  EXPECT_EQ(system.stopHelper(), 0);
}

// Without the positioning server the IP-location page gives the position; it
// says Tokyo while the Wi-Fi around is Paris's, so the zone shows which one
// was used. Real time: the positioning library needs a few seconds of its
// own (unscaled) time to give up on the server, and the page must be read
// before the start-up's quiet period ends 7.5 s after start.
TEST(ScenarioTest, PositioningServerDownTheIPLocationPageGivesTheZone) {
  HelperSystem system;
  system.setServiceUp(Service::Positioning, false);
  system.setIPLocationCity("Tokyo");
  START_SYSTEM(system);
  ASSERT_TRUE(system.waitForAppliedZones(1, patience(15s))) << system.helperLogFile();
  EXPECT_EQ(system.appliedZones(), std::vector<std::string>{"Asia/Tokyo"});
  EXPECT_EQ(system.positioningServer().http().requestCount(), 0u);
  EXPECT_GE(system.ipLocationPage().requestCount(), 1u);
  ASSERT_TRUE(system.waitForNotifications(2, patience(5s)));
  EXPECT_EQ(system.notificationTexts(), (std::vector<std::string>{kLaunched, changedTo("Asia/Tokyo")}));
  EXPECT_EQ(system.stopHelper(), 0);
}

// No service answers: no zone, no message beyond "Launched", and the helper
// keeps running and answering on the bus while the IP-location page's retries
// (10 attempts, 30 s apart, 100 times faster here) go on in the background.
TEST(ScenarioTest, EverythingDownChangesNothingAndTheHelperStillAnswers) {
  HelperSystem system(scaled(100));
  system.setAllServicesUp(false);
  START_SYSTEM(system);
  // The first trigger and quiet period pass without a position.
  ASSERT_TRUE(system.waitForLog("performing ip location", patience(10s))) << system.helperLogFile();
  ASSERT_TRUE(system.waitForLog("aggregator found telluroChanged = 0", patience(20s))) << system.helperLogFile();
  EXPECT_TRUE(system.helper()->running());
  EXPECT_TRUE(system.helperNameOwned());
  EXPECT_EQ(system.helperProperty("DetectedTimezone"), "");
  EXPECT_EQ(system.helperProperty("CurrentLocation"), "Unknown");
  HelperSystem::sleepFor(300ms);  // 30 s of the helper's time
  EXPECT_TRUE(system.appliedZones().empty());
  EXPECT_EQ(system.systemZone(), "UTC");
  EXPECT_EQ(system.notificationTexts(), std::vector<std::string>{kLaunched});
  EXPECT_EQ(system.timezoneRequests(), 0u);
  EXPECT_EQ(system.positioningServer().http().requestCount(), 0u);
  EXPECT_EQ(system.ipLocationPage().requestCount(), 0u);
  EXPECT_EQ(system.stopHelper(), 0);
}

// The system is already in the zone of where it is: nothing is run and the
// user hears nothing, but the helper knows the zone.
TEST(ScenarioTest, TheZoneAlreadyRightRunsNoCommandAndSendsNoMessage) {
  HelperSystem::Options options = scaled(4);
  options.initialZone = "Europe/Paris";
  HelperSystem system(options);
  START_SYSTEM(system);
  ASSERT_TRUE(system.waitForLog("just going to set the ivar to Europe/Paris", patience(15s)))
      << system.helperLogFile();
  EXPECT_EQ(system.helperProperty("DetectedTimezone"), "Europe/Paris");
  HelperSystem::sleepFor(300ms);  // a wrong message or command would be here by now
  EXPECT_TRUE(system.appliedZones().empty());
  EXPECT_EQ(system.notificationTexts(), std::vector<std::string>{kLaunched});
  EXPECT_EQ(system.systemZone(), "Europe/Paris");
  EXPECT_EQ(system.stopHelper(), 0);
}

// No positioning server and no IP-location page, but tile files on the
// device hold the access points around: the position, and so the zone, come
// from the device.
TEST(ScenarioTest, LocalTilesOnlyTheZoneComesFromTheDevice) {
  HelperSystem system(scaled(2));
  system.travelTo("Sydney");
  system.installTileFile({"Paris", "Sydney"});
  system.setServiceUp(Service::Positioning, false);
  system.setServiceUp(Service::IPLocation, false);
  START_SYSTEM(system);
  ASSERT_TRUE(system.waitForAppliedZones(1, patience(15s))) << system.helperLogFile();
  EXPECT_EQ(system.appliedZones(), std::vector<std::string>{"Australia/Sydney"});
  EXPECT_EQ(system.positioningServer().http().requestCount(), 0u);
  EXPECT_EQ(system.ipLocationPage().requestCount(), 0u);
  EXPECT_EQ(system.stopHelper(), 0);
}

// Sleep and wake through logind. At 300 times real speed one real second is
// five minutes of the helper's time: after a short nap the position stays;
// after five minutes it is cleared (it may no longer be true) and looked for
// again at once: the computer woke up in Tokyo.
TEST(ScenarioTest, ASuspendOfFiveMinutesClearsThePositionAndLooksAgain) {
  HelperSystem::Options options = scaled(300);
  options.learnPlaces = false;
  HelperSystem system(options);
  START_SYSTEM(system);
  // The start-up look-up stores the position (from the positioning server or,
  // should its time-out of 7 s -- 23 ms here -- pass first, the IP-location
  // page: both say Paris).
  const std::string here = "N48.8566, W2.3522 (Europe/Paris)";
  ASSERT_TRUE(HelperSystem::waitUntil([&] { return system.helperProperty("CurrentLocation") == here; },
                                      patience(10s)))
      << system.helperLogFile();
  ASSERT_TRUE(system.waitForAppliedZones(1, patience(10s))) << system.helperLogFile();

  // About a minute: kept, nothing looked up.
  const size_t lookups = system.positioningServer().countTo("/location");
  ASSERT_TRUE(system.prepareForSleep(true));
  HelperSystem::sleepFor(200ms);
  ASSERT_TRUE(system.prepareForSleep(false));
  HelperSystem::sleepFor(100ms);
  EXPECT_EQ(system.helperProperty("CurrentLocation"), here);
  EXPECT_EQ(system.logCount("clearing Telluro"), 0u);
  EXPECT_EQ(system.positioningServer().countTo("/location"), lookups);

  // Five minutes, and a flight: cleared, and Tokyo found.
  ASSERT_TRUE(system.prepareForSleep(true));
  system.travelTo("Tokyo");
  HelperSystem::sleepFor(1000ms);
  ASSERT_TRUE(system.prepareForSleep(false));
  ASSERT_TRUE(system.waitForLog("clearing Telluro currentLongitutde/currentLatitude", patience(5s)))
      << system.helperLogFile();
  ASSERT_TRUE(system.waitForAppliedZones(2, patience(15s))) << system.helperLogFile();
  EXPECT_EQ(system.appliedZones(), (std::vector<std::string>{"Europe/Paris", "Asia/Tokyo"}));
  EXPECT_GT(system.positioningServer().countTo("/location"), lookups);
  EXPECT_EQ(system.stopHelper(), 0);
}

// A train keeps its Wi-Fi network across a border: nothing changes on the
// network, so only the re-check finds the new place. RecheckMinutes 1 at 60
// times real speed: a re-check every real second.
TEST(ScenarioTest, WithoutANetworkChangeTheRecheckFindsTheNewPlace) {
  HelperSystem::Options options = scaled(60);
  options.learnPlaces = false;
  HelperSystem system(options);
  system.preferences().setValue("RecheckMinutes", PrefValue::integer(1));
  ASSERT_TRUE(system.preferences().synchronize());
  START_SYSTEM(system);
  ASSERT_TRUE(system.waitForAppliedZones(1, patience(10s))) << system.helperLogFile();
  EXPECT_EQ(system.logCount("no look-up for 1 min"), 0u);

  system.travelTo("Tokyo");
  ASSERT_TRUE(system.waitForAppliedZones(2, patience(10s))) << system.helperLogFile();
  EXPECT_EQ(system.appliedZones(), (std::vector<std::string>{"Europe/Paris", "Asia/Tokyo"}));
  EXPECT_GE(system.logCount("no look-up for 1 min (RecheckMinutes): looking for the position again"), 1u);
  EXPECT_EQ(system.logCount("NetworkSensor change detected"), 0u);

  // Turned off through `zonara set`, without a restart: no more re-checks.
  ASSERT_EQ(system.runZonara({"set", "RecheckMinutes", "0"}), 0);
  ASSERT_TRUE(system.waitForLog("preferences changed (RecheckMinutes)", patience(5s))) << system.helperLogFile();
  HelperSystem::sleepFor(300ms);
  const size_t rechecks = system.logCount("no look-up for");
  HelperSystem::sleepFor(2500ms);  // two and a half minutes of the helper's time
  EXPECT_EQ(system.logCount("no look-up for"), rechecks);
  EXPECT_EQ(system.stopHelper(), 0);
}

// A VPN holds the default route (a tun device in the namespace): the position
// the server gives for the IP address (Tokyo, where the VPN ends) is not
// used. Trusting it through `zonara set` takes effect at once, without a
// restart.
TEST(ScenarioTest, AVpnKeepsPositionsFromTheIPAddressOutUntilTheyAreTrusted) {
  HelperSystem::Options options = scaled(5);
  options.geolocationApi = true;
  HelperSystem system(options);
  if (!system.hasWirelessInterface()) GTEST_SKIP() << "no network namespace here: cannot make a VPN";
  ASSERT_TRUE(system.vpnUp());
  system.geolocationServer().clearAccessPoints();
  system.setIPLocationCity("Tokyo");
  START_SYSTEM(system);
  const std::string ignored =
      "not using the position from the IP address: a VPN carries the default route (zvpn0, a tun interface)";
  ASSERT_TRUE(system.waitForLog(ignored, patience(20s))) << system.helperLogFile();
  EXPECT_GE(system.geolocationServer().ipRequestCount(), 1u);
  HelperSystem::sleepFor(300ms);
  EXPECT_TRUE(system.appliedZones().empty());

  ASSERT_EQ(system.runZonara({"set", "TrustIPLocationOverVPN", "true"}), 0);
  ASSERT_TRUE(system.waitForAppliedZones(1, patience(10s))) << system.helperLogFile();
  EXPECT_EQ(system.appliedZones(), std::vector<std::string>{"Asia/Tokyo"});
  EXPECT_EQ(system.logCount("preferences changed (TrustIPLocationOverVPN): reading them again"), 1u);
  EXPECT_EQ(system.stopHelper(), 0);
}

// Behind the same VPN, a position from the access points still counts.
TEST(ScenarioTest, BehindAVpnWiFiPositionsStillCount) {
  HelperSystem::Options options = scaled(5);
  options.geolocationApi = true;
  HelperSystem system(options);
  if (!system.hasWirelessInterface()) GTEST_SKIP() << "no network namespace here: cannot make a VPN";
  ASSERT_TRUE(system.vpnUp());
  system.setIPLocationCity("Tokyo");
  START_SYSTEM(system);
  ASSERT_TRUE(system.waitForAppliedZones(1, patience(20s))) << system.helperLogFile();
  EXPECT_EQ(system.appliedZones(), std::vector<std::string>{"Europe/Paris"});
  EXPECT_EQ(system.logCount("not using the position from the IP address"), 0u);
  EXPECT_EQ(system.stopHelper(), 0);
}

// The distributed notification "ZonaraShutdown" ends the helper normally and
// frees its bus name.
TEST(ScenarioTest, ZonaraShutdownEndsTheHelper) {
  HelperSystem system(scaled(10));
  START_SYSTEM(system);
  system.postShutdown();
  EXPECT_EQ(system.helper()->waitFor(patience(10s)), 0) << system.helperLogFile();
  EXPECT_TRUE(system.waitForHelperName(false, patience(5s)));
}

// ---- A helper that never hangs.

// The reproduction of a start that used to lock the helper for good: the
// positioning server is down (the silent refresh fails), the IP-location page
// refuses its first request and answers the second, 30 s later, and the
// refresh's 7 s time-out fires while the fallback waits. The helper keeps
// answering on the bus, takes the page's position, applies its zone and ends
// when told. (Whether the refresh's failure or its time-out comes first
// depends on the positioning library's own timing; the exact interleaving of
// the old deadlock is reproduced in simulated time by the sensor's unit test.)
TEST(ScenarioTest, RefreshTimeOutDuringTheIPFallbackLeavesTheHelperAnsweringAndAppliesTheZone) {
  HelperSystem system(scaled(10));
  system.setServiceUp(Service::Positioning, false);
  system.setIPLocationCity("Tokyo");
  system.ipLocationPage().enqueue(testing::HttpResponse(503, ""));  // nothing to read: tried again 30 s later
  START_SYSTEM(system);
  ASSERT_TRUE(system.ipLocationPage().waitForRequests(1, patience(10s))) << system.helperLogFile();
  HelperSystem::sleepFor(1000ms);  // the time-out (0.7 s here) passes during the pause (3 s here)
  EXPECT_EQ(system.helperProperty("DetectedTimezone", patience(2s)), "") << system.helperLogFile();

  ASSERT_TRUE(system.ipLocationPage().waitForRequests(2, patience(10s))) << system.helperLogFile();
  ASSERT_TRUE(HelperSystem::waitUntil(
      [&] { return system.helperProperty("CurrentLocation", patience(2s)).value_or("").rfind("N35.6762", 0) == 0; },
      patience(5s)))
      << system.helperLogFile();
  ASSERT_TRUE(system.waitForAppliedZones(1, patience(10s))) << system.helperLogFile();
  EXPECT_EQ(system.appliedZones(), std::vector<std::string>{"Asia/Tokyo"});
  EXPECT_EQ(system.helperProperty("DetectedTimezone", patience(2s)), "Asia/Tokyo");
  system.postShutdown();
  EXPECT_EQ(system.helper()->waitFor(patience(5s)), 0) << system.helperLogFile();
}

// While the helper waits for a slow time-zone service (each answer 8 s
// away), or for a slow IP-location page with the positioning server down,
// its main thread stays free: properties answer, a network change is
// noticed, and "ZonaraShutdown" or SIGTERM end it at once.
TEST(ScenarioTest, WhileWaitingForASlowServiceTheHelperAnswersAndEndsAtOnce) {
  enum class Slow { TimeZoneService, IPLocationPage };
  enum class End { Shutdown, Terminate };
  struct Case {
    Slow slow;
    End end;
  };
  for (const Case& c : {Case{Slow::TimeZoneService, End::Shutdown}, Case{Slow::TimeZoneService, End::Terminate},
                        Case{Slow::IPLocationPage, End::Shutdown}, Case{Slow::IPLocationPage, End::Terminate}}) {
    const bool slowZone = c.slow == Slow::TimeZoneService;
    SCOPED_TRACE(std::string(slowZone ? "time-zone service" : "IP-location page") +
                 (c.end == End::Shutdown ? ", ZonaraShutdown" : ", SIGTERM"));
    HelperSystem system(scaled(5));
    testing::HttpTestServer& slowServer = slowZone ? system.timezoneService() : system.ipLocationPage();
    for (int i = 0; i < 5; ++i) slowServer.enqueue(testing::HttpResponse(503, "").withDelay(8s));
    if (!slowZone) system.setServiceUp(Service::Positioning, false);
    START_SYSTEM(system);
    ASSERT_TRUE(slowServer.waitForRequests(1, patience(15s))) << system.helperLogFile();
    HelperSystem::sleepFor(200ms);  // well inside the 8 s wait

    // Properties answer within a second (generous under load).
    EXPECT_EQ(system.helperProperty("DetectedTimezone", patience(1s)), "") << system.helperLogFile();
    EXPECT_TRUE(system.helperProperty("CurrentLocation", patience(1s))) << system.helperLogFile();
    if (system.hasWirelessInterface()) {
      const size_t changes = system.logCount("NetworkSensor change detected");
      ASSERT_TRUE(system.wirelessOff());
      EXPECT_TRUE(HelperSystem::waitUntil([&] { return system.logCount("NetworkSensor change detected") > changes; }, patience(3s)))
          << system.helperLogFile();
    }
    EXPECT_EQ(slowServer.requestCount(), 1u);  // still inside the first wait

    const auto asked = std::chrono::steady_clock::now();
    if (c.end == End::Shutdown) {
      system.postShutdown();
    } else {
      ASSERT_TRUE(system.helper()->signal(SIGTERM));
    }
    EXPECT_EQ(system.helper()->waitFor(patience(3s)), 0) << system.helperLogFile();
    EXPECT_LT(std::chrono::steady_clock::now() - asked, patience(3s));
  }
}

// The helper holds logind's sleep delay inhibitor, gives it back once the
// coming sleep is handled and takes it again after waking.
TEST(ScenarioTest, TheSleepInhibitorIsHeldUntilTheSleepIsHandled) {
  HelperSystem system(scaled(10));
  START_SYSTEM(system);
  using Count = std::pair<size_t, size_t>;
  ASSERT_TRUE(HelperSystem::waitUntil([&] { return system.sleepInhibitors() == Count{1, 1}; }, patience(5s)));
  ASSERT_TRUE(system.prepareForSleep(true));
  EXPECT_TRUE(HelperSystem::waitUntil([&] { return system.sleepInhibitors() == Count{1, 0}; }, patience(5s)));
  ASSERT_TRUE(system.prepareForSleep(false));
  EXPECT_TRUE(HelperSystem::waitUntil([&] { return system.sleepInhibitors() == Count{2, 1}; }, patience(5s)));
  EXPECT_EQ(system.stopHelper(), 0);
  EXPECT_TRUE(HelperSystem::waitUntil([&] { return system.sleepInhibitors() == Count{2, 0}; }, patience(5s)));
}

// A set-time-zone command that is refused (as timedatectl is by polkit
// without the rule) or that exits 0 without changing anything: no change is
// announced, the user hears why once, and the command is not run again.
TEST(ScenarioTest, ASetTimezoneCommandThatChangesNothingIsNotAnnounced) {
  struct Case {
    const char* what;
    std::string script;
    std::string reason;
  };
  for (const Case& c :
       {Case{"refused", "echo 'Failed to set time zone: Access denied' >&2; exit 1", "administrator password (polkit)"},
        Case{"no change", "exit 0", "exited with status 0 without changing it"}}) {
    SCOPED_TRACE(c.what);
    HelperSystem system(scaled(10));
    const std::string command = system.root() + "/bin/refusing-set-timezone";
    {
      std::ofstream out(command);
      out << "#!/bin/sh\nprintf '%s\\n' \"$1\" >> '" << system.root() << "/refused.log'\n" << c.script << "\n";
    }
    fs::permissions(command, fs::perms::owner_all);
    system.preferences().setValue("SetTimezoneCommand", PrefValue::array({PrefValue::string(command)}));
    ASSERT_TRUE(system.preferences().synchronize());
    START_SYSTEM(system);
    ASSERT_TRUE(system.waitForNotifications(2, patience(15s))) << system.helperLogFile();
    ASSERT_TRUE(system.waitForLog("still UTC after the set-time-zone command for Europe/Paris", patience(5s)));
    HelperSystem::sleepFor(300ms);  // a wrong extra message would be here by now
    const std::vector<std::string> texts = system.notificationTexts();
    ASSERT_EQ(texts.size(), 2u);
    EXPECT_EQ(texts[0], kLaunched);
    EXPECT_EQ(texts[1].rfind("Zonara|Could not change the time zone to Europe/Paris: ", 0), 0u) << texts[1];
    EXPECT_NE(texts[1].find(c.reason), std::string::npos) << texts[1];
    EXPECT_EQ(system.helperProperty("DetectedTimezone"), "");
    EXPECT_EQ(system.systemZone(), "UTC");
    std::ifstream log(system.root() + "/refused.log");
    std::string runs((std::istreambuf_iterator<char>(log)), std::istreambuf_iterator<char>());
    EXPECT_EQ(runs, "Europe/Paris\n");
    EXPECT_EQ(system.stopHelper(), 0);
  }
}

// With the geolocation JSON API as the only positioning service, the scan
// file's access points lead to the zone: no account, no tiles.
TEST(ScenarioTest, GeolocationApiServerFindsTheZoneFromTheScan) {
  HelperSystem::Options options;
  options.geolocationApi = true;
  HelperSystem system(options);
  START_SYSTEM(system);
  ASSERT_TRUE(system.waitForAppliedZones(1, patience(20s))) << system.helperLogFile();
  EXPECT_EQ(system.appliedZones(), std::vector<std::string>{"Europe/Paris"});
  EXPECT_GE(system.geolocationServer().wifiRequestCount(), 1u);
  EXPECT_EQ(system.geolocationServer().ipRequestCount(), 0u);
  EXPECT_EQ(system.positioningServer().http().requestCount(), 0u);
  EXPECT_EQ(system.logCount("from the IP address"), 0u);
  for (const auto& request : system.geolocationServer().http().requests()) {
    EXPECT_EQ(request.header("Content-Type"), "application/json");
    EXPECT_EQ(request.body.find("Paris"), std::string::npos) << "no network name is sent";
  }
  EXPECT_EQ(system.stopHelper(), 0);
}

// A place located once by the positioning server is located on the computer
// the next time: with the server unreachable, a restarted helper finds the
// same scan's position and zone in the learned files, and no request reaches
// the server.
TEST(ScenarioTest, AReturnToALearnedPlaceNeedsNoServer) {
  HelperSystem::Options options;
  options.geolocationApi = true;
  HelperSystem system(options);
  START_SYSTEM(system);
  ASSERT_TRUE(system.waitForAppliedZones(1, patience(20s))) << system.helperLogFile();
  EXPECT_EQ(system.appliedZones(), std::vector<std::string>{"Europe/Paris"});
  ASSERT_EQ(system.stopHelper(), 0);
  const size_t firstVisit = system.geolocationServer().http().requestCount();
  ASSERT_GE(firstVisit, 1u);
  ASSERT_TRUE(std::filesystem::exists(system.supportFolder() + "/Learned/places.wps"));

  system.setServiceUp(HelperSystem::Service::Positioning, false);
  ASSERT_TRUE(system.startHelper()) << system.error();
  ASSERT_TRUE(system.waitForLog("timezone = Europe/Paris", patience(20s))) << system.helperLogFile();
  EXPECT_EQ(system.geolocationServer().http().requestCount(), firstVisit);
  EXPECT_EQ(system.logCount("from the IP address"), 0u) << system.helperLogFile();
  EXPECT_EQ(system.stopHelper(), 0);
}

// The server knows none of the access points: the helper asks the same
// server where its IP address is, and takes that position as IP-based.
TEST(ScenarioTest, GeolocationApiNotFoundFallsBackToTheServersIpLocation) {
  HelperSystem::Options options;
  options.geolocationApi = true;
  HelperSystem system(options);
  system.geolocationServer().clearAccessPoints();
  system.setIPLocationCity("Tokyo");
  START_SYSTEM(system);
  ASSERT_TRUE(system.waitForAppliedZones(1, patience(20s))) << system.helperLogFile();
  EXPECT_EQ(system.appliedZones(), std::vector<std::string>{"Asia/Tokyo"});
  EXPECT_GE(system.geolocationServer().wifiRequestCount(), 1u);
  EXPECT_GE(system.geolocationServer().ipRequestCount(), 1u);
  EXPECT_GE(system.logCount("(from the IP address, accuracy"), 1u) << system.helperLogFile();
  EXPECT_EQ(system.stopHelper(), 0);
}

// The server asks to be left alone (503): one request; then the IP-address
// fallback to the same server, and the look-ups after joining a network, end
// inside the back-off period without a request. No zone, no loop.
TEST(ScenarioTest, GeolocationApiServerUnavailableIsAskedOnce) {
  HelperSystem::Options options = scaled(5);
  options.geolocationApi = true;
  HelperSystem system(options);
  if (!system.hasWirelessInterface()) GTEST_SKIP() << "no network namespace here: cannot change the network";
  system.geolocationServer().setFault(WPS::API::testing::GeolocationServer::Fault::kServiceUnavailable);
  START_SYSTEM(system);
  ASSERT_TRUE(system.waitForLog("WPS_ip_location failed (5)", patience(10s))) << system.helperLogFile();

  const std::string searching = "path = State:/Network/Interface/zw0/AirPort, change = {Busy = 1;";
  ASSERT_TRUE(system.wirelessSearch());
  ASSERT_TRUE(system.waitForLog(searching, patience(5s))) << system.helperLogFile();
  ASSERT_TRUE(system.wirelessJoin());
  ASSERT_TRUE(system.waitForLog("WPS_ip_location failed (5)", patience(20s), 2)) << system.helperLogFile();
  EXPECT_GE(system.logCount("WPS_location failed (5)"), 2u);
  EXPECT_EQ(system.geolocationServer().wifiRequestCount(), 1u);
  EXPECT_EQ(system.geolocationServer().ipRequestCount(), 0u);
  EXPECT_TRUE(system.appliedZones().empty());
  EXPECT_EQ(system.stopHelper(), 0);
}

}  // namespace
}  // namespace zonara

int main(int argc, char** argv) {
  return zonara::testing::NetworkNamespace::runTests(argc, argv, "network-change scenarios are skipped");
}
