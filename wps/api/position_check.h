// The one check every position entering the library passes (server answers
// in XML or JSON, IP answers, access points read from tiles): finite
// coordinates, latitude within [-90, 90], longitude within [-180, 180], and a
// finite, non-negative error. A position that fails is refused and logged by
// the caller, never used or cached.
//
// Thread safety: a pure function.
#pragma once

#include <cmath>

namespace WPS {
namespace API {

// Why the position cannot be used (a short phrase for a log message), or
// nullptr when it can. `error` is the position's error estimate in metres
// (0 when the source gives none).
[[nodiscard]] inline const char* positionProblem(double latitude, double longitude, double error = 0.0) {
  if (!std::isfinite(latitude) || !std::isfinite(longitude)) return "coordinates not finite";
  if (latitude < -90.0 || latitude > 90.0) return "latitude out of range";
  if (longitude < -180.0 || longitude > 180.0) return "longitude out of range";
  if (!std::isfinite(error) || error < 0.0) return "error not a finite non-negative number";
  return nullptr;
}

}  // namespace API
}  // namespace WPS
