// The public functions end to end: the scan-file driver feeds the real Wi-Fi
// adapter, the real remote determination talks to a loopback server, and time
// runs on a simulated clock so the 500 ms periods cost nothing.
#include "wps/api/wpsapi.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "wps/api/local/location_determination_local.h"
#include "wps/api/local/location_determination_private.h"
#include "wps/api/protocol/config.h"
#include "wps/api/testing/geolocation_server.h"
#include "wps/api/wpsapi_internal.h"
#include "wps/spi/log_capture.h"
#include "wps/spi/simulated_clock.h"
#include "wps/spi/testing/http_test_server.h"
#include "wps/spi/testing/temp_dir.h"
#include "wps/spi/xml_http_request.h"

extern "C" int wpsapi_c_layout_ok(void);
extern "C" int wpsapi_c_locate(const char* url, const char* user, const char* realm, double* latitude,
                               double* longitude, unsigned* nap, int* handed_out);

namespace WPS {
namespace API {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using SPI::Time;
using zonara::testing::HttpRequest;
using zonara::testing::HttpResponse;
using zonara::testing::HttpTestServer;

const Time kStart(1700000000, 0);

// Access points of the scan files, named by a letter: its code is the last
// octet of the BSSID.
std::string octet(char letter) {
  char text[3];
  std::snprintf(text, sizeof text, "%02X", static_cast<unsigned char>(letter));
  return text;
}
std::string bssid(char letter) { return "00:12:A3:B4:C5:" + octet(letter); }
std::string mac(char letter) { return "0012A3B4C5" + octet(letter); }

// A scan file of blocks, each block a string of access-point letters.
std::string scanFile(const std::vector<std::string>& blocks) {
  std::string text = "# test scans\n";
  for (size_t i = 0; i < blocks.size(); ++i) {
    if (i > 0) text += "--\n";
    for (char letter : blocks[i]) text += bssid(letter) + " -60 6 -95 net " + letter + "\n";
  }
  return text;
}

std::string reply(const std::string& root, const std::string& inner) {
  return "<?xml version='1.0'?><" + root + " xmlns='" + kProtocolNamespace + "' version='2.6'>" + inner + "</" +
         root + ">";
}

std::string locationReply(double latitude, double longitude, int nap) {
  char inner[256];
  std::snprintf(inner, sizeof inner,
                "<location nap='%d'><latitude>%g</latitude><longitude>%g</longitude><hpe>40</hpe></location>", nap,
                latitude, longitude);
  return reply("LocationRS", inner);
}

// The MACs a location request carried, in order.
std::vector<std::string> macsOf(const HttpRequest& request) {
  std::vector<std::string> macs;
  const std::string open = "<mac>", close = "</mac>";
  for (size_t at = request.body.find(open); at != std::string::npos; at = request.body.find(open, at)) {
    at += open.size();
    const size_t end = request.body.find(close, at);
    if (end == std::string::npos) break;
    macs.push_back(request.body.substr(at, end - at));
  }
  return macs;
}

// A local determination whose answers the test scripts; it records what it
// was given. Only the computation is replaced: the settings are the real
// base class's.
class ScriptedLocal final : public LocationDeterminationLocal {
 public:
  using Answer = std::function<int(const Location* previous, const SPI::AccessPointList&, Location&)>;

  ScriptedLocal() : LocationDeterminationLocal("") {}

  int open(const SimpleAuthentication& authentication) override {
    ++opens;
    lastAuthentication = authentication;
    return openResult;
  }
  void close() override { ++closes; }
  int determineLocationLocally(const Location* previous, const std::vector<SPI::ScannedAccessPoint>& aps,
                               const std::vector<SPI::ScannedCellTower>&, Location& out) override {
    ++calls;
    hadPrevious.push_back(previous != nullptr);
    return answer ? answer(previous, aps, out) : kCannotDetermine;
  }

  int openResult = 0;
  Answer answer;
  int opens = 0;
  int closes = 0;
  int calls = 0;
  std::vector<bool> hadPrevious;
  SimpleAuthentication lastAuthentication;
};

class WpsApiTest : public ::testing::Test {
 protected:
  void SetUp() override {
    scanPath_ = (dir_ / "scans.txt").string();
    setenv("WPS_SCAN_FILE", scanPath_.c_str(), 1);
    SPI::XmlHttpRequest::setDefaultTimeouts(3000, 3000);
    clearLocationCacheForTesting();
    auto local = std::make_unique<ScriptedLocal>();
    local_ = local.get();
    setLocalDeterminationForTesting(std::move(local));
    ASSERT_EQ(WPS_set_server_url(server_.url("/wps2").c_str()), WPS_OK);
  }

  void TearDown() override {
    EXPECT_EQ(WPS_set_server_url(nullptr), WPS_OK);
    EXPECT_EQ(WPS_set_proxy(nullptr, 0, nullptr, nullptr), WPS_OK);
    EXPECT_EQ(WPS_set_user_agent(nullptr), WPS_OK);
    EXPECT_EQ(WPS_set_learned_places(nullptr, nullptr), WPS_OK);
    setLocalDeterminationForTesting(nullptr);
    clearLocationCacheForTesting();
    SPI::XmlHttpRequest::setDefaultTimeouts(0, 0);
    unsetenv("WPS_SCAN_FILE");
  }

  void writeScans(const std::vector<std::string>& blocks) {
    const std::string temporary = scanPath_ + ".new";
    std::ofstream(temporary) << scanFile(blocks);
    fs::rename(temporary, scanPath_);
  }

  // Serves location requests from `replies` by request number (the last one
  // repeats), noting the simulated time of each request.
  void serveLocations(std::vector<HttpResponse> replies) {
    server_.setHandler([this, replies](const HttpRequest&) {
      std::lock_guard<std::mutex> lock(mu_);
      requestTimes_.push_back(clock_.now() - kStart);
      return replies[std::min(requestTimes_.size(), replies.size()) - 1];
    });
  }

  std::vector<int64_t> requestTimes() {
    std::lock_guard<std::mutex> lock(mu_);
    return requestTimes_;
  }

  WPS_SimpleAuthentication auth_{"user", "example.org"};
  SPI::SimulatedClock clock_{kStart};
  SPI::ScopedClock installed_{clock_};
  zonara::testing::TempDir scratch_{"wpsapi-"};
  const fs::path dir_ = scratch_.path();
  std::string scanPath_;
  ScriptedLocal* local_ = nullptr;  // owned by the library
  std::mutex mu_;
  std::vector<int64_t> requestTimes_;  // guarded by mu_
  HttpTestServer server_;
};

// The public header compiles as C with the documented field order.
TEST(PublicHeader, CompilesAsCWithTheDocumentedLayout) { EXPECT_EQ(wpsapi_c_layout_ok(), 1); }

// The embedding program names its preferences domain; a null one is refused.
TEST(PublicSetup, ThePreferencesDomainMustBeNamed) {
  EXPECT_EQ(WPS_set_preferences_domain(nullptr), WPS_ERROR);
  EXPECT_EQ(WPS_set_preferences_domain("org.example.WpsApiTest"), WPS_OK);
}

// The program reads the library's clock: a simulated one moves only when
// told (and tells the listener every move), a sped-up one only for a factor
// of at least 1.
TEST(PublicSetup, TheProgramReadsTheLibrarysClock) {
  int moves = 0;
  WPS_set_clock_listener([](void* counter) { ++*static_cast<int*>(counter); }, &moves);
  struct Quiet {
    ~Quiet() { WPS_set_clock_listener(nullptr, nullptr); }
  } quiet;
  {
    SPI::SimulatedClock clock(SPI::Time(1700000000, 250));
    SPI::ScopedClock installed(clock);
    EXPECT_EQ(moves, 1);
    EXPECT_EQ(WPS_clock_is_simulated(), 1);
    EXPECT_EQ(WPS_clock_wall_ms(), 1700000000250LL);
    EXPECT_EQ(WPS_clock_monotonic_ms(), 0);
    WPS_clock_sleep_ms(1500);
    WPS_clock_sleep_ms(0);
    clock.advance(500);
    EXPECT_EQ(WPS_clock_monotonic_ms(), 2000);
    EXPECT_EQ(SPI::Time::now(), SPI::Time(1700000002, 250));
    EXPECT_EQ(clock.totalSlept(), 1500);
    EXPECT_EQ(moves, 3);
  }
  EXPECT_EQ(moves, 4);
  EXPECT_EQ(WPS_clock_is_simulated(), 0);
  EXPECT_EQ(WPS_clock_real_ms(250), 250);

  for (double refused : {0.5, -2.0, std::nan(""), HUGE_VAL}) EXPECT_EQ(WPS_set_time_scale(refused), WPS_ERROR);
  EXPECT_EQ(moves, 4);
  ASSERT_EQ(WPS_set_time_scale(50), WPS_OK);
  EXPECT_EQ(WPS_clock_real_ms(1000), 20);
  EXPECT_EQ(WPS_clock_real_ms(1), 1);
  const long long start = WPS_clock_monotonic_ms();
  WPS_clock_sleep_ms(500);  // about 10 ms of real time
  EXPECT_GE(WPS_clock_monotonic_ms() - start, 500);
  ASSERT_EQ(WPS_set_time_scale(1), WPS_OK);
  EXPECT_EQ(WPS_clock_real_ms(1000), 1000);
  const auto realMs = std::chrono::duration_cast<std::chrono::milliseconds>(
                          std::chrono::system_clock::now().time_since_epoch()).count();
  EXPECT_NEAR(static_cast<double>(WPS_clock_wall_ms()), static_cast<double>(realMs), 2000.0);
  EXPECT_EQ(moves, 6);
}

// When the server is asked, what it is sent, and when the scanning stops.
TEST_F(WpsApiTest, ServerRequestRuleAndEarlyStop) {
  const struct {
    const char* name;
    std::vector<std::string> scans;  // scan-file blocks (the last repeats)
    int replyNap;                    // nap of the server's answer
    WPS_ReturnCode code;
    std::vector<int64_t> requestAt;       // simulated ms of each request
    std::vector<std::string> firstMacs;   // access points of the first request
    int64_t slept;                        // simulated ms of scanning
  } cases[] = {
      {"three at once, fix of 3 stops at once", {"abc"}, 3, WPS_OK, {0}, {mac('a'), mac('b'), mac('c')}, 0},
      {"accumulated over scans", {"a", "ab", "bc"}, 3, WPS_OK, {1000}, {mac('a'), mac('b'), mac('c')}, 1000},
      {"two access points wait 3000 ms", {"ab"}, 3, WPS_OK, {3000}, {mac('a'), mac('b')}, 3000},
      {"one access point, then more after the fix", {"a", "a", "a", "a", "a", "a", "a", "ab", "abc"}, 2, WPS_OK,
       {3000, 3500, 4000}, {mac('a')}, 4500},
      {"a fix of two keeps scanning", {"abc"}, 2, WPS_OK, {0}, {mac('a'), mac('b'), mac('c')}, 4500},
      {"nothing seen", {""}, 3, WPS_ERROR_NO_LOCATION_FROM_SCAN, {}, {}, 4500},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    clearLocationCacheForTesting();
    server_.clearRequests();
    requestTimes_.clear();
    const int64_t sleptBefore = clock_.totalSlept();
    writeScans(c.scans);
    serveLocations({HttpResponse(200, locationReply(42.5, -71.25, c.replyNap))});
    const Time started = clock_.now();

    WPS_Location* location = nullptr;
    EXPECT_EQ(WPS_location(&auth_, WPS_FULL_STREET_ADDRESS_LOOKUP, &location), c.code);
    ASSERT_NE(location, nullptr);
    std::vector<int64_t> times = requestTimes();
    for (auto& t : times) t -= started - kStart;
    EXPECT_EQ(times, c.requestAt);
    EXPECT_EQ(clock_.totalSlept() - sleptBefore, c.slept);
    auto requests = server_.requests();
    if (!c.firstMacs.empty()) {
      ASSERT_FALSE(requests.empty());
      EXPECT_EQ(requests[0].target, "/wps2/location");
      EXPECT_EQ(macsOf(requests[0]), c.firstMacs);
    }
    if (c.code == WPS_OK) {
      EXPECT_DOUBLE_EQ(location->latitude, 42.5);
      EXPECT_DOUBLE_EQ(location->longitude, -71.25);
      EXPECT_EQ(location->nap, static_cast<unsigned>(c.replyNap));
    } else {
      EXPECT_EQ(location->latitude, 0.0);
      EXPECT_EQ(location->longitude, 0.0);
      EXPECT_EQ(location->hpe, 0.0);
      EXPECT_EQ(location->nap, 0u);
      EXPECT_EQ(location->street_address, nullptr);
    }
    WPS_free_location(location);
  }
}

// Server failures: the code comes back and nothing is handed out; refused
// credentials are never retried, other failures are retried on later scans.
TEST_F(WpsApiTest, ServerFailures) {
  const struct {
    const char* name;
    HttpResponse response;
    WPS_ReturnCode code;
    size_t requests;
  } cases[] = {
      {"401 is not retried", HttpResponse(401, ""), WPS_ERROR_UNAUTHORIZED, 1},
      {"403 is not retried", HttpResponse(403, ""), WPS_ERROR_UNAUTHORIZED, 1},
      {"500 is retried every scan", HttpResponse(500, ""), WPS_ERROR_SERVER_UNAVAILABLE, 10},
      {"an error element", HttpResponse(200, reply("LocationRS", "<error>no</error>")),
       WPS_ERROR_LOCATION_CANNOT_BE_DETERMINED, 10},
      {"a position that is not a number",
       HttpResponse(200, reply("LocationRS",
                               "<location><latitude>nan</latitude><longitude>2</longitude><hpe>-inf</hpe></location>")),
       WPS_ERROR_LOCATION_CANNOT_BE_DETERMINED, 10},
      {"a latitude past the pole", HttpResponse(200, locationReply(90.5, 2.35, 4)),
       WPS_ERROR_LOCATION_CANNOT_BE_DETERMINED, 10},
  };
  writeScans({"abc"});
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    server_.clearRequests();
    serveLocations({c.response});
    WPS_Location* location = reinterpret_cast<WPS_Location*>(&auth_);  // must be overwritten
    EXPECT_EQ(WPS_location(&auth_, WPS_LIMITED_STREET_ADDRESS_LOOKUP, &location), c.code);
    EXPECT_EQ(location, nullptr);
    EXPECT_EQ(server_.requestCount(), c.requests);
  }
}

TEST_F(WpsApiTest, EmptyCredentialsAreRefusedWithoutARequest) {
  writeScans({"abc"});
  serveLocations({HttpResponse(200, locationReply(1, 2, 3))});
  WPS_Location* location = nullptr;
  EXPECT_EQ(WPS_location(nullptr, WPS_NO_STREET_ADDRESS_LOOKUP, &location), WPS_ERROR_UNAUTHORIZED);
  EXPECT_EQ(location, nullptr);
  EXPECT_EQ(server_.requestCount(), 0u);
  EXPECT_EQ(local_->lastAuthentication, SimpleAuthentication("", ""));
}

TEST_F(WpsApiTest, SecondIdenticalScanIsAnsweredFromTheCache) {
  writeScans({"abcd"});
  serveLocations({HttpResponse(200, locationReply(48.85, 2.35, 4))});
  SPI::LogCapture log("WPS_location");

  WPS_Location* first = nullptr;
  ASSERT_EQ(WPS_location(&auth_, WPS_NO_STREET_ADDRESS_LOOKUP, &first), WPS_OK);
  EXPECT_TRUE(log.contains("no-location found in cache"));
  EXPECT_EQ(server_.requestCount(), 1u);

  log.clear();
  WPS_Location* second = nullptr;
  ASSERT_EQ(WPS_location(&auth_, WPS_NO_STREET_ADDRESS_LOOKUP, &second), WPS_OK);
  EXPECT_EQ(server_.requestCount(), 1u);
  EXPECT_TRUE(log.contains("found location in cache with nap = 4"));
  EXPECT_DOUBLE_EQ(second->latitude, first->latitude);
  EXPECT_DOUBLE_EQ(second->longitude, first->longitude);
  EXPECT_EQ(second->nap, 4u);
  WPS_free_location(first);
  WPS_free_location(second);

  // A different scan is not served from the cache.
  writeScans({"wxyz"});
  WPS_Location* third = nullptr;
  ASSERT_EQ(WPS_location(&auth_, WPS_NO_STREET_ADDRESS_LOOKUP, &third), WPS_OK);
  EXPECT_EQ(server_.requestCount(), 2u);
  WPS_free_location(third);
}

TEST_F(WpsApiTest, FailedRequestsAreNotCached) {
  writeScans({"abc"});
  serveLocations({HttpResponse(500, ""), HttpResponse(200, locationReply(1, 2, 3))});
  WPS_Location* location = nullptr;
  // The first request fails and the next scans ask again (and succeed).
  ASSERT_EQ(WPS_location(&auth_, WPS_NO_STREET_ADDRESS_LOOKUP, &location), WPS_OK);
  EXPECT_EQ(server_.requestCount(), 2u);
  WPS_free_location(location);

  clearLocationCacheForTesting();
  server_.clearRequests();
  serveLocations({HttpResponse(500, "")});
  EXPECT_EQ(WPS_location(&auth_, WPS_NO_STREET_ADDRESS_LOOKUP, &location), WPS_ERROR_SERVER_UNAVAILABLE);
  const size_t failing = server_.requestCount();
  serveLocations({HttpResponse(200, locationReply(1, 2, 3))});
  ASSERT_EQ(WPS_location(&auth_, WPS_NO_STREET_ADDRESS_LOOKUP, &location), WPS_OK);
  EXPECT_EQ(server_.requestCount(), failing + 1);
  WPS_free_location(location);
}

// The on-device determination, tried before the server when no street
// address is wanted.
TEST_F(WpsApiTest, LocalDetermination) {
  writeScans({"abc"});
  serveLocations({HttpResponse(200, locationReply(10, 20, 3))});
  SPI::LogCapture log("WPS_location");
  const auto fix = [](int nap) {
    return [nap](const Location*, const SPI::AccessPointList&, Location& out) {
      out.latitude = 51.5;
      out.longitude = -0.125;
      out.hpe = 25;
      out.nap = nap;
      return 0;
    };
  };

  // A local fix of more than two access points ends the request: no server.
  local_->answer = fix(3);
  WPS_Location* location = nullptr;
  ASSERT_EQ(WPS_location(&auth_, WPS_NO_STREET_ADDRESS_LOOKUP, &location), WPS_OK);
  EXPECT_DOUBLE_EQ(location->latitude, 51.5);
  EXPECT_EQ(location->nap, 3u);
  EXPECT_EQ(local_->calls, 1);
  EXPECT_EQ(local_->opens, 1);
  EXPECT_EQ(local_->closes, 1);
  EXPECT_EQ(server_.requestCount(), 0u);
  EXPECT_TRUE(log.containsFragment("location (local): 51.500000, -0.125000 +/-25.0m (3)"));
  WPS_free_location(location);

  // A street address is wanted: the tiles are not asked, the server is.
  clearLocationCacheForTesting();
  local_->calls = 0;
  ASSERT_EQ(WPS_location(&auth_, WPS_FULL_STREET_ADDRESS_LOOKUP, &location), WPS_OK);
  EXPECT_EQ(local_->calls, 0);
  EXPECT_DOUBLE_EQ(location->latitude, 10);
  EXPECT_EQ(server_.requestCount(), 1u);
  WPS_free_location(location);

  // A weak local fix keeps scanning and is kept; each later scan starts from it.
  clearLocationCacheForTesting();
  server_.clearRequests();
  local_->calls = 0;
  local_->hadPrevious.clear();
  local_->answer = fix(2);
  ASSERT_EQ(WPS_location(&auth_, WPS_NO_STREET_ADDRESS_LOOKUP, &location), WPS_OK);
  EXPECT_EQ(location->nap, 2u);
  EXPECT_DOUBLE_EQ(location->latitude, 51.5);
  EXPECT_EQ(local_->calls, 10);
  EXPECT_EQ(local_->hadPrevious, std::vector<bool>({false, true, true, true, true, true, true, true, true, true}));
  EXPECT_EQ(server_.requestCount(), 0u);
  WPS_free_location(location);

  // Without network use a failing local determination gives its own code.
  clearLocationCacheForTesting();
  local_->answer = nullptr;
  ASSERT_EQ(WPS_set_server_url(""), WPS_OK);
  location = reinterpret_cast<WPS_Location*>(&auth_);
  EXPECT_EQ(WPS_location(&auth_, WPS_NO_STREET_ADDRESS_LOOKUP, &location), WPS_ERROR_LOCATION_CANNOT_BE_DETERMINED);
  EXPECT_EQ(location, nullptr);
  EXPECT_EQ(server_.requestCount(), 0u);

  // A local determination that cannot open ends the request before scanning.
  local_->openResult = WPS_ERROR;
  const int closes = local_->closes;
  EXPECT_EQ(WPS_location(&auth_, WPS_NO_STREET_ADDRESS_LOOKUP, &location), WPS_ERROR);
  EXPECT_EQ(location, nullptr);
  EXPECT_EQ(local_->closes, closes + 1);
}

TEST_F(WpsApiTest, LocalFixIsCachedForTheServer) {
  writeScans({"abc"});
  serveLocations({HttpResponse(200, locationReply(10, 20, 3))});
  local_->answer = [](const Location*, const SPI::AccessPointList&, Location& out) {
    out.latitude = 5;
    out.longitude = 6;
    out.nap = 3;
    return 0;
  };
  WPS_Location* location = nullptr;
  ASSERT_EQ(WPS_location(&auth_, WPS_NO_STREET_ADDRESS_LOOKUP, &location), WPS_OK);
  WPS_free_location(location);
  // Without tiles now, the server would be asked: the cache answers instead.
  local_->answer = nullptr;
  ASSERT_EQ(WPS_location(&auth_, WPS_NO_STREET_ADDRESS_LOOKUP, &location), WPS_OK);
  EXPECT_DOUBLE_EQ(location->latitude, 5);
  EXPECT_EQ(server_.requestCount(), 0u);
  WPS_free_location(location);
}

TEST_F(WpsApiTest, SettingsReachTheLocalDetermination) {
  SPI::LogCapture log("WPS_tiling");
  EXPECT_EQ(WPS_tiling("/tiles", 600, 500, nullptr, nullptr), WPS_OK);
  EXPECT_TRUE(log.contains("maxDataSizePerSession 600 > maxDataSizeTotal 500, maxDataSizePerSession reduced"));
  EXPECT_EQ(local_->tilingParameters().directory, "/tiles");
  EXPECT_EQ(local_->tilingParameters().maxDataSizePerSession, 500u);
  EXPECT_EQ(local_->tilingParameters().maxDataSizeTotal, 500u);

  log.clear();
  int marker = 0;
  const WPS_TilingCallback callback = [](void*, unsigned, unsigned) { return WPS_CONTINUE; };
  EXPECT_EQ(WPS_tiling("/tiles2", 460800, 20971520, callback, &marker), WPS_OK);
  EXPECT_TRUE(log.messages().empty());
  EXPECT_EQ(local_->tilingParameters().maxDataSizePerSession, 460800u);
  EXPECT_EQ(local_->tilingParameters().maxDataSizeTotal, 20971520u);
  EXPECT_EQ(local_->tilingParameters().callback, callback);
  EXPECT_EQ(local_->tilingParameters().callbackArg, &marker);

  const char* paths[] = {"/one", "/two", nullptr};
  EXPECT_EQ(WPS_set_local_files_path(paths), WPS_OK);
  EXPECT_EQ(local_->paths(), std::vector<std::string>({"/one", "/two"}));

  EXPECT_EQ(WPS_set_tier2_area((dir_ / "collected").c_str(), 64), WPS_OK);
  EXPECT_NE(local_->tier2Collection(), nullptr);
  EXPECT_EQ(WPS_set_tier2_area(nullptr, 0), WPS_OK);
  EXPECT_EQ(local_->tier2Collection(), nullptr);
}

TEST_F(WpsApiTest, ClientSettingsReachTheRequests) {
  server_.setHandler([](const HttpRequest&) {
    return HttpResponse(200, reply("IPLocationRS", "<ip-location><ip>192.0.2.7</ip></ip-location>"));
  });
  WPS_IPLocation* ip = nullptr;

  ASSERT_EQ(WPS_set_user_agent("Zonara/1.0"), WPS_OK);
  ASSERT_EQ(WPS_ip_location(&auth_, WPS_NO_STREET_ADDRESS_LOOKUP, &ip), WPS_OK);
  WPS_free_ip_location(ip);
  EXPECT_EQ(server_.lastRequest()->header("User-Agent"), "Zonara/1.0");
  ASSERT_EQ(WPS_set_user_agent(nullptr), WPS_OK);
  ASSERT_EQ(WPS_ip_location(&auth_, WPS_NO_STREET_ADDRESS_LOOKUP, &ip), WPS_OK);
  WPS_free_ip_location(ip);
  EXPECT_EQ(server_.lastRequest()->header("User-Agent"), WPS::API::defaultUserAgent());

  // Through a proxy (the same loopback server), the request names the server.
  ASSERT_EQ(WPS_set_server_url("http://telluro.example/wps2"), WPS_OK);
  ASSERT_EQ(WPS_set_proxy("127.0.0.1", server_.port(), nullptr, nullptr), WPS_OK);
  ASSERT_EQ(WPS_ip_location(&auth_, WPS_NO_STREET_ADDRESS_LOOKUP, &ip), WPS_OK);
  WPS_free_ip_location(ip);
  EXPECT_EQ(server_.lastRequest()->target, "http://telluro.example/wps2/ip-location");
  ASSERT_EQ(WPS_set_proxy(nullptr, 0, nullptr, nullptr), WPS_OK);
}

TEST_F(WpsApiTest, IPLocationAndRegistrationRoundTrips) {
  server_.setHandler([](const HttpRequest& request) {
    if (request.path() == "/wps2/ip-location") {
      return HttpResponse(200, reply("IPLocationRS",
                                     "<ip-location><ip>192.0.2.7</ip><latitude>35.5</latitude>"
                                     "<longitude>139.75</longitude></ip-location>"));
    }
    if (request.path() == "/wps2/registration") return HttpResponse(200, reply("RegistrationRS", ""));
    return HttpResponse(404, "");
  });

  WPS_IPLocation* ip = nullptr;
  ASSERT_EQ(WPS_ip_location(&auth_, WPS_FULL_STREET_ADDRESS_LOOKUP, &ip), WPS_OK);
  ASSERT_NE(ip, nullptr);
  EXPECT_STREQ(ip->ip, "192.0.2.7");
  EXPECT_DOUBLE_EQ(ip->latitude, 35.5);
  EXPECT_DOUBLE_EQ(ip->longitude, 139.75);
  WPS_free_ip_location(ip);
  auto request = server_.lastRequest();
  EXPECT_NE(request->body.find("IPLocationRQ"), std::string::npos);

  const WPS_SimpleAuthentication newUser{"A1B2C3D4", "example.org"};
  EXPECT_EQ(WPS_register_user(&auth_, &newUser), WPS_OK);
  request = server_.lastRequest();
  EXPECT_EQ(request->path(), "/wps2/registration");
  EXPECT_NE(request->body.find("A1B2C3D4"), std::string::npos);

  server_.setHandler([](const HttpRequest&) { return HttpResponse(401, ""); });
  ip = reinterpret_cast<WPS_IPLocation*>(&auth_);
  EXPECT_EQ(WPS_ip_location(&auth_, WPS_NO_STREET_ADDRESS_LOOKUP, &ip), WPS_ERROR_UNAUTHORIZED);
  EXPECT_EQ(ip, nullptr);
  EXPECT_EQ(WPS_register_user(&auth_, &newUser), WPS_ERROR_UNAUTHORIZED);
  // Nothing is sent for an empty account.
  const size_t before = server_.requestCount();
  EXPECT_EQ(WPS_ip_location(nullptr, WPS_NO_STREET_ADDRESS_LOOKUP, &ip), WPS_ERROR_UNAUTHORIZED);
  EXPECT_EQ(server_.requestCount(), before);
}

// Several threads asking at once are served one after the other, each with
// the answer to its own scan.
TEST_F(WpsApiTest, ConcurrentRequestsAreSerialised) {
  constexpr int kThreads = 4;
  writeScans({"abc"});
  int served = 0;  // only touched by the handler (its calls are serialised)
  server_.setHandler([&](const HttpRequest&) {
    ++served;
    // The next request scans other access points, so the cache cannot answer.
    const char first = static_cast<char>('A' + 3 * served);
    writeScans({{first, static_cast<char>(first + 1), static_cast<char>(first + 2)}});
    return HttpResponse(200, locationReply(served, served, 3));
  });
  SPI::LogCapture log("WPS_periodic_scan");

  std::vector<double> latitudes(kThreads, -1);
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, i] {
      WPS_Location* location = nullptr;
      const WPS_ReturnCode code = WPS_location(&auth_, WPS_NO_STREET_ADDRESS_LOOKUP, &location);
      if (code == WPS_OK && location != nullptr) latitudes[i] = location->latitude;
      WPS_free_location(location);
    });
  }
  for (auto& t : threads) t.join();

  std::sort(latitudes.begin(), latitudes.end());
  EXPECT_EQ(latitudes, std::vector<double>({1, 2, 3, 4}));
  EXPECT_EQ(server_.requestCount(), static_cast<size_t>(kThreads));
  // Each scan loop opened its adapter and stopped before the next one opened.
  std::vector<std::string> sequence;
  for (const auto& m : log.messages()) {
    if (m == "about to open Wi-Fi adapter" || m == "stopping") sequence.push_back(m);
  }
  ASSERT_EQ(sequence.size(), 2u * kThreads);
  for (size_t i = 0; i < sequence.size(); ++i) {
    EXPECT_EQ(sequence[i], i % 2 == 0 ? "about to open Wi-Fi adapter" : "stopping") << i;
  }
}

TEST_F(WpsApiTest, PeriodicScan) {
  writeScans({"ab", "abb", "c"});
  struct Seen {
    std::vector<size_t> sizes;
    std::vector<int64_t> elapsed;
    int stopAfter = 0;
  };
  const WPS_ScanCallback record = [](void* context, WPS_ReturnCode result, const WPS_ScanResult* scan) {
    auto& seen = *static_cast<Seen*>(context);
    EXPECT_EQ(result, WPS_OK);
    seen.sizes.push_back(scan->accessPoints->size());
    seen.elapsed.push_back(scan->timer->elapsed());
    return static_cast<int>(seen.sizes.size()) == seen.stopAfter ? WPS_STOP : WPS_CONTINUE;
  };

  // Bounded: ten periods; duplicates within a scan removed.
  Seen bounded;
  EXPECT_EQ(WPS_periodic_scan(500, 10, record, &bounded), WPS_OK);
  EXPECT_EQ(bounded.sizes, std::vector<size_t>({2, 2, 1, 1, 1, 1, 1, 1, 1, 1}));
  EXPECT_EQ(bounded.elapsed, std::vector<int64_t>({0, 500, 1000, 1500, 2000, 2500, 3000, 3500, 4000, 4500}));

  // Unbounded until the callback says stop.
  Seen unbounded;
  unbounded.stopAfter = 25;
  EXPECT_EQ(WPS_periodic_scan(200, 0, record, &unbounded), WPS_OK);
  EXPECT_EQ(unbounded.sizes.size(), 25u);
  EXPECT_EQ(unbounded.elapsed.back(), 24 * 200);

  EXPECT_EQ(WPS_periodic_scan(500, 10, nullptr, nullptr), WPS_ERROR);
}

TEST_F(WpsApiTest, NoAdapterMeansNoLocation) {
  setenv("WPS_SCAN_FILE", (dir_ / "missing.txt").c_str(), 1);
  SPI::LogCapture log("WPS_periodic_scan");
  WPS_Location* location = reinterpret_cast<WPS_Location*>(&auth_);
  EXPECT_EQ(WPS_location(&auth_, WPS_NO_STREET_ADDRESS_LOOKUP, &location), WPS_ERROR);
  EXPECT_EQ(location, nullptr);
  EXPECT_TRUE(log.contains("couldn't open Wi-Fi adapter"));
  EXPECT_EQ(local_->closes, local_->opens);
  EXPECT_EQ(WPS_location(&auth_, WPS_NO_STREET_ADDRESS_LOOKUP, nullptr), WPS_ERROR);
}

TEST_F(WpsApiTest, PeriodicLocation) {
  writeScans({"abc"});
  serveLocations({HttpResponse(200, locationReply(7, 8, 3))});
  struct Reports {
    std::vector<int> codes;
    std::vector<double> latitudes;
    unsigned stopAfter = 0;
  } reports;
  const WPS_LocationCallback callback = [](void* arg, WPS_ReturnCode code, const WPS_Location* location) {
    auto& r = *static_cast<Reports*>(arg);
    r.codes.push_back(code);
    r.latitudes.push_back(location != nullptr ? location->latitude : -1);
    return r.codes.size() == r.stopAfter ? WPS_STOP : WPS_CONTINUE;
  };

  const int64_t sleptBefore = clock_.totalSlept();
  EXPECT_EQ(WPS_periodic_location(&auth_, WPS_NO_STREET_ADDRESS_LOOKUP, 10000, 3, callback, &reports), WPS_OK);
  EXPECT_EQ(reports.codes, std::vector<int>({WPS_OK, WPS_OK, WPS_OK}));
  EXPECT_EQ(reports.latitudes, std::vector<double>({7, 7, 7}));
  // Each report comes at once (three access points), then the rest of the
  // period is waited, except after the last.
  EXPECT_EQ(clock_.totalSlept() - sleptBefore, 2 * 10000);
  EXPECT_EQ(server_.requestCount(), 1u);  // the cache answers the repeats

  reports = Reports{};
  reports.stopAfter = 2;
  serveLocations({HttpResponse(401, "")});
  clearLocationCacheForTesting();
  EXPECT_EQ(WPS_periodic_location(&auth_, WPS_NO_STREET_ADDRESS_LOOKUP, 1000, 0, callback, &reports), WPS_OK);
  EXPECT_EQ(reports.codes, std::vector<int>({WPS_ERROR_UNAUTHORIZED, WPS_ERROR_UNAUTHORIZED}));
  EXPECT_EQ(reports.latitudes, std::vector<double>({-1, -1}));

  setenv("WPS_SCAN_FILE", (dir_ / "missing.txt").c_str(), 1);
  reports = Reports{};
  EXPECT_EQ(WPS_periodic_location(&auth_, WPS_NO_STREET_ADDRESS_LOOKUP, 1000, 0, callback, &reports), WPS_ERROR);
  EXPECT_EQ(reports.codes, std::vector<int>({WPS_ERROR}));
}

TEST_F(WpsApiTest, CallableFromC) {
  writeScans({"abc"});
  serveLocations({HttpResponse(200, locationReply(-33.875, 151.25, 3))});
  double latitude = 0, longitude = 0;
  unsigned nap = 0;
  int handedOut = 0;
  EXPECT_EQ(wpsapi_c_locate(server_.url("/wps2").c_str(), "user", "example.org", &latitude, &longitude, &nap,
                            &handedOut),
            WPS_OK);
  EXPECT_TRUE(handedOut);
  EXPECT_DOUBLE_EQ(latitude, -33.875);
  EXPECT_DOUBLE_EQ(longitude, 151.25);
  EXPECT_EQ(nap, 3u);

  // A null realm is the empty text: refused without a request.
  clearLocationCacheForTesting();
  server_.clearRequests();
  EXPECT_EQ(wpsapi_c_locate(server_.url("/wps2").c_str(), "user", nullptr, &latitude, &longitude, &nap, &handedOut),
            WPS_ERROR_UNAUTHORIZED);
  EXPECT_FALSE(handedOut);
  EXPECT_EQ(server_.requestCount(), 0u);
}

// ---- The geolocation JSON API through the public functions ----

TEST_F(WpsApiTest, ServerUrlSelectsTheProtocol) {
  const struct {
    const char* url;
    WPS_ServerProtocol protocol;
  } cases[] = {
      {"https://api.beacondb.net/v1/geolocate", WPS_PROTOCOL_GEOLOCATION_API},
      {"http://127.0.0.1:8080/v1/geolocate?key=test", WPS_PROTOCOL_GEOLOCATION_API},
      {"https://example.org/v1/geolocate/", WPS_PROTOCOL_XML},
      {"https://example.org/v1/geolocatex", WPS_PROTOCOL_XML},
      {"https://example.org/wps2/", WPS_PROTOCOL_XML},
      {"", WPS_PROTOCOL_NONE},
  };
  for (const auto& c : cases) {
    ASSERT_EQ(WPS_set_server_url(c.url), WPS_OK);
    EXPECT_EQ(WPS_server_protocol(), c.protocol) << c.url;
  }
  ASSERT_EQ(WPS_set_server_url(nullptr), WPS_OK);
  EXPECT_EQ(WPS_server_protocol(), WPS_PROTOCOL_GEOLOCATION_API);
}

TEST_F(WpsApiTest, GeolocationApiLocatesByWifiAndByAddress) {
  testing::GeolocationServer json;
  json.addAccessPoint(bssid('a'), 47.0, 8.0);
  json.addAccessPoint(bssid('b'), 47.2, 8.2);
  json.setIpLocation(std::make_pair(46.0, 7.0));
  ASSERT_EQ(WPS_set_server_url(json.url().c_str()), WPS_OK);
  writeScans({"abc"});

  // No credentials are needed, and none are sent.
  WPS_Location* location = nullptr;
  ASSERT_EQ(WPS_location(nullptr, WPS_NO_STREET_ADDRESS_LOOKUP, &location), WPS_OK);
  ASSERT_NE(location, nullptr);
  EXPECT_DOUBLE_EQ(location->latitude, 47.1);
  EXPECT_DOUBLE_EQ(location->longitude, 8.1);
  EXPECT_EQ(location->nap, 3u);
  EXPECT_EQ(location->source, WPS_SOURCE_SERVER);
  WPS_free_location(location);

  WPS_IPLocation* ip = nullptr;
  ASSERT_EQ(WPS_ip_location(nullptr, WPS_NO_STREET_ADDRESS_LOOKUP, &ip), WPS_OK);
  EXPECT_DOUBLE_EQ(ip->latitude, 46.0);
  EXPECT_STREQ(ip->ip, "");
  WPS_free_ip_location(ip);

  // Registration has nowhere to go.
  EXPECT_EQ(WPS_register_user(&auth_, &auth_), WPS_OK);
  EXPECT_EQ(json.http().requestCount(), 2u);
}

TEST_F(WpsApiTest, GeolocationApiIsNotAskedTwiceForTheSameAccessPoints) {
  testing::GeolocationServer json;  // knows none of them: notFound
  ASSERT_EQ(WPS_set_server_url(json.url().c_str()), WPS_OK);
  writeScans({"abc", "abc", "abc", "abcd", "abcd"});
  WPS_Location* location = nullptr;
  EXPECT_EQ(WPS_location(&auth_, WPS_NO_STREET_ADDRESS_LOOKUP, &location), WPS_ERROR_LOCATION_CANNOT_BE_DETERMINED);
  EXPECT_EQ(location, nullptr);
  // Once for a, b, c and once more when d appeared, over five seconds of scans.
  ASSERT_EQ(json.wifiRequestCount(), 2u);
  // Every access point of the second request was seen in the scan that
  // prompted it: its age counts from that sighting, not the first.
  const nlohmann::json second = nlohmann::json::parse(json.http().lastRequest()->body);
  ASSERT_EQ(second["wifiAccessPoints"].size(), 4u);
  for (const nlohmann::json& ap : second["wifiAccessPoints"]) EXPECT_LT(ap.value("age", 0), 500) << ap;
}

TEST_F(WpsApiTest, AReturnVisitIsLocatedFromLearnedPlacesWithoutARequest) {
  setLocalDeterminationForTesting(nullptr);  // the real local determination
  LocationDeterminationPrivate::resetTracesForTesting();
  testing::GeolocationServer json;
  for (char letter : std::string("abcde")) json.addAccessPoint(bssid(letter), 48.8566, 2.3522);
  json.setWifiAccuracy(30);
  ASSERT_EQ(WPS_set_server_url(json.url().c_str()), WPS_OK);
  const std::string learned = (dir_ / "Learned").string();
  EXPECT_EQ(WPS_set_learned_places(learned.c_str(), ""), WPS_ERROR);
  EXPECT_EQ(WPS_learned_places_count(nullptr, nullptr), WPS_ERROR);
  ASSERT_EQ(WPS_set_learned_places(learned.c_str(), "installation-secret"), WPS_OK);
  writeScans({"abcde"});

  // First visit: the server places the scan and teaches the five.
  WPS_Location* location = nullptr;
  ASSERT_EQ(WPS_location(nullptr, WPS_NO_STREET_ADDRESS_LOOKUP, &location), WPS_OK);
  EXPECT_EQ(location->source, WPS_SOURCE_SERVER);
  WPS_free_location(location);
  ASSERT_EQ(json.wifiRequestCount(), 1u);
  unsigned long accessPoints = 0, places = 0;
  ASSERT_EQ(WPS_learned_places_count(&accessPoints, &places), WPS_OK);
  EXPECT_EQ(accessPoints, 5u);
  EXPECT_EQ(places, 1u);

  // Return visit an hour later, with the cache of recent answers forgotten:
  // located from the learned files, no request.
  clearLocationCacheForTesting();
  clock_.advance(3600 * 1000);
  ASSERT_EQ(WPS_location(nullptr, WPS_NO_STREET_ADDRESS_LOOKUP, &location), WPS_OK);
  EXPECT_EQ(location->source, WPS_SOURCE_LEARNED);
  EXPECT_NEAR(location->latitude, 48.8566, 1e-4);
  EXPECT_NEAR(location->longitude, 2.3522, 1e-4);
  EXPECT_GE(location->hpe, 30.0);
  EXPECT_EQ(location->nap, 5u);
  WPS_free_location(location);
  EXPECT_EQ(json.http().requestCount(), 1u);

  // Forgotten, the place needs the server again.
  unsigned long forgotten = 0;
  ASSERT_EQ(WPS_forget_learned_places(&forgotten), WPS_OK);
  EXPECT_EQ(forgotten, 5u);
  clearLocationCacheForTesting();
  clock_.advance(3600 * 1000);
  ASSERT_EQ(WPS_location(nullptr, WPS_NO_STREET_ADDRESS_LOOKUP, &location), WPS_OK);
  EXPECT_EQ(location->source, WPS_SOURCE_SERVER);
  WPS_free_location(location);
  EXPECT_EQ(json.wifiRequestCount(), 2u);
}

}  // namespace
}  // namespace API
}  // namespace WPS
