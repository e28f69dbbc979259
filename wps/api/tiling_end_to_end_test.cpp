// Downloaded tiles through the public functions: WPS_tiling, then location
// requests that scan (scan-file driver), ask the loopback positioning server
// for tiles, download them, and are then answered from the tiles without the
// server, also after a restart of the library's objects.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "wps/api/local/location_determination_local.h"
#include "wps/api/testing/fake_positioning_server.h"
#include "wps/api/testing/tile_dir.h"
#include "wps/api/wpsapi.h"
#include "wps/api/wpsapi_internal.h"
#include "wps/spi/log_capture.h"
#include "wps/spi/simulated_clock.h"
#include "wps/spi/xml_http_request.h"

namespace WPS {
namespace API {
namespace {

using testing::FakePositioningServer;
using testing::TileDir;

constexpr double kLatitude = 47.3769;
constexpr double kLongitude = 8.5417;

// Twelve access points around (kLatitude, kLongitude); their BSSIDs end in
// 0x41 ('A') onwards.
std::vector<LocatedAccessPoint> neighbourhood() {
  std::vector<LocatedAccessPoint> aps;
  for (int i = 0; i < 12; ++i) {
    LocatedAccessPoint ap;
    char text[32];
    std::snprintf(text, sizeof text, "00:12:A3:B4:C5:%02X", 0x41 + i);
    EXPECT_TRUE(SPI::MAC::parse(text, ap.mac)) << text;
    ap.latitude = kLatitude + 0.0003 * (i % 4 - 1.5);
    ap.longitude = kLongitude + 0.0004 * (i / 4 - 1.0);
    ap.reliabilityCount = 60;
    ap.signalExponent = 0.25;
    aps.push_back(ap);
  }
  return aps;
}

// Counts the tiling callback's calls; remembers the last one.
struct Progress {
  std::mutex mu;
  unsigned calls = 0;
  unsigned last = 0;
  unsigned total = 0;
  static WPS_Continuation call(void* arg, unsigned number, unsigned count) {
    auto* self = static_cast<Progress*>(arg);
    std::lock_guard<std::mutex> lock(self->mu);
    ++self->calls;
    self->last = number;
    self->total = count;
    return WPS_CONTINUE;
  }
  // Waits (up to 10 s of real time) for the report of the last download.
  bool waitUntilDone() {
    for (int i = 0; i < 1000; ++i) {
      {
        std::lock_guard<std::mutex> lock(mu);
        if (total > 0 && last == total) return true;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
  }
};

class TilingEndToEndTest : public ::testing::Test {
 protected:
  void SetUp() override {
    scanPath_ = dir_.path() + "-scans.txt";
    std::ofstream scans(scanPath_);
    // Every scan sees eight of the access points with good signals.
    for (int i = 0; i < 8; ++i) {
      char line[64];
      std::snprintf(line, sizeof line, "00:12:A3:B4:C5:%02X %d 6 -95 net%d\n", 0x41 + i, -50 - 3 * i, i);
      scans << line;
    }
    scans.close();
    setenv("WPS_SCAN_FILE", scanPath_.c_str(), 1);
    SPI::XmlHttpRequest::setDefaultTimeouts(5000, 5000);
    setLocalDeterminationForTesting(nullptr);
    clearLocationCacheForTesting();
    ASSERT_EQ(WPS_set_server_url(server_.url().c_str()), WPS_OK);

    // The server places the scan far away; the tiles place it at home.
    LocatedAccessPoint elsewhere;
    elsewhere.latitude = 10.0;
    elsewhere.longitude = 20.0;
    server_.setLocation(elsewhere, 30.0, 8);
    FakePositioningServer::Tile tile;
    tile.id = "4737_854";
    tile.version = "3";
    tile.bytes = FakePositioningServer::makeTileFile(neighbourhood(), auth_.realm);
    server_.addTile(tile);
  }

  void TearDown() override {
    setLocalDeterminationForTesting(nullptr);  // ends the tiling (and its downloads)
    clearLocationCacheForTesting();
    EXPECT_EQ(WPS_set_server_url(nullptr), WPS_OK);
    SPI::XmlHttpRequest::setDefaultTimeouts(0, 0);
    unsetenv("WPS_SCAN_FILE");
    std::remove(scanPath_.c_str());
  }

  WPS_ReturnCode locate(double& latitude, double& longitude) {
    WPS_Location* location = nullptr;
    const WPS_ReturnCode code = WPS_location(&auth_, WPS_NO_STREET_ADDRESS_LOOKUP, &location);
    if (location != nullptr) {
      latitude = location->latitude;
      longitude = location->longitude;
      WPS_free_location(location);
    }
    return code;
  }

  WPS_SimpleAuthentication auth_{"user", "example.org"};
  SPI::SimulatedClock clock_{SPI::Time(1700000000, 0)};
  SPI::ScopedClock installed_{clock_};
  TileDir dir_;
  std::string scanPath_;
  FakePositioningServer server_;
  Progress progress_;
};

TEST_F(TilingEndToEndTest, ScansBringTilesThatLocateLaterScansWithoutTheServer) {
  SPI::LogCapture tilingLog("WPS.API.Tiling");
  ASSERT_EQ(WPS_tiling(dir_.path().c_str(), 460800, 20971520, &Progress::call, &progress_), WPS_OK);

  // No tiles yet: the server answers (then the location cache), and the
  // scans seen ask for tiles (the second location request's scan exceeds the
  // cache's one scan).
  double latitude = 0, longitude = 0;
  ASSERT_EQ(locate(latitude, longitude), WPS_OK);
  EXPECT_DOUBLE_EQ(latitude, 10.0);
  EXPECT_EQ(server_.countTo("/location"), 1u);
  EXPECT_EQ(server_.countTo("/tiling"), 0u);
  ASSERT_EQ(locate(latitude, longitude), WPS_OK);
  EXPECT_DOUBLE_EQ(latitude, 10.0);
  ASSERT_TRUE(progress_.waitUntilDone());
  ASSERT_EQ(server_.countTo("/tiling"), 1u);
  EXPECT_NE(server_.requestsTo("/tiling")[0].body.find("<age>"), std::string::npos);
  EXPECT_TRUE(dir_.has("4737_854_3.dat"));
  EXPECT_TRUE(tilingLog.contains("switching to main tile 4737_854 as suggested by server, was unknown"));

  // The same session: located from the tile, the server is not asked (the
  // location cache is emptied so that only the tiles can answer).
  clearLocationCacheForTesting();
  ASSERT_EQ(locate(latitude, longitude), WPS_OK);
  EXPECT_NEAR(latitude, kLatitude, 0.01);
  EXPECT_NEAR(longitude, kLongitude, 0.01);
  EXPECT_EQ(server_.countTo("/location"), 1u);

  // A restart: the library's objects are made anew and find the tile on disk.
  setLocalDeterminationForTesting(nullptr);
  clearLocationCacheForTesting();
  tilingLog.clear();
  ASSERT_EQ(WPS_tiling(dir_.path().c_str(), 460800, 20971520, nullptr, nullptr), WPS_OK);
  latitude = longitude = 0;
  ASSERT_EQ(locate(latitude, longitude), WPS_OK);
  EXPECT_NEAR(latitude, kLatitude, 0.01);
  EXPECT_NEAR(longitude, kLongitude, 0.01);
  EXPECT_EQ(server_.countTo("/location"), 1u);
  EXPECT_TRUE(tilingLog.contains("found tile 4737_854_3"));
  EXPECT_EQ(server_.downloadCount(), 1u);
}

}  // namespace
}  // namespace API
}  // namespace WPS
