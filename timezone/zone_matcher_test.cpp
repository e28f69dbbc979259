#include "timezone/zone_matcher.h"

#include <gtest/gtest.h>

#include "timezone/test_support.h"
#include "wps/spi/simulated_clock.h"

namespace zonara {
namespace {

using testing::utc;

// The system zone is UTC; the present is mid-January 2026 (winter in the
// north: Paris is on CET).
class KnownZoneMatcherTest : public ::testing::Test {
 protected:
  WPS::SPI::SimulatedClock clock_{utc(2026, 1, 15)};
  WPS::SPI::ScopedClock installed_{clock_};
  testing::UtcZones zones_;
  KnownZoneMatcher matcher_{zones_.zones()};
};

TEST_F(KnownZoneMatcherTest, MatchesAnswersTextuallyOrByOffsets) {
  struct Case {
    const char* what;
    ZoneAnswer answer;
    std::optional<std::string> expected;
  };
  const std::vector<Case> cases = {
      {"case and diacritics ignored", {"EURÓPE/pAríS", 3600, 7200}, "Europe/Paris"},
      {"part of a longer name: first in name order", {"Kolkata", 19800, 19800}, "Asia/Kolkata"},
      {"abbreviation matches too", {"CET", 3600, 7200}, "Africa/Algiers"},
      {"unknown identifier: 5.5/5.5 via IST", {"Nowhere/Atlantis", 19800, 19800}, "Asia/Kolkata"},
      {"ocean: offsets only", {std::nullopt, 3600, 7200}, "Europe/Paris"},
      {"empty identifier matches nothing: offsets decide", {"", 3600, 7200}, "Europe/Paris"},
      {"offsets nobody has", {std::nullopt, 11700, 11700}, std::nullopt},
      {"first zone with the offsets has an abbreviation not in the table", {std::nullopt, 32400, 32400},
       std::nullopt},
  };
  for (const Case& c : cases) EXPECT_EQ(matcher_.match(c.answer), c.expected) << c.what;
}

TEST_F(KnownZoneMatcherTest, OffsetFallbackPrefersTheTableZoneOnlyWhenItFits) {
  EXPECT_EQ(matcher_.zoneForGMTOffset(3600, 7200), "Europe/Paris");          // Africa/Ceuta, CET
  EXPECT_EQ(matcher_.zoneForGMTOffset(19800, 19800), "Asia/Kolkata");        // Asia/Calcutta, IST
  EXPECT_EQ(matcher_.zoneForGMTOffset(-18000, -14400), "America/New_York");  // America/Detroit, EST
  EXPECT_EQ(matcher_.zoneForGMTOffset(0, 0), "GMT");                         // Africa/Abidjan, GMT
  EXPECT_EQ(matcher_.zoneForGMTOffset(12345, 12345), std::nullopt);
  EXPECT_NE(matcher_.zoneForGMTOffset(28800, 28800), "America/Chicago");
}

// A database where China's zone comes first for +8 and calls itself CST.
class ChinaFirstZones final : public TimeZoneDatabase {
 public:
  std::vector<std::string> knownTimeZoneNames() override { return {"America/Chicago", "Asia/Shanghai"}; }
  std::optional<std::string> zoneName(const std::string& n) override {
    return n == "America/Chicago" || n == "Asia/Shanghai" ? std::optional(n) : std::nullopt;
  }
  std::optional<int32_t> offsetAt(const std::string& n, Clock::WallTime when) override {
    if (n == "Asia/Shanghai") return 28800;
    if (n == "America/Chicago") return when < utc(2026, 3, 1) ? -21600 : -18000;
    return std::nullopt;
  }
  std::optional<std::string> abbreviationAt(const std::string& n, Clock::WallTime) override {
    return zoneName(n) ? std::optional<std::string>("CST") : std::nullopt;
  }
  std::string systemTimeZoneName() override { return "UTC"; }
};

TEST_F(KnownZoneMatcherTest, ChinaStandardTimeNeverBecomesChicago) {
  ChinaFirstZones zones;
  KnownZoneMatcher matcher(zones);
  EXPECT_EQ(matcher.zoneForGMTOffset(28800, 28800), "Asia/Shanghai");
  EXPECT_EQ(matcher.zoneForGMTOffset(-21600, -18000), "America/Chicago");
  EXPECT_EQ(matcher.match({std::nullopt, 28800, 28800}), "Asia/Shanghai");
}

TEST(ZoneTextTest, SubstringMatchIgnoresCaseAndDiacritics) {
  struct Case {
    const char* text;
    const char* part;
    bool expected;
  };
  for (const Case& c : std::vector<Case>{{"Europe/Paris", "europe/paris", true},
                                         {"America/Sao_Paulo", "São_Paulo", true},
                                         {"Europe/Zurich", "ZÜRICH", true},
                                         {"Europe/Paris", "Paris/Europe", false},
                                         {"Europe/Paris", "", false},
                                         {"", "", false},
                                         {"CET", "cet", true},
                                         {"Asia/Kolkata", "\xff", false}}) {
    EXPECT_EQ(containsIgnoringCaseAndDiacritics(c.text, c.part), c.expected) << c.text << " / " << c.part;
  }
}

TEST(AbbreviationTableTest, MapsTheListedAbbreviationsOnly) {
  EXPECT_EQ(zoneForAbbreviation("CET"), "Europe/Paris");
  EXPECT_EQ(zoneForAbbreviation("IST"), "Asia/Kolkata");
  EXPECT_EQ(zoneForAbbreviation("CST"), "America/Chicago");
  EXPECT_EQ(zoneForAbbreviation("WIT"), "Asia/Jakarta");
  EXPECT_EQ(zoneForAbbreviation("+08"), std::nullopt);
  EXPECT_EQ(zoneForAbbreviation("cet"), std::nullopt);
  // Every zone in the table exists here.
  DateTzDatabase db;
  for (const char* a : {"ADT", "AKST", "ART", "BDT", "BRT", "BST", "CAT", "CEST", "CLT", "COT", "EAT", "EDT", "EET",
                        "GMT", "GST", "HKT", "HST", "ICT", "IRST", "JST", "KST", "MST", "MSK", "NZST", "PST", "PET",
                        "PHT", "PKT", "SGT", "UTC", "WAT", "WET"}) {
    auto zone = zoneForAbbreviation(a);
    ASSERT_TRUE(zone) << a;
    EXPECT_TRUE(db.zoneName(*zone)) << *zone;
  }
}

}  // namespace
}  // namespace zonara
