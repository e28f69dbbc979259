#include "app/decision_history.h"

#include <date/date.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "platform/file_system.h"
#include "wps/spi/testing/temp_dir.h"

namespace zonara {
namespace {

namespace fs = std::filesystem;

Clock::WallTime at(int hour, int minute, int second) {
  using namespace std::chrono;
  return Clock::WallTime(date::sys_days(date::year(2026) / 11 / 24).time_since_epoch() + hours(hour) +
                         minutes(minute) + seconds(second));
}

std::vector<std::string> lines(const std::string& path) {
  std::vector<std::string> out;
  std::ifstream in(path);
  for (std::string line; std::getline(in, line);) out.push_back(line);
  return out;
}

TEST(DecisionHistoryTest, LinesHoldEveryFieldSeparatedByTabs) {
  struct Case {
    const char* what;
    HistoryEntry entry;
    std::string line;
  };
  const std::vector<Case> cases = {
      {"a look-up near a border",
       {at(19, 57, 37), PositionQuality{30000, PositionSource::LearnedPlaces}, 20.87, -87.55, "America/Cancun",
        {"America/Cancun", "America/Merida"}, HistoryAction::kApplied, "clocks differ near the border"},
       "2026-11-24T19:57:37Z\tlearned places\t30000 m\t20.87000,-87.55000\tAmerica/Cancun\t"
       "America/Cancun,America/Merida\tapplied\tclocks differ near the border\n"},
      {"the user's answer: no position, empty fields as dashes, separators inside a field flattened",
       {at(0, 0, 5), std::nullopt, 0, 0, "UTC", {}, HistoryAction::kUndone, "the user\tundid\nit"},
       "2026-11-24T00:00:05Z\t-\t-\t-\tUTC\t-\tundone\tthe user undid it\n"},
      {"an IP address with nothing found",
       {at(12, 0, 0), PositionQuality{1000000, PositionSource::IPAddress}, -33.9, 151.2, "", {},
        HistoryAction::kNoChange, ""},
       "2026-11-24T12:00:00Z\tIP address\t1000000 m\t-33.90000,151.20000\t-\t-\tno change\t-\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    EXPECT_EQ(formatHistoryLine(c.entry), c.line);
  }
}

HistoryEntry numbered(int n) {
  return HistoryEntry{at(1, 0, 0), std::nullopt, 0, 0, "Zone/" + std::to_string(n), {}, HistoryAction::kApplied, ""};
}

// The file keeps the newest lines: it is trimmed back to the bound once it
// holds a tenth more, and never holds more; its folder is made first, and it
// is private to the user.
TEST(DecisionHistoryTest, TheOldestLinesAreDroppedBeyondTheBound) {
  testing::TempDir dir("history-");
  const std::string path = dir.path() + "/state/zonara/history";
  DecisionHistory history(path, 20);
  size_t most = 0;
  for (int n = 1; n <= 75; ++n) {
    ASSERT_EQ(history.append(numbered(n)), 0);
    most = std::max(most, lines(path).size());
  }
  EXPECT_EQ(most, 22u);
  const std::vector<std::string> kept = lines(path);
  ASSERT_FALSE(kept.empty());
  EXPECT_NE(kept.back().find("\tZone/75\t"), std::string::npos);
  EXPECT_NE(kept.front().find("\tZone/" + std::to_string(75 - kept.size() + 1) + "\t"), std::string::npos);
  struct stat st{};
  ASSERT_EQ(stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);

  // Another run of the helper counts what is there and keeps the bound.
  DecisionHistory again(path, 20);
  for (int n = 76; n <= 100; ++n) ASSERT_EQ(again.append(numbered(n)), 0);
  EXPECT_LE(lines(path).size(), 22u);
  EXPECT_NE(lines(path).back().find("\tZone/100\t"), std::string::npos);
}

// A line cut short by a crash stays on its own; the next one starts on a
// new line.
TEST(DecisionHistoryTest, ALineCutShortByACrashDoesNotSpoilTheNext) {
  testing::TempDir dir("history-");
  const std::string path = dir.path() + "/history";
  ASSERT_EQ(writeFileAtomically(path, formatHistoryLine(numbered(1)) + "2026-11-24T01:00:00Z\tpositi"), 0);
  DecisionHistory history(path, 20);
  ASSERT_EQ(history.append(numbered(3)), 0);
  const std::vector<std::string> all = lines(path);
  ASSERT_EQ(all.size(), 3u);
  EXPECT_EQ(all[1], "2026-11-24T01:00:00Z\tpositi");
  EXPECT_EQ(all[2] + "\n", formatHistoryLine(numbered(3)));
}

TEST(DecisionHistoryTest, AnUnwritablePlaceIsReported) {
  testing::TempDir dir("history-");
  ASSERT_EQ(writeFileAtomically(dir.path() + "/file", "not a folder"), 0);
  DecisionHistory history(dir.path() + "/file/zonara/history");
  EXPECT_NE(history.append(numbered(1)), 0);
}

}  // namespace
}  // namespace zonara
