// A whole system around the real `ZonaraHelper` process, for scenario and
// fault tests.
//
// A `HelperSystem` builds, in a fresh temporary root:
//   - HOME, XDG_CONFIG_HOME (config/), XDG_DATA_HOME (data/), XDG_STATE_HOME
//     (state/, where the helper keeps its history);
//   - a private session bus with the desktop notification service
//     (FakeNotificationService) and a private system bus with a stand-in
//     logind (FakeLogind: PrepareForSleep, sleep inhibitors), both
//     served from a thread of the harness;
//   - loopback services, each behind a `ServiceGate` so a test can take it
//     down and bring it back on the same address: the positioning server
//     (FakePositioningServer: location, registration, tiling, tile files),
//     and the demonstration's time-zone web service and IP-location page
//     (tools/demo/demo_services.h) for four cities: Paris (Europe/Paris),
//     Tokyo (Asia/Tokyo), New York (America/New_York) and Sydney
//     (Australia/Sydney), with 8 access points each, the same on every run;
//   - a scan file (WPS_SCAN_FILE) showing the access points of the city the
//     system is "in" (`travelTo`); the positioning server places a scan in the
//     city whose access points it shows, the IP-location page reports the
//     city travelled to last;
//   - the system's current zone as a link (ZONARA_LOCALTIME) into the zone
//     database, and a recording set-time-zone command (a shell script) that
//     logs its arguments and re-points that link, so the helper sees the zone
//     it applied. The machine's real zone is never touched;
//   - the helper's preferences pointing at all of the above (the time-zone
//     service only when `Options::timezoneService`: without it the helper
//     takes zones from the boundary data);
//   - when the test program entered a network namespace at start
//     (`NetworkNamespace::enterAtStart`), a veth pair whose end "zw0" the
//     helper sees as wireless (through ZONARA_SYSFS_ROOT), joined to a network
//     at start. Without the namespace the fake sysfs lists no interface, so the
//     helper sees no wireless interface at all.
// The helper (build/bin/ZonaraHelper) is started with `startHelper`; it
// writes every system-log line to its standard error as well
// ("ZonaraHelper: <message>"), which the harness captures for `waitForLog`
// and also writes to `helperLogFile()`, which outlives the test.
//
// Everything is stopped and removed by the destructor (the helper first,
// killed with its process group when it does not end on SIGTERM within 5 s),
// also when a test ends on a failed assertion.
//
// Thread safety: use a HelperSystem from the test's thread only, except the
// accessors documented as thread-safe. Only one HelperSystem may exist at a
// time in a process (they share the veth names).
#pragma once

#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/mutex.h"
#include "platform/preferences_store.h"
#include "platform/testing/fakes.h"
#include "platform/testing/service_gate.h"
#include "wps/api/testing/fake_positioning_server.h"
#include "wps/api/testing/geolocation_server.h"
#include "wps/api/tiles/located_access_point.h"
#include "wps/spi/testing/child_process.h"
#include "wps/spi/testing/http_test_server.h"
#include "wps/spi/testing/temp_dir.h"

namespace zonara::testing {

// Network namespace for the whole test program: call `enterAtStart()` first
// thing in main(), while the process has a single thread. It enters a user
// namespace (mapping the caller to root) and a fresh network namespace and
// brings `lo` up, so loopback services keep working and veth pairs can be
// made without privilege. Processes started later inherit it.
struct NetworkNamespace {
  // True when the namespace was entered; false (and nothing changed) when the
  // machine does not allow it.
  static bool enterAtStart();
  [[nodiscard]] static bool available();
  // The whole main() of a whole-system test program: enters the namespace,
  // runs the tests, and says on stderr what is left out (`leftOut`, e.g.
  // "network-change scenarios are skipped") when the namespace is missing.
  static int runTests(int argc, char** argv, const char* leftOut);
};

class HelperSystem {
 public:
  enum class Service { Positioning, TimeZone, IPLocation };

  struct Options {
    // ZONARA_TIME_SCALE for the helper (1 = real time).
    double timeScale = 1;
    // The system's zone when the helper starts.
    std::string initialZone = "UTC";
    // The city the scan file, the positioning server and the IP-location
    // page show at start ("" = an empty scan and no position anywhere).
    std::string startCity = "Paris";
    // The desktop notification service on the session bus.
    bool notificationService = true;
    // TimezoneServiceURL names the loopback time-zone service. Off: the
    // preference is not set (the service still listens, so a test can see
    // that nothing asked it).
    bool timezoneService = true;
    // The helper's positioning server is the geolocation JSON API server
    // (geolocationServer(): it knows every city's access points and places
    // the IP address in the IP-location city), and no IP-location page is
    // configured. Otherwise it is the XML positioning server.
    bool geolocationApi = false;
    // LearnPlaces. Off for runs that move between cities seconds apart:
    // the library holds a fix younger than 20 s when a scan's access points
    // all lie far from it (a momentary gating-out, in real travel), so a
    // place answered on the computer would repeat the last city.
    bool learnPlaces = true;
  };

  // Builds everything; check `ok()` (and `error()`) before use.
  explicit HelperSystem(Options options);
  HelperSystem() : HelperSystem(Options{}) {}
  ~HelperSystem();
  HelperSystem(const HelperSystem&) = delete;
  HelperSystem& operator=(const HelperSystem&) = delete;

  [[nodiscard]] bool ok() const { return error_.empty(); }
  [[nodiscard]] const std::string& error() const { return error_; }

  // ---- Places on disk.
  [[nodiscard]] const std::string& root() const { return root_.path(); }
  [[nodiscard]] std::string configHome() const { return root() + "/config"; }
  [[nodiscard]] std::string dataHome() const { return root() + "/data"; }
  [[nodiscard]] std::string stateHome() const { return root() + "/state"; }
  // The helper's history of decisions.
  [[nodiscard]] std::string historyFile() const { return stateHome() + "/zonara/history"; }
  // $XDG_DATA_HOME/Zonara and its tile folder.
  [[nodiscard]] std::string supportFolder() const { return dataHome() + "/Zonara"; }
  [[nodiscard]] std::string tileFolder() const { return supportFolder() + "/Telluro Cache"; }
  [[nodiscard]] std::string scanFile() const { return root() + "/scans.txt"; }
  [[nodiscard]] std::string localtimeLink() const { return root() + "/localtime"; }
  [[nodiscard]] std::string commandLog() const { return root() + "/set-timezone.log"; }
  // The helper's log as a file, kept after the test (for reading failures):
  // $ZONARA_TEST_TMPDIR/<test suite>.<test name>.helper.log, emptied at start.
  [[nodiscard]] const std::string& helperLogFile() const { return helperLog_; }
  [[nodiscard]] std::string sysfsRoot() const { return root() + "/sys"; }

  // The helper's preferences domain (org.quillon.ZonaraHelper) in
  // configHome(), already holding every key the harness sets. Change and
  // synchronize before `startHelper` to test other settings.
  [[nodiscard]] PreferencesDomain& preferences() { return *preferences_; }

  // ---- The helper process.
  // Starts build/bin/ZonaraHelper with the system's environment plus
  // `environment` (a value of "" removes the variable). False when it cannot
  // be started or one already runs.
  [[nodiscard]] bool startHelper(const std::map<std::string, std::string>& environment = {});
  // The running (or ended) helper; nullptr before `startHelper`.
  [[nodiscard]] ChildProcess* helper() { return helper_.get(); }
  // SIGTERM, up to `grace` for it to end, then SIGKILL; the exit status
  // (nullopt when no helper was started).
  std::optional<int> stopHelper(std::chrono::milliseconds grace = std::chrono::seconds(5));
  // The environment the helper gets (for starting other programs the same way).
  [[nodiscard]] std::map<std::string, std::string> helperEnvironment() const;

  // ---- The helper's log (its system-log lines, "ZonaraHelper: " removed).
  [[nodiscard]] std::vector<std::string> logLines() const;
  // Lines holding `text`.
  [[nodiscard]] size_t logCount(const std::string& text) const;
  // Waits until at least `count` lines hold `text`.
  [[nodiscard]] bool waitForLog(const std::string& text, std::chrono::milliseconds timeout, size_t count = 1) const;

  // ---- The world.
  // The scan file shows `city`'s access points (so the positioning server and
  // tile files place the system there), and the IP-location page reports it.
  void travelTo(const std::string& city);
  // An empty scan (the IP-location page keeps its city).
  void travelNowhere();
  // The city the IP-location page reports ("" = a page without a position).
  void setIPLocationCity(const std::string& city);
  // Writes a tile file of the cities' access points into the helper's tile
  // folder (as if downloaded earlier); returns its path.
  std::string installTileFile(const std::vector<std::string>& cities, const std::string& id = "1",
                              const std::string& version = "1");
  // The positioning server offers a tile of these cities for download.
  void offerTile(const std::vector<std::string>& cities, const std::string& id = "1",
                 const std::string& version = "1");

  // Takes a service down (connections refused) or brings it back.
  void setServiceUp(Service service, bool up);
  [[nodiscard]] bool serviceUp(Service service) const;
  void setAllServicesUp(bool up);
  // The servers themselves (for scripting answers and counting requests).
  [[nodiscard]] WPS::API::testing::FakePositioningServer& positioningServer() { return *positioning_; }
  [[nodiscard]] WPS::API::testing::GeolocationServer& geolocationServer() { return *geolocation_; }
  [[nodiscard]] HttpTestServer& timezoneService() { return *timezone_; }
  [[nodiscard]] HttpTestServer& ipLocationPage() { return *ipPage_; }
  // Time-zone service requests so far.
  [[nodiscard]] size_t timezoneRequests() const { return timezone_->requestCount(); }

  // ---- Time zone.
  // The arguments of each run of the set-time-zone command, one string per
  // run ("Europe/Paris").
  [[nodiscard]] std::vector<std::string> appliedZones() const;
  [[nodiscard]] bool waitForAppliedZones(size_t count, std::chrono::milliseconds timeout) const;
  // The zone the system's zone link names now ("" when none).
  [[nodiscard]] std::string systemZone() const;

  // ---- Desktop notifications received by the notification service
  // (thread-safe copies; empty without the service).
  [[nodiscard]] std::vector<FakeNotificationService::Notification> notifications() const;
  // "summary|body" of each.
  [[nodiscard]] std::vector<std::string> notificationTexts() const;
  [[nodiscard]] bool waitForNotifications(size_t count, std::chrono::milliseconds timeout) const;
  // Plays the user choosing action `key` ("undo", "change", "keep") on the
  // newest notification offering it, through the service's InvokeAction
  // method (as a script does). False, with the reason in `*why` when given,
  // when no notification offers it.
  [[nodiscard]] bool pressNotificationAction(const std::string& key, std::string* why = nullptr);

  // ---- The control program.
  struct ProgramRun {
    int status = -1;  // -1: could not be run or did not end within 30 s
    std::string out, err;
  };
  // Runs build/bin/zonara with `arguments` in the helper's environment and
  // captures what it prints.
  [[nodiscard]] ProgramRun captureZonara(const std::vector<std::string>& arguments) const;

  // ---- Sleep and wake: logind's PrepareForSleep(sleeping) on the system bus.
  [[nodiscard]] bool prepareForSleep(bool sleeping);
  // Sleep inhibitors the stand-in logind handed out so far, and how many of
  // them are still held.
  [[nodiscard]] std::pair<size_t, size_t> sleepInhibitors() const;

  // ---- The helper on the session bus.
  [[nodiscard]] const std::string& sessionBusAddress() const;
  [[nodiscard]] const std::string& systemBusAddress() const;
  // Whether "org.quillon.ZonaraHelper" has an owner.
  [[nodiscard]] bool helperNameOwned() const;
  [[nodiscard]] bool waitForHelperName(bool owned, std::chrono::milliseconds timeout) const;
  // A string property of the helper's object ("DetectedTimezone",
  // "CurrentLocation"); nullopt when the call fails.
  [[nodiscard]] std::optional<std::string> helperProperty(const std::string& name,
                                                          std::chrono::milliseconds timeout = std::chrono::seconds(
                                                              20)) const;
  // Posts a distributed notification the way the control program does.
  void postDistributedNotification(const std::string& name, const std::string& object = "");
  // "ZonaraShutdown".
  void postShutdown() { postDistributedNotification("ZonaraShutdown"); }

  // ---- The wireless interface (only with the network namespace).
  [[nodiscard]] bool hasWirelessInterface() const { return wireless_; }
  [[nodiscard]] static constexpr const char* wirelessInterface() { return "zw0"; }
  // Joined to a network (operational state up: the helper looks for its
  // position), searching (powered, no network yet: dormant) and off (link
  // down). False when the state cannot be set.
  [[nodiscard]] bool wirelessJoin();
  [[nodiscard]] bool wirelessSearch();
  [[nodiscard]] bool wirelessOff();

  // ---- A VPN (only with the network namespace): a tun device "zvpn0" that
  // holds the default route, as a VPN client makes one. Taken down by the
  // destructor. False when it cannot be made.
  [[nodiscard]] bool vpnUp();
  [[nodiscard]] static constexpr const char* vpnInterface() { return "zvpn0"; }

  // ---- The control program: `zonara ARGUMENTS` in the helper's environment
  // (its buses, preferences and data). Its exit status (what it printed on
  // standard error is passed on); nullopt when it cannot be started or does
  // not end within 30 s.
  [[nodiscard]] std::optional<int> runZonara(const std::vector<std::string>& arguments);

  // ---- Polling.
  // Calls `condition` every 20 ms until it holds or `timeout` passes.
  template <typename Condition>
  [[nodiscard]] static bool waitUntil(Condition condition, std::chrono::milliseconds timeout) {
    const auto end = std::chrono::steady_clock::now() + timeout;
    for (;;) {
      if (condition()) return true;
      if (std::chrono::steady_clock::now() >= end) return false;
      sleepFor(std::chrono::milliseconds(20));
    }
  }
  static void sleepFor(std::chrono::milliseconds duration);
  // Time-outs for waits: `base` multiplied by ZONARA_TEST_TIMEOUT_SCALE
  // (default 1; the sanitizer build sets a larger one).
  [[nodiscard]] static std::chrono::milliseconds timeout(std::chrono::milliseconds base);

 private:
  class Buses;
  void fail(const std::string& what);
  void writeScanFile(const std::string& city);
  // The steps of the constructor, in order; each calls fail() when it fails.
  [[nodiscard]] bool makeFolders();
  void openHelperLog();
  void startServices();
  [[nodiscard]] std::string makeSystemZone();
  [[nodiscard]] bool writePreferences(const std::string& setTimezone);
  void setupWireless();
  std::string tileBytes(const std::vector<std::string>& cities) const;

  Options options_;
  std::string error_;
  TempDir root_{"system-"};
  std::unique_ptr<Buses> buses_;
  std::unique_ptr<WPS::API::testing::FakePositioningServer> positioning_;
  std::unique_ptr<WPS::API::testing::GeolocationServer> geolocation_;
  std::unique_ptr<HttpTestServer> timezone_;
  std::unique_ptr<HttpTestServer> ipPage_;
  std::map<Service, std::unique_ptr<ServiceGate>> gates_;
  mutable Mutex worldMu_;
  std::string ipCity_ ZONARA_GUARDED_BY(worldMu_);
  std::unique_ptr<PreferencesDomain> preferences_;
  bool wireless_ = false;
  bool vpn_ = false;
  std::string helperLog_;
  std::unique_ptr<ChildProcess> helper_;
};

}  // namespace zonara::testing
