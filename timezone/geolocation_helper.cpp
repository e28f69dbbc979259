#include "timezone/geolocation_helper.h"

#include <cmath>

namespace zonara {

bool isUsablePosition(double longitude, double latitude) {
  if (!std::isfinite(longitude) || !std::isfinite(latitude)) return false;
  return !(std::trunc(longitude) == 0.0 && std::trunc(latitude) == 0.0);
}

std::optional<std::string> GeolocationHelper::timezoneForLongitude(double longitude, double latitude,
                                                                   const std::stop_token& stop) const {
  std::optional<ZoneAnswer> answer = client_.lookUp(longitude, latitude, stop);
  if (!answer) return std::nullopt;
  return matcher_.match(*answer);
}

}  // namespace zonara
