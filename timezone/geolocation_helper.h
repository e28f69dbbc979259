// From a latitude and longitude to the name of a time zone the system knows:
// the GeoNames service is asked for the zone at the point (GeoNamesClient)
// and its answer is matched to a known zone (KnownZoneMatcher).
//
// Blocks the calling thread for as long as the service's look-up does (see
// geonames_client.h): call it from a worker thread.
//
// Thread safety: the object is immutable; any thread may call it, as long as
// the fetcher and the zone database allow that too.
#pragma once

#include <optional>
#include <stop_token>
#include <string>

#include "platform/http_fetcher.h"
#include "platform/time_zone_database.h"
#include "timezone/geonames_client.h"
#include "timezone/zone_matcher.h"

namespace zonara {

// Whether a position is worth a time-zone look-up: finite, and not within one
// degree of 0 N 0 E (both coordinates truncating to 0 means "no position").
[[nodiscard]] bool isUsablePosition(double longitude, double latitude);

class GeolocationHelper {
 public:
  using Config = GeoNamesClient::Config;

  // `fetcher` and `zones` are borrowed and must outlive this object.
  GeolocationHelper(HttpFetcher& fetcher, TimeZoneDatabase& zones, Config config)
      : client_(fetcher, std::move(config)), matcher_(zones) {}

  // The zone name at the point, or nullopt when the service gave no usable
  // answer or no known zone fits it. Once `stop` is requested the service's
  // pauses end early and nullopt is returned.
  [[nodiscard]] std::optional<std::string> timezoneForLongitude(double longitude, double latitude,
                                                               const std::stop_token& stop = {}) const;

 private:
  const GeoNamesClient client_;
  const KnownZoneMatcher matcher_;
};

}  // namespace zonara
