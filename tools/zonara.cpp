// zonara: the helper's control program.
//
//   zonara timezone LATITUDE LONGITUDE
//       Prints the time-zone name the helper would choose at that point and
//       exits 0; prints nothing and exits 1 when it would choose none (no
//       answer from the time-zone service, no matching zone, or a point within
//       one degree of 0 N 0 E, which the helper treats as "no position").
//
// Usage errors exit 2. The time-zone service is the one configured in the
// helper's preferences ("TimezoneServiceURL", "TimezoneServiceUsername").
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "app/app_controller.h"
#include "app/geolocation_helper.h"
#include "app/location_source.h"
#include "platform/http_fetcher.h"
#include "platform/preferences_store.h"
#include "platform/time_zone_database.h"

namespace {

int usage() {
  std::fprintf(stderr, "usage: zonara timezone LATITUDE LONGITUDE\n");
  return 2;
}

bool parseDegrees(const char* text, double limit, double* out) {
  char* end = nullptr;
  double value = std::strtod(text, &end);
  if (end == text || *end != '\0' || !std::isfinite(value) || std::fabs(value) > limit) return false;
  *out = value;
  return true;
}

int timezoneCommand(int argc, char** argv) {
  double latitude = 0, longitude = 0;
  if (argc != 4 || !parseDegrees(argv[2], 90, &latitude) || !parseDegrees(argv[3], 180, &longitude)) return usage();
  if (!zonara::isUsablePosition(longitude, latitude)) return 1;
  zonara::PreferencesDomain prefs(zonara::AppController::kServerName);
  zonara::CurlHttpFetcher fetcher;
  zonara::DateTzDatabase zones;
  zonara::GeolocationHelper helper(fetcher, zones, zonara::GeolocationHelper::configFromPreferences(prefs));
  std::optional<std::string> zone = helper.timezoneForLongitude(longitude, latitude);
  if (!zone) return 1;
  std::printf("%s\n", zone->c_str());
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) return usage();
  if (std::strcmp(argv[1], "timezone") == 0) return timezoneCommand(argc, argv);
  return usage();
}
