// The system's time-zone database (the tz database in /usr/share/zoneinfo,
// read through date/tz). Matching answers to these zones is timezone/'s job.
//
// Thread safety: any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/clock.h"

namespace zonara {

class TimeZoneDatabase {
 public:
  virtual ~TimeZoneDatabase() = default;
  // Every zone name the system knows, links included, sorted by name;
  // without "localtime", "posixrules", "Factory", "posix/..." and "right/...".
  [[nodiscard]] virtual std::vector<std::string> knownTimeZoneNames() = 0;
  // The zone's own name when the system knows `name`, else nullopt.
  [[nodiscard]] virtual std::optional<std::string> zoneName(const std::string& name) = 0;
  // Offset from UTC in seconds in force at `when`; nullopt for an unknown zone.
  [[nodiscard]] virtual std::optional<int32_t> offsetAt(const std::string& name, Clock::WallTime when) = 0;
  // The abbreviation in force at `when` ("CET", "+08"); nullopt for an
  // unknown zone.
  [[nodiscard]] virtual std::optional<std::string> abbreviationAt(const std::string& name, Clock::WallTime when) = 0;
  // The name of the system's current zone, or "" when it cannot be told.
  [[nodiscard]] virtual std::string systemTimeZoneName() = 0;
};

// date/tz over the operating system's zoneinfo. The current zone is read from
// `localtimePath`: a symbolic link into a zoneinfo folder (its "posix/" and
// "right/" trees included), a compiled zone file copied into place (the zone
// whose file under `zoneinfoFolder` has the same bytes), or a text file
// holding a zone name; so tests can present any system zone.
class DateTzDatabase final : public TimeZoneDatabase {
 public:
  explicit DateTzDatabase(std::string localtimePath = "/etc/localtime",
                          std::string zoneinfoFolder = "/usr/share/zoneinfo")
      : localtimePath_(std::move(localtimePath)), zoneinfoFolder_(std::move(zoneinfoFolder)) {}

  [[nodiscard]] std::vector<std::string> knownTimeZoneNames() override;
  [[nodiscard]] std::optional<std::string> zoneName(const std::string& name) override;
  [[nodiscard]] std::optional<int32_t> offsetAt(const std::string& name, Clock::WallTime when) override;
  [[nodiscard]] std::optional<std::string> abbreviationAt(const std::string& name, Clock::WallTime when) override;
  [[nodiscard]] std::string systemTimeZoneName() override;

 private:
  [[nodiscard]] std::optional<std::string> zoneNameOfPath(const std::string& path);
  [[nodiscard]] std::optional<std::string> zoneWithContents(const std::string& contents);

  const std::string localtimePath_;
  const std::string zoneinfoFolder_;
};

}  // namespace zonara
