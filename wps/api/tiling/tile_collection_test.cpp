#include "wps/api/tiling/tile_collection.h"

#include <gtest/gtest.h>

#include "wps/api/testing/tile_dir.h"
#include "wps/api/tiling/tiling.h"
#include "wps/spi/log_capture.h"

namespace WPS {
namespace API {
namespace {

using testing::accessPointsAround;
using testing::scanOf;
using testing::TileDir;
using testing::tileFile;

const std::string kRealm = "test.realm";

TileInfo info(const std::string& id, const std::string& version) {
  TileInfo t;
  t.id = id;
  t.version = version;
  return t;
}

std::vector<std::string> ids(TileCollection& collection) {
  std::vector<std::string> out;
  for (const CollectedTileInfo& tile : collection.tiles()) out.push_back(tileName(tile.info));
  return out;
}

TEST(TileNamesTest, RevisionsAndFileNames) {
  struct Case {
    std::string version;
    uint64_t revision;
  };
  for (const Case& c : std::vector<Case>{{"17", 17},
                                         {"017", 17},
                                         {"17-b", 17},
                                         {"3.9", 3},
                                         {"beta", 0},
                                         {"", 0},
                                         {"99999999999999999999999", UINT64_MAX}}) {
    EXPECT_EQ(revisionOf(c.version), c.revision) << c.version;
  }

  TileInfo parsed;
  ASSERT_TRUE(parseTileFileName("12_34_5.dat", parsed));
  EXPECT_EQ(parsed.id, "12_34");
  EXPECT_EQ(parsed.version, "5");
  for (const char* name : {"12_5.da", "125.dat", "_5.dat", "12_.dat", ".dat", "12_5.dat.tmp"}) {
    EXPECT_FALSE(parseTileFileName(name, parsed)) << name;
  }
}

class TileCollectionTest : public ::testing::Test {
 protected:
  // Writes a tile file "<id>_<version>.dat" of its own access points.
  std::string put(const std::string& id, const std::string& version, uint64_t seed = 1) {
    const std::string name = id + "_" + version + ".dat";
    dir_.write(name, tileFile(accessPointsAround(seed, 40, 10.0, 20.0), kRealm));
    return dir_.file(name);
  }

  TileDir dir_;
};

TEST_F(TileCollectionTest, RevisionRulesDecideWhichFileStays) {
  struct Case {
    const char* name;
    std::string held;     // version in the collection
    std::string offered;  // version added next
    bool offeredWins;
  };
  for (const Case& c : std::vector<Case>{{"equal revision", "5", "05", false},
                                         {"older revision", "5", "4", false},
                                         {"newer revision", "5", "6", true},
                                         {"numbers, not text", "9", "10", true}}) {
    SCOPED_TRACE(c.name);
    TileCollection collection(kRealm, 100 << 20);
    SPI::LogCapture log("WPS.API.TileCollection");
    const std::string heldPath = put("A", c.held);
    const std::string offeredPath = put("A", c.offered);
    ASSERT_TRUE(collection.add(info("A", c.held), heldPath));
    EXPECT_EQ(collection.add(info("A", c.offered), offeredPath), c.offeredWins);

    EXPECT_EQ(collection.tileCount(), 1u);
    EXPECT_EQ(ids(collection), std::vector<std::string>{"A_" + (c.offeredWins ? c.offered : c.held)});
    EXPECT_EQ(SPI::File::exists(heldPath), !c.offeredWins);
    EXPECT_EQ(SPI::File::exists(offeredPath), c.offeredWins);
    if (c.offeredWins) {
      EXPECT_TRUE(log.contains("tile A_" + c.held + " is replaced by A_" + c.offered));
    } else {
      EXPECT_TRUE(log.contains("tile A_" + c.offered + " is older than existing A_" + c.held));
    }
    SPI::File::remove(heldPath);
    SPI::File::remove(offeredPath);
  }
}

TEST_F(TileCollectionTest, SixtyFifthTileClosesLeastRecentlyUsedWithoutDeletingIt) {
  TileCollection collection(kRealm, 100 << 20);
  SPI::LogCapture log("WPS.API.TileCollection");
  const auto firstAps = accessPointsAround(0, 40, 10.0, 20.0);
  dir_.write("T0_1.dat", tileFile(firstAps, kRealm));
  ASSERT_TRUE(collection.add(info("T0", "1"), dir_.file("T0_1.dat")));
  for (int i = 1; i < 64; ++i) ASSERT_TRUE(collection.add(info("T" + std::to_string(i), "1"), put("T" + std::to_string(i), "1", i)));
  ASSERT_EQ(collection.tileCount(), 64u);
  EXPECT_FALSE(log.containsFragment("too many tiles"));

  // A hit makes T0 the most recently used: T1 is now the oldest.
  std::vector<LocatedAccessPoint> located;
  EXPECT_EQ(collection.get(scanOf({firstAps[0]}), located), "T0");
  ASSERT_TRUE(collection.add(info("T64", "1"), put("T64", "1", 64)));

  EXPECT_EQ(collection.tileCount(), 64u);
  EXPECT_TRUE(log.contains("too many tiles opened, popping the LRU tile..."));
  EXPECT_TRUE(log.contains("removing " + dir_.file("T1_1.dat")));
  EXPECT_FALSE(collection.contains("T1"));
  EXPECT_TRUE(collection.contains("T0"));
  EXPECT_TRUE(dir_.has("T1_1.dat")) << "closing for the count limit must keep the file";
}

TEST_F(TileCollectionTest, SizeQuotaDeletesLeastRecentlyUsedFilesUntilTheTotalFits) {
  const auto apsA = accessPointsAround(1, 40, 10.0, 20.0);
  dir_.write("A_1.dat", tileFile(apsA, kRealm));
  const int64_t size = SPI::File::size(dir_.file("A_1.dat"));
  ASSERT_GT(size, 0);
  // Room for three files of about this size (each tile differs a little).
  TileCollection collection(kRealm, static_cast<uint64_t>(size) * 3 + size / 2);
  SPI::LogCapture log("WPS.API.TileCollection");
  ASSERT_TRUE(collection.add(info("A", "1"), dir_.file("A_1.dat")));
  ASSERT_TRUE(collection.add(info("B", "1"), put("B", "1", 2)));
  ASSERT_TRUE(collection.add(info("C", "1"), put("C", "1", 3)));
  std::vector<LocatedAccessPoint> located;
  ASSERT_EQ(collection.get(scanOf({apsA[3]}), located), "A");  // B is now the oldest

  // A double-sized file pushes out B and then C.
  auto big = accessPointsAround(4, 40, 10.0, 20.0);
  const auto more = accessPointsAround(5, 40, 30.0, 40.0);
  big.insert(big.end(), more.begin(), more.end());
  dir_.write("D_1.dat", tileFile(big, kRealm));
  ASSERT_TRUE(collection.add(info("D", "1"), dir_.file("D_1.dat")));

  EXPECT_LE(collection.totalSize(), static_cast<uint64_t>(size) * 3 + size / 2);
  EXPECT_EQ(ids(collection), (std::vector<std::string>{"D_1", "A_1"}));
  EXPECT_FALSE(dir_.has("B_1.dat"));
  EXPECT_FALSE(dir_.has("C_1.dat"));
  EXPECT_TRUE(dir_.has("A_1.dat"));
  EXPECT_TRUE(log.contains("the size of the tiles exceeded quota, popping the LRU tile..."));
}

TEST_F(TileCollectionTest, QuotaIsEnforcedBeforeTheCountLimit) {
  // 65 files of the same size with room for 64 of them: the 65th breaks both
  // limits. The size rule goes first and deletes the oldest file, after which
  // the count is within its limit; closing first would have kept the file.
  const std::string bytes = tileFile(accessPointsAround(1, 20, 10.0, 20.0), kRealm);
  TileCollection collection(kRealm, 64 * bytes.size());
  SPI::LogCapture log("WPS.API.TileCollection");
  for (int i = 0; i <= 64; ++i) {
    const std::string name = "T" + std::to_string(i) + "_1.dat";
    dir_.write(name, bytes);
    ASSERT_TRUE(collection.add(info("T" + std::to_string(i), "1"), dir_.file(name)));
  }
  EXPECT_EQ(collection.tileCount(), 64u);
  EXPECT_FALSE(dir_.has("T0_1.dat"));
  EXPECT_TRUE(log.contains("the size of the tiles exceeded quota, popping the LRU tile..."));
  EXPECT_FALSE(log.containsFragment("too many tiles"));
}

TEST_F(TileCollectionTest, FilesThatCannotBeOpenedAreDeleted) {
  struct Case {
    const char* name;
    std::string bytes;
  };
  for (const Case& c : std::vector<Case>{
           {"garbage", "this is not a tile file"},
           {"empty", ""},
           {"other realm", tileFile(accessPointsAround(1, 10, 1.0, 1.0), "other.realm")},
           {"truncated", tileFile(accessPointsAround(1, 10, 1.0, 1.0), kRealm).substr(0, 30)}}) {
    SCOPED_TRACE(c.name);
    TileCollection collection(kRealm, 100 << 20);
    SPI::LogCapture log("WPS.API.TileCollection");
    dir_.write("X_1.dat", c.bytes);
    EXPECT_FALSE(collection.add(info("X", "1"), dir_.file("X_1.dat")));
    EXPECT_FALSE(dir_.has("X_1.dat"));
    EXPECT_EQ(collection.tileCount(), 0u);
    EXPECT_TRUE(log.contains("failed to open " + dir_.file("X_1.dat") + ", deleting the file..."));
  }
}

TEST_F(TileCollectionTest, GetNamesTheTileWithMostHitsAndPopFollowsUse) {
  const auto apsA = accessPointsAround(1, 20, 10.0, 20.0);
  const auto apsB = accessPointsAround(2, 20, 10.0, 20.0);
  TileCollection collection(kRealm, 100 << 20);
  dir_.write("A_1.dat", tileFile(apsA, kRealm));
  dir_.write("B_1.dat", tileFile(apsB, kRealm));
  ASSERT_TRUE(collection.add(info("A", "1"), dir_.file("A_1.dat")));
  ASSERT_TRUE(collection.add(info("B", "1"), dir_.file("B_1.dat")));

  std::vector<LocatedAccessPoint> located;
  auto scan = scanOf({apsB[0], apsA[0], apsA[1], apsA[1]});
  scan.emplace_back(SPI::MAC::fromValue(0xABCDEF), -50);  // in no tile
  EXPECT_EQ(collection.get(scan, located), "A");
  ASSERT_EQ(located.size(), 3u) << "each known MAC once";
  EXPECT_EQ(located[0].mac, apsB[0].mac);
  EXPECT_NEAR(located[1].latitude, apsA[0].latitude, 1e-4);

  located.clear();
  EXPECT_EQ(collection.get(scanOf({apsB[1]}), located), "B");

  // B was hit last, so A is the least recently used one.
  collection.pop(false);
  EXPECT_EQ(ids(collection), std::vector<std::string>{"B_1"});
  EXPECT_TRUE(dir_.has("A_1.dat"));
  collection.pop(true);
  EXPECT_EQ(collection.tileCount(), 0u);
  EXPECT_FALSE(dir_.has("B_1.dat"));
  collection.pop(true);  // nothing left: no effect

  located.clear();
  EXPECT_EQ(collection.get(scanOf(apsA), located), "");
  EXPECT_TRUE(located.empty());
}

TEST_F(TileCollectionTest, SelectNewKeepsTilesNotHeldAtSameOrNewerRevision) {
  TileCollection collection(kRealm, 100 << 20);
  ASSERT_TRUE(collection.add(info("A", "5"), put("A", "5")));
  TileInfoList offered{info("A", "4"), info("A", "5"), info("B", "1"), info("A", "6")};
  TileInfoList expected{info("B", "1"), info("A", "6")};
  EXPECT_EQ(collection.selectNew(offered), expected);
}

// ---- The tiles directory ----

TEST_F(TileCollectionTest, TilesFoundInTheDirectoryAtStartAreOpened) {
  const auto apsA = accessPointsAround(1, 30, 10.0, 20.0);
  dir_.write("A_3.dat", tileFile(apsA, kRealm));
  dir_.write("B_1.dat", tileFile(accessPointsAround(2, 30, 11.0, 21.0), kRealm));
  dir_.write("broken_1.dat", "junk");
  dir_.write("notes.txt", "kept");
  dir_.write("C_1.dat.tmp", "half a download");

  SPI::LogCapture log("WPS.API.Tiling");
  TilingParameters parameters;
  parameters.directory = dir_.path();
  parameters.maxDataSizePerSession = 0;
  parameters.maxDataSizeTotal = 100 << 20;
  Tiling tiling(SimpleAuthentication("user", kRealm), parameters);

  EXPECT_TRUE(tiling.enabled());
  EXPECT_TRUE(log.contains("looking for existing tiles in " + dir_.path()));
  EXPECT_TRUE(log.contains("found tile A_3"));
  EXPECT_EQ(tiling.collection().tileCount(), 2u);
  EXPECT_EQ(dir_.names(), (std::set<std::string>{"A_3.dat", "B_1.dat", "notes.txt"}));

  std::vector<LocatedAccessPoint> located;
  tiling.get(scanOf({apsA[0], apsA[1]}), {}, located);
  EXPECT_EQ(located.size(), 2u);
  EXPECT_TRUE(log.contains("most macs were found in tile A (main tile is unknown)"));

  located.clear();
  tiling.get(scanOf(accessPointsAround(9, 3, 50.0, 50.0)), {}, located);
  EXPECT_TRUE(located.empty());
  EXPECT_TRUE(log.contains("can't determine location from the current tiles"));
}

TEST_F(TileCollectionTest, UnreadableDirectoryDisablesTiling) {
  dir_.write("plain-file", "x");
  SPI::LogCapture log("WPS.API.Tiling");
  TilingParameters parameters;
  parameters.directory = dir_.file("plain-file");
  parameters.maxDataSizePerSession = 1000;
  parameters.maxDataSizeTotal = 1000;
  Tiling tiling(SimpleAuthentication("user", kRealm), parameters);
  EXPECT_FALSE(tiling.enabled());
  EXPECT_TRUE(log.containsFragment("failed to open " + dir_.file("plain-file") + " with error "));
  EXPECT_TRUE(log.containsFragment(". Tiling is disabled"));
  std::vector<LocatedAccessPoint> located;
  tiling.get(scanOf(accessPointsAround(1, 3, 1.0, 1.0)), {}, located);
  EXPECT_TRUE(located.empty());
}

}  // namespace
}  // namespace API
}  // namespace WPS
