// Shared by the time-zone tests: dates, GeoNames answers and a zone
// database whose system zone is UTC.
#pragma once

#include <date/date.h>

#include <memory>
#include <string>

#include "platform/clock.h"
#include "platform/time_zone_database.h"
#include "wps/spi/testing/temp_dir.h"

namespace zonara::testing {

inline Clock::WallTime utc(int y, unsigned m, unsigned d) {
  return Clock::WallTime(date::sys_days(date::year(y) / m / d).time_since_epoch());
}

inline std::string geonamesReply(const std::string& records) { return "<geonames>" + records + "</geonames>"; }

// One "timezone" record; `id` "-" leaves the timezoneId element out.
inline std::string geonamesRecord(const std::string& id, const std::string& gmt, const std::string& dst) {
  std::string r = "<timezone tzversion=\"tzdata2024a\"><countryCode>XX</countryCode>";
  if (id != "-") r += "<timezoneId>" + id + "</timezoneId>";
  return r + "<gmtOffset>" + gmt + "</gmtOffset><dstOffset>" + dst + "</dstOffset><rawOffset>" + gmt +
         "</rawOffset><lat>1</lat><lng>2</lng></timezone>";
}

// The system's zone database with UTC as the current zone.
class UtcZones {
 public:
  UtcZones() {
    const std::string path = dir_.file("timezone");
    FILE* f = std::fopen(path.c_str(), "w");
    std::fputs("UTC\n", f);
    std::fclose(f);
    zones_ = std::make_unique<DateTzDatabase>(path);
  }
  [[nodiscard]] DateTzDatabase& zones() { return *zones_; }

 private:
  TempDir dir_{"zones"};
  std::unique_ptr<DateTzDatabase> zones_;
};

}  // namespace zonara::testing
