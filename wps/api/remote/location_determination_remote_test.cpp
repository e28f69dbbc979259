#include "wps/api/remote/location_determination_remote.h"

#include <gtest/gtest.h>

#include "wps/api/protocol/config.h"
#include "wps/api/protocol/location_client.h"
#include "wps/api/protocol/protocol.h"
#include "wps/spi/log_capture.h"
#include "wps/spi/simulated_clock.h"
#include "wps/spi/testing/http_test_server.h"
#include "wps/spi/xml_http_request.h"

namespace WPS {
namespace API {
namespace {

using SPI::ScannedAccessPoint;
using SPI::LogCapture;
using SPI::Time;
using zonara::testing::ClosedPort;
using zonara::testing::HttpResponse;
using zonara::testing::HttpTestServer;

const std::string NS = kProtocolNamespace;

std::string reply(const std::string& root, const std::string& inner) {
  return "<?xml version='1.0'?><" + root + " xmlns='" + NS + "' version='2.6'>" + inner + "</" + root + ">";
}

const std::string kLocationReply =
    reply("LocationRS",
          "<location nap='4'><latitude>42.5</latitude><longitude>-71.25</longitude><hpe>30</hpe>"
          "<street-address><city>Boston</city><country code='US'>United States</country></street-address>"
          "</location>");

class RemoteTest : public ::testing::Test {
 protected:
  void SetUp() override {
    SPI::XmlHttpRequest::setDefaultTimeouts(3000, 3000);
    LocationClient::getInstance().set_server_url(server.url("/wps2").c_str());
    LocationClient::getInstance().set_proxy(nullptr, 0, nullptr, nullptr);
  }
  void TearDown() override {
    LocationClient::getInstance().set_server_url(nullptr);
    LocationClient::getInstance().set_proxy(nullptr, 0, nullptr, nullptr);
    SPI::XmlHttpRequest::setDefaultTimeouts(0, 0);
  }

  std::vector<ScannedAccessPoint> scan() const {
    return {ScannedAccessPoint(SPI::MAC::fromValue(0x0012A3B4C5D6), -61),
            ScannedAccessPoint(SPI::MAC::fromValue(0x0012A3B4C5D7), -70)};
  }

  SPI::SimulatedClock clock{Time(1700000000, 250)};
  SPI::ScopedClock installed{clock};
  HttpTestServer server;
  std::unique_ptr<LocationDeterminationRemote> remote = LocationDeterminationRemote::newInstance();
  SimpleAuthentication user{"user", "example.org"};
};

TEST_F(RemoteTest, LocationRequestPostsTheMessageAndStampsTheAnswer) {
  server.enqueue(HttpResponse(200, kLocationReply));
  Location location;
  ASSERT_EQ(remote->getLocationRemotely(user, WPS_FULL_STREET_ADDRESS_LOOKUP, scan(), {}, location), WPS_OK);
  EXPECT_DOUBLE_EQ(location.latitude, 42.5);
  EXPECT_DOUBLE_EQ(location.longitude, -71.25);
  EXPECT_DOUBLE_EQ(location.hpe, 30);
  EXPECT_EQ(location.nap, 4);
  EXPECT_EQ(location.streetAddress.city, "Boston");
  EXPECT_EQ(location.streetAddress.country, (NameCode{"United States", "US"}));
  EXPECT_EQ(location.time, Time(1700000000, 250));

  auto received = server.lastRequest();
  ASSERT_TRUE(received);
  EXPECT_EQ(received->method, "POST");
  EXPECT_EQ(received->target, "/wps2/location");
  EXPECT_EQ(received->body, LocationRQ(user, WPS_FULL_STREET_ADDRESS_LOOKUP, scan(), {}));
  EXPECT_EQ(received->header("Content-Type"), "text/xml");
  EXPECT_EQ(received->header("User-Agent"), defaultUserAgent());
}

TEST_F(RemoteTest, EmptyCredentialsAreRefusedWithoutAnyRequest) {
  for (const SimpleAuthentication& auth :
       {SimpleAuthentication("", "example.org"), SimpleAuthentication("user", ""), SimpleAuthentication()}) {
    Location location;
    EXPECT_EQ(remote->getLocationRemotely(auth, WPS_NO_STREET_ADDRESS_LOOKUP, scan(), {}, location),
              WPS_ERROR_UNAUTHORIZED);
    IPLocation ip;
    EXPECT_EQ(remote->getIPLocationRemotely(auth, WPS_NO_STREET_ADDRESS_LOOKUP, ip), WPS_ERROR_UNAUTHORIZED);
  }
  EXPECT_EQ(server.requestCount(), 0u);
}

TEST_F(RemoteTest, StatusAndReplyMapToResultCodes) {
  const struct {
    const char* name;
    HttpResponse response;
    int code;
  } cases[] = {
      {"200 with a location", HttpResponse(200, kLocationReply), WPS_OK},
      {"401", HttpResponse(401, kLocationReply), WPS_ERROR_UNAUTHORIZED},
      {"403", HttpResponse(403, ""), WPS_ERROR_UNAUTHORIZED},
      {"407", HttpResponse(407, ""), WPS_ERROR_PROXY_UNAUTHORIZED},
      {"404", HttpResponse(404, kLocationReply), WPS_ERROR_SERVER_UNAVAILABLE},
      {"500", HttpResponse(500, ""), WPS_ERROR_SERVER_UNAVAILABLE},
      {"503", HttpResponse(503, ""), WPS_ERROR_SERVER_UNAVAILABLE},
      {"200 with an error element", HttpResponse(200, reply("LocationRS", "<error>unknown</error>")),
       WPS_ERROR_LOCATION_CANNOT_BE_DETERMINED},
      {"200 without location", HttpResponse(200, reply("LocationRS", "")), WPS_ERROR_LOCATION_CANNOT_BE_DETERMINED},
      {"200 that is not XML", HttpResponse(200, "<html>proxy page"), WPS_ERROR_LOCATION_CANNOT_BE_DETERMINED},
  };
  for (const auto& c : cases) {
    server.enqueue(c.response);
    LogCapture log("WPS.API.LocationDeterminationRemote");
    Location location;
    EXPECT_EQ(remote->getLocationRemotely(user, WPS_NO_STREET_ADDRESS_LOOKUP, scan(), {}, location), c.code) << c.name;
    if (c.code != WPS_OK) {
      EXPECT_EQ(location.time, Time()) << c.name;  // stamped only on success
    }
    // A refusal by status is an error the log names.
    EXPECT_EQ(log.containsFragment("server answered /location with " + std::to_string(c.response.status)),
              c.response.status != 200)
        << c.name;
  }
}

TEST_F(RemoteTest, UnreachableOrSlowServerIsUnavailable) {
  {
    ClosedPort closed;
    LocationClient::getInstance().set_server_url(closed.url().c_str());
    Location location;
    EXPECT_EQ(remote->getLocationRemotely(user, WPS_NO_STREET_ADDRESS_LOOKUP, scan(), {}, location),
              WPS_ERROR_SERVER_UNAVAILABLE);
  }
  LocationClient::getInstance().set_server_url(server.url("").c_str());
  SPI::XmlHttpRequest::setDefaultTimeouts(3000, 200);
  server.enqueue(HttpResponse(200, kLocationReply).withDelay(std::chrono::milliseconds(1500)));
  IPLocation ip;
  EXPECT_EQ(remote->getIPLocationRemotely(user, WPS_NO_STREET_ADDRESS_LOOKUP, ip), WPS_ERROR_SERVER_UNAVAILABLE);
}

TEST_F(RemoteTest, ProxyRefusingCredentialsGivesSeven) {
  HttpTestServer proxy;
  proxy.setDefaultResponse(HttpResponse::proxyAuthenticationRequired());
  LocationClient::getInstance().set_server_url("http://telluro.example/wps2");
  LocationClient::getInstance().set_proxy("127.0.0.1", proxy.port(), nullptr, nullptr);
  Location location;
  EXPECT_EQ(remote->getLocationRemotely(user, WPS_NO_STREET_ADDRESS_LOOKUP, scan(), {}, location),
            WPS_ERROR_PROXY_UNAUTHORIZED);
  auto received = proxy.lastRequest();
  ASSERT_TRUE(received);
  EXPECT_EQ(received->target, "http://telluro.example/wps2/location");
  EXPECT_FALSE(received->header("Proxy-Authorization"));
  EXPECT_EQ(server.requestCount(), 0u);
}

TEST_F(RemoteTest, IPLocation) {
  server.enqueue(HttpResponse(200, reply("IPLocationRS", "<ip-location><ip>192.0.2.9</ip><latitude>1.5</latitude>"
                                                         "<longitude>2.5</longitude></ip-location>")));
  IPLocation ip;
  ASSERT_EQ(remote->getIPLocationRemotely(user, WPS_LIMITED_STREET_ADDRESS_LOOKUP, ip), WPS_OK);
  EXPECT_EQ(ip.ip, "192.0.2.9");
  EXPECT_EQ(ip.latitude, 1.5);
  EXPECT_EQ(ip.longitude, 2.5);
  auto received = server.lastRequest();
  EXPECT_EQ(received->target, "/wps2/ip-location");
  EXPECT_EQ(received->body, IPLocationRQ(user, WPS_LIMITED_STREET_ADDRESS_LOOKUP));

  server.enqueue(HttpResponse(200, reply("IPLocationRS", "<error/>")));
  EXPECT_EQ(remote->getIPLocationRemotely(user, WPS_LIMITED_STREET_ADDRESS_LOOKUP, ip),
            WPS_ERROR_LOCATION_CANNOT_BE_DETERMINED);
}

TEST_F(RemoteTest, Registration) {
  const SimpleAuthentication newUser("A1B2C3D4-0000", "example.org");
  const struct {
    HttpResponse response;
    int code;
  } cases[] = {
      {HttpResponse(200, reply("RegistrationRS", "")), WPS_OK},
      {HttpResponse(200, reply("RegistrationRS", "<error>exists</error>")), WPS_ERROR_LOCATION_CANNOT_BE_DETERMINED},
      {HttpResponse(200, "not xml"), WPS_ERROR_LOCATION_CANNOT_BE_DETERMINED},
      {HttpResponse(403, ""), WPS_ERROR_UNAUTHORIZED},
  };
  for (const auto& c : cases) {
    server.enqueue(c.response);
    EXPECT_EQ(remote->registerUser(user, newUser), c.code);
    auto received = server.lastRequest();
    EXPECT_EQ(received->target, "/wps2/registration");
    EXPECT_EQ(received->body, RegistrationRQ(user, newUser));
  }
}

}  // namespace
}  // namespace API
}  // namespace WPS
