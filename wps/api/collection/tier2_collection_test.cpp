#include "wps/api/collection/tier2_collection.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <random>

#include "wps/spi/file.h"
#include "wps/spi/log_capture.h"
#include "wps/spi/simulated_clock.h"
#include "wps/spi/testing/temp_dir.h"

namespace WPS {
namespace API {
namespace {

namespace fs = std::filesystem;
using SPI::MAC;
using SPI::ScannedAccessPoint;

// A collection directory that does not exist yet, inside a scratch folder
// removed with the object.
struct Area {
  explicit Area(const std::string& name) : scratch(name), dir(scratch.file("area")) {}
  zonara::testing::TempDir scratch;
  std::string dir;
};

// The whole uncompressed content of a gzip file, read back through zlib.
std::string gunzip(const std::string& path) {
  gzFile file = gzopen(path.c_str(), "rb");
  EXPECT_NE(file, nullptr) << path;
  if (file == nullptr) return {};
  std::string out;
  char buffer[4096];
  int n;
  while ((n = gzread(file, buffer, sizeof buffer)) > 0) out.append(buffer, static_cast<size_t>(n));
  EXPECT_EQ(n, 0) << "gzip stream error in " << path;
  gzclose(file);
  return out;
}

std::vector<std::string> filesIn(const std::string& dir) {
  std::vector<std::string> names;
  if (!fs::exists(dir)) return names;
  for (const auto& entry : fs::directory_iterator(dir)) names.push_back(entry.path().filename().string());
  std::sort(names.begin(), names.end());
  return names;
}

uint64_t directorySize(const std::string& dir) {
  uint64_t total = 0;
  for (const auto& entry : fs::directory_iterator(dir)) total += entry.file_size();
  return total;
}

class Tier2Test : public ::testing::Test {
 protected:
  void SetUp() override {
    const char* tz = std::getenv("TZ");
    savedTZ_ = tz ? tz : "";
    hadTZ_ = tz != nullptr;
    setenv("TZ", "UTC", 1);
    tzset();
  }
  void TearDown() override {
    if (hadTZ_) {
      setenv("TZ", savedTZ_.c_str(), 1);
    } else {
      unsetenv("TZ");
    }
    tzset();
  }

  SPI::SimulatedClock clock_{SPI::Time(1700000000, 250)};
  SPI::ScopedClock scoped_{clock_};

 private:
  std::string savedTZ_;
  bool hadTZ_ = false;
};

TEST_F(Tier2Test, WritesOneLinePerUnknownAccessPointInTheDescribedFormat) {
  const Area area("tier2_format");
  const std::string& dir = area.dir;
  const ScannedAccessPoint known(MAC::fromValue(0x0012A3B4C5D6ULL), -50, "home");
  const ScannedAccessPoint unknown1(MAC::fromValue(0xA0B1C2D3E4F5ULL), -61, "cafe");
  const ScannedAccessPoint unknown2(MAC::fromValue(0x000000000001ULL), -99);
  SPI::LogCapture log("WPS.API.Tier2Collection");
  {
    auto collection = Tier2Collection::newInstance(SimpleAuthentication("alice", "realm"), dir, 100);
    ASSERT_TRUE(collection);
    EXPECT_TRUE(log.contains("tier2 area set to " + dir + " with quota = 100 kb"));
    collection->put(48.1234567, -2.5, {known, unknown1, unknown2}, {known}, {unknown1, unknown2});
  }
  const std::vector<std::string> names = filesIn(dir);
  ASSERT_EQ(names, std::vector<std::string>{"TS44WE8"});
  EXPECT_TRUE(CompressedFile::isCompressedFile(dir + "/TS44WE8"));
  EXPECT_EQ(gunzip(dir + "/TS44WE8"),
            "2023/11/14 10:13:20 PM\talice\t48.123457\t-2.500000\tA0B1C2D3E4F5\t-61\t0012A3B4C5D6\t-50\t000000000001\t-99\n"
            "2023/11/14 10:13:20 PM\talice\t48.123457\t-2.500000\t000000000001\t-99\t0012A3B4C5D6\t-50\tA0B1C2D3E4F5\t-61\n");
}

TEST_F(Tier2Test, AScanWithoutUnknownAccessPointsWritesNothing) {
  const Area area("tier2_nothing");
  const std::string& dir = area.dir;
  const ScannedAccessPoint known(MAC::fromValue(0x0012A3B4C5D6ULL), -50);
  {
    auto collection = Tier2Collection::newInstance(SimpleAuthentication("alice", "realm"), dir, 100);
    ASSERT_TRUE(collection);
    collection->put(1.0, 2.0, {known}, {known}, {});
    collection->put(0.0, 0.0, {}, {}, {});
  }
  EXPECT_TRUE(SPI::Directory::isDirectory(dir));
  EXPECT_TRUE(filesIn(dir).empty());
}

TEST(Tier2FileNames, AreTheTimeInBaseThirtySix) {
  EXPECT_EQ(Tier2Collection::filenameForTime(0), "T0");
  EXPECT_EQ(Tier2Collection::filenameForTime(35), "TZ");
  EXPECT_EQ(Tier2Collection::filenameForTime(36), "T10");
  EXPECT_EQ(Tier2Collection::filenameForTime(1700000000), "TS44WE8");
  SPI::SimulatedClock clock(SPI::Time(36 * 36, 999));
  SPI::ScopedClock scoped(clock);
  EXPECT_EQ(Tier2Collection::generate_filename(), "T100");
}

TEST(GzipCompressedFileTest, AppendsMembersAndTellsUncompressedBytesOfThisOpening) {
  const Area area("gzip_file");
  const std::string& dir = area.dir;
  ASSERT_EQ(SPI::Directory::create(dir), 0);
  const std::string path = dir + "/f.gz";
  auto file = CompressedFile::newInstance();
  EXPECT_EQ(file->write("x", 1), -1);
  EXPECT_EQ(file->tell(), -1);
  ASSERT_EQ(file->open(path), 0);
  ASSERT_EQ(file->write("hello ", 6), 0);
  EXPECT_EQ(file->tell(), 6);
  EXPECT_EQ(file->close(), 0);
  ASSERT_EQ(file->open(path), 0);
  EXPECT_EQ(file->tell(), 0);
  ASSERT_EQ(file->write("world\n", 6), 0);
  EXPECT_EQ(file->close(), 0);
  EXPECT_EQ(gunzip(path), "hello world\n");
  EXPECT_TRUE(CompressedFile::isCompressedFile(path));
  std::FILE* plain = std::fopen((dir + "/plain").c_str(), "w");
  std::fputs("plain text", plain);
  std::fclose(plain);
  EXPECT_FALSE(CompressedFile::isCompressedFile(dir + "/plain"));
  EXPECT_FALSE(CompressedFile::isCompressedFile(dir + "/missing"));
  EXPECT_NE(file->open(dir + "/no/such/dir/f.gz"), 0);
}

// Scans of random access points, so the text does not compress away.
void putScans(Tier2Collection& collection, SPI::SimulatedClock& clock, std::mt19937_64& rng, int scans,
              uint64_t quotaBytes, const std::string& dir) {
  std::uniform_int_distribution<uint64_t> mac(1, (uint64_t{1} << 48) - 1);
  std::uniform_int_distribution<int> rssi(-95, -30);
  for (int i = 0; i < scans; ++i) {
    SPI::AccessPointList known, unknown;
    for (int k = 0; k < 3; ++k) known.emplace_back(MAC::fromValue(mac(rng)), static_cast<int16_t>(rssi(rng)));
    for (int k = 0; k < 4; ++k) unknown.emplace_back(MAC::fromValue(mac(rng)), static_cast<int16_t>(rssi(rng)));
    collection.put(48.0 + i * 1e-4, 2.0, {}, known, unknown);
    ASSERT_LE(directorySize(dir), quotaBytes) << "after scan " << i;
    clock.advance(700);
  }
}

TEST_F(Tier2Test, TheDirectoryStaysWithinItsQuotaAcrossManyScansAndARestart) {
  const Area area("tier2_quota");
  const std::string& dir = area.dir;
  const unsigned long quotaKb = 8;
  const uint64_t quota = quotaKb * 1024;
  std::mt19937_64 rng(3);
  SPI::LogCapture log("WPS.API.BoundedFileQueue");
  std::vector<std::string> before;
  {
    auto collection = Tier2Collection::newInstance(SimpleAuthentication("bob", "r"), dir, quotaKb);
    ASSERT_TRUE(collection);
    putScans(*collection, clock_, rng, 400, quota, dir);
    EXPECT_TRUE(log.containsFragment("quota of "));
  }
  EXPECT_LE(directorySize(dir), quota);
  before = filesIn(dir);
  ASSERT_GE(before.size(), 2u);
  for (const auto& name : before) {
    EXPECT_TRUE(CompressedFile::isCompressedFile(dir + "/" + name));
    EXPECT_FALSE(gunzip(dir + "/" + name).empty());
  }

  // A restart counts what is there: the new files push the oldest old ones out.
  {
    auto collection = Tier2Collection::newInstance(SimpleAuthentication("bob", "r"), dir, quotaKb);
    ASSERT_TRUE(collection);
    auto* compressed = dynamic_cast<Tier2CollectionCompressed*>(collection.get());
    ASSERT_NE(compressed, nullptr);
    EXPECT_EQ(compressed->queue().names().size(), before.size());
    EXPECT_EQ(compressed->queue().totalSize(), directorySize(dir));
    putScans(*collection, clock_, rng, 400, quota, dir);
  }
  EXPECT_LE(directorySize(dir), quota);
  const std::vector<std::string> after = filesIn(dir);
  EXPECT_EQ(std::count(after.begin(), after.end(), before.front()), 0);
}

// Writes `text` to `path`, gzip-compressed or plain.
void writeFile(const std::string& path, const std::string& text, bool gzip) {
  if (gzip) {
    gzFile file = gzopen(path.c_str(), "wb");
    ASSERT_NE(file, nullptr);
    gzwrite(file, text.data(), static_cast<unsigned>(text.size()));
    gzclose(file);
  } else {
    std::FILE* f = std::fopen(path.c_str(), "w");
    std::fputs(text.c_str(), f);
    std::fclose(f);
  }
}

// Collection files found at start are trimmed oldest first; files that only
// look like collection files by name (a user's "TODO", a gzip file of other
// text, a collection line not compressed) are neither counted nor deleted.
TEST_F(Tier2Test, ExistingFilesAboveTheQuotaAreTrimmedOldestFirstAtStart) {
  const Area area("tier2_start");
  const std::string& dir = area.dir;
  ASSERT_EQ(SPI::Directory::create(dir), 0);
  std::string lines;
  std::mt19937_64 rng(3);
  for (int i = 0; i < 60; ++i) {
    char line[96];
    std::snprintf(line, sizeof line, "2026/11/24 06:%02d:00 PM\tuser\t48.%06d\t2.%06d\t%012llX\t-61\n", i % 60,
                  static_cast<int>(rng() % 1000000), static_cast<int>(rng() % 1000000),
                  static_cast<unsigned long long>(rng() & 0xFFFFFFFFFFFFULL));
    lines += line;
  }
  for (const char* name : {"T10", "TZ", "T11"}) writeFile(dir + "/" + name, lines, true);
  const std::string foreign[] = {"TODO", "T12", "T13", "notes.txt"};
  writeFile(dir + "/TODO", "buy milk\n" + std::string(3000, 'x'), false);
  writeFile(dir + "/T12", "a compressed file of the user's\n" + lines, true);
  writeFile(dir + "/T13", lines, false);
  writeFile(dir + "/notes.txt", std::string(3000, 'x'), false);
  const uint64_t each = static_cast<uint64_t>(fs::file_size(dir + "/T10"));

  BoundedFileQueue queue(dir, 2 * each + 10);
  // TZ (35) is the oldest, then T10 (36): only T10 and T11 fit.
  EXPECT_EQ(queue.names(), (std::vector<std::string>{"T10", "T11"}));
  EXPECT_EQ(queue.totalSize(), 2 * each);
  EXPECT_EQ(filesIn(dir), (std::vector<std::string>{"T10", "T11", "T12", "T13", "TODO", "notes.txt"}));

  // Even a quota of nothing deletes only collection files.
  BoundedFileQueue empty(dir, 0);
  EXPECT_TRUE(empty.names().empty());
  EXPECT_EQ(filesIn(dir), (std::vector<std::string>{"T12", "T13", "TODO", "notes.txt"}));
}

}  // namespace
}  // namespace API
}  // namespace WPS
