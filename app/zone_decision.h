// Whether a position found should change the system's time zone, taking the
// position's accuracy and the zones near it into account (docs/decisions.md
// has the table). A pure function of its inputs: the boundary data, the
// system's zone files and the time are passed in.
//
// Thread safety: any thread (the boundary index and the zone database are
// safe to share).
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "platform/clock.h"
#include "platform/time_zone_database.h"
#include "sensors/location_source.h"
#include "timezone/boundary_index.h"

namespace zonara {

// Positions less accurate than this (an IP address placed at the centre of a
// country) never change the zone.
inline constexpr double kMaximumDecidingAccuracyMetres = 100000;

struct ZoneDecisionInput {
  double latitude = 0;
  double longitude = 0;
  PositionQuality quality;
  std::string systemZone;  // the system's zone now ("" when it cannot be told)
  Clock::WallTime now;     // start of the year over which clocks are compared
};

struct ZoneDecision {
  enum class Action {
    Apply,     // set `zone` (it may already be the system's zone)
    Keep,      // keep the system's zone, `zone`
    NoChange,  // the position says nothing trustworthy; `zone` is empty
  };
  Action action = Action::NoChange;
  std::string zone;
  // Why, in words for the log and the history ("near a border: keeping
  // Europe/Lisbon").
  std::string reason;
  // A zone with another clock within the accuracy circle: the one the user
  // may really be in (named in the change notification).
  std::optional<std::string> otherPossibleZone;
  // Every zone within the accuracy circle, the point's own first.
  std::vector<std::string> nearbyZones;
};

// The decision for one position (see docs/decisions.md):
// - unusable position (near 0,0, not finite) or accuracy worse than 100 km:
//   no change;
// - otherwise the zones within the accuracy circle (ocean bands left out
//   unless the point itself is at sea); when every one keeps the point's
//   zone's clock, apply the point's zone; when not, keep the system's zone if
//   it is among them, else apply the point's zone naming another.
// No change, too, when the boundary data has no answer for the point.
[[nodiscard]] ZoneDecision decideZone(const ZoneDecisionInput& input, const timezone::BoundaryIndex& boundaries,
                                      TimeZoneDatabase& zones);

// Whether `a` and `b` have the same UTC offset at every whole hour of the
// 365 days from `from`. False when either zone is unknown.
[[nodiscard]] bool clocksAgree(const std::string& a, const std::string& b, Clock::WallTime from,
                               TimeZoneDatabase& zones);

// "apply", "keep", "no change".
[[nodiscard]] const char* actionName(ZoneDecision::Action action);

}  // namespace zonara
