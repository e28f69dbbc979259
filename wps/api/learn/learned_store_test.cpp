// The learning rules, the bound on access points and the serialised form.
#include "wps/api/learn/learned_store.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <string>

#include "wps/api/tiles/md4.h"
#include "wps/spi/simulated_clock.h"

namespace WPS {
namespace API {
namespace {

constexpr double kParisLat = 48.8566, kParisLon = 2.3522;
constexpr int64_t kDayMs = int64_t{24} * 3600 * 1000;

SPI::ScannedAccessPoint ap(uint64_t mac, std::string ssid = "cafe", int16_t rssi = -60) {
  return SPI::ScannedAccessPoint(SPI::MAC::fromValue(mac), rssi, std::move(ssid));
}

Location fix(double lat, double lon, double hpe = 30.0, bool ipBased = false) {
  Location l;
  l.latitude = lat;
  l.longitude = lon;
  l.hpe = hpe;
  l.ipBased = ipBased;
  return l;
}

// Metres north of Paris as degrees of latitude.
double north(double metres) { return kParisLat + metres / 111195.0; }

class LearnedStoreTest : public ::testing::Test {
 protected:
  SPI::SimulatedClock clock_{SPI::Time(1700000000, 0)};
  SPI::ScopedClock scoped_{clock_};
  LearnedStore store_{"installation-realm"};
};

TEST_F(LearnedStoreTest, OnlyGoodServerFixesTeach) {
  struct Case {
    const char* name;
    Location fix;
    size_t recorded;
  };
  const Case cases[] = {
      {"accurate", fix(kParisLat, kParisLon, 30), 1},
      {"at the limit", fix(kParisLat, kParisLon, 250), 1},
      {"just too coarse", fix(kParisLat, kParisLon, 250.5), 0},
      {"IP-based", fix(kParisLat, kParisLon, 30, true), 0},
      {"no accuracy", fix(kParisLat, kParisLon, 0), 0},
      {"not a position", fix(NAN, kParisLon, 30), 0},
  };
  for (const Case& c : cases) {
    LearnedStore store("installation-realm");
    EXPECT_EQ(store.learn({ap(0x001122334455)}, c.fix), c.recorded) << c.name;
    EXPECT_EQ(store.size(), c.recorded) << c.name;
  }
}

TEST_F(LearnedStoreTest, OnlyAccessPointsPassingThePrivacyFiltersAreRecorded) {
  struct Case {
    const char* name;
    SPI::ScannedAccessPoint scanned;
    bool recorded;
  };
  const Case cases[] = {
      {"public network", ap(0x001122334455, "cafe"), true},
      {"weak but public", ap(0x001122334456, "cafe", -95), true},
      {"hidden", ap(0x001122334457, ""), false},
      {"opted out", ap(0x001122334458, "home_nomap"), false},
      {"locally administered", ap(0x021122334459, "phone"), false},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(store_.learn({c.scanned}, fix(kParisLat, kParisLon)), c.recorded ? 1u : 0u) << c.name;
    EXPECT_EQ(store_.find(c.scanned.mac) != nullptr, c.recorded) << c.name;
  }
}

TEST_F(LearnedStoreTest, SightingsCloserThanAKilometreKeepARunningMean) {
  const SPI::MAC mac = SPI::MAC::fromValue(0x001122334455);
  ASSERT_EQ(store_.learn({ap(mac.value())}, fix(kParisLat, kParisLon, 20)), 1u);
  clock_.advance(60000);
  ASSERT_EQ(store_.learn({ap(mac.value())}, fix(north(600), kParisLon, 100)), 1u);
  clock_.advance(60000);
  ASSERT_EQ(store_.learn({ap(mac.value())}, fix(north(900), kParisLon, 60)), 1u);

  const LearnedStore::Entry* entry = store_.find(mac);
  ASSERT_NE(entry, nullptr);
  EXPECT_EQ(entry->sightings, 3u);
  EXPECT_NEAR(entry->latitude, (kParisLat + north(600) + north(900)) / 3, 1e-9);
  EXPECT_NEAR(entry->longitude, kParisLon, 1e-9);
  EXPECT_NEAR(entry->accuracy, 60.0, 1e-9);
  EXPECT_EQ(entry->lastSeenMs, int64_t{1700000000} * 1000 + 120000);
}

TEST_F(LearnedStoreTest, AnAccessPointThatMovedIsDroppedAndIgnoredForAWeek) {
  const SPI::MAC mac = SPI::MAC::fromValue(0x001122334455);
  ASSERT_EQ(store_.learn({ap(mac.value()), ap(0x001122334466)}, fix(kParisLat, kParisLon)), 2u);
  // 1.5 km away: the access point moved; the other one is not in this scan.
  EXPECT_EQ(store_.learn({ap(mac.value())}, fix(north(1500), kParisLon)), 0u);
  EXPECT_EQ(store_.find(mac), nullptr);
  EXPECT_TRUE(store_.ignored(mac));
  EXPECT_EQ(store_.size(), 1u);

  // Back where it was, within the week: still ignored.
  clock_.advance(7 * kDayMs - 1);
  EXPECT_EQ(store_.learn({ap(mac.value())}, fix(kParisLat, kParisLon)), 0u);
  EXPECT_EQ(store_.find(mac), nullptr);

  // After the week it is learned anew, from its new fixes only.
  clock_.advance(1);
  EXPECT_FALSE(store_.ignored(mac));
  EXPECT_EQ(store_.learn({ap(mac.value())}, fix(north(1500), kParisLon)), 1u);
  ASSERT_NE(store_.find(mac), nullptr);
  EXPECT_EQ(store_.find(mac)->sightings, 1u);
  EXPECT_NEAR(store_.find(mac)->latitude, north(1500), 1e-9);
}

TEST_F(LearnedStoreTest, HoldsAtMostTwentyThousandAccessPointsForgettingTheLeastRecentlySeen) {
  ASSERT_EQ(LearnedStore::kCapacity, 20000u);
  // 400 places of 50 access points, one a minute.
  auto batch = [](uint64_t place) {
    SPI::AccessPointList scan;
    for (uint64_t i = 0; i < 50; ++i) scan.push_back(ap(0x000100000000 + place * 100 + i));
    return scan;
  };
  for (uint64_t place = 0; place < 400; ++place) {
    ASSERT_EQ(store_.learn(batch(place), fix(kParisLat + place * 0.05, kParisLon)), 50u);
    clock_.advance(60000);
  }
  EXPECT_EQ(store_.size(), 20000u);
  // The first place seen again, then a new one: the second place goes.
  ASSERT_EQ(store_.learn(batch(0), fix(kParisLat, kParisLon)), 50u);
  clock_.advance(60000);
  ASSERT_EQ(store_.learn(batch(400), fix(kParisLat + 400 * 0.05, kParisLon)), 50u);
  EXPECT_EQ(store_.size(), 20000u);
  for (uint64_t place : {0, 2, 399, 400}) {
    EXPECT_NE(store_.find(batch(place)[0].mac), nullptr) << "place " << place;
  }
  for (const auto& scanned : batch(1)) EXPECT_EQ(store_.find(scanned.mac), nullptr);
}

TEST_F(LearnedStoreTest, WeightGrowsWithSightings) {
  uint32_t previousCount = 0;
  double previousExponent = 1.0;
  for (uint32_t seen = 1; seen <= 12; ++seen) {
    EXPECT_GT(LearnedStore::reliabilityCount(seen), previousCount) << seen;
    EXPECT_LT(LearnedStore::signalExponent(seen), previousExponent) << seen;
    previousCount = LearnedStore::reliabilityCount(seen);
    previousExponent = LearnedStore::signalExponent(seen);
  }
  EXPECT_EQ(LearnedStore::reliabilityCount(1), 19u);
  EXPECT_EQ(LearnedStore::reliabilityCount(100), 30u);
  EXPECT_DOUBLE_EQ(LearnedStore::signalExponent(1), 0.5);
  EXPECT_NEAR(LearnedStore::signalExponent(100), 1.0 / 6, 1e-12);
}

TEST_F(LearnedStoreTest, PlacesGroupAccessPointsWithinAboutAKilometre) {
  ASSERT_EQ(store_.learn({ap(0x001122330001), ap(0x001122330002)}, fix(kParisLat, kParisLon)), 2u);
  ASSERT_EQ(store_.learn({ap(0x001122330003)}, fix(north(800), kParisLon)), 1u);
  ASSERT_EQ(store_.learn({ap(0x001122330004)}, fix(35.6762, 139.6503)), 1u);  // Tokyo
  EXPECT_EQ(store_.places(), 2u);
  EXPECT_EQ(store_.clear(), 4u);
  EXPECT_EQ(store_.places(), 0u);
}

TEST_F(LearnedStoreTest, SerialisedFormRoundTripsAndRefusesAnythingElse) {
  ASSERT_EQ(store_.learn({ap(0x001122334455), ap(0x001122334466)}, fix(kParisLat, kParisLon)), 2u);
  ASSERT_EQ(store_.learn({ap(0x001122334455)}, fix(north(1500), kParisLon)), 0u);  // one ignored
  const std::vector<unsigned char> bytes = store_.serialize();

  LearnedStore copy("installation-realm");
  ASSERT_TRUE(copy.parse(bytes));
  EXPECT_EQ(copy.entries(), store_.entries());
  EXPECT_TRUE(copy.ignored(SPI::MAC::fromValue(0x001122334455)));

  struct Case {
    const char* name;
    std::string realm;
    std::vector<unsigned char> bytes;
  };
  std::vector<Case> cases = {
      {"another realm", "other-realm", bytes},
      {"empty", "installation-realm", {}},
      {"cut short", "installation-realm", {bytes.begin(), bytes.end() - 1}},
      {"header only", "installation-realm", {bytes.begin(), bytes.begin() + 24}},
  };
  for (size_t at : {size_t{0}, size_t{6}, size_t{30}, bytes.size() / 2, bytes.size() - 1}) {
    Case flipped{"one byte altered", "installation-realm", bytes};
    flipped.bytes[at] ^= 0x10;
    cases.push_back(flipped);
  }
  for (const Case& c : cases) {
    LearnedStore other(c.realm);
    ASSERT_EQ(other.learn({ap(0x00AABBCCDDEE)}, fix(kParisLat, kParisLon)), 1u);
    EXPECT_FALSE(other.parse(c.bytes)) << c.name;
    EXPECT_EQ(other.size(), 1u) << c.name << ": contents kept";
  }
}

TEST_F(LearnedStoreTest, AnEntryThatIsNoPlaceIsRefusedEvenWithTheRightChecksum) {
  ASSERT_EQ(store_.learn({ap(0x001122334455)}, fix(kParisLat, kParisLon)), 1u);
  const std::vector<unsigned char> bytes = store_.serialize();
  // The one entry follows the 32-byte header: identity, tile key, then
  // latitude, longitude and accuracy as f64.
  constexpr size_t kEntry = 32, kLatitude = kEntry + 16, kLongitude = kEntry + 24, kAccuracy = kEntry + 32;
  const struct {
    const char* name;
    size_t at;
    double value;
  } cases[] = {
      {"latitude beyond the pole", kLatitude, 90.5},
      {"longitude beyond the antimeridian", kLongitude, -180.5},
      {"negative accuracy", kAccuracy, -5.0},
  };
  for (const auto& c : cases) {
    std::vector<unsigned char> altered = bytes;
    std::memcpy(altered.data() + c.at, &c.value, sizeof c.value);
    const size_t body = altered.size() - kMD4DigestSize;
    MD4(std::string(altered.begin(), altered.begin() + static_cast<std::ptrdiff_t>(body)), altered.data() + body);
    LearnedStore other("installation-realm");
    EXPECT_FALSE(other.parse(altered)) << c.name;
  }
}

TEST_F(LearnedStoreTest, SerialisedFormHoldsNoMac) {
  const SPI::MAC mac = SPI::MAC::fromValue(0x00A1B2C3D4E5);
  ASSERT_EQ(store_.learn({ap(mac.value())}, fix(kParisLat, kParisLon)), 1u);
  const std::vector<unsigned char> bytes = store_.serialize();
  const unsigned char* stored = mac.bytes();
  const unsigned char transmitted[6] = {stored[5], stored[4], stored[3], stored[2], stored[1], stored[0]};
  for (const unsigned char* octets : {stored, transmitted}) {
    // Not the whole address, nor its first four octets (the last two are
    // part of the tile key, as in every bound tile file).
    EXPECT_EQ(std::search(bytes.begin(), bytes.end(), octets, octets + 4), bytes.end());
    EXPECT_EQ(std::search(bytes.begin(), bytes.end(), octets + 2, octets + 6), bytes.end());
  }
  EXPECT_NE(LearnedStore("another").identity(mac), store_.identity(mac));
}

}  // namespace
}  // namespace API
}  // namespace WPS
