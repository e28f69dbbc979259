// The converter and the look-up on a small hand-made world (boundary_test_data.h).
#include "timezone/boundary_index.h"

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <atomic>
#include <thread>

#include <cmath>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <limits>

#include "wps/spi/testing/temp_dir.h"
#include "timezone/boundary_format.h"
#include "timezone/boundary_test_data.h"
#include "timezone/tzdata_convert.h"

namespace zonara::timezone {
namespace {

using Zones = std::vector<std::string>;

// One scratch folder for the whole program, removed when it ends.
const std::string& tmpDir() {
  static const zonara::testing::TempDir dir("boundary-index-");
  return dir.path();
}

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

void writeFile(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

class SmallWorld : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    auto [index, geo] = testing::writeSmallWorld(tmpDir());
    path_ = tmpDir() + "/small.dat";
    std::string error;
    ASSERT_TRUE(convertBoundaryData(index, geo, path_, "test release 1", nullptr, &error)) << error;
  }
  void SetUp() override {
    std::string error;
    index_ = BoundaryIndex::open(path_, &error);
    ASSERT_NE(index_, nullptr) << error;
  }
  Zones zonesAt(double lat, double lon) {
    std::string error;
    auto z = index_->zonesAt(lat, lon, &error);
    EXPECT_TRUE(z.has_value()) << error;
    return z.value_or(Zones{});
  }
  static std::string path_;
  std::unique_ptr<BoundaryIndex> index_;
};
std::string SmallWorld::path_;

TEST_F(SmallWorld, ZonesAtPoints) {
  struct Case {
    double lat, lon;
    Zones expected;
  } cases[] = {
      {45, 90, {"Test/A"}},                          // uniform quadrant
      {0, 0, {"Test/A"}},                            // on the split lines: north-east
      {15, -95, {"Test/B"}},                         // inside a polygon of a mixed cell
      {15, -89.999, {"Etc/GMT+6"}},                  // just outside it: ocean
      {35, -45, {"Etc/GMT+3"}},                      // in the hole
      {33.9999, -45, {"Test/C"}},                    // beside the hole
      {38, -49.9999, {"Test/C"}},                    // a few metres inside the west edge
      {38, -50.0001, {"Etc/GMT+3"}},                 // a few metres outside
      {-45, 90, {"Test/B", "Test/C"}},               // overlap, in the data's order
      {-45, -90, {"Etc/GMT+6"}},                     // absent quadrant
      {-45, -7.5, {"Etc/GMT"}},                      // band edges: 7.5 belongs east
      {-45, -7.5001, {"Etc/GMT+1"}},
      {-45, -172.5, {"Etc/GMT+11"}},
      {-45, -172.5001, {"Etc/GMT+12"}},
      {-45, -180, {"Etc/GMT+12", "Etc/GMT-12"}},     // the date line: both
      {-90, -180, {"Etc/GMT+12", "Etc/GMT-12"}},
      {90, 180, {"Test/A"}},                         // land beats the date line
      {89.99999, 45, {"Test/A"}},                    // beyond the quadtree's bounds
  };
  for (const auto& c : cases) EXPECT_EQ(zonesAt(c.lat, c.lon), c.expected) << c.lat << " " << c.lon;
}

TEST_F(SmallWorld, InvalidCoordinatesAreErrors) {
  const double nan = std::numeric_limits<double>::quiet_NaN(), inf = std::numeric_limits<double>::infinity();
  std::pair<double, double> bad[] = {{90.0001, 0}, {-90.0001, 0}, {0, 180.0001}, {0, -180.0001}, {nan, 0}, {0, nan}, {inf, 0}, {0, -inf}};
  for (auto [lat, lon] : bad) {
    std::string error;
    EXPECT_FALSE(index_->zonesAt(lat, lon, &error).has_value());
    EXPECT_NE(error.find("out of range"), std::string::npos) << error;
    error.clear();
    EXPECT_FALSE(index_->borderDistance(lat, lon, &error).has_value());
    EXPECT_FALSE(error.empty());
    error.clear();
    EXPECT_FALSE(index_->zonesWithin(lat, lon, 1000, &error).has_value());
    EXPECT_FALSE(error.empty());
  }
  std::string error;
  for (double r : {-1.0, nan, inf, 2e6}) EXPECT_FALSE(index_->zonesWithin(0, 0, r, &error).has_value()) << r;
}

TEST_F(SmallWorld, BorderDistance) {
  const double metresPerDegree = 6371008.8 * M_PI / 180;
  struct Case {
    double lat, lon, expected;
  } cases[] = {
      {15, -90.5, 0.5 * metresPerDegree * std::cos(15 * M_PI / 180)},  // inside B, east edge
      {20.1, -95, 0.1 * metresPerDegree},                               // ocean north of B
      {15, -95, 100000},                                                // far from every edge: capped
      {35, -45, 1 * metresPerDegree * std::cos(35 * M_PI / 180)},       // in the hole: its east/west edges
      {45, 90, 100000},                                                 // uniform cell: nothing near
      {-45, -7.6, 0.1 * metresPerDegree * std::cos(45 * M_PI / 180)},   // ocean band meridian
  };
  for (const auto& c : cases) {
    std::string error;
    auto d = index_->borderDistance(c.lat, c.lon, &error);
    ASSERT_TRUE(d.has_value()) << error;
    EXPECT_NEAR(*d, c.expected, c.expected * 0.01) << c.lat << " " << c.lon;
  }
}

TEST_F(SmallWorld, ZonesWithinRadius) {
  struct Case {
    double lat, lon, radius;
    Zones expected;
  } cases[] = {
      {15, -95, 1000, {"Test/B"}},
      {15, -90.5, 60000, {"Test/B", "Etc/GMT+6"}},
      {20.1, -95, 20000, {"Etc/GMT+6", "Test/B"}},
      {35, -44.5, 60000, {"Etc/GMT+3", "Test/C"}},
      {1, -90, 0, {"Etc/GMT+6"}},
  };
  for (const auto& c : cases) {
    std::string error;
    auto z = index_->zonesWithin(c.lat, c.lon, c.radius, &error);
    ASSERT_TRUE(z.has_value()) << error;
    EXPECT_EQ(*z, c.expected) << c.lat << " " << c.lon << " r=" << c.radius;
  }
}

TEST_F(SmallWorld, ReleaseAndZoneCount) {
  EXPECT_EQ(index_->release(), "test release 1");
  EXPECT_EQ(index_->zoneCount(), 3u);
}

TEST_F(SmallWorld, EveryTruncationIsRefusedAtOpen) {
  std::string bytes = readFile(path_);
  std::string cut = tmpDir() + "/cut.dat";
  for (size_t n = 0; n < bytes.size(); ++n) {
    writeFile(cut, bytes.substr(0, n));
    std::string error;
    EXPECT_EQ(BoundaryIndex::open(cut, &error), nullptr) << n;
    EXPECT_FALSE(error.empty()) << n;
  }
}

TEST_F(SmallWorld, CorruptBytesNeverCrash) {
  // Every byte flipped in turn: open refuses, or every query answers or reports an error.
  std::string bytes = readFile(path_);
  std::string bad = tmpDir() + "/flipped.dat";
  for (size_t at = 0; at < bytes.size(); ++at) {
    std::string copy = bytes;
    copy[at] = char(copy[at] ^ 0x5a);
    writeFile(bad, copy);
    std::string error;
    auto index = BoundaryIndex::open(bad, &error);
    if (!index) continue;
    for (auto [lat, lon] : {std::pair{15.0, -95.0}, {35.0, -45.0}, {-45.0, 90.0}, {20.1, -90.0}}) {
      (void)index->zonesAt(lat, lon, &error);
      (void)index->borderDistance(lat, lon, &error);
      (void)index->zonesWithin(lat, lon, 50000, &error);
    }
  }
}

TEST_F(SmallWorld, AnOversizedChainReferenceStepIsCorruptNotAnOverflow) {
  // The chains section's first record starts with its reference point's step
  // from the sub-cell's centre; make it the largest varint (about -2^63) in a
  // file whose checksums are right again, so only the step is wrong.
  std::string bytes = readFile(path_);
  const size_t record = 24 + format::kChains * format::kSectionRecord;
  const uint64_t chains = format::load<uint64_t>(reinterpret_cast<const uint8_t*>(bytes.data()) + record);
  ASSERT_LT(chains + 10, bytes.size());
  bytes.replace(chains, 10, "\xff\xff\xff\xff\xff\xff\xff\xff\xff\x01", 10);
  testing::fixHeader(bytes);
  const std::string bad = tmpDir() + "/oversized-step.dat";
  writeFile(bad, bytes);
  std::string error;
  auto index = BoundaryIndex::open(bad, &error);
  ASSERT_NE(index, nullptr) << error;
  int refused = 0;
  for (double lat = -85; lat <= 85; lat += 10) {
    for (double lon = -175; lon <= 175; lon += 10) {
      error.clear();
      if (!index->borderDistance(lat, lon, &error)) {
        EXPECT_FALSE(error.empty());
        ++refused;
      }
    }
  }
  EXPECT_GT(refused, 0);
}

TEST_F(SmallWorld, ConcurrentLookUpsAgree) {
  const std::pair<double, double> points[] = {{15, -95}, {15, -89.999}, {35, -45}, {-45, 90}, {-45, -180}, {20.1, -95}};
  std::vector<Zones> expected;
  for (auto [lat, lon] : points) expected.push_back(zonesAt(lat, lon));
  std::vector<std::thread> threads;
  std::atomic<int> mismatches{0};
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      std::string error;
      for (int round = 0; round < 2000; ++round) {
        size_t k = size_t(round) % std::size(points);
        auto z = index_->zonesAt(points[k].first, points[k].second, &error);
        auto d = index_->borderDistance(points[k].first, points[k].second, &error);
        if (!z || *z != expected[k] || !d) ++mismatches;
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(mismatches, 0);
}

TEST(ConverterProgram, ExitStatusAndOutput) {
  auto [index, geo] = testing::writeSmallWorld(tmpDir());
  std::string tool = ZONARA_TZDATA_PROGRAM, out = tmpDir() + "/program.dat";
  auto run = [&](const std::string& args) { return WEXITSTATUS(std::system((tool + " " + args + " >/dev/null 2>&1").c_str())); };
  EXPECT_EQ(run(""), 2);
  EXPECT_EQ(run(index + " " + geo + " " + out), 2);  // no --release
  EXPECT_EQ(run(index + " " + index + " " + out + " --release x"), 1);
  EXPECT_EQ(run(index + " " + geo + " " + out + " --release 'label with spaces'"), 0);
  std::string error;
  auto opened = BoundaryIndex::open(out, &error);
  ASSERT_NE(opened, nullptr) << error;
  EXPECT_EQ(opened->release(), "label with spaces");
}

TEST(BoundaryOpen, MissingOrForeignFiles) {
  std::string error;
  EXPECT_EQ(BoundaryIndex::open(tmpDir() + "/no-such-file.dat", &error), nullptr);
  EXPECT_NE(error.find("No such file"), std::string::npos) << error;
  std::string other = tmpDir() + "/other.dat";
  writeFile(other, std::string(4096, 'x'));
  EXPECT_EQ(BoundaryIndex::open(other, &error), nullptr);
  EXPECT_NE(error.find("magic"), std::string::npos) << error;
  EXPECT_EQ(BoundaryIndex::open(tmpDir(), &error), nullptr);
}

TEST(BoundaryConvert, BadInputIsRefusedAndLeavesNoOutput) {
  auto [index, geo] = testing::writeSmallWorld(tmpDir());
  std::string blob = readFile(geo);
  struct Case {
    const char* what;
    std::string index, geo, message;
  } cases[] = {
      {"not JSON", "{", blob, "not valid JSON"},
      {"no lookup", R"({"timezones":["A"]})", blob, "'timezones' and 'lookup'"},
      {"zone out of range", R"({"timezones":["A"],"lookup":{"a":[3]}})", blob, "out of range"},
      {"blob beyond the file", R"({"timezones":["Test/B","Test/C"],"lookup":{"b":{"pos":1,"len":999999}}})", blob, "beyond the end"},
      {"unknown key", R"({"timezones":["A"],"lookup":{"e":[0]}})", blob, "unknown quadtree key"},
      {"unknown tzid", R"({"timezones":["Test/B"],"lookup":{"b":{"pos":7,"len":)" + std::to_string(blob.size() - 7) + "}}}", blob, "unknown tzid"},
      {"garbage geobuf", R"({"timezones":["A"],"lookup":{"b":{"pos":0,"len":7}}})", std::string(7, '\xff'), "geobuf"},
  };
  for (const auto& c : cases) {
    std::string i = tmpDir() + "/bad.index.json", g = tmpDir() + "/bad.geo.dat", out = tmpDir() + "/bad-out.dat";
    std::remove(out.c_str());
    writeFile(i, c.index);
    writeFile(g, c.geo);
    std::string error;
    EXPECT_FALSE(convertBoundaryData(i, g, out, "r", nullptr, &error)) << c.what;
    EXPECT_NE(error.find(c.message), std::string::npos) << c.what << ": " << error;
    EXPECT_FALSE(std::ifstream(out).good()) << c.what;
    EXPECT_FALSE(std::ifstream(out + ".tmp").good()) << c.what;
  }
  std::string error;
  EXPECT_FALSE(convertBoundaryData(tmpDir() + "/none.json", geo, tmpDir() + "/x.dat", "r", nullptr, &error));
  EXPECT_NE(error.find("cannot open"), std::string::npos) << error;
  EXPECT_FALSE(convertBoundaryData(index, geo, tmpDir() + "/no/such/dir/x.dat", "r", nullptr, &error));
}

}  // namespace
}  // namespace zonara::timezone
