// A geolocation JSON API server on the loopback interface, over real HTTP
// (HttpTestServer), for tests and the demonstration services.
//
// It answers `POST /v1/geolocate` (url() is the whole address):
//   - a Wi-Fi request is located by the MACs it lists: the mean position of
//     the listed access points it knows (addAccessPoint), with the accuracy
//     set by setWifiAccuracy; when it knows none of them, 404 notFound;
//   - a request with "considerIp": true and no access points is answered
//     with the IP position (setIpLocation) marked "fallback": "ipf", or 404
//     notFound when none is set;
//   - anything else (other paths, a body that is not JSON) gets 400 parseError.
// A fault set with setFault replaces every answer until cleared; the
// HttpTestServer's queue (http().enqueue) scripts one-off answers ahead of
// all of this. Every request is recorded (http().requests()).
//
// Thread safety: all members may be called from any thread while it runs.
#pragma once

#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "wps/spi/concurrent.h"
#include "wps/spi/testing/http_test_server.h"

namespace WPS {
namespace API {
namespace testing {

class GeolocationServer {
 public:
  static constexpr const char* kPath = "/v1/geolocate";

  // The server's answers for the errors of the API.
  enum class Fault {
    kNone,
    kNotFound,            // 404 notFound
    kKeyInvalid,          // 400 keyInvalid
    kParseError,          // 400 parseError
    kDailyLimitExceeded,  // 403 dailyLimitExceeded
    kTooManyRequests,     // 429
    kServerError,         // 500
    kServiceUnavailable,  // 503
    kNotJson,             // 200 with an HTML page
    kCutShort,            // 200 announcing more body than it sends
    kOversized,           // 200 with a streamed body of 4 MiB + 1 byte
    kReset,               // the connection is reset
    kTooSlow,             // 200 only after 10 s: the client's time-out comes first
  };

  GeolocationServer();
  ~GeolocationServer();
  GeolocationServer(const GeolocationServer&) = delete;
  GeolocationServer& operator=(const GeolocationServer&) = delete;

  // "http://127.0.0.1:<port>/v1/geolocate".
  [[nodiscard]] std::string url() const;

  // Known access points by MAC ("01:23:45:67:89:ab", any case).
  void addAccessPoint(const std::string& mac, double latitude, double longitude);
  // Forgets every known access point: Wi-Fi requests get notFound.
  void clearAccessPoints();
  void setWifiAccuracy(double metres);
  void setIpLocation(std::optional<std::pair<double, double>> latitudeLongitude, double accuracy = 25000);
  // `retryAfter` is sent as the Retry-After header when not empty.
  void setFault(Fault fault, std::string retryAfter = {});

  // The response a fault is answered with.
  [[nodiscard]] static zonara::testing::HttpResponse faultResponse(Fault fault, const std::string& retryAfter = {});
  // {"error": {"errors": [{"reason": reason}], "code": status, "message": ..}}.
  [[nodiscard]] static zonara::testing::HttpResponse errorResponse(int status, const std::string& reason);

  // Requests received that asked with access points, and those that asked
  // for the IP address.
  [[nodiscard]] size_t wifiRequestCount() const;
  [[nodiscard]] size_t ipRequestCount() const;
  [[nodiscard]] zonara::testing::HttpTestServer& http() { return *http_; }

 private:
  zonara::testing::HttpResponse answer(const zonara::testing::HttpRequest& request);
  [[nodiscard]] size_t countRequests(bool considerIp) const;

  mutable SPI::StdMutex mu_;
  std::map<std::string, std::pair<double, double>> accessPoints_ WPS_GUARDED_BY(mu_);  // lower-case MAC -> lat, lng
  double wifiAccuracy_ WPS_GUARDED_BY(mu_) = 30;
  std::optional<std::pair<double, double>> ipLocation_ WPS_GUARDED_BY(mu_);
  double ipAccuracy_ WPS_GUARDED_BY(mu_) = 25000;
  Fault fault_ WPS_GUARDED_BY(mu_) = Fault::kNone;
  std::string retryAfter_ WPS_GUARDED_BY(mu_);
  std::unique_ptr<zonara::testing::HttpTestServer> http_;  // last: stops first
};

}  // namespace testing
}  // namespace API
}  // namespace WPS
