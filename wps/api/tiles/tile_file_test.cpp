// Tile files made by the writer, read back by the reader.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <sstream>

#include "wps/api/tiles/compressed_file_reader.h"
#include "wps/api/tiles/md4.h"
#include "wps/api/tiles/tile.h"
#include "wps/api/tiles/tile_test_support.h"
#include "wps/api/tiles/tile_writer.h"
#include "wps/spi/log_capture.h"

namespace WPS {
namespace API {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using testing::GuardedBuffer;
using testing::randomAccessPoints;

std::vector<unsigned char> build(const std::vector<LocatedAccessPoint>& aps, const TileWriterOptions& options,
                                 unsigned* tiles = nullptr) {
  std::vector<unsigned char> bytes;
  std::string error;
  EXPECT_TRUE(buildTileFile(aps, options, bytes, error, tiles)) << error;
  return bytes;
}

std::unique_ptr<CompressedFileReaderProtected> openMemory(const std::vector<unsigned char>& bytes,
                                                          const std::string& realm) {
  auto reader = std::make_unique<CompressedFileReaderProtected>();
  EXPECT_EQ(reader->openBuffer(realm, "memory", std::make_unique<GuardedBuffer>(bytes)), 0);
  return reader;
}

void expectSame(const LocatedAccessPoint& got, const LocatedAccessPoint& want, int precision) {
  const double tolerance = std::ldexp(1.0, -precision) / 2 + 1e-12;
  EXPECT_EQ(got.mac, want.mac);
  EXPECT_NEAR(got.latitude, want.latitude, tolerance) << want.mac.toString();
  EXPECT_NEAR(got.longitude, want.longitude, tolerance) << want.mac.toString();
  EXPECT_EQ(got.reliabilityCount, want.reliabilityCount) << want.mac.toString();
  EXPECT_NEAR(got.signalExponent, want.signalExponent, 1e-9) << want.mac.toString();
}

// Every access point comes back from a real file, for bound and unbound
// realms, one tile or several, and several precisions; MACs that were not
// written are absent.
TEST(TileFileTest, RoundTripThroughAFile) {
  struct Case {
    std::string realm;
    double tileSize;
    unsigned precision;
    unsigned blockRecords;
  };
  const Case cases[] = {
      {"", 1.0, 7, 32},         {"", 0.0, 7, 32},         {"zonara.test", 1.0, 7, 32},
      {"zonara.test", 0.0, 3, 1}, {"other realm", 0.5, 1, 256}, {"", 2.0, 5, 7},
      {"automatic blocks", 0.0, 7, 0},
  };
  std::mt19937_64 rng(7);
  for (const auto& c : cases) {
    SCOPED_TRACE("realm '" + c.realm + "' tile size " + std::to_string(c.tileSize));
    const auto aps = randomAccessPoints(rng, 3000, 47.1, 49.9, -1.7, 1.9);
    TileWriterOptions options;
    options.realm = c.realm;
    options.tileSizeDegrees = c.tileSize;
    options.precisionCode = c.precision;
    options.blockRecords = c.blockRecords;
    unsigned tileCount = 0;
    const auto bytes = build(aps, options, &tileCount);
    if (c.tileSize == 1.0) {
      EXPECT_EQ(tileCount, 3u * 4u);
    }
    if (c.tileSize == 0.0) {
      EXPECT_EQ(tileCount, 1u);
    }

    const std::string path = testing::tempPath("roundtrip.wps");
    std::string error;
    ASSERT_TRUE(writeTileFile(path, bytes, error)) << error;
    CompressedFileReaderProtected reader;
    ASSERT_EQ(reader.open(c.realm, path), 0);
    ASSERT_EQ(reader.tiles().size(), tileCount);
    uint64_t total = 0;
    for (const Tile* tile : reader.tiles()) {
      EXPECT_EQ(tile->precisionCode(), c.precision);
      total += tile->accessPointCount();
    }
    EXPECT_EQ(total, aps.size());
    for (const auto& ap : aps) expectSame(reader.get(ap.mac), ap, static_cast<int>(c.precision) + kPrecisionBase);
    for (const auto& other : randomAccessPoints(rng, 200, 0, 1, 0, 1)) {
      EXPECT_TRUE(reader.get(other.mac).empty()) << other.mac.toString();
    }
  }
}

TEST(TileFileTest, RealmBinding) {
  std::mt19937_64 rng(11);
  const auto aps = randomAccessPoints(rng, 50, 10, 10.5, 20, 20.5);
  const auto others = randomAccessPoints(rng, 50, 10, 10.5, 20, 20.5);
  TileWriterOptions a, b, unbound;
  a.realm = "realm-a";
  b.realm = "realm-b";
  const auto fileA = build(aps, a);
  const auto fileB = build(others, b);
  const auto fileU = build(aps, unbound);

  struct Case {
    const std::vector<unsigned char>* file;
    std::string realm;
    bool opens;
  };
  const Case cases[] = {
      {&fileA, "realm-a", true}, {&fileA, "realm-b", false}, {&fileA, "", false},
      {&fileU, "", true},        {&fileU, "realm-a", false}, {&fileA, "realm-a ", false},
  };
  SPI::LogCapture log("WPS.API.CompressedFileReader");
  for (const auto& c : cases) {
    CompressedFileReaderProtected reader;
    EXPECT_EQ(reader.openBuffer(c.realm, "f.wps", std::make_unique<GuardedBuffer>(*c.file)) == 0, c.opens)
        << c.realm;
    if (!c.opens) {
      EXPECT_TRUE(reader.get(aps[0].mac).empty());
    }
  }
  EXPECT_TRUE(log.contains("Compressed file f.wps is broken"));

  // The MACs of another realm's file are not found in this one.
  auto reader = openMemory(fileB, "realm-b");
  for (const auto& ap : others) EXPECT_FALSE(reader->get(ap.mac).empty());
  for (const auto& ap : aps) EXPECT_TRUE(reader->get(ap.mac).empty());
}

TEST(TileFileTest, BoundKeysDependOnRealmAndTile) {
  const SPI::MAC mac = SPI::MAC::fromValue(0x0012A3B4C5D6ULL);
  EXPECT_EQ(tileSearchKey(mac, "", 5, 6), 0x0012A3B4C5D6ULL);
  const uint64_t key = tileSearchKey(mac, "r", 100, -200);
  unsigned char digest[16];
  MD4("0012A3B4100-200r", digest);
  const uint64_t expected = (uint64_t{digest[0]} << 40) | (uint64_t{digest[1]} << 32) | (uint64_t{digest[2]} << 24) |
                            (uint64_t{digest[3]} << 16) | 0xC5D6;
  EXPECT_EQ(key, expected);
  EXPECT_NE(key, tileSearchKey(mac, "s", 100, -200));
  EXPECT_NE(key, tileSearchKey(mac, "r", 101, -200));
  EXPECT_NE(key, tileSearchKey(mac, "r", 100, -201));
}

// The length of the only tile of a one-tile file.
uint64_t onlyTileLength(const std::vector<unsigned char>& file) {
  return file.size() - kTileFileTrailerSize - 4 - fileHEADSZ;
}

// The block index search: which index keys and records a look-up reads.
TEST(TileFileTest, IndexSearchReadsOnlyTheNeededBlock) {
  std::mt19937_64 rng(3);
  auto aps = randomAccessPoints(rng, 101, 1.2, 1.3, 1.2, 1.3);
  TileWriterOptions options;
  options.blockRecords = 4;
  const auto bytes = build(aps, options);
  GuardedBuffer buffer(bytes);
  auto tile = Tile::load(fileHEADSZ, onlyTileLength(bytes), "", buffer, 0);
  ASSERT_TRUE(tile);
  EXPECT_EQ(tile->accessPointCount(), 101u);
  EXPECT_EQ(tile->indexEntries(), 26u);  // 0, 4, ..., 100 (the last is the greatest)
  std::sort(aps.begin(), aps.end(), [](const auto& x, const auto& y) { return x.mac < y.mac; });

  struct Case {
    const char* name;
    uint64_t mac;
    bool found;
    unsigned recordsRead;
  };
  const Case cases[] = {
      {"first key", aps[0].mac.value(), true, 1},
      {"index key", aps[8].mac.value(), true, 1},
      {"inside a block", aps[10].mac.value(), true, 3},
      {"last in a block", aps[11].mac.value(), true, 4},
      {"last key", aps[100].mac.value(), true, 1},
      {"before last", aps[99].mac.value(), true, 4},
      {"below the first", aps[0].mac.value() - 1, false, 0},
      {"above the last", aps[100].mac.value() + 1, false, 0},
      {"between records", aps[10].mac.value() + 1, false, 4},
  };
  for (const auto& c : cases) {
    LocatedAccessPoint out;
    EXPECT_EQ(tile->findAP(SPI::MAC::fromValue(c.mac), out), c.found) << c.name;
    EXPECT_EQ(tile->recordsReadByLastSearch(), c.recordsRead) << c.name;
    // Binary search of 26 keys: the first and last, then at most 5 more.
    EXPECT_LE(tile->indexKeysReadByLastSearch(), 7u) << c.name;
  }
  // A single-record tile: the one index key, its record alone.
  const auto single = build({aps[5]}, options);
  GuardedBuffer singleBuffer(single);
  auto one = Tile::load(fileHEADSZ, onlyTileLength(single), "", singleBuffer, 0);
  ASSERT_TRUE(one);
  EXPECT_EQ(one->indexEntries(), 1u);
  LocatedAccessPoint out;
  EXPECT_TRUE(one->findAP(aps[5].mac, out));
  expectSame(out, aps[5], one->precision());
  EXPECT_FALSE(one->findAP(SPI::MAC::fromValue(aps[5].mac.value() + 1), out));
}

TEST(TileFileTest, AbsentCapacityFollowsTheAccessPointCount) {
  struct Case {
    size_t accessPoints;
    unsigned capacity;
  };
  const Case cases[] = {{1, 20}, {1000, 20}, {5119, 20}, {7680, 30}, {128000, 500}, {200000, 500}};
  std::mt19937_64 rng(5);
  for (const auto& c : cases) {
    TileWriterOptions options;
    options.tileSizeDegrees = 0.25;
    auto reader = openMemory(build(randomAccessPoints(rng, c.accessPoints, 30, 31, 30, 31), options), "");
    EXPECT_EQ(reader->absentLimit(), c.capacity) << c.accessPoints;
    EXPECT_EQ(reader->absentCapacity(), c.capacity) << c.accessPoints;
  }
}

// Absent MACs are remembered most recently used first, the list stops growing
// at its capacity, and a remembered MAC is answered without reading the file.
TEST(TileFileTest, AbsentListIsBoundedAndLeastRecentlyUsedGoesFirst) {
  std::mt19937_64 rng(9);
  const auto aps = randomAccessPoints(rng, 1000, 5, 6, 5, 6);
  auto buffer = std::make_unique<GuardedBuffer>(build(aps, TileWriterOptions{}));
  const GuardedBuffer* view = buffer.get();
  CompressedFileReaderProtected reader;
  ASSERT_EQ(reader.openBuffer("", "f", std::move(buffer)), 0);
  ASSERT_EQ(reader.absentLimit(), 20u);

  auto absent = [](uint64_t i) { return SPI::MAC::fromValue(0xFFFF00000000ULL + i); };
  for (uint64_t i = 0; i < 25; ++i) EXPECT_TRUE(reader.get(absent(i)).empty());
  EXPECT_EQ(reader.absentCount(), 20u);
  EXPECT_EQ(reader.absentCapacity(), 0u);
  auto macs = reader.absentMACs();
  EXPECT_EQ(macs.front(), absent(24));
  EXPECT_EQ(macs.back(), absent(5));  // 0..4 were dropped

  const unsigned before = view->acquired();
  EXPECT_TRUE(reader.get(absent(5)).empty());
  EXPECT_EQ(view->acquired(), before) << "a remembered MAC must not touch the file";
  EXPECT_EQ(reader.absentMACs().front(), absent(5));
  EXPECT_TRUE(reader.get(absent(25)).empty());  // drops the least recent: 6
  macs = reader.absentMACs();
  EXPECT_EQ(macs.size(), 20u);
  EXPECT_EQ(macs.back(), absent(7));
  EXPECT_TRUE(std::find(macs.begin(), macs.end(), absent(6)) == macs.end());

  // Found MACs never enter the list.
  EXPECT_FALSE(reader.get(aps[0].mac).empty());
  EXPECT_EQ(reader.absentCount(), 20u);
  EXPECT_EQ(reader.absentMACs().front(), absent(25));
}

TEST(TileFileTest, HitTilesMoveToTheFrontOfTheHotList) {
  std::vector<LocatedAccessPoint> aps;
  std::mt19937_64 rng(13);
  // One access point in each of four one-degree cells, in cell order.
  const double corners[4][2] = {{40.5, 10.5}, {40.5, 11.5}, {41.5, 10.5}, {41.5, 11.5}};
  for (const auto& corner : corners) {
    auto one = randomAccessPoints(rng, 1, corner[0], corner[0] + 0.1, corner[1], corner[1] + 0.1);
    aps.push_back(one[0]);
  }
  auto reader = openMemory(build(aps, TileWriterOptions{}), "");
  ASSERT_EQ(reader->tiles().size(), 4u);
  EXPECT_THAT(reader->hotTileNumbers(), IsEmpty());
  EXPECT_THAT(reader->coldTileNumbers(), ElementsAre(0, 1, 2, 3));

  EXPECT_FALSE(reader->get(aps[2].mac).empty());
  EXPECT_THAT(reader->hotTileNumbers(), ElementsAre(2));
  EXPECT_THAT(reader->coldTileNumbers(), ElementsAre(0, 1, 3));
  EXPECT_FALSE(reader->get(aps[0].mac).empty());
  EXPECT_THAT(reader->hotTileNumbers(), ElementsAre(0, 2));
  EXPECT_FALSE(reader->get(aps[2].mac).empty());
  EXPECT_THAT(reader->hotTileNumbers(), ElementsAre(2, 0));
  EXPECT_THAT(reader->coldTileNumbers(), ElementsAre(1, 3));
  EXPECT_TRUE(reader->get(SPI::MAC::fromValue(1)).empty());
  EXPECT_THAT(reader->hotTileNumbers(), ElementsAre(2, 0));

  reader->close();
  EXPECT_THAT(reader->hotTileNumbers(), IsEmpty());
  EXPECT_THAT(reader->coldTileNumbers(), IsEmpty());
  EXPECT_EQ(reader->absentCount(), 0u);
  EXPECT_TRUE(reader->get(aps[2].mac).empty());
}

TEST(TileFileTest, OpenLogsWhyAFileIsNotUsed) {
  SPI::LogCapture log("WPS.API.CompressedFileReader");
  auto reader = CompressedFileReader::newInstance();

  const std::string missing = testing::tempPath("missing.wps");
  EXPECT_EQ(reader->open("r", missing), -1);
  EXPECT_TRUE(log.contains("Opening " + missing + " for realm r..."));
  EXPECT_TRUE(log.contains("Couldn't open " + missing));

  const std::string empty = testing::tempPath("empty.wps");
  testing::writeBytes(empty, {});
  EXPECT_EQ(reader->open("r", empty), -1);
  EXPECT_TRUE(log.contains("Ignore empty file " + empty));
  for (const auto& entry : log.entries()) {
    if (entry.message == "Ignore empty file " + empty) {
      EXPECT_GT(entry.level, SPI::Logger::ERROR);
    }
  }

  const std::string garbage = testing::tempPath("garbage.wps");
  testing::writeBytes(garbage, std::vector<unsigned char>(40, 'x'));
  EXPECT_EQ(reader->open("r", garbage), -1);
  EXPECT_TRUE(log.contains("Compressed file " + garbage + " is broken"));
  EXPECT_EQ(reader->fileName(), "");

  std::mt19937_64 rng(1);
  const auto aps = randomAccessPoints(rng, 10, 1, 2, 1, 2);
  TileWriterOptions options;
  options.realm = "r";
  const std::string good = testing::tempPath("good.wps");
  std::string error;
  ASSERT_TRUE(writeTileFile(good, build(aps, options), error));
  EXPECT_EQ(reader->open("r", good), 0);
  EXPECT_EQ(reader->fileName(), good);
  EXPECT_FALSE(reader->get(aps[3].mac).empty());
  // Opening another file closes the first.
  EXPECT_EQ(reader->open("r", missing), -1);
  EXPECT_TRUE(reader->get(aps[3].mac).empty());
}

// The worked example of docs/tile-format.md, decoded there field by field:
// the writer must produce exactly these bytes and the reader must decode them.
TEST(TileFileTest, WorkedExample) {
  const std::vector<unsigned char> expected = {
      0x57, 0x50, 0x53, 0x32, 0x20, 0x20, 0x00, 0x02, 0x00, 0x01, 0x91, 0x10, 0x03, 0x02, 0x10,
      0x00, 0x00, 0x00, 0x00, 0x00, 0x30, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x01,
      0x40, 0x15, 0x90, 0x00, 0x00, 0x41, 0xc0, 0x00, 0x00, 0x00, 0x21, 0x00, 0x01, 0xa8, 0xc6,
      0x14, 0x77, 0x87, 0x3a, 0x0f, 0x9d, 0x3f, 0x8f, 0xfb, 0x96, 0xef, 0x9b, 0xfc, 0x1c};
  std::istringstream csv(
      "00:00:00:00:00:10,1.0,2.0,20,0.5\n"
      "00:00:00:00:00:25,1.001,2.002,18,0.16666666666666666\n"
      "00:00:00:00:01:00,1.0005,2.0,21,0.5\n");
  std::vector<LocatedAccessPoint> aps;
  std::string error;
  ASSERT_TRUE(parseAccessPointsCSV(csv, aps, error)) << error;
  TileWriterOptions options;
  options.precisionCode = 1;
  options.blockRecords = 2;
  EXPECT_EQ(build(aps, options), expected);

  auto reader = openMemory(expected, "");
  const struct {
    uint64_t mac;
    double latitude, longitude;
    uint32_t count;
    double exponent;
  } records[] = {{0x10, 1.0, 2.0, 20, 0.5},
                 {0x25, 4100 / 4096.0, 8200 / 4096.0, 18, 1.0 / 6},
                 {0x100, 4098 / 4096.0, 2.0, 21, 0.5}};
  for (const auto& r : records) {
    const auto got = reader->get(SPI::MAC::fromValue(r.mac));
    EXPECT_EQ(got.mac.value(), r.mac);
    EXPECT_DOUBLE_EQ(got.latitude, r.latitude);
    EXPECT_DOUBLE_EQ(got.longitude, r.longitude);
    EXPECT_EQ(got.reliabilityCount, r.count);
    EXPECT_DOUBLE_EQ(got.signalExponent, r.exponent);
  }
  EXPECT_TRUE(reader->get(SPI::MAC::fromValue(0x101)).empty());
  EXPECT_EQ(reader->tiles()[0]->recordsReadByLastSearch(), 0u);
}

TEST(TileWriterTest, ParsesCSV) {
  std::istringstream in(
      "MAC,LATITUDE,LONGITUDE,RELIABILITY_COUNT,SIGNAL_EXPONENT\n"
      "# a comment\n"
      "00:12:A3:B4:C5:D6, 48.8566, 2.3522, 40, 0.25\n"
      "\n"
      "0012a3b4c5d7,-33.5,+151.25,18,0.5\r\n");
  std::vector<LocatedAccessPoint> aps;
  std::string error;
  ASSERT_TRUE(parseAccessPointsCSV(in, aps, error)) << error;
  ASSERT_EQ(aps.size(), 2u);
  EXPECT_EQ(aps[0].mac.toString(), "0012A3B4C5D6");
  EXPECT_DOUBLE_EQ(aps[0].latitude, 48.8566);
  EXPECT_DOUBLE_EQ(aps[0].longitude, 2.3522);
  EXPECT_EQ(aps[0].reliabilityCount, 40u);
  EXPECT_DOUBLE_EQ(aps[0].signalExponent, 0.25);
  EXPECT_DOUBLE_EQ(aps[1].latitude, -33.5);
  EXPECT_DOUBLE_EQ(aps[1].longitude, 151.25);

  const char* bad[] = {
      "0012A3B4C5D6,1,2,3\n",          "0012A3B4C5,1,2,3,0.2\n",      "0012A3B4C5D6,91,2,3,0.2\n",
      "0012A3B4C5D6,1,-181,3,0.2\n",   "0012A3B4C5D6,1,2,-3,0.2\n",   "0012A3B4C5D6,1,2,3,x\n",
      "0012A3B4C5D6,1,2,3,0.2,9\n",    "0012A3B4C5D6,nan,2,3,0.2\n",  "0012A3B4C5D6,1 2,2,3,0.2\n",
  };
  for (const char* line : bad) {
    std::istringstream one(std::string("0012A3B4C5D0,1,2,3,0.2\n") + line);
    aps.clear();
    EXPECT_FALSE(parseAccessPointsCSV(one, aps, error)) << line;
    EXPECT_THAT(error, ::testing::StartsWith("line 2:")) << line;
    EXPECT_EQ(aps.size(), 1u);
  }
}

// What the format cannot hold is clamped; widths are as narrow as the data
// allows; a tile on the equator and prime meridian still has non-zero origins.
TEST(TileWriterTest, ClampsValuesAndChoosesNarrowWidths) {
  std::vector<LocatedAccessPoint> aps(4);
  for (size_t i = 0; i < aps.size(); ++i) aps[i].mac = SPI::MAC::fromValue(0xA0 + i);
  aps[0].latitude = 0.0, aps[0].longitude = 0.0, aps[0].reliabilityCount = 3, aps[0].signalExponent = 0.1;
  aps[1].latitude = 0.5, aps[1].longitude = 0.25, aps[1].reliabilityCount = 1000, aps[1].signalExponent = 0.9;
  aps[2].latitude = 0.1, aps[2].longitude = 0.2, aps[2].reliabilityCount = 25, aps[2].signalExponent = 0.5;
  aps[3].latitude = 0.2, aps[3].longitude = 0.1, aps[3].reliabilityCount = 19, aps[3].signalExponent = 1.0 / 6;
  auto reader = openMemory(build(aps, TileWriterOptions{}), "");
  ASSERT_EQ(reader->tiles().size(), 1u);
  const Tile& tile = *reader->tiles()[0];
  EXPECT_EQ(tile.originLatitude(), -1);
  EXPECT_EQ(tile.originLongitude(), -1);
  EXPECT_EQ(tile.latitudeWidth(), 18u);   // 0.5 degree at 2^-18 plus one unit
  EXPECT_EQ(tile.longitudeWidth(), 17u);  // 0.25 degree plus one unit
  EXPECT_EQ(tile.countWidth(), 7u);
  EXPECT_EQ(tile.exponentWidth(), 1u);    // only 1/6 and 1/2 occur

  const struct {
    uint32_t count;
    double exponent;
  } expected[] = {{18, 1.0 / 6}, {145, 0.5}, {25, 0.5}, {19, 1.0 / 6}};
  for (size_t i = 0; i < aps.size(); ++i) {
    const auto got = reader->get(aps[i].mac);
    EXPECT_NEAR(got.latitude, aps[i].latitude, 1e-5);
    EXPECT_NEAR(got.longitude, aps[i].longitude, 1e-5);
    EXPECT_EQ(got.reliabilityCount, expected[i].count) << i;
    EXPECT_NEAR(got.signalExponent, expected[i].exponent, 1e-12) << i;
  }

  // Colliding keys (the same MAC twice) keep the first.
  auto twice = aps;
  twice.push_back(aps[2]);
  twice.back().latitude = 0.4;
  auto dedup = openMemory(build(twice, TileWriterOptions{}), "");
  EXPECT_EQ(dedup->tiles()[0]->accessPointCount(), 4u);
  EXPECT_NEAR(dedup->get(aps[2].mac).latitude, 0.1, 1e-5);

  std::vector<unsigned char> out;
  std::string error;
  EXPECT_FALSE(buildTileFile({}, TileWriterOptions{}, out, error));
  auto wrong = aps;
  wrong[1].latitude = 95;
  EXPECT_FALSE(buildTileFile(wrong, TileWriterOptions{}, out, error));
}

}  // namespace
}  // namespace API
}  // namespace WPS
