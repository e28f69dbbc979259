#include "wps/api/local/access_point_database.h"

#include <gtest/gtest.h>

#include <random>

#include "wps/api/tiles/tile_test_support.h"
#include "wps/api/tiles/tile_writer.h"
#include "wps/spi/file.h"
#include "wps/spi/log_capture.h"

namespace WPS {
namespace API {
namespace {

using SPI::MAC;
using testing::randomAccessPoints;
using testing::tempPath;

const char kRealm[] = "db.realm";

std::string writeFile(const std::string& name, const std::vector<LocatedAccessPoint>& aps, const std::string& realm = kRealm) {
  TileWriterOptions options;
  options.realm = realm;
  std::vector<unsigned char> bytes;
  std::string error;
  EXPECT_TRUE(buildTileFile(aps, options, bytes, error)) << error;
  const std::string path = tempPath(name);
  EXPECT_TRUE(writeTileFile(path, bytes, error)) << error;
  return path;
}

// A real reader that counts the look-ups that reach it.
class CountingReader final : public CompressedFileReader {
 public:
  explicit CountingReader(int& gets) : inner_(CompressedFileReader::newInstance()), gets_(gets) {}
  int open(const std::string& realm, const std::string& fileName) override { return inner_->open(realm, fileName); }
  LocatedAccessPoint get(const MAC& mac) override {
    ++gets_;
    return inner_->get(mac);
  }
  void close() override { inner_->close(); }
  const std::string& fileName() const override { return inner_->fileName(); }

 private:
  std::unique_ptr<CompressedFileReader> inner_;
  int& gets_;
};

std::unique_ptr<CompressedFileReader> countingReader(const std::string& path, int& gets) {
  auto reader = std::make_unique<CountingReader>(gets);
  EXPECT_EQ(reader->open(kRealm, path), 0);
  return reader;
}

class FakeTiles final : public TileSource {
 public:
  void get(const SPI::AccessPointList& scanned, const SPI::CellTowerList&, std::vector<LocatedAccessPoint>& located) override {
    ++calls;
    for (const auto& ap : scanned) {
      for (const auto& known : aps) {
        if (known.mac == ap.mac) located.push_back(known);
      }
    }
  }
  std::vector<LocatedAccessPoint> aps;
  int calls = 0;
};

SPI::AccessPointList scanOf(const std::vector<LocatedAccessPoint>& aps) {
  SPI::AccessPointList scan;
  for (const auto& ap : aps) scan.emplace_back(ap.mac, -60);
  return scan;
}

class CacheTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::mt19937_64 rng(7);
    aps = randomAccessPoints(rng, 60, 48.0, 48.1, 2.0, 2.1);
    path = writeFile("cache.wps", aps);
  }
  std::vector<LocatedAccessPoint> aps;
  std::string path;
};

TEST_F(CacheTest, FiftyFirstFoundMACEvictsTheLeastRecentlyUsed) {
  int gets = 0;
  CompressedFileCollection collection(kRealm);
  ASSERT_NE(collection.add(countingReader(path, gets)), nullptr);
  LocatedAccessPoint lap;
  for (size_t i = 0; i < 50; ++i) ASSERT_NE(collection.get(aps[i].mac, lap), nullptr);
  EXPECT_EQ(collection.freeCachePlaces(), 0u);
  // Touch the first one so the second becomes the least recently used.
  ASSERT_NE(collection.get(aps[0].mac, lap), nullptr);
  ASSERT_NE(collection.get(aps[50].mac, lap), nullptr);

  const std::vector<MAC> cached = collection.cachedMACs();
  ASSERT_EQ(cached.size(), 50u);
  EXPECT_EQ(cached[0], aps[50].mac);
  EXPECT_EQ(cached[1], aps[0].mac);
  EXPECT_EQ(std::count(cached.begin(), cached.end(), aps[1].mac), 0);
  EXPECT_EQ(std::count(cached.begin(), cached.end(), aps[2].mac), 1);

  // The evicted MAC needs the file again; a cached one does not.
  gets = 0;
  ASSERT_NE(collection.get(aps[1].mac, lap), nullptr);
  EXPECT_EQ(gets, 1);
  ASSERT_NE(collection.get(aps[3].mac, lap), nullptr);
  EXPECT_EQ(gets, 1);
}

TEST_F(CacheTest, CachedMACIsAnsweredWithoutAnyFileAndMovesToTheFront) {
  int gets = 0;
  CompressedFileCollection collection(kRealm);
  const auto handle = collection.add(countingReader(path, gets));
  SPI::LogCapture log("WPS.API.CompressedFileCollection");
  LocatedAccessPoint first, second;
  EXPECT_EQ(collection.get(aps[5].mac, first), handle);
  EXPECT_EQ(collection.get(aps[6].mac, first), handle);
  EXPECT_EQ(gets, 2);
  EXPECT_TRUE(log.contains("added mac " + aps[6].mac.toString() + " to cache. remaining cache size is 48"));
  EXPECT_EQ(collection.get(aps[5].mac, second), handle);
  EXPECT_EQ(gets, 2);
  EXPECT_TRUE(log.contains("found mac " + aps[5].mac.toString() + " in cache"));
  EXPECT_NEAR(second.latitude, aps[5].latitude, 1e-5);
  EXPECT_EQ(collection.cachedMACs().front(), aps[5].mac);
}

TEST_F(CacheTest, MissesAreNotCachedAndLeaveTheOutputAlone) {
  CompressedFileCollection collection(kRealm);
  ASSERT_NE(collection.add(path), nullptr);
  LocatedAccessPoint lap;
  lap.latitude = 9.0;
  EXPECT_EQ(collection.get(MAC::fromValue(0xFEFEFEFEFEFEULL), lap), nullptr);
  EXPECT_EQ(lap.latitude, 9.0);
  EXPECT_EQ(collection.freeCachePlaces(), 50u);
}

TEST_F(CacheTest, ClosingAFileDropsItsEntriesAndGivesTheirPlacesBack) {
  std::mt19937_64 rng(8);
  const auto other = randomAccessPoints(rng, 5, 10.0, 10.1, 10.0, 10.1);
  const std::string otherPath = writeFile("cache_other.wps", other);
  CompressedFileCollection collection(kRealm);
  const auto a = collection.add(path);
  const auto b = collection.add(otherPath);
  ASSERT_NE(a, nullptr);
  ASSERT_NE(b, nullptr);
  LocatedAccessPoint lap;
  for (size_t i = 0; i < 40; ++i) ASSERT_EQ(collection.get(aps[i].mac, lap), a);
  for (const auto& ap : other) ASSERT_EQ(collection.get(ap.mac, lap), b);
  EXPECT_EQ(collection.freeCachePlaces(), 5u);
  // `b` was hit last, so `a` is the least recently used file.
  EXPECT_EQ(collection.files().handles().back(), a);
  EXPECT_EQ(collection.pop(), path);
  EXPECT_EQ(collection.freeCachePlaces(), 45u);
  EXPECT_EQ(collection.cachedMACs().size(), 5u);
  EXPECT_EQ(collection.get(aps[0].mac, lap), nullptr);
  EXPECT_TRUE(collection.remove(b));
  EXPECT_EQ(collection.freeCachePlaces(), 50u);
  EXPECT_FALSE(collection.remove(b));
  EXPECT_EQ(collection.pop(), "");
}

TEST(CompressedFileListTest, AHitMovesItsFileToTheFront) {
  std::mt19937_64 rng(9);
  const auto first = randomAccessPoints(rng, 3, 1.0, 1.1, 1.0, 1.1);
  const auto second = randomAccessPoints(rng, 3, 5.0, 5.1, 5.0, 5.1);
  CompressedFileList list(kRealm);
  const auto a = list.add(writeFile("list_a.wps", first));
  const auto b = list.add(writeFile("list_b.wps", second));
  EXPECT_EQ(list.add(tempPath("missing.wps")), nullptr);
  EXPECT_EQ(list.handles(), (std::vector<CompressedFileList::Handle>{b, a}));
  LocatedAccessPoint lap;
  EXPECT_EQ(list.get(first[1].mac, lap), a);
  EXPECT_EQ(lap.mac, first[1].mac);
  EXPECT_EQ(list.handles(), (std::vector<CompressedFileList::Handle>{a, b}));
  auto popped = list.pop();
  ASSERT_TRUE(popped);
  EXPECT_EQ(popped.get(), b);
  EXPECT_EQ(list.size(), 1u);
}

TEST(AccessPointDatabaseTest, LooksInTheTilesFirstAndInTheLocalFilesOnlyWhenTheyFindNothing) {
  std::mt19937_64 rng(10);
  const auto local = randomAccessPoints(rng, 10, 48.0, 48.1, 2.0, 2.1);
  const auto tiled = randomAccessPoints(rng, 3, 49.0, 49.1, 3.0, 3.1);
  const std::string path = writeFile("db_local.wps", local);
  FakeTiles tiles;
  tiles.aps = tiled;
  AccessPointDatabase database(SimpleAuthentication("user", kRealm), {}, &tiles);
  int gets = 0;
  ASSERT_NE(database.localFiles().add(countingReader(path, gets)), nullptr);

  SPI::AccessPointList scan = scanOf(local);
  scan.emplace_back(tiled[1].mac, -70);
  std::vector<LocatedAccessPoint> located;
  database.get(scan, located);
  EXPECT_EQ(tiles.calls, 1);
  ASSERT_EQ(located.size(), 1u);
  EXPECT_EQ(located[0].mac, tiled[1].mac);
  EXPECT_EQ(gets, 0);

  // Nothing in the tiles: every scanned MAC is asked of the local files, in
  // scan order.
  scan.pop_back();
  located.clear();
  database.get(scan, located);
  EXPECT_EQ(tiles.calls, 2);
  ASSERT_EQ(located.size(), local.size());
  for (size_t i = 0; i < local.size(); ++i) EXPECT_EQ(located[i].mac, local[i].mac);
  EXPECT_EQ(gets, static_cast<int>(local.size()));
}

TEST(AccessPointDatabaseTest, OpensTheFilesOfTheGivenDirectoriesAndFilesForTheRealm) {
  std::mt19937_64 rng(11);
  const auto inDir = randomAccessPoints(rng, 4, 30.0, 30.1, 30.0, 30.1);
  const auto single = randomAccessPoints(rng, 4, 31.0, 31.1, 31.0, 31.1);
  const auto otherRealm = randomAccessPoints(rng, 4, 32.0, 32.1, 32.0, 32.1);
  const std::string dir = tempPath("db_dir");
  ASSERT_EQ(SPI::Directory::create(dir), 0);
  {
    TileWriterOptions options;
    options.realm = kRealm;
    std::vector<unsigned char> bytes;
    std::string error;
    ASSERT_TRUE(buildTileFile(inDir, options, bytes, error));
    ASSERT_TRUE(writeTileFile(dir + "/a.dat", bytes, error));
    testing::writeBytes(dir + "/garbage.dat", {1, 2, 3, 4, 5});
  }
  const std::string singlePath = writeFile("db_single.wps", single);
  const std::string otherPath = writeFile("db_other_realm.wps", otherRealm, "another.realm");

  AccessPointDatabase database(SimpleAuthentication("user", kRealm), {dir, singlePath, otherPath});
  EXPECT_EQ(database.localFiles().files().size(), 2u);
  SPI::LogCapture log("WPS.API.AccessPointDatabase");
  SPI::AccessPointList scan = scanOf(inDir);
  for (const auto& ap : scanOf(single)) scan.push_back(ap);
  for (const auto& ap : scanOf(otherRealm)) scan.push_back(ap);
  std::vector<LocatedAccessPoint> located;
  database.get(scan, located);
  EXPECT_EQ(located.size(), 8u);
  EXPECT_TRUE(log.contains("MAC " + inDir[0].mac.toString() + " extracted successfully"));
  EXPECT_TRUE(log.contains("MAC " + otherRealm[0].mac.toString() + " not found"));
}

}  // namespace
}  // namespace API
}  // namespace WPS
