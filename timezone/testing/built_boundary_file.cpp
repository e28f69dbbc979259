#include "timezone/testing/built_boundary_file.h"

#include <sys/stat.h>

#include <cstdlib>

namespace zonara::timezone::testing {

std::string builtBoundaryData() {
  struct stat st;
  if (::stat(ZONARA_BUILT_TZ_DATA, &st) != 0 || !S_ISREG(st.st_mode)) return "";
  return ZONARA_BUILT_TZ_DATA;
}

bool boundaryDataRequired() {
  const char* value = std::getenv("ZONARA_REQUIRE_TZ_DATA");
  return value && *value && std::string(value) != "0";
}

std::string missingBoundaryDataMessage() {
  return std::string("no time-zone boundary file at ") + ZONARA_BUILT_TZ_DATA +
         " (scripts/setup obtains the data; the build converts it)" +
         (boundaryDataRequired() ? ", and ZONARA_REQUIRE_TZ_DATA is set" : "");
}

}  // namespace zonara::timezone::testing
