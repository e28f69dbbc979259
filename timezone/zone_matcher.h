// Matching a time-zone answer to a zone the system knows.
//
// An answer (from a web service or any other source) names a zone, perhaps
// in another spelling, and gives the offsets from GMT in January and July.
// The name is matched against the system's zone names and their current
// abbreviations, ignoring case and diacritics; failing that, a known zone
// with the same January and July offsets is looked for.
//
// Thread safety: the object is immutable; any thread may call it, as long as
// the zone database allows that too. "Now" is the installed `Clock`'s.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "platform/time_zone_database.h"

namespace zonara {

// What a source says about the zone at a point.
struct ZoneAnswer {
  // The zone's identifier as the source spells it; nullopt when it gave none
  // (over the ocean, for example).
  std::optional<std::string> identifier;
  // Offsets from GMT in seconds on 1 January and 1 July.
  int32_t gmtOffset = 0;
  int32_t dstOffset = 0;
};

class KnownZoneMatcher {
 public:
  // `zones` is borrowed and must outlive this object.
  explicit KnownZoneMatcher(TimeZoneDatabase& zones) : zones_(zones) {}

  // The known zone for the answer: the first known zone (in name order) whose
  // name or current abbreviation contains the identifier, else the zone for
  // the offsets; nullopt when neither gives one.
  [[nodiscard]] std::optional<std::string> match(const ZoneAnswer& answer) const;

  // The first known zone, in name order, whose name or current abbreviation
  // contains `identifier` ignoring case and diacritics; nullopt when none does.
  [[nodiscard]] std::optional<std::string> zoneForIdentifier(const std::string& identifier) const;

  // The zone for offsets from GMT in seconds on 1 January and 1 July of the
  // current year: the first known zone with both offsets is found and the
  // abbreviation table's zone for its current abbreviation is returned --
  // unless that zone has other offsets, in which case the matching zone itself
  // is returned. nullopt when no zone has the offsets or the abbreviation is
  // not in the table.
  [[nodiscard]] std::optional<std::string> zoneForGMTOffset(int32_t gmtOffset, int32_t dstOffset) const;

 private:
  TimeZoneDatabase& zones_;
};

// Whether `text` contains `part`, ignoring case and diacritics. An empty
// `part` is contained in nothing. Text that is not valid UTF-8 is compared
// as it is.
[[nodiscard]] bool containsIgnoringCaseAndDiacritics(const std::string& text, const std::string& part);

// The zone that stands for a time-zone abbreviation ("CET" -> "Europe/Paris"),
// or nullopt for an abbreviation not in the table. Case-sensitive.
[[nodiscard]] std::optional<std::string> zoneForAbbreviation(const std::string& abbreviation);

}  // namespace zonara
