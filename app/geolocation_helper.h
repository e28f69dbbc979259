// From a latitude and longitude to the name of a time zone the system knows.
//
// The zone at the point comes from one of two sources:
//   - by default (no service URL configured) the time-zone boundary data on
//     the computer (`timezone::BoundaryIndex`): no network, nothing sent;
//   - with a service URL, the GeoNames time-zone service
//     ("<service>/timezone?lat=LAT&lng=LON&style=full", plus "&username=NAME"
//     when a user name is configured).
// Either answer is matched against the system's zone names and their current
// abbreviations; failing that, a zone with the same January and July offsets
// is looked for (the service's offsets; for a boundary-data zone the system
// does not know, those of the point's 15-degree nautical band).
//
// The look-ups block the calling thread: with the service, the fetch (by
// default up to 10 attempts of up to 10 s with 30 s pauses between them) is
// synchronous by design; the pauses are taken on the installed `Clock`.
//
// Thread safety: the object is immutable; any thread may call it, as long as
// the fetcher and the zone database allow that too.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "platform/http_fetcher.h"
#include "platform/time_zone_database.h"
#include "timezone/boundary_index.h"

namespace zonara {

class PreferencesDomain;

class GeolocationHelper {
 public:
  struct Config {
    // Base URL of the service, without a trailing path. Empty: the zone comes
    // from the boundary data instead.
    std::string serviceURL;
    // Sent as "username" when not empty; the public service requires one.
    std::string username;
    // Requests to the service per look-up, and the pause after each one that
    // brings no XML (after the last one too, as the service path describes).
    int attempts = 10;
    std::chrono::seconds pauseBetweenAttempts{30};
  };

  // Reads "TimezoneServiceURL" and "TimezoneServiceUsername" (strings) from
  // `prefs`; absent or empty values keep the defaults above.
  [[nodiscard]] static Config configFromPreferences(PreferencesDomain& prefs);

  // `fetcher`, `zones` and `boundaries` are borrowed and must outlive this
  // object; `boundaries` may be null (no boundary data: without a service
  // URL, then, no zone is found).
  GeolocationHelper(HttpFetcher& fetcher, TimeZoneDatabase& zones, Config config,
                    const timezone::BoundaryIndex* boundaries = nullptr)
      : fetcher_(fetcher), zones_(zones), config_(std::move(config)), boundaries_(boundaries) {}

  // Whether look-ups ask the web service (a service URL is configured).
  [[nodiscard]] bool usesService() const { return !config_.serviceURL.empty(); }

  // The zone name at the point, or nullopt when the source gave no usable
  // answer (see the .cpp for the rules) or no known zone fits. Logs which
  // source answered.
  [[nodiscard]] std::optional<std::string> timezoneForLongitude(double longitude, double latitude) const;

  // The known zone for a zone identifier (a name such as the service or the
  // boundary data gives): the first known zone whose name or current
  // abbreviation contains it, ignoring case and diacritics. nullopt when none.
  [[nodiscard]] std::optional<std::string> knownZoneMatching(const std::string& identifier) const;

  // The known zone for the zones the boundary data gives at a point of
  // `longitude` (principal first): the first of them that `match` (normally
  // `knownZoneMatching`, or a memo of it) finds, else the zone for the
  // offsets of the longitude's 15-degree nautical band.
  using ZoneMatcher = std::function<std::optional<std::string>(const std::string&)>;
  [[nodiscard]] std::optional<std::string> knownZoneForBoundaryZones(const std::vector<std::string>& zones,
                                                                     double longitude, const ZoneMatcher& match) const;

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
  [[nodiscard]] std::optional<std::string> timezoneFromService(double longitude, double latitude) const;
  [[nodiscard]] std::optional<std::string> timezoneFromBoundaries(double longitude, double latitude) const;

  HttpFetcher& fetcher_;
  TimeZoneDatabase& zones_;
  const Config config_;
  const timezone::BoundaryIndex* boundaries_;
};

}  // namespace zonara
