#include "timezone/geolocation_helper.h"

#include <cmath>

#include "platform/system_log.h"

namespace zonara {

bool isUsablePosition(double longitude, double latitude) {
  if (!std::isfinite(longitude) || !std::isfinite(latitude)) return false;
  return !(std::trunc(longitude) == 0.0 && std::trunc(latitude) == 0.0);
}

std::optional<std::string> GeolocationHelper::timezoneForLongitude(double longitude, double latitude,
                                                                   const std::stop_token& stop) const {
  return usesService_ ? timezoneFromService(longitude, latitude, stop) : timezoneFromBoundaries(longitude, latitude);
}

std::optional<std::string> GeolocationHelper::timezoneFromService(double longitude, double latitude,
                                                                  const std::stop_token& stop) const {
  std::optional<ZoneAnswer> answer = client_.lookUp(longitude, latitude, stop);
  if (!answer) return std::nullopt;
  SystemLog("timezone from the time-zone service at (%s, %s): %s", GeoNamesClient::numberString(latitude).c_str(),
            GeoNamesClient::numberString(longitude).c_str(),
            answer->identifier ? answer->identifier->c_str() : "(no timezoneId)");
  return matcher_.match(*answer);
}

std::optional<std::string> GeolocationHelper::timezoneFromBoundaries(double longitude, double latitude) const {
  const std::string lat = GeoNamesClient::numberString(latitude);
  const std::string lon = GeoNamesClient::numberString(longitude);
  if (!boundaries_) {
    SystemLogAt(LogPriority::Warning, "no time-zone boundary data and no TimezoneServiceURL: no zone for (%s, %s)",
                lat.c_str(), lon.c_str());
    return std::nullopt;
  }
  std::string error;
  std::optional<std::vector<std::string>> zones = boundaries_->zonesAt(latitude, longitude, &error);
  if (!zones || zones->empty()) {
    SystemLogAt(LogPriority::Warning, "time-zone boundary data has no zone for (%s, %s): %s", lat.c_str(),
                lon.c_str(), error.c_str());
    return std::nullopt;
  }
  std::string all;
  for (const std::string& zone : *zones) all += (all.empty() ? "" : ", ") + zone;
  SystemLog("timezone from the boundary data (%s) at (%s, %s): %s", boundaries_->release().c_str(), lat.c_str(),
            lon.c_str(), all.c_str());
  return knownZoneForBoundaryZones(*zones, longitude,
                                   [this](const std::string& zone) { return matcher_.zoneForIdentifier(zone); });
}

std::optional<std::string> GeolocationHelper::knownZoneForBoundaryZones(const std::vector<std::string>& zones,
                                                                        double longitude,
                                                                        const IdentifierMatch& match) const {
  // The principal zone first; where the data places the point in several
  // zones, another one may be the one this system knows.
  for (const std::string& zone : zones) {
    if (std::optional<std::string> known = match(zone)) return known;
  }
  // A zone the system does not know (its zone database is older than the
  // boundaries): the offsets of the point's nautical band are the best guess
  // left.
  const int32_t offset = static_cast<int32_t>(std::lround(longitude / 15.0)) * 3600;
  return matcher_.zoneForGMTOffset(offset, offset);
}

}  // namespace zonara
