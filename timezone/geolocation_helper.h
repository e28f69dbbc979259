// From a latitude and longitude to the name of a time zone the system knows.
//
// The zone at the point comes from one of two sources:
//   - by default (no service URL configured) the time-zone boundary data on
//     the computer (`timezone::BoundaryIndex`): no network, nothing sent;
//   - with a service URL, the GeoNames time-zone service (GeoNamesClient).
// Either answer is matched to a known zone (KnownZoneMatcher): by name,
// else by offsets (the service's; for boundary-data zones the system does
// not know, those of the point's 15-degree nautical band). The log says
// which source answered.
//
// With the service, a look-up blocks the calling thread for as long as the
// service's look-up does (see geonames_client.h): call it from a worker
// thread. With the boundary data it takes microseconds.
//
// Thread safety: the object is immutable; any thread may call it, as long as
// the fetcher and the zone database allow that too (the boundary index does).
#pragma once

#include <functional>
#include <optional>
#include <stop_token>
#include <string>
#include <vector>

#include "platform/http_fetcher.h"
#include "platform/time_zone_database.h"
#include "timezone/boundary_index.h"
#include "timezone/geonames_client.h"
#include "timezone/zone_matcher.h"

namespace zonara {

// Whether a position is worth a time-zone look-up: finite, and not within one
// degree of 0 N 0 E (both coordinates truncating to 0 means "no position").
[[nodiscard]] bool isUsablePosition(double longitude, double latitude);

class GeolocationHelper {
 public:
  // An empty serviceURL (the default) means the boundary data.
  using Config = GeoNamesClient::Config;

  // `fetcher`, `zones` and `boundaries` are borrowed and must outlive this
  // object; `boundaries` may be null (no boundary data: without a service
  // URL, then, no zone is found).
  GeolocationHelper(HttpFetcher& fetcher, TimeZoneDatabase& zones, Config config,
                    const timezone::BoundaryIndex* boundaries = nullptr)
      : usesService_(!config.serviceURL.empty()),
        client_(fetcher, std::move(config)),
        matcher_(zones),
        boundaries_(boundaries) {}

  // Whether look-ups ask the web service (a service URL is configured).
  [[nodiscard]] bool usesService() const { return usesService_; }

  // The zone name at the point, or nullopt when the source gave no usable
  // answer or no known zone fits it. Once `stop` is requested the service's
  // pauses end early and nullopt is returned.
  [[nodiscard]] std::optional<std::string> timezoneForLongitude(double longitude, double latitude,
                                                               const std::stop_token& stop = {}) const;

  // The known zone for the zones the boundary data gives at a point of
  // `longitude` (principal first): the first of them that `match` finds
  // (normally the matcher's `zoneForIdentifier`, or a memo of it), else the
  // zone for the offsets of the longitude's 15-degree nautical band.
  using IdentifierMatch = std::function<std::optional<std::string>(const std::string&)>;
  [[nodiscard]] std::optional<std::string> knownZoneForBoundaryZones(const std::vector<std::string>& zones,
                                                                     double longitude,
                                                                     const IdentifierMatch& match) const;

  [[nodiscard]] const KnownZoneMatcher& matcher() const { return matcher_; }

 private:
  [[nodiscard]] std::optional<std::string> timezoneFromService(double longitude, double latitude,
                                                              const std::stop_token& stop) const;
  [[nodiscard]] std::optional<std::string> timezoneFromBoundaries(double longitude, double latitude) const;

  const bool usesService_;
  const GeoNamesClient client_;
  const KnownZoneMatcher matcher_;
  const timezone::BoundaryIndex* const boundaries_;
};

}  // namespace zonara
