#include "app/zone_decision.h"

#include <date/date.h>
#include <gtest/gtest.h>

#include <memory>

#include "timezone/testing/built_boundary_file.h"

namespace zonara {
namespace {

using Action = ZoneDecision::Action;

Clock::WallTime utc(int y, unsigned m, unsigned d) {
  return Clock::WallTime(date::sys_days(date::year(y) / m / d).time_since_epoch());
}

TEST(ClocksAgree, SameOffsetAtEveryHourOfTheComingYear) {
  DateTzDatabase zones;
  struct Case {
    const char* a;
    const char* b;
    bool agree;
  };
  for (const Case& c : std::vector<Case>{
           {"Europe/Paris", "Europe/Brussels", true},
           {"Europe/Madrid", "Europe/Lisbon", false},
           {"America/Cancun", "America/Merida", false},
           {"Europe/Lisbon", "Europe/London", true},
           {"Europe/London", "Etc/GMT", false},        // summer time only on one side
           {"Europe/Paris", "Not/AZone", false},
       }) {
    EXPECT_EQ(clocksAgree(c.a, c.b, utc(2026, 11, 24), zones), c.agree) << c.a << " " << c.b;
  }
  // The year compared starts at the given time: Cancun kept Merida's clock
  // until it moved an hour east in February 2015.
  EXPECT_TRUE(clocksAgree("America/Cancun", "America/Merida", utc(2013, 1, 1), zones));
  EXPECT_FALSE(clocksAgree("America/Cancun", "America/Merida", utc(2014, 6, 1), zones));
}

TEST(DecideZone, DecisionTableOnTheRealBoundaries) {
  ZONARA_NEED_BOUNDARY_DATA(path);
  std::string error;
  std::unique_ptr<timezone::BoundaryIndex> index = timezone::BoundaryIndex::open(path, &error);
  ASSERT_TRUE(index) << error;
  DateTzDatabase zones;
  const PositionQuality wifi25{25000, PositionSource::PositioningServer};
  const PositionQuality wifi30{30000, PositionSource::LearnedPlaces};
  const PositionQuality ipAddress{kUnstatedIPAccuracyMetres, PositionSource::IPAddress};

  struct Case {
    const char* what;
    double lat, lon;
    PositionQuality quality;
    const char* system;
    Action action;
    const char* zone;
    const char* other;  // "" = none named
    const char* reason;
  };
  const std::vector<Case> cases = {
      {"1 km inside Belgium, same clock as France", 50.7380, 3.2140, wifi25, "Europe/Paris", Action::Apply,
       "Europe/Brussels", "", "every zone within 25 km keeps the same clock"},
      {"1 km inside Spain from Portugal, system on Lisbon", 42.0600, -8.6300, wifi25, "Europe/Lisbon", Action::Keep,
       "Europe/Lisbon", "Europe/Madrid", "near a border: keeping Europe/Lisbon"},
      {"Quintana Roo near Yucatan, system elsewhere", 20.8700, -87.5500, wifi30, "Europe/Paris", Action::Apply,
       "America/Cancun", "America/Merida",
       "near a border: the system's zone is not among the zones within 30 km; taking the zone at the point"},
      {"Quintana Roo near Yucatan, system on Merida", 20.8700, -87.5500, wifi30, "America/Merida", Action::Keep,
       "America/Merida", "America/Cancun", "near a border: keeping America/Merida"},
      {"accuracy of 1,000 km", 40.4168, -3.7038, {1000000, PositionSource::IPAddress}, "Europe/Paris",
       Action::NoChange, "", "", "the position is only accurate to 1000 km (worse than 100 km)"},
      {"IP position far from any border", 40.4168, -3.7038, ipAddress, "Europe/Paris", Action::Apply,
       "Europe/Madrid", "", "the only zone within 50 km"},
      {"fix accurate to 40 m in Madrid", 40.4168, -3.7038, {40, PositionSource::PositioningServer}, "Europe/Paris",
       Action::Apply, "Europe/Madrid", "", "the only zone within 40 m"},
      {"near 0,0", 0.5, 0.5, wifi25, "Europe/Paris", Action::NoChange, "", "", "no usable position"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    const ZoneDecision d = decideZone({c.lat, c.lon, c.quality, c.system, utc(2026, 11, 24)}, *index, zones);
    EXPECT_EQ(actionName(d.action), std::string(actionName(c.action)));
    EXPECT_EQ(d.zone, c.zone);
    EXPECT_EQ(d.otherPossibleZone.value_or(""), c.other);
    EXPECT_EQ(d.reason, c.reason);
    if (d.action != Action::NoChange) {
      ASSERT_FALSE(d.nearbyZones.empty());
      std::string e;
      EXPECT_EQ(d.nearbyZones.front(), index->zonesAt(c.lat, c.lon, &e)->front());
    }
  }
}

}  // namespace
}  // namespace zonara
