// Remote location determination through the geolocation JSON API
// (`POST <server>/v1/geolocate`), the protocol of community Wi-Fi databases.
// LocationDeterminationRemote hands its exchanges here when the server URL
// selects this API (isGeolocationApiUrl).
//
// Request: `{"considerIp": false, "wifiAccessPoints": [{"macAddress":
// "01:23:45:67:89:ab", "signalStrength": -61, "age": 1200, "channel": 6},
// ...]}` with "Content-Type: application/json" and the library's User-Agent.
// The signal, the age (milliseconds since the access point was seen) and the
// channel are sent only when known; the network name never is. Before
// anything is sent, access points that must not be looked up are dropped
// (sendableAccessPoints); with fewer than two left no request is made. The
// request for the caller's IP address is `{"considerIp": true}`.
//
// Answer: `{"location": {"lat": .., "lng": ..}, "accuracy": metres,
// "fallback": "ipf"}`; "ipf" marks a position found from the IP address.
// A latitude outside [-90, 90], a longitude outside [-180, 180], a value that
// is not a finite number, a negative or missing accuracy, or a body that is
// not such a JSON object gives no location (logged).
//
// Results (WPS_ReturnCode): 0 a location; 6 the server knows no location for
// the request (404) or its answer is unusable, or too few access points to
// ask; 4 the server refused the key (400 keyInvalid, 401); 7 the proxy
// refused its credentials; 99 any other 400 (a request the server could not
// use), or no request could be made; 5 the server is unavailable.
//
// Back-off: a 403 (daily limit), a 429, a 5xx, a time-out or a refused
// connection makes the server unavailable, and no request goes to that server
// for a minute, doubling with each further such failure up to an hour; a
// Retry-After header of the answer sets the period instead. An answer (200 or
// 404) ends the back-off. Inside a back-off period requests fail at once with
// 5 and nothing is sent. Time comes from the library's clock (SPI::Clock).
// Nothing is retried here.
//
// Thread safety: GeolocationDetermination may be called from any thread; its
// back-off state has a lock of its own. Each call is one synchronous exchange
// on the calling thread.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "wps/api/protocol/location.h"
#include "wps/spi/concurrent.h"
#include "wps/spi/logger.h"
#include "wps/spi/scan.h"
#include "wps/spi/time.h"

namespace WPS {
namespace API {

// True when the access point may be sent: it passes the privacy filters
// (passesPrivacyFilters: not hidden, not "_nomap", not locally administered)
// and its signal is stronger than -90 dBm (or unknown).
[[nodiscard]] bool isSendable(const SPI::ScannedAccessPoint& accessPoint);
// The sendable access points of a scan, in scan order.
[[nodiscard]] SPI::AccessPointList sendableAccessPoints(const SPI::AccessPointList& scanned);

// The Wi-Fi request body for access points already filtered; `now` dates
// their age.
[[nodiscard]] std::string wifiRequestBody(const SPI::AccessPointList& sendable, const SPI::Time& now);
// The IP request body.
[[nodiscard]] std::string ipRequestBody();

// A usable answer.
struct GeolocationAnswer {
  double latitude = 0;
  double longitude = 0;
  double accuracy = 0;   // metres
  bool ipBased = false;  // "fallback": "ipf"
};
// The answer in `body`, or nullopt with `problem` saying what is wrong.
[[nodiscard]] std::optional<GeolocationAnswer> parseGeolocationAnswer(std::string_view body, std::string& problem);

// What a status other than 200 means: the result code and whether the
// server is to be left alone for a while. `body` is the error document, if
// any, whose first "reason" tells the 400s apart.
struct GeolocationError {
  int code = 0;
  bool backOff = false;
  std::string reason;  // the document's first reason, "" when none
};
[[nodiscard]] GeolocationError classifyGeolocationError(int status, std::string_view body);

// The period a Retry-After value asks for, in milliseconds: delta-seconds or
// an HTTP date (relative to `now`; a date in the past gives 0). nullopt when
// the value is neither.
[[nodiscard]] std::optional<int64_t> parseRetryAfter(const std::string& value, const SPI::Time& now);

// Back-off periods per server URL.
class ServerBackOff {
 public:
  static constexpr int64_t kFirstPeriodMs = 60 * 1000;
  static constexpr int64_t kLongestPeriodMs = 60 * 60 * 1000;

  // Milliseconds left of the server's back-off period at `now`; 0 when
  // requests may go to it.
  [[nodiscard]] int64_t remaining(const std::string& server, const SPI::Time& now) const;
  // A failure that calls for backing off: the period is `retryAfterMs` when
  // given, else 1 minute doubled for each failure since the last success, at
  // most 1 hour. Returns the period.
  int64_t failed(const std::string& server, const SPI::Time& now, std::optional<int64_t> retryAfterMs);
  // The server answered: the next failure starts again at 1 minute.
  void succeeded(const std::string& server);

 private:
  struct State {
    int failures = 0;
    int64_t untilMs = 0;  // milliseconds since the epoch
  };
  mutable SPI::StdMutex mu_;
  std::map<std::string, State> servers_ WPS_GUARDED_BY(mu_);
};

class GeolocationDetermination {
 public:
  GeolocationDetermination();

  // The server's location for a scan; on success `location` holds it, with
  // the number of access points sent as `nap` and the current time.
  [[nodiscard]] int locate(const SPI::AccessPointList& scanned, Location& location);
  // The server's location for the caller's IP address; `ip` stays empty.
  [[nodiscard]] int locateByIp(IPLocation& location);

 private:
  // One exchange with the configured server. `answer` is set on 0.
  [[nodiscard]] int exchange(const std::string& body, GeolocationAnswer& answer);
  // Reads the answer of a 200 response.
  [[nodiscard]] int readAnswer(const char* data, unsigned long length, GeolocationAnswer& answer);
  // The server's refusal: its code, after backing off when it calls for it.
  [[nodiscard]] int refusal(const std::string& server, int status, const std::string& retryAfter,
                            std::string_view body);

  SPI::Logger& logger_;  // "WPS.API.GeolocationDetermination"
  ServerBackOff backOff_;
};

}  // namespace API
}  // namespace WPS
