// The GeoNames time-zone web service: the zone at a point, as the service
// names it, with its offsets.
//
// The request is "<service>/timezone?lat=LAT&lng=LON&style=full", plus
// "&username=NAME" when a user name is configured; the answer is the
// service's XML ("<geonames><timezone><timezoneId>..</timezoneId>
// <gmtOffset>1</gmtOffset><dstOffset>2</dstOffset>..").
//
// `lookUp` blocks the calling thread (by default up to 10 attempts of up to
// 10 s with 30 s pauses between them, by design): call it from a worker
// thread. The pauses are taken on the installed `Clock`.
//
// Thread safety: the object is immutable; any thread may call it, as long as
// the fetcher allows that too.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <stop_token>
#include <string>

#include "platform/http_fetcher.h"
#include "timezone/zone_matcher.h"

namespace zonara {

class PreferencesDomain;

class GeoNamesClient {
 public:
  struct Config {
    // Base URL of the service, without a trailing path (for example
    // "http://api.geonames.org"). Empty: no service is configured (the
    // helper then uses the boundary data, geolocation_helper.h).
    std::string serviceURL;
    // Sent as "username" when not empty; the public service requires one.
    std::string username;
    // Requests per look-up, and the pause after each one that brings no XML
    // (after the last one too).
    int attempts = 10;
    std::chrono::seconds pauseBetweenAttempts{30};
  };

  // Reads "TimezoneServiceURL" and "TimezoneServiceUsername" (strings) from
  // `prefs`; absent or empty values keep the defaults above.
  [[nodiscard]] static Config configFromPreferences(PreferencesDomain& prefs);

  // `fetcher` is borrowed and must outlive this object.
  GeoNamesClient(HttpFetcher& fetcher, Config config) : fetcher_(fetcher), config_(std::move(config)) {}

  // The service's answer for the point: its last "timezone" record's last
  // "timezoneId" (nullopt without one) and offsets (0 when absent or not
  // numbers). nullopt when the service gave no usable answer: no data after
  // every attempt, data that is not XML (not asked for again), or XML
  // without a "timezone" record (an error document, a proxy's page).
  // Once `stop` is requested the pauses end early and nullopt is returned.
  [[nodiscard]] std::optional<ZoneAnswer> lookUp(double longitude, double latitude,
                                                 const std::stop_token& stop = {}) const;

  // The request URL for a point.
  [[nodiscard]] static std::string requestURL(const Config& config, double latitude, double longitude);
  // A number as its shortest exact decimal text ("12", "-33.9", "0.4").
  [[nodiscard]] static std::string numberString(double value);
  // Hours (as the service writes them) to whole seconds: single-precision
  // multiplication by 60 and 60, truncated toward zero.
  [[nodiscard]] static int32_t secondsFromHours(float hours);

 private:
  HttpFetcher& fetcher_;
  const Config config_;
};

}  // namespace zonara
