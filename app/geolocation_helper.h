// From a latitude and longitude to the name of a time zone the system knows.
//
// The GeoNames time-zone service is asked for the zone at the point
// ("<service>/timezone?lat=LAT&lng=LON&style=full", plus "&username=NAME" when
// a user name is configured). Its answer is matched against the system's
// zone names and their current abbreviations; failing that, a zone with the
// same January and July offsets is looked for.
//
// Both look-ups block the calling thread (the fetch, up to 10 attempts of up
// to 10 s with 30 s pauses between them, is synchronous by design): call
// them from a worker thread. The pauses are taken on the installed `Clock`.
//
// Thread safety: the object is immutable; any thread may call it, as long as
// the fetcher and the zone database allow that too.
#pragma once

#include <cstdint>
#include <optional>
#include <stop_token>
#include <string>

#include "platform/http_fetcher.h"
#include "platform/time_zone_database.h"

namespace zonara {

class PreferencesDomain;

class GeolocationHelper {
 public:
  struct Config {
    // Base URL of the service, without a trailing path.
    std::string serviceURL = "http://api.geonames.org";
    // Sent as "username" when not empty; the public service requires one.
    std::string username;
  };

  // Reads "TimezoneServiceURL" and "TimezoneServiceUsername" (strings) from
  // `prefs`; absent or empty values keep the defaults above.
  [[nodiscard]] static Config configFromPreferences(PreferencesDomain& prefs);

  // `fetcher` and `zones` are borrowed and must outlive this object.
  GeolocationHelper(HttpFetcher& fetcher, TimeZoneDatabase& zones, Config config)
      : fetcher_(fetcher), zones_(zones), config_(std::move(config)) {}

  // The zone name at the point, or nullopt when the service gave no usable
  // answer (see the .cpp for the rules) or no known zone fits.
  // Once `stop` is requested the pauses end early and nullopt is returned.
  [[nodiscard]] std::optional<std::string> timezoneForLongitude(double longitude, double latitude,
                                                               const std::stop_token& stop = {}) const;

  // The zone for offsets from GMT in seconds on 1 January and 1 July of the
  // current year: the first known zone with both offsets is found and the
  // abbreviation table's zone for its current abbreviation is returned --
  // unless that zone has other offsets, in which case the matching zone itself
  // is returned. nullopt when no zone has the offsets or the abbreviation is
  // not in the table.
  [[nodiscard]] std::optional<std::string> timezoneForGMTOffset(int32_t gmtOffset, int32_t dstOffset) const;

  // The request URL for a point.
  [[nodiscard]] static std::string requestURL(const Config& config, double latitude, double longitude);
  // A number as its shortest exact decimal text ("12", "-33.9", "0.4").
  [[nodiscard]] static std::string numberString(double value);
  // Hours (as the service writes them) to whole seconds: single-precision
  // multiplication by 60 and 60, truncated toward zero.
  [[nodiscard]] static int32_t secondsFromHours(float hours);
  // Whether `text` contains `part`, ignoring case and diacritics. An empty
  // `part` is contained in nothing.
  [[nodiscard]] static bool containsIgnoringCaseAndDiacritics(const std::string& text, const std::string& part);

 private:
  HttpFetcher& fetcher_;
  TimeZoneDatabase& zones_;
  const Config config_;
};

}  // namespace zonara
