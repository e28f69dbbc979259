// Learned places on disk: the files read back, their realm binding, the
// atomic rewrite and what happens to files that cannot be read.
#include "wps/api/learn/learned_places.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <fstream>
#include <iterator>

#include "wps/spi/testing/temp_dir.h"
#include "wps/api/tiles/compressed_file_reader.h"
#include "wps/spi/simulated_clock.h"

namespace WPS {
namespace API {
namespace {

constexpr char kRealm[] = "5f0c6b1e-learned";
constexpr double kParisLat = 48.8566, kParisLon = 2.3522;

SPI::AccessPointList parisScan() {
  SPI::AccessPointList scan;
  for (uint64_t i = 0; i < 5; ++i) {
    scan.emplace_back(SPI::MAC::fromValue(0x00A1B2C3D400 + i), static_cast<int16_t>(-50 - 5 * i), "paris-net");
  }
  return scan;
}

Location parisFix(double hpe = 40.0) {
  Location l;
  l.latitude = kParisLat;
  l.longitude = kParisLon;
  l.hpe = hpe;
  return l;
}

std::vector<unsigned char> contents(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void overwrite(const std::string& path, const std::vector<unsigned char>& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

class LearnedPlacesTest : public ::testing::Test {
 protected:
  std::string file(const char* name) const { return dir_.file("Learned/") + name; }
  std::string folder() const { return dir_.file("Learned"); }

  SPI::SimulatedClock clock_{SPI::Time(1700000000, 0)};
  SPI::ScopedClock scoped_{clock_};
  zonara::testing::TempDir dir_{"learned-"};
};

TEST_F(LearnedPlacesTest, LearnedAccessPointsAreFoundAgainAfterARestart) {
  {
    LearnedPlaces places(folder(), kRealm);
    ASSERT_EQ(places.learn(parisScan(), parisFix()), 5u);
  }
  LearnedPlaces places(folder(), kRealm);
  EXPECT_EQ(places.store().size(), 5u);
  std::vector<LocatedAccessPoint> located;
  SPI::AccessPointList scan = parisScan();
  scan.emplace_back(SPI::MAC::fromValue(0x00FFEEDDCCBB), -40, "unknown");
  places.get(scan, {}, located);
  ASSERT_EQ(located.size(), 5u);
  for (const LocatedAccessPoint& ap : located) {
    EXPECT_NEAR(ap.latitude, kParisLat, 1e-5);
    EXPECT_NEAR(ap.longitude, kParisLon, 1e-5);
    EXPECT_EQ(ap.reliabilityCount, LearnedStore::reliabilityCount(1));
  }
  EXPECT_TRUE(places.allLearned(located));
  EXPECT_DOUBLE_EQ(places.accuracyFloor(located), 40.0);
}

TEST_F(LearnedPlacesTest, FilesAreBoundToTheRealmAndHoldNoMac) {
  {
    LearnedPlaces places(folder(), kRealm);
    ASSERT_EQ(places.learn(parisScan(), parisFix()), 5u);
  }
  const SPI::MAC mac = parisScan()[0].mac;
  // The tile file read for another realm, or as a file of plain MACs, is
  // refused outright.
  for (const std::string realm : {"", "vostrel.zz", "another-installation"}) {
    auto reader = CompressedFileReader::newInstance();
    EXPECT_NE(reader->open(realm, file(LearnedPlaces::kTileFile)), 0) << realm;
  }
  // Its keys are hashes under the realm: the reader for the realm finds the
  // MAC, and no file holds the MAC's octets.
  auto reader = CompressedFileReader::newInstance();
  ASSERT_EQ(reader->open(kRealm, file(LearnedPlaces::kTileFile)), 0);
  EXPECT_FALSE(reader->get(mac).empty());
  for (const char* name : {LearnedPlaces::kTileFile, LearnedPlaces::kStateFile}) {
    const std::vector<unsigned char> bytes = contents(file(name));
    const unsigned char* stored = mac.bytes();
    const unsigned char printed[4] = {stored[5], stored[4], stored[3], stored[2]};
    EXPECT_EQ(std::search(bytes.begin(), bytes.end(), printed, printed + 4), bytes.end()) << name;
    EXPECT_EQ(std::search(bytes.begin(), bytes.end(), stored + 2, stored + 6), bytes.end()) << name;
  }
  // Loaded for another realm, the state is unreadable: set aside, nothing
  // learned is found.
  LearnedPlaces other(folder(), "another-installation");
  EXPECT_EQ(other.store().size(), 0u);
  std::vector<LocatedAccessPoint> located;
  other.get(parisScan(), {}, located);
  EXPECT_TRUE(located.empty());
}

TEST_F(LearnedPlacesTest, ACrashBetweenWriteAndRenameLeavesTheOldFiles) {
  LearnedPlaces places(folder(), kRealm);
  ASSERT_EQ(places.learn({parisScan()[0]}, parisFix()), 1u);
  const auto oldState = contents(file(LearnedPlaces::kStateFile));
  const auto oldTiles = contents(file(LearnedPlaces::kTileFile));

  places.setBeforeRenameForTesting([] { return false; });
  ASSERT_EQ(places.learn(parisScan(), parisFix()), 5u);
  EXPECT_EQ(contents(file(LearnedPlaces::kStateFile)), oldState);
  EXPECT_EQ(contents(file(LearnedPlaces::kTileFile)), oldTiles);
  EXPECT_TRUE(std::filesystem::exists(file(LearnedPlaces::kStateFile) + std::string(".tmp")));

  LearnedPlaces restarted(folder(), kRealm);
  EXPECT_EQ(restarted.store().size(), 1u);
  EXPECT_FALSE(std::filesystem::exists(file(LearnedPlaces::kStateFile) + std::string(".tmp")));
  EXPECT_FALSE(std::filesystem::exists(file(LearnedPlaces::kTileFile) + std::string(".tmp")));
}

TEST_F(LearnedPlacesTest, AnUnreadableStateIsSetAsideAndLearningStartsAgain) {
  struct Case {
    const char* name;
    std::function<void(std::vector<unsigned char>&)> damage;
  };
  const Case cases[] = {
      {"empty", [](auto& b) { b.clear(); }},
      {"cut short", [](auto& b) { b.resize(b.size() / 2); }},
      {"one byte altered", [](auto& b) { b[b.size() / 2] ^= 0x01; }},
      {"not a state file", [](auto& b) { std::fill(b.begin(), b.end(), 'x'); }},
  };
  for (const Case& c : cases) {
    std::filesystem::remove_all(folder());
    {
      LearnedPlaces places(folder(), kRealm);
      ASSERT_EQ(places.learn(parisScan(), parisFix()), 5u) << c.name;
    }
    auto bytes = contents(file(LearnedPlaces::kStateFile));
    c.damage(bytes);
    overwrite(file(LearnedPlaces::kStateFile), bytes);

    LearnedPlaces places(folder(), kRealm);
    EXPECT_EQ(places.store().size(), 0u) << c.name;
    EXPECT_TRUE(std::filesystem::exists(file(LearnedPlaces::kStateFile) + std::string(".corrupt"))) << c.name;
    std::vector<LocatedAccessPoint> located;
    places.get(parisScan(), {}, located);
    EXPECT_TRUE(located.empty()) << c.name;
    EXPECT_EQ(places.learn(parisScan(), parisFix()), 5u) << c.name;
    EXPECT_EQ(LearnedPlaces(folder(), kRealm).store().size(), 5u) << c.name;
  }
}

TEST_F(LearnedPlacesTest, ABrokenTileFileIsRebuiltFromTheState) {
  {
    LearnedPlaces places(folder(), kRealm);
    ASSERT_EQ(places.learn(parisScan(), parisFix()), 5u);
  }
  for (const char* damage : {"truncate", "remove"}) {
    if (std::string(damage) == "remove") {
      std::filesystem::remove(file(LearnedPlaces::kTileFile));
    } else {
      auto bytes = contents(file(LearnedPlaces::kTileFile));
      bytes.resize(10);
      overwrite(file(LearnedPlaces::kTileFile), bytes);
    }
    LearnedPlaces places(folder(), kRealm);
    std::vector<LocatedAccessPoint> located;
    places.get(parisScan(), {}, located);
    EXPECT_EQ(located.size(), 5u) << damage;
  }
}

TEST_F(LearnedPlacesTest, ForgetDeletesEverythingLearned) {
  LearnedPlaces places(folder(), kRealm);
  ASSERT_EQ(places.learn(parisScan(), parisFix()), 5u);
  EXPECT_EQ(places.forget(), 5u);
  EXPECT_FALSE(std::filesystem::exists(file(LearnedPlaces::kStateFile)));
  EXPECT_FALSE(std::filesystem::exists(file(LearnedPlaces::kTileFile)));
  std::vector<LocatedAccessPoint> located;
  places.get(parisScan(), {}, located);
  EXPECT_TRUE(located.empty());
  EXPECT_EQ(LearnedPlaces(folder(), kRealm).store().size(), 0u);
  EXPECT_EQ(places.forget(), 0u);
}

}  // namespace
}  // namespace API
}  // namespace WPS
