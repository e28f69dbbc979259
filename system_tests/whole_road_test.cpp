// The helper's whole road in one process: the controller with its real
// services on a private session bus (with a stand-in desktop notification
// service), location sensing over the real network watcher, a loopback
// IP-location page and time-zone service, and a set-time-zone command that
// records what it is asked -- in virtual time.
#include <date/date.h>
#include <gio/gio.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "app/app_controller.h"
#include "app/testing/helper_services.h"
#include "app/zonara_application.h"
#include "platform/testing/fakes.h"
#include "platform/testing/system_log_capture.h"
#include "platform/testing/test_bus.h"
#include "sensors/location_sensing.h"
#include "sensors/sensor_test_support.h"
#include "sensors/wps_location_library.h"
#include "wps/api/testing/fake_positioning_server.h"
#include "wps/spi/simulated_clock.h"
#include "wps/spi/testing/http_test_server.h"
#include "wps/spi/testing/temp_dir.h"

using namespace std::chrono_literals;
namespace fs = std::filesystem;

namespace zonara {
namespace {

using testing::HttpRequest;
using testing::HttpResponse;
using testing::FakeNotificationService;


std::vector<std::string> fileLines(const fs::path& p) {
  std::ifstream in(p);
  std::vector<std::string> out;
  for (std::string line; std::getline(in, line);) out.push_back(line);
  return out;
}

// A helper wired to real services except the desktop (a stand-in
// notification service on a private bus) and the positioning library (given
// by each test). Its servers answer on the loopback interface: "/timezone"
// with Europe/Paris, "/app/locate_my_ip" with `ipPage` (404 when empty), and
// a positioning server (FakePositioningServer) places every scan in Paris.
class WholeRoadTest : public ::testing::Test {
 protected:
  void SetUp() override {
    http_.setHandler([this](const HttpRequest& r) {
      const std::string path = r.path();
      if (path == "/app/locate_my_ip") return ipPage.empty() ? HttpResponse(404, "") : HttpResponse(200, ipPage);
      if (path == "/timezone")
        return HttpResponse(200,
                            "<geonames><timezone><timezoneId>Europe/Paris</timezoneId><gmtOffset>1</gmtOffset>"
                            "<dstOffset>2</dstOffset></timezone></geonames>");
      return HttpResponse(404, "");
    });
    WPS::API::LocatedAccessPoint paris;
    paris.latitude = 48.8566;
    paris.longitude = 2.3522;
    positioning_.setLocation(paris, 40, 3);
  }

  // Runs twenty seconds of the helper's life with `library`; lookups are
  // let finish before the test moves time on (the library's own pauses move
  // the one simulated clock they share with the helper).
  void run(LocationLibrary& library) {
    WPS::SPI::SimulatedClock clock(Clock::WallTime(date::sys_days(date::year(2026) / 1 / 15).time_since_epoch()));
    WPS::SPI::ScopedClock installed(clock);
    testing::TestBus bus;
    ASSERT_TRUE(bus.ok());
    auto helperBus = DBusConnection::openAddress(bus.address(), nullptr);
    auto serviceBus = DBusConnection::openAddress(bus.address(), nullptr);
    ASSERT_TRUE(helperBus && serviceBus);
    FakeNotificationService service(*serviceBus);

    testing::HelperServices helper(root_);
    PreferencesDomain& prefs = helper.preferences;
    prefs.setValue("TimezoneServiceURL", PrefValue::string(http_.url()));
    prefs.setValue("IPLocationURL", PrefValue::string(http_.url()));
    prefs.setValue("PositioningServerURL", PrefValue::string(positioning_.url()));
    ASSERT_TRUE(prefs.synchronize());
    // The desktop and the bus are real here: a private bus with a stand-in
    // notification service.
    DBusDistributedNotificationCenter distributed(*helperBus);
    DBusNameServer server(*helperBus, kHelperBusName);
    FreedesktopNotifier notifier(*helperBus, "Zonara");
    testing::FakeReachability reachability;
    std::unique_ptr<LocationSensing> sensing;

    struct Forward final : LocationSource {
      std::optional<double> currentLongitude() const override {
        return *sensing ? (*sensing)->telluroSensor().currentLongitude() : std::nullopt;
      }
      std::optional<double> currentLatitude() const override {
        return *sensing ? (*sensing)->telluroSensor().currentLatitude() : std::nullopt;
      }
      std::optional<PositionQuality> currentQuality() const override {
        return *sensing ? (*sensing)->telluroSensor().currentQuality() : std::nullopt;
      }
      std::unique_ptr<LocationSensing>* sensing = nullptr;
    } location;
    location.sensing = &sensing;

    AppController::Services services = helper.services();
    services.distributedCenter = &distributed;
    services.server = &server;
    services.notifier = &notifier;
    services.location = &location;
    services.sensorAggregator = [&]() -> LocationTrigger* {
      LocationSensing::Dependencies d;
      d.library = &library;
      d.reachability = &reachability;
      d.fetcher = &helper.fetcher;
      d.center = &helper.center;
      d.dataFolder = (root_ / "data/Zonara").string();
      d.settings = LocationSensingSettings::fromPreferences(prefs, "");
      sensing = LocationSensing::create(d);
      return &sensing->aggregator();
    };
    auto controller = AppController::create(services);
    ASSERT_TRUE(controller);

    for (int i = 0; i < 200; ++i) {
      while (sensing && sensing->helper().lookupsRunning()) (void)RunLoop::main().runUntil([] { return false; }, 5ms);
      clock.advance(100ms);
      (void)RunLoop::main().runUntil([] { return false; }, 2ms);
    }
    ASSERT_TRUE(RunLoop::main().runUntil([&] { return service.received.size() >= 2; }, 5s));
    (void)RunLoop::main().runUntil([] { return false; }, 200ms);  // a wrong third message would be here by now

    for (const auto& n : service.received) received_.push_back(n.summary + "|" + n.body);
    ASSERT_TRUE(sensing);
    latitude_ = sensing->telluroSensor().currentLatitude();
    controller.reset();
    sensing.reset();
  }

  std::vector<std::string> commands() { return fileLines(root_ / "commands"); }
  size_t positioningRequests(const std::string& path) { return positioning_.countTo(path); }
  bool askedFor(const std::string& path) {
    for (const HttpRequest& r : http_.requests())
      if (r.path() == path) return true;
    return false;
  }
  bool askedForTheZoneAtParis() {
    for (const HttpRequest& r : http_.requests())
      if (r.path() == "/timezone" && r.query().find("lat=48.8566") == 0 && r.query().find("&lng=2.3522") != std::string::npos)
        return true;
    return false;
  }

  // The helper's log lines are not part of these tests.
  testing::SystemLogCapture quiet_;
  testing::TempDir scratch_{"whole-road-"};
  const fs::path root_ = scratch_.path();
  std::string ipPage;
  testing::HttpTestServer http_;
  WPS::API::testing::FakePositioningServer positioning_;
  std::vector<std::string> received_;
  std::optional<double> latitude_;
};

const std::vector<std::string> kExpectedNotifications = {"Zonara|Launched", "Zonara|Timezone changed to: Europe/Paris"};

TEST_F(WholeRoadTest, WithoutAPositionFromTheLibraryTheIPLocationPageLeadsToParis) {
  ipPage = "<table><tr><td>Latitude/Longitude</td><td class=output>48.8566/2.3522</td></tr>";
  testing::FakeLocationLibrary library;  // finds nothing
  run(library);
  EXPECT_EQ(received_, kExpectedNotifications);
  EXPECT_EQ(commands(), std::vector<std::string>{"Europe/Paris"});
  EXPECT_DOUBLE_EQ(latitude_.value_or(0), 48.8566);
  EXPECT_GE(library.lookupCount(), 1u);  // the library was asked first
  EXPECT_TRUE(askedForTheZoneAtParis());
}

// The real positioning library, scanning a scan file and asking the loopback
// positioning server; the IP-location page is never needed.
TEST_F(WholeRoadTest, PositioningLibraryWithAScanFileLeadsToParis) {
  const fs::path scans = root_ / "scans.txt";
  std::ofstream(scans) << "00:12:A3:B4:C5:D6 -60 6 -95 Home\n00:12:A3:B4:C5:D7 -70 11 0 Cafe\n";
  setenv("WPS_SCAN_FILE", scans.c_str(), 1);
  WpsLocationLibrary::setServerURL(positioning_.url());
  WpsLocationLibrary library;
  run(library);
  unsetenv("WPS_SCAN_FILE");
  EXPECT_EQ(received_, kExpectedNotifications);
  EXPECT_EQ(commands(), std::vector<std::string>{"Europe/Paris"});
  EXPECT_FLOAT_EQ(static_cast<float>(latitude_.value_or(0)), 48.8566f);
  EXPECT_GE(positioningRequests("/registration"), 1u);
  EXPECT_GE(positioningRequests("/location"), 1u);
  EXPECT_FALSE(askedFor("/app/locate_my_ip"));
  EXPECT_TRUE(askedForTheZoneAtParis());
  // The account made on the first lookup is kept.
  std::optional<std::string> user = GetTelluroUsername((root_ / "data/Zonara/Telluro.plist").string());
  ASSERT_TRUE(user);
  EXPECT_EQ(user->size(), 36u);
}

}  // namespace
}  // namespace zonara
