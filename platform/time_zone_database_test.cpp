#include "platform/time_zone_database.h"

#include <date/date.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "wps/spi/testing/temp_dir.h"

namespace zonara {
namespace {

namespace fs = std::filesystem;

Clock::WallTime utc(int y, unsigned m, unsigned d) {
  return Clock::WallTime(date::sys_days(date::year(y) / m / d).time_since_epoch());
}

TEST(DateTzDatabaseTest, KnownNamesAreSortedWithLinksAndWithoutRuleFiles) {
  DateTzDatabase db;
  auto names = db.knownTimeZoneNames();
  ASSERT_GT(names.size(), 300u);
  EXPECT_TRUE(std::is_sorted(names.begin(), names.end()));
  auto has = [&](const std::string& n) { return std::binary_search(names.begin(), names.end(), n); };
  EXPECT_TRUE(has("Europe/Paris"));
  EXPECT_TRUE(has("Asia/Calcutta"));  // a link
  EXPECT_TRUE(has("US/Eastern"));
  for (const char* gone : {"localtime", "posixrules", "Factory"}) EXPECT_FALSE(has(gone)) << gone;
  for (const auto& n : names) {
    EXPECT_NE(n.rfind("posix/", 0), 0u) << n;
    EXPECT_NE(n.rfind("right/", 0), 0u) << n;
  }
}

TEST(DateTzDatabaseTest, OffsetsAndAbbreviationsAtADate) {
  DateTzDatabase db;
  struct Case {
    const char* zone;
    Clock::WallTime when;
    int32_t offset;
    const char* abbreviation;
  };
  for (const Case& c : std::vector<Case>{{"Europe/Paris", utc(2026, 1, 1), 3600, "CET"},
                                         {"Europe/Paris", utc(2026, 7, 1), 7200, "CEST"},
                                         {"Asia/Kolkata", utc(2026, 7, 1), 19800, "IST"},
                                         {"America/St_Johns", utc(2026, 1, 1), -12600, "NST"},
                                         {"Australia/Sydney", utc(2026, 1, 1), 39600, "AEDT"}}) {
    EXPECT_EQ(db.offsetAt(c.zone, c.when), c.offset) << c.zone;
    EXPECT_EQ(db.abbreviationAt(c.zone, c.when), c.abbreviation) << c.zone;
  }
  EXPECT_EQ(db.zoneName("Europe/Paris"), "Europe/Paris");
  for (const char* unknown : {"Europe/Atlantis", "", "posixrules", "localtime"}) {
    EXPECT_EQ(db.zoneName(unknown), std::nullopt) << unknown;
  }
  EXPECT_EQ(db.offsetAt("Mars/Olympus", utc(2026, 1, 1)), std::nullopt);
}

TEST(DateTzDatabaseTest, SystemZoneFromALinkOrANameFile) {
  testing::TempDir scratch("tzdb-");
  const fs::path dir = scratch.path();
  fs::create_symlink("/usr/share/zoneinfo/Asia/Tokyo", dir / "localtime");
  EXPECT_EQ(DateTzDatabase((dir / "localtime").string()).systemTimeZoneName(), "Asia/Tokyo");
  std::ofstream(dir / "timezone") << "Europe/Berlin\n";
  EXPECT_EQ(DateTzDatabase((dir / "timezone").string()).systemTimeZoneName(), "Europe/Berlin");
  EXPECT_EQ(DateTzDatabase((dir / "missing").string()).systemTimeZoneName(), "");
}

}  // namespace
}  // namespace zonara
