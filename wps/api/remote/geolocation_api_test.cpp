#include "wps/api/remote/geolocation_api.h"

#include <gtest/gtest.h>

#include <cmath>
#include <nlohmann/json.hpp>

#include "wps/api/protocol/config.h"
#include "wps/api/protocol/location_client.h"
#include "wps/api/testing/geolocation_server.h"
#include "wps/spi/log_capture.h"
#include "wps/spi/os_release.h"
#include "wps/spi/simulated_clock.h"
#include "wps/spi/xml_http_request.h"

namespace WPS {
namespace API {
namespace {

using nlohmann::json;
using SPI::MAC;
using SPI::ScannedAccessPoint;
using SPI::Time;
using testing::GeolocationServer;
using Fault = GeolocationServer::Fault;
using zonara::testing::HttpResponse;

const Time kNow(1700000000, 250);

ScannedAccessPoint ap(uint64_t mac, int16_t rssi, std::string ssid = "home", Time seen = {}) {
  return ScannedAccessPoint(MAC::fromValue(mac), rssi, std::move(ssid), seen);
}

// ---- What may be sent, and how ----

TEST(GeolocationRequestTest, PrivacyFilterDropsWhatMustNotBeLookedUp) {
  struct Case {
    const char* what;
    ScannedAccessPoint accessPoint;
    bool sendable;
  } cases[] = {
      {"ordinary", ap(0x0012A3B4C5D6, -61), true},
      {"unknown signal", ap(0x0012A3B4C5D6, SPI::kUnknownRSSI), true},
      {"hidden network", ap(0x0012A3B4C5D6, -61, ""), false},
      {"opted out", ap(0x0012A3B4C5D6, -61, "cafe_nomap"), false},
      {"opt-out only at the end", ap(0x0012A3B4C5D6, -61, "_nomap cafe"), true},
      {"locally administered", ap(0x0212A3B4C5D6, -61), false},
      {"randomised (x6)", ap(0xD612A3B4C5D6, -61), false},
      {"multicast bit alone", ap(0x0112A3B4C5D6, -61), true},
      {"-89 dBm", ap(0x0012A3B4C5D6, -89), true},
      {"-90 dBm", ap(0x0012A3B4C5D6, -90), false},
      {"-95 dBm", ap(0x0012A3B4C5D6, -95), false},
  };
  for (const Case& c : cases) EXPECT_EQ(isSendable(c.accessPoint), c.sendable) << c.what;
}

TEST(GeolocationRequestTest, WifiBodyCarriesMacSignalAgeAndChannelButNoName) {
  ScannedAccessPoint seen = ap(0x0012A3B4C5D6, -61, "Secret Home", Time(1700000000, 100));
  seen.channel = 6;
  ScannedAccessPoint bare = ap(0xABCDEF012345, SPI::kUnknownRSSI, "x");
  const json body = json::parse(wifiRequestBody({seen, bare}, Time(1700000001, 300)));
  EXPECT_EQ(body, json::parse(R"({"considerIp": false, "wifiAccessPoints": [
      {"macAddress": "00:12:a3:b4:c5:d6", "signalStrength": -61, "age": 1200, "channel": 6},
      {"macAddress": "ab:cd:ef:01:23:45"}]})"));
  EXPECT_EQ(json::parse(ipRequestBody()), json::parse(R"({"considerIp": true})"));
}

// ---- Answers ----

TEST(GeolocationAnswerTest, AnswersAreCheckedBeforeUse) {
  struct Case {
    const char* body;
    bool usable;
    bool ipBased;
  } cases[] = {
      {R"({"location": {"lat": 52.52, "lng": 13.405}, "accuracy": 35.5})", true, false},
      {R"({"location": {"lat": 52.52, "lng": 13.405}, "accuracy": 25000, "fallback": "ipf"})", true, true},
      {R"({"location": {"lat": 52.52, "lng": 13.405}, "accuracy": 5000, "fallback": "lacf"})", true, false},
      {R"({"location": {"lat": -90, "lng": 180}, "accuracy": 0})", true, false},
      {R"({"location": {"lat": 90.5, "lng": 13}, "accuracy": 10})", false, false},
      {R"({"location": {"lat": -91, "lng": 13}, "accuracy": 10})", false, false},
      {R"({"location": {"lat": 52, "lng": 180.01}, "accuracy": 10})", false, false},
      {R"({"location": {"lat": 52, "lng": -181}, "accuracy": 10})", false, false},
      {R"({"location": {"lat": 1e999, "lng": 13}, "accuracy": 10})", false, false},
      {R"({"location": {"lat": 52, "lng": 13}, "accuracy": -1e999})", false, false},
      {R"({"location": {"lat": 52, "lng": 13}, "accuracy": -3})", false, false},
      {R"({"location": {"lat": 52, "lng": 13}})", false, false},
      {R"({"location": {"lat": "52", "lng": 13}, "accuracy": 10})", false, false},
      {R"({"location": [52, 13], "accuracy": 10})", false, false},
      {R"({"location": {"lat": 52.52, "lng": 13.405}, "accu)", false, false},
      {R"(<html>Bad gateway</html>)", false, false},
      {R"([])", false, false},
      {"", false, false},
  };
  for (const Case& c : cases) {
    std::string problem;
    const std::optional<GeolocationAnswer> answer = parseGeolocationAnswer(c.body, problem);
    EXPECT_EQ(answer.has_value(), c.usable) << c.body;
    if (answer) {
      EXPECT_EQ(answer->ipBased, c.ipBased) << c.body;
    } else {
      EXPECT_FALSE(problem.empty()) << c.body;
    }
  }
}

TEST(GeolocationErrorTest, StatusAndReasonGiveCodeAndBackOff) {
  struct Case {
    int status;
    const char* reason;
    int code;
    bool backOff;
  } cases[] = {
      {404, "notFound", WPS_ERROR_LOCATION_CANNOT_BE_DETERMINED, false},
      {400, "keyInvalid", WPS_ERROR_UNAUTHORIZED, false},
      {400, "parseError", WPS_ERROR, false},
      {403, "dailyLimitExceeded", WPS_ERROR_SERVER_UNAVAILABLE, true},
      {429, nullptr, WPS_ERROR_SERVER_UNAVAILABLE, true},
      {500, nullptr, WPS_ERROR_SERVER_UNAVAILABLE, true},
      {503, nullptr, WPS_ERROR_SERVER_UNAVAILABLE, true},
      {407, nullptr, WPS_ERROR_PROXY_UNAUTHORIZED, false},
      {301, nullptr, WPS_ERROR_SERVER_UNAVAILABLE, false},
  };
  for (const Case& c : cases) {
    const std::string body =
        c.reason ? GeolocationServer::errorResponse(c.status, c.reason).body : std::string("<html/>");
    const GeolocationError error = classifyGeolocationError(c.status, body);
    EXPECT_EQ(error.code, c.code) << c.status;
    EXPECT_EQ(error.backOff, c.backOff) << c.status;
    EXPECT_EQ(error.reason, c.reason ? c.reason : "") << c.status;
  }
}

TEST(GeolocationErrorTest, RetryAfterIsSecondsOrAnHttpDate) {
  const Time now(1445412480, 0);  // Wed, 21 Oct 2015 07:28:00 GMT
  EXPECT_EQ(parseRetryAfter("120", now), 120000);
  EXPECT_EQ(parseRetryAfter("0", now), 0);
  EXPECT_EQ(parseRetryAfter("Wed, 21 Oct 2015 07:30:30 GMT", now), 150000);
  EXPECT_EQ(parseRetryAfter("Wed, 21 Oct 2015 07:00:00 GMT", now), 0);
  EXPECT_EQ(parseRetryAfter("", now), std::nullopt);
  EXPECT_EQ(parseRetryAfter("-5", now), std::nullopt);
  EXPECT_EQ(parseRetryAfter("soon", now), std::nullopt);
  EXPECT_EQ(parseRetryAfter("99999999999999999999", now), std::nullopt);
  EXPECT_EQ(parseRetryAfter("Wed, 21 Oct 2015 07:30:30 CEST", now), std::nullopt);
}

// A period that ends after 2038 (beyond 32-bit seconds) still holds.
TEST(GeolocationErrorTest, LongRetryAfterIsKept) {
  ServerBackOff backOff;
  const std::optional<int64_t> period = parseRetryAfter("999999999", kNow);
  ASSERT_EQ(period, int64_t{999999999} * 1000);
  EXPECT_EQ(backOff.failed("https://a.example/v1/geolocate", kNow, period), *period);
  EXPECT_EQ(backOff.remaining("https://a.example/v1/geolocate", kNow), *period);
  EXPECT_EQ(backOff.remaining("https://b.example/v1/geolocate", kNow), 0);
}

// ---- Exchanges with a loopback server ----

class GeolocationExchangeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    SPI::XmlHttpRequest::setDefaultTimeouts(2000, 2000);
    LocationClient::getInstance().set_server_url(server.url().c_str());
    LocationClient::getInstance().set_user_agent(nullptr);
    server.addAccessPoint("00:12:A3:B4:C5:D6", 52.5, 13.4);
    server.addAccessPoint("00:12:a3:b4:c5:d7", 52.6, 13.5);
  }
  void TearDown() override {
    LocationClient::getInstance().set_server_url(nullptr);
    SPI::XmlHttpRequest::setDefaultTimeouts(0, 0);
  }

  static SPI::AccessPointList scan() { return {ap(0x0012A3B4C5D6, -61), ap(0x0012A3B4C5D7, -70)}; }

  // One Wi-Fi request's result.
  int locate() {
    Location location;
    return determination.locate(scan(), location);
  }

  SPI::SimulatedClock clock{kNow};
  SPI::ScopedClock installed{clock};
  GeolocationServer server;
  GeolocationDetermination determination;
};

TEST_F(GeolocationExchangeTest, WifiRequestIsPostedAsJsonAndAnswered) {
  ASSERT_TRUE(LocationClient::getInstance().speaksGeolocationApi());
  SPI::AccessPointList scanned = scan();
  scanned.push_back(ap(0x0212A3B4C5D8, -50));         // a phone's hotspot
  scanned.push_back(ap(0x0012A3B4C5D9, -50, ""));     // hidden
  scanned.push_back(ap(0x0012A3B4C5DA, -92));         // too weak
  Location location;
  ASSERT_EQ(determination.locate(scanned, location), WPS_OK);
  EXPECT_DOUBLE_EQ(location.latitude, 52.55);
  EXPECT_DOUBLE_EQ(location.longitude, 13.45);
  EXPECT_DOUBLE_EQ(location.hpe, 30);
  EXPECT_EQ(location.nap, 2);
  EXPECT_FALSE(location.ipBased);
  EXPECT_EQ(location.time, kNow);

  const auto request = server.http().lastRequest();
  ASSERT_TRUE(request);
  EXPECT_EQ(request->method, "POST");
  EXPECT_EQ(request->target, GeolocationServer::kPath);
  EXPECT_EQ(request->header("Content-Type"), "application/json");
  EXPECT_EQ(request->header("User-Agent"),
            std::string("Zonara/") + WPS_CLIENT_VERSION + " (" + SPI::osPrettyName() + ")");
  const json body = json::parse(request->body);
  EXPECT_EQ(body["considerIp"], false);
  ASSERT_EQ(body["wifiAccessPoints"].size(), 2u);
  EXPECT_EQ(body["wifiAccessPoints"][0]["macAddress"], "00:12:a3:b4:c5:d6");
  EXPECT_EQ(request->body.find("home"), std::string::npos);
}

TEST_F(GeolocationExchangeTest, FewerThanTwoSendableAccessPointsSendNothing) {
  Location location;
  EXPECT_EQ(determination.locate({ap(0x0012A3B4C5D6, -61), ap(0x0012A3B4C5D7, -61, "x_nomap")}, location),
            WPS_ERROR_LOCATION_CANNOT_BE_DETERMINED);
  EXPECT_EQ(determination.locate({}, location), WPS_ERROR_LOCATION_CANNOT_BE_DETERMINED);
  EXPECT_EQ(server.http().requestCount(), 0u);
}

TEST_F(GeolocationExchangeTest, IpRequestIsMarkedAsIpBased) {
  server.setIpLocation(std::make_pair(48.85, 2.35));
  IPLocation ip;
  ASSERT_EQ(determination.locateByIp(ip), WPS_OK);
  EXPECT_DOUBLE_EQ(ip.latitude, 48.85);
  EXPECT_DOUBLE_EQ(ip.longitude, 2.35);
  EXPECT_EQ(json::parse(server.http().lastRequest()->body), json::parse(R"({"considerIp": true})"));

  // A Wi-Fi answer the server could only give from the address says so.
  server.http().enqueue(HttpResponse(200, R"({"location": {"lat": 1, "lng": 2}, "accuracy": 9000, "fallback": "ipf"})"));
  Location location;
  ASSERT_EQ(determination.locate(scan(), location), WPS_OK);
  EXPECT_TRUE(location.ipBased);
}

TEST_F(GeolocationExchangeTest, FaultsGiveTheirCodes) {
  struct Case {
    Fault fault;
    int code;
  } cases[] = {
      {Fault::kNotFound, WPS_ERROR_LOCATION_CANNOT_BE_DETERMINED},
      {Fault::kKeyInvalid, WPS_ERROR_UNAUTHORIZED},
      {Fault::kParseError, WPS_ERROR},
      {Fault::kNotJson, WPS_ERROR_LOCATION_CANNOT_BE_DETERMINED},
      {Fault::kCutShort, WPS_ERROR_SERVER_UNAVAILABLE},
      {Fault::kOversized, WPS_ERROR_SERVER_UNAVAILABLE},
  };
  for (const Case& c : cases) {
    server.setFault(c.fault);
    SPI::LogCapture log("WPS.API.GeolocationDetermination");
    EXPECT_EQ(locate(), c.code) << static_cast<int>(c.fault);
    EXPECT_FALSE(log.containsFragment("backing off")) << static_cast<int>(c.fault);
  }
  // None of them stopped the next request.
  server.setFault(Fault::kNone);
  EXPECT_EQ(locate(), WPS_OK);
}

TEST_F(GeolocationExchangeTest, RefusalsThatAskToWaitBackOff) {
  for (Fault fault : {Fault::kDailyLimitExceeded, Fault::kTooManyRequests, Fault::kServerError,
                      Fault::kServiceUnavailable, Fault::kReset}) {
    GeolocationDetermination fresh;
    server.setFault(fault);
    server.http().clearRequests();
    Location location;
    EXPECT_EQ(fresh.locate(scan(), location), WPS_ERROR_SERVER_UNAVAILABLE) << static_cast<int>(fault);
    // Inside the period nothing is sent, whatever the server would answer.
    server.setFault(Fault::kNone);
    clock.advance(59 * 1000);
    EXPECT_EQ(fresh.locate(scan(), location), WPS_ERROR_SERVER_UNAVAILABLE) << static_cast<int>(fault);
    EXPECT_EQ(server.http().requestCount(), 1u) << static_cast<int>(fault);
    clock.advance(1000);
    EXPECT_EQ(fresh.locate(scan(), location), WPS_OK) << static_cast<int>(fault);
  }
}

TEST_F(GeolocationExchangeTest, TimeOutBacksOff) {
  SPI::XmlHttpRequest::setDefaultTimeouts(2000, 200);
  server.setFault(Fault::kTooSlow);
  EXPECT_EQ(locate(), WPS_ERROR_SERVER_UNAVAILABLE);
  server.setFault(Fault::kNone);
  SPI::LogCapture log("WPS.API.GeolocationDetermination");
  clock.advance(59 * 1000);
  EXPECT_EQ(locate(), WPS_ERROR_SERVER_UNAVAILABLE);
  EXPECT_TRUE(log.containsFragment("backing off: no request to " + server.url()));
  EXPECT_EQ(server.http().requestCount(), 1u);
  clock.advance(1000);
  EXPECT_EQ(locate(), WPS_OK);
}

TEST_F(GeolocationExchangeTest, RefusedConnectionBacksOff) {
  const zonara::testing::ClosedPort closed;
  const std::string url = closed.url(GeolocationServer::kPath);
  LocationClient::getInstance().set_server_url(url.c_str());
  EXPECT_EQ(locate(), WPS_ERROR_SERVER_UNAVAILABLE);
  SPI::LogCapture log("WPS.API.GeolocationDetermination");
  EXPECT_EQ(locate(), WPS_ERROR_SERVER_UNAVAILABLE);
  EXPECT_TRUE(log.containsFragment("backing off: no request to " + url));
}

TEST_F(GeolocationExchangeTest, BackOffDoublesUpToAnHourAndResetsOnSuccess) {
  server.setFault(Fault::kServiceUnavailable);
  // Each failure is followed by a wait one second short of the expected
  // period (refused without a request) and then the rest of it.
  for (int64_t expected : {60, 120, 240, 480, 960, 1920, 3600, 3600}) {
    const size_t before = server.http().requestCount();
    EXPECT_EQ(locate(), WPS_ERROR_SERVER_UNAVAILABLE);
    EXPECT_EQ(server.http().requestCount(), before + 1);
    clock.advance((expected - 1) * 1000);
    EXPECT_EQ(locate(), WPS_ERROR_SERVER_UNAVAILABLE);
    EXPECT_EQ(server.http().requestCount(), before + 1) << "inside a period of " << expected << " s";
    clock.advance(1000);
  }
  server.setFault(Fault::kNone);
  EXPECT_EQ(locate(), WPS_OK);
  // After the success the next failure waits one minute again.
  server.setFault(Fault::kServerError);
  EXPECT_EQ(locate(), WPS_ERROR_SERVER_UNAVAILABLE);
  server.setFault(Fault::kNone);
  clock.advance(60 * 1000);
  EXPECT_EQ(locate(), WPS_OK);
}

TEST_F(GeolocationExchangeTest, RetryAfterSetsThePeriod) {
  struct Case {
    const char* retryAfter;
    int64_t periodMs;
  } cases[] = {
      {"Tue, 14 Nov 2023 22:15:00 GMT", 100 * 1000 - kNow.milliseconds},  // 100 s after kNow's second
      {"300", 300 * 1000},
      {"10", 10 * 1000},
      {"7200", 7200 * 1000},  // longer than the longest own period: the server's word wins
  };
  for (const Case& c : cases) {
    GeolocationDetermination fresh;
    server.setFault(Fault::kTooManyRequests, c.retryAfter);
    Location location;
    EXPECT_EQ(fresh.locate(scan(), location), WPS_ERROR_SERVER_UNAVAILABLE);
    server.setFault(Fault::kNone);
    const size_t sent = server.http().requestCount();
    clock.advance(c.periodMs - 1);
    EXPECT_EQ(fresh.locate(scan(), location), WPS_ERROR_SERVER_UNAVAILABLE) << c.retryAfter;
    EXPECT_EQ(server.http().requestCount(), sent) << c.retryAfter;
    clock.advance(1);
    EXPECT_EQ(fresh.locate(scan(), location), WPS_OK) << c.retryAfter;
  }
}

TEST_F(GeolocationExchangeTest, BackOffIsPerServer) {
  server.setFault(Fault::kServerError);
  EXPECT_EQ(locate(), WPS_ERROR_SERVER_UNAVAILABLE);
  GeolocationServer other;
  other.addAccessPoint("00:12:a3:b4:c5:d6", 1, 2);
  LocationClient::getInstance().set_server_url(other.url().c_str());
  EXPECT_EQ(locate(), WPS_OK);
}

}  // namespace
}  // namespace API
}  // namespace WPS
