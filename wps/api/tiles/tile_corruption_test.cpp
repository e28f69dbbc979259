// Corrupt and truncated tile files: each is either "broken" (not opened) or
// opens and answers look-ups, and no read ever leaves the file's bytes. The
// bytes sit against inaccessible pages (GuardedBuffer), so a stray read
// faults even without a sanitizer.
#include <gtest/gtest.h>

#include <functional>
#include <random>

#include "wps/api/tiles/compressed_file_reader.h"
#include "wps/api/tiles/tile_test_support.h"
#include "wps/api/tiles/tile_writer.h"
#include "wps/spi/log_capture.h"

namespace WPS {
namespace API {
namespace {

using testing::GuardedBuffer;

const char kRealm[] = "corruption.test";

class TileCorruptionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::mt19937_64 rng(21);
    // Two tiles of a few records each, with small blocks so that the index,
    // block lengths and the single-record path are all in a short file.
    aps_ = testing::randomAccessPoints(rng, 7, 12.1, 12.4, 3.1, 3.4);
    auto more = testing::randomAccessPoints(rng, 5, 13.1, 13.4, 3.1, 3.4);
    aps_.insert(aps_.end(), more.begin(), more.end());
    TileWriterOptions options;
    options.realm = kRealm;
    options.blockRecords = 2;
    std::string error;
    ASSERT_TRUE(buildTileFile(aps_, options, file_, error)) << error;
    ASSERT_LT(file_.size(), 400u);
  }

  // Opens `bytes` (guarded after, then before) and looks every known MAC and
  // a few others up. Returns whether it opened.
  bool exercise(const std::vector<unsigned char>& bytes, const std::string& realm = kRealm) {
    bool opened = false;
    for (bool atStart : {false, true}) {
      CompressedFileReaderProtected reader;
      opened = reader.openBuffer(realm, "corrupt.wps", std::make_unique<GuardedBuffer>(bytes, atStart)) == 0;
      for (const auto& ap : aps_) (void)reader.get(ap.mac);
      for (uint64_t v : {uint64_t{0}, uint64_t{1}, (uint64_t{1} << 48) - 1}) (void)reader.get(SPI::MAC::fromValue(v));
    }
    return opened;
  }

  std::vector<LocatedAccessPoint> aps_;
  std::vector<unsigned char> file_;
};

TEST_F(TileCorruptionTest, TheIntactFileOpens) {
  EXPECT_TRUE(exercise(file_));
  CompressedFileReaderProtected reader;
  ASSERT_EQ(reader.openBuffer(kRealm, "f", std::make_unique<GuardedBuffer>(file_)), 0);
  EXPECT_EQ(reader.tiles().size(), 2u);
  for (const auto& ap : aps_) EXPECT_FALSE(reader.get(ap.mac).empty());
}

TEST_F(TileCorruptionTest, EveryTruncatedPrefixIsBroken) {
  SPI::LogCapture log("WPS.API.CompressedFileReader");
  for (size_t length = 0; length < file_.size(); ++length) {
    std::vector<unsigned char> prefix(file_.begin(), file_.begin() + static_cast<long>(length));
    EXPECT_FALSE(exercise(prefix)) << length;
  }
  EXPECT_TRUE(log.contains("Compressed file corrupt.wps is broken"));
}

TEST_F(TileCorruptionTest, EveryTruncatedPrefixOnDiskIsRefused) {
  const std::string path = testing::tempPath("truncated.wps");
  auto reader = CompressedFileReader::newInstance();
  for (size_t length = 0; length < file_.size(); ++length) {
    testing::writeBytes(path, std::vector<unsigned char>(file_.begin(), file_.begin() + static_cast<long>(length)));
    EXPECT_EQ(reader->open(kRealm, path), -1) << length;
    EXPECT_TRUE(reader->get(aps_[0].mac).empty());
  }
}

// Each byte flipped in several ways: the magic, the count and the trailer
// always break the file; anywhere else the file may open, and look-ups stay
// inside it.
TEST_F(TileCorruptionTest, EveryByteFlipped) {
  const size_t trailerStart = file_.size() - kTileFileTrailerSize;
  for (size_t i = 0; i < file_.size(); ++i) {
    for (unsigned char mask : {0x01, 0x80, 0xFF, 0x5A}) {
      auto bytes = file_;
      bytes[i] ^= mask;
      const bool opened = exercise(bytes);
      if (i < fileHEADSZ || i >= trailerStart + 2) {
        EXPECT_FALSE(opened) << "byte " << i;
      }
    }
  }
}

// Each byte set to 0x00 and 0xFF: reaches zero widths and codes, huge VLEUs
// and lengths.
TEST_F(TileCorruptionTest, EveryByteSetToExtremes) {
  for (size_t i = 0; i < file_.size(); ++i) {
    for (unsigned char value : {0x00, 0xFF}) {
      auto bytes = file_;
      bytes[i] = value;
      (void)exercise(bytes);
    }
  }
}

TEST_F(TileCorruptionTest, InvalidTileHeadersBreakTheFile) {
  // The first tile's header starts at byte 4: ppp then 26 bits of latitude.
  struct Case {
    const char* name;
    void (*corrupt)(std::vector<unsigned char>&);
    const char* message;
  };
  const Case cases[] = {
      {"precision code 0", [](auto& b) { b[4] &= 0x1F; }, "invalid tile 0 in file f.wps"},
      {"latitude width 0",
       // Precision code 7: 3 + 26 + 27 = 56 bits, so A is the top 5 bits of byte 11.
       [](auto& b) { b[4 + 7] &= 0x07; }, "invalid tile 0 in file f.wps"},
      {"exponent width 0", [](auto& b) { b[4 + 8] &= 0xF8; }, "invalid tile 0 in file f.wps"},
      {"second tile past the end",
       [](auto& b) {
         const size_t table = b.size() - kTileFileTrailerSize - 8;
         b[table] = 0x7F;  // first tile's length
       },
       "invalid tile 0 in file f.wps"},
      {"tile count too large",
       [](auto& b) {
         b[b.size() - kTileFileTrailerSize] = 0xFF;
         b[b.size() - kTileFileTrailerSize + 1] = 0xFF;
       },
       "Compressed file f.wps is broken"},
  };
  for (const auto& c : cases) {
    SPI::LogCapture log("WPS.API.CompressedFileReader");
    auto bytes = file_;
    c.corrupt(bytes);
    bytes = testing::withTrailer(bytes, kRealm);
    CompressedFileReaderProtected reader;
    EXPECT_EQ(reader.openBuffer(kRealm, "f.wps", std::make_unique<GuardedBuffer>(bytes)), -1) << c.name;
    EXPECT_TRUE(log.contains(c.message)) << c.name;
    EXPECT_TRUE(log.contains("Compressed file f.wps is broken")) << c.name;
  }
}

// The length table puts the second tile's header in the last bytes of the
// file, so its 25-byte header window is cut short by the end of the file.
TEST_F(TileCorruptionTest, TileHeaderAgainstTheEndOfTheFile) {
  const size_t table = file_.size() - kTileFileTrailerSize - 8;
  for (size_t k = 1; k <= 30; ++k) {
    auto bytes = file_;
    const size_t length = bytes.size() - k - fileHEADSZ;
    bytes[table] = static_cast<unsigned char>(length >> 24);
    bytes[table + 1] = static_cast<unsigned char>(length >> 16);
    bytes[table + 2] = static_cast<unsigned char>(length >> 8);
    bytes[table + 3] = static_cast<unsigned char>(length);
    (void)exercise(testing::withTrailer(bytes, kRealm));
    // Other realms put other digest bytes under the header.
    for (const char* realm : {"", "a", "b", "c"}) (void)exercise(testing::withTrailer(bytes, realm), realm);
  }
}

TEST_F(TileCorruptionTest, ShortFilesAndWrongMagicAreBroken) {
  const std::vector<unsigned char> trailerOnly = testing::withTrailer(std::vector<unsigned char>(22, 0), "");
  std::vector<unsigned char> magicAndTrailer = trailerOnly;
  std::copy(fileHEAD, fileHEAD + fileHEADSZ, magicAndTrailer.begin());
  EXPECT_FALSE(exercise(magicAndTrailer, ""));  // 22 bytes: too short
  magicAndTrailer.insert(magicAndTrailer.begin() + 4, 0);
  // 23 bytes, zero tiles: nothing to look up, but not broken.
  EXPECT_TRUE(exercise(magicAndTrailer, ""));
  auto wrongMagic = file_;
  wrongMagic[3] = '1';
  EXPECT_FALSE(exercise(testing::withTrailer(wrongMagic, kRealm)));
}

// Files that pass the header and trailer checks but whose insides are random:
// the tile, index and record parsing must hold whatever they find.
TEST_F(TileCorruptionTest, RandomBodiesBehindAValidTrailer) {
  std::mt19937_64 rng(99);
  std::uniform_int_distribution<int> byte(0, 255);
  std::uniform_int_distribution<size_t> bodyLength(0, 160);
  std::uniform_int_distribution<int> tiles(0, 4);
  for (int iteration = 0; iteration < 3000; ++iteration) {
    std::vector<unsigned char> bytes(fileHEAD, fileHEAD + fileHEADSZ);
    const size_t length = bodyLength(rng);
    for (size_t i = 0; i < length; ++i) bytes.push_back(static_cast<unsigned char>(byte(rng)));
    // Start most tiles with a valid-looking precision code.
    if (length > 0) bytes[4] |= 0xE0;
    const int n = tiles(rng);
    for (int t = 0; t < n; ++t) {
      // Mostly lengths inside the body; some reach into the table and trailer
      // so that a tile header sits against the end of the file.
      const size_t reach = iteration % 4 == 0 ? length + 4 * static_cast<size_t>(n) + 18 : length / 2;
      const unsigned l = static_cast<unsigned>(rng() % (reach + 1));
      bytes.insert(bytes.end(), {0, 0, static_cast<unsigned char>(l >> 8), static_cast<unsigned char>(l)});
    }
    bytes.push_back(0);
    bytes.push_back(static_cast<unsigned char>(n));
    bytes.resize(bytes.size() + kMD4DigestSize);
    (void)exercise(testing::withTrailer(bytes, kRealm));
  }
}

TEST(TileValidationTest, TheStallingFileIsBroken) {
  for (uint32_t firstLength : {0u, 8u * 24000u}) {
    SPI::LogCapture log("WPS.API.CompressedFileReader");
    const auto bytes = testing::stallingTileFile(firstLength);
    EXPECT_GT(bytes.size(), 450000u);
    CompressedFileReaderProtected reader;
    EXPECT_EQ(reader.openBuffer("", "stall.wps", std::make_unique<GuardedBuffer>(bytes)), -1) << firstLength;
    EXPECT_TRUE(log.contains("Compressed file stall.wps is broken"));
    EXPECT_TRUE(reader.get(SPI::MAC::fromValue(0x0012A3B4C5D6ULL)).empty());
  }
}

// One index entry spoiled at a time in an otherwise valid unbound file: the
// tile is invalid and the file broken. Key i of the index lies at byte 8i,
// the length of block i - 1 just before it.
TEST(TileValidationTest, EachIndexRuleBreaksTheFile) {
  std::mt19937_64 rng(5);
  const auto aps = testing::randomAccessPoints(rng, 40, 7.1, 7.2, 8.1, 8.2);
  TileWriterOptions options;
  options.blockRecords = 4;
  std::vector<unsigned char> file;
  std::string error;
  ASSERT_TRUE(buildTileFile(aps, options, file, error)) << error;
  size_t index = 0;
  {
    CompressedFileReaderProtected reader;
    ASSERT_EQ(reader.openBuffer("", "f.wps", std::make_unique<GuardedBuffer>(file)), 0);
    ASSERT_EQ(reader.tiles().size(), 1u);
    ASSERT_EQ(reader.tiles()[0]->indexEntries(), 11u);  // 0, 4, ..., 36, 39
    index = reader.tiles()[0]->dataOffset();
  }
  const size_t table = file.size() - kTileFileTrailerSize - 4;
  const size_t tileLength = table - fileHEADSZ;
  auto setLength = [table](std::vector<unsigned char>& b, uint32_t length) {
    for (int i = 0; i < 4; ++i) b[table + i] = static_cast<unsigned char>(length >> (24 - 8 * i));
  };
  struct Case {
    const char* name;
    std::function<void(std::vector<unsigned char>&)> corrupt;
  };
  const Case cases[] = {
      {"key equal to the one before", [&](auto& b) { std::copy_n(&b[index + 8 * 3], 6, &b[index + 8 * 4]); }},
      {"key below the one before", [&](auto& b) { std::copy_n(&b[index + 8 * 3], 6, &b[index + 8 * 5]); }},
      {"keys all zero", [&](auto& b) { std::fill_n(&b[index], 8 * 11 - 2, 0); }},
      {"block length 0", [&](auto& b) { b[index + 8 * 2 - 2] = b[index + 8 * 2 - 1] = 0; }},
      {"block lengths past the tile", [&](auto& b) { b[index + 8 * 10 - 1] = 0x7F; }},
      {"more index keys than records", [&](auto& b) { b[index - 2] = 10; }},
      {"tile length 0", [&](auto& b) { setLength(b, 0); }},
      {"tile longer than the file", [&](auto& b) { setLength(b, static_cast<uint32_t>(tileLength + 1)); }},
      {"tile shorter than its index", [&](auto& b) { setLength(b, static_cast<uint32_t>(index - fileHEADSZ + 40)); }},
  };
  for (const auto& c : cases) {
    auto bytes = file;
    c.corrupt(bytes);
    SPI::LogCapture log("WPS.API.CompressedFileReader");
    CompressedFileReaderProtected reader;
    EXPECT_EQ(reader.openBuffer("", "f.wps", std::make_unique<GuardedBuffer>(bytes)), -1) << c.name;
    EXPECT_TRUE(log.contains("invalid tile 0 in file f.wps")) << c.name;
  }
}

// Look-ups in a large valid tile read one index search and one block: a
// bound on keys and records read, whatever the MAC.
TEST(TileValidationTest, LookUpsReadOneSearchAndOneBlock) {
  std::mt19937_64 rng(6);
  const auto aps = testing::randomAccessPoints(rng, 20000, 7.1, 7.9, 8.1, 8.9);
  TileWriterOptions options;
  options.realm = kRealm;
  options.blockRecords = 64;
  std::vector<unsigned char> file;
  std::string error;
  ASSERT_TRUE(buildTileFile(aps, options, file, error)) << error;
  CompressedFileReaderProtected reader;
  ASSERT_EQ(reader.openBuffer(kRealm, "big.wps", std::make_unique<GuardedBuffer>(file)), 0);
  const Tile* tile = reader.tiles().at(0);
  const unsigned blocks = tile->indexEntries();  // 20000 / 64 + 1 = 314: 9 halvings
  ASSERT_EQ(blocks, 314u);
  for (size_t i = 0; i < aps.size(); i += 97) {
    for (uint64_t mac : {aps[i].mac.value(), aps[i].mac.value() ^ 1}) {
      (void)reader.get(SPI::MAC::fromValue(mac));
      EXPECT_LE(tile->recordsReadByLastSearch(), 64u);
      EXPECT_LE(tile->indexKeysReadByLastSearch(), 2u + 9u);
    }
  }
}

// A tile whose origin places its access points past the pole (the origin
// field reaches about 128 degrees): each such access point is refused and
// logged, never handed out as a position.
TEST(TileValidationTest, AccessPointsOffTheEarthAreRefused) {
  std::mt19937_64 rng(7);
  const auto aps = testing::randomAccessPoints(rng, 30, 80.1, 80.2, 170.1, 170.2);
  TileWriterOptions options;  // unbound: keys do not depend on the origin
  std::vector<unsigned char> file;
  std::string error;
  ASSERT_TRUE(buildTileFile(aps, options, file, error)) << error;
  // Precision code 7 (P = 18): the 26-bit origin latitude follows the 3-bit
  // code, the 27-bit origin longitude follows it.
  auto setBits = [&file](size_t firstBit, unsigned width, uint64_t value) {
    for (unsigned i = 0; i < width; ++i) {
      const size_t bit = 8 * fileHEADSZ + firstBit + i;
      const auto mask = static_cast<unsigned char>(0x80 >> (bit % 8));
      if ((value >> (width - 1 - i)) & 1) {
        file[bit / 8] |= mask;
      } else {
        file[bit / 8] &= static_cast<unsigned char>(~mask);
      }
    }
  };
  struct Case {
    const char* name;
    size_t firstBit;
    unsigned width;
    uint64_t origin;
  } cases[] = {
      {"latitude past 90", 3, 26, (uint64_t{1} << 25) - (uint64_t{1} << 20)},     // 124 degrees
      {"longitude past 180", 29, 27, (uint64_t{1} << 26) - (uint64_t{1} << 18)},  // 255 degrees
  };
  const auto intact = file;
  for (const auto& c : cases) {
    file = intact;
    setBits(c.firstBit, c.width, c.origin);
    SPI::LogCapture log("WPS.API.Tile");
    CompressedFileReaderProtected reader;
    ASSERT_EQ(reader.openBuffer("", "far.wps", std::make_unique<GuardedBuffer>(file)), 0) << c.name;
    for (const auto& ap : aps) EXPECT_TRUE(reader.get(ap.mac).empty()) << c.name;
    EXPECT_TRUE(log.containsFragment("Refusing access point")) << c.name;
  }
  CompressedFileReaderProtected reader;
  ASSERT_EQ(reader.openBuffer("", "near.wps", std::make_unique<GuardedBuffer>(intact)), 0);
  for (const auto& ap : aps) EXPECT_FALSE(reader.get(ap.mac).empty());
}

}  // namespace
}  // namespace API
}  // namespace WPS
