#include "app/zone_decision.h"

#include <chrono>
#include <cmath>
#include <cstdio>

#include "timezone/geolocation_helper.h"

namespace zonara {
namespace {

bool isOceanBand(const std::string& zone) { return zone.rfind("Etc/", 0) == 0; }

std::string canonical(const std::string& zone, TimeZoneDatabase& zones) {
  return zones.zoneName(zone).value_or(zone);
}

// A distance for the reason: whole kilometres, or metres below one kilometre
// (a fix accurate to 40 m is "within 40 m", not "within 0 km").
std::string kilometres(double metres) {
  char text[32];
  if (metres < 999.5) {
    std::snprintf(text, sizeof text, "%.0f m", metres);
  } else {
    std::snprintf(text, sizeof text, "%.0f km", metres / 1000);
  }
  return text;
}

ZoneDecision noChange(std::string reason) {
  ZoneDecision decision;
  decision.reason = std::move(reason);
  return decision;
}

// The zones within the accuracy circle worth comparing: the point's own
// first; ocean bands only when the point is at sea.
std::optional<std::vector<std::string>> nearbyZones(const ZoneDecisionInput& input,
                                                    const timezone::BoundaryIndex& boundaries) {
  std::string error;
  std::optional<std::vector<std::string>> within =
      boundaries.zonesWithin(input.latitude, input.longitude, input.quality.accuracyMetres, &error);
  if (!within || within->empty()) return std::nullopt;
  const bool atSea = isOceanBand(within->front());
  std::vector<std::string> kept;
  for (const std::string& zone : *within) {
    if (atSea || !isOceanBand(zone)) kept.push_back(zone);
  }
  return kept;
}

}  // namespace

bool clocksAgree(const std::string& a, const std::string& b, Clock::WallTime from, TimeZoneDatabase& zones) {
  using namespace std::chrono_literals;
  if (a == b) return true;
  for (Clock::WallTime when = from; when < from + 365 * 24h; when += 1h) {
    const std::optional<int32_t> offsetA = zones.offsetAt(a, when);
    const std::optional<int32_t> offsetB = zones.offsetAt(b, when);
    if (!offsetA || !offsetB || *offsetA != *offsetB) return false;
  }
  return true;
}

ZoneDecision decideZone(const ZoneDecisionInput& input, const timezone::BoundaryIndex& boundaries,
                        TimeZoneDatabase& zones) {
  if (!isUsablePosition(input.longitude, input.latitude)) return noChange("no usable position");
  const double accuracy = input.quality.accuracyMetres;
  if (!std::isfinite(accuracy) || accuracy < 0) return noChange("the position's accuracy is unknown");
  if (accuracy > kMaximumDecidingAccuracyMetres) {
    return noChange("the position is only accurate to " + kilometres(accuracy) + " (worse than 100 km)");
  }
  std::optional<std::vector<std::string>> nearby = nearbyZones(input, boundaries);
  if (!nearby) return noChange("the boundary data has no zone at the point");

  ZoneDecision decision;
  decision.nearbyZones = *nearby;
  const std::string& pointZone = nearby->front();
  for (const std::string& zone : *nearby) {
    if (!clocksAgree(pointZone, zone, input.now, zones)) {
      decision.otherPossibleZone = zone;
      break;
    }
  }
  if (!decision.otherPossibleZone) {
    decision.action = ZoneDecision::Action::Apply;
    decision.zone = pointZone;
    decision.reason = nearby->size() == 1 ? "the only zone within " + kilometres(accuracy)
                                          : "every zone within " + kilometres(accuracy) + " keeps the same clock";
    return decision;
  }
  const std::string system = canonical(input.systemZone, zones);
  for (const std::string& zone : *nearby) {
    if (!input.systemZone.empty() && canonical(zone, zones) == system) {
      decision.action = ZoneDecision::Action::Keep;
      decision.zone = zone;
      decision.otherPossibleZone = zone == pointZone ? *decision.otherPossibleZone : pointZone;
      decision.reason = "near a border: keeping " + zone;
      return decision;
    }
  }
  decision.action = ZoneDecision::Action::Apply;
  decision.zone = pointZone;
  decision.reason = "near a border: the system's zone is not among the zones within " + kilometres(accuracy) +
                    "; taking the zone at the point";
  return decision;
}

const char* actionName(ZoneDecision::Action action) {
  switch (action) {
    case ZoneDecision::Action::Apply: return "apply";
    case ZoneDecision::Action::Keep: return "keep";
    case ZoneDecision::Action::NoChange: return "no change";
  }
  return "no change";
}

}  // namespace zonara
