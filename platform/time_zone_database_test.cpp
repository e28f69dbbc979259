#include "platform/time_zone_database.h"

#include <date/date.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>

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

// The forms /etc/localtime takes on real systems: a link into zoneinfo (or
// its posix/ tree), a zone file copied into place, a name file; and what is
// not a zone.
TEST(DateTzDatabaseTest, SystemZoneFromALinkACopiedZoneFileOrANameFile) {
  testing::TempDir scratch("tzdb-");
  const fs::path dir = scratch.path();
  auto link = [&](const std::string& name, const fs::path& target) {
    fs::create_symlink(target, dir / name);
    return dir / name;
  };
  auto copy = [&](const std::string& name, const fs::path& from) {
    fs::copy_file(from, dir / name);
    return dir / name;
  };
  auto text = [&](const std::string& name, const std::string& contents) {
    std::ofstream(dir / name) << contents;
    return dir / name;
  };
  std::string truncated;
  {
    std::ifstream in("/usr/share/zoneinfo/Asia/Tokyo", std::ios::binary);
    truncated.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    truncated.resize(truncated.size() - 3);
  }
  struct Case {
    fs::path localtime;
    std::string expected;
  };
  const std::vector<Case> cases = {
      {link("link", "/usr/share/zoneinfo/Asia/Tokyo"), "Asia/Tokyo"},
      {link("posix", "/usr/share/zoneinfo/posix/Europe/Paris"), "Europe/Paris"},
      {link("relative", "../usr/share/zoneinfo/America/New_York"), "America/New_York"},
      {copy("copied", "/usr/share/zoneinfo/Australia/Sydney"), "Australia/Sydney"},
      {link("link-to-copy", dir / "copied"), "Australia/Sydney"},
      {text("name", "Europe/Berlin\n"), "Europe/Berlin"},
      {text("truncated", truncated), ""},
      {text("unknown", "Mars/Olympus\n"), ""},
      {dir / "missing", ""},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(DateTzDatabase(c.localtime.string()).systemTimeZoneName(), c.expected) << c.localtime;
  }
}

}  // namespace
}  // namespace zonara
