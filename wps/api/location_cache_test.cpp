#include "wps/api/location_cache.h"

#include <gtest/gtest.h>

namespace WPS {
namespace API {
namespace {

using Scan = LocationCache::Scan;

// A scan of the access points with MAC values `macs`.
Scan scan(std::initializer_list<uint64_t> macs) {
  Scan s;
  for (uint64_t m : macs) s.emplace_back(SPI::MAC::fromValue(m), -60);
  return s;
}

Scan range(uint64_t first, uint64_t count) {
  Scan s;
  for (uint64_t m = first; m < first + count; ++m) s.emplace_back(SPI::MAC::fromValue(m), -60);
  return s;
}

Scan concat(Scan a, const Scan& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

Location at(double latitude) {
  Location l;
  l.latitude = latitude;
  return l;
}

// The latitude of the location found for `s`, or -1 when none.
double lookup(const LocationCache& cache, const Scan& s) {
  Location out;
  out.latitude = -1;
  return cache.get(s, out) ? out.latitude : -1;
}

TEST(LocationCache, ThreeAccessPointsMatchOnlyExactly) {
  LocationCache cache;
  cache.add(scan({1, 2, 4}), at(1));        // one MAC differs
  cache.add(scan({1, 2, 3, 4}), at(2));     // a superset
  cache.add(scan({1, 2}), at(3));           // a subset
  EXPECT_EQ(lookup(cache, scan({1, 2, 3})), -1);
  cache.add(scan({3, 2, 1}), at(4));        // same MACs, any order
  EXPECT_EQ(lookup(cache, scan({1, 2, 3})), 4);
}

TEST(LocationCache, TenAccessPointsTolerateTwoDifferences) {
  const Scan ten = range(100, 10);
  const struct {
    const char* name;
    Scan entry;
    bool found;
  } cases[] = {
      {"one MAC replaced (distance 2)", concat(range(100, 9), scan({900})), true},
      {"two MACs missing (8 APs)", range(100, 8), true},
      {"two extra MACs (12 APs)", concat(ten, scan({900, 901})), true},
      {"three MACs missing (7 APs, outside the size window)", range(100, 7), false},
      {"three extra MACs (13 APs)", concat(ten, scan({900, 901, 902})), false},
      {"two missing, one extra (distance 3)", concat(range(100, 8), scan({900})), false},
      {"two replaced (distance 4)", concat(range(100, 8), scan({900, 901})), false},
      {"one extra (11 APs)", concat(ten, scan({900})), true},
  };
  for (const auto& c : cases) {
    LocationCache cache;
    cache.add(c.entry, at(7));
    EXPECT_EQ(lookup(cache, ten) == 7, c.found) << c.name;
  }
}

TEST(LocationCache, ToleranceGrowsWithTheScan) {
  // n: the scan size; t: differences tolerated.
  const struct {
    uint64_t n;
    int t;
  } cases[] = {{1, 0}, {3, 0}, {4, 1}, {5, 1}, {6, 2}, {10, 2}, {11, 3}, {15, 3}, {16, 4}};
  for (const auto& c : cases) {
    const Scan s = range(1, c.n);
    // An entry missing t access points is found; missing t + 1 is not.
    LocationCache within;
    within.add(range(1, c.n - c.t), at(1));
    EXPECT_EQ(lookup(within, s), 1) << c.n;
    if (c.n > static_cast<uint64_t>(c.t) + 1) {
      LocationCache beyond;
      beyond.add(range(1, c.n - c.t - 1), at(1));
      EXPECT_EQ(lookup(beyond, s), -1) << c.n;
    }
  }
}

TEST(LocationCache, BestDistanceWinsAndTiesGoToTheNewer) {
  const Scan ten = range(100, 10);
  LocationCache cache;
  cache.add(concat(range(100, 9), scan({900})), at(1));  // distance 2
  cache.add(concat(ten, scan({901})), at(2));            // distance 1
  cache.add(concat(range(100, 9), scan({902})), at(3));  // distance 2, newer
  EXPECT_EQ(lookup(cache, ten), 2);

  LocationCache ties;
  ties.add(concat(range(100, 9), scan({900})), at(1));
  ties.add(concat(range(101, 9), scan({901})), at(2));  // also distance 2
  EXPECT_EQ(lookup(ties, ten), 2);
}

TEST(LocationCache, ExactMatchBeatsNewerNearMatches) {
  LocationCache cache;
  cache.add(scan({1, 2, 3, 4, 5}), at(1));
  cache.add(scan({1, 2, 3, 4, 5, 6}), at(2));  // keeps the older entry: it lacks MAC 6
  ASSERT_EQ(cache.size(), 2u);
  EXPECT_EQ(lookup(cache, scan({1, 2, 3, 4, 5})), 1);     // 0 beats the newer 1
  EXPECT_EQ(lookup(cache, scan({1, 2, 3, 4, 5, 6})), 2);  // and the other way round
  EXPECT_EQ(lookup(cache, scan({1, 2, 3, 4, 5, 9})), 1);  // 1 beats the newer 2
}

TEST(LocationCache, GetCopiesTheWholeLocation) {
  Location stored;
  stored.latitude = 42.36;
  stored.longitude = -71.06;
  stored.hpe = 40;
  stored.nap = 5;
  stored.time = SPI::Time(1700000000, 123);
  stored.streetAddress.city = "Boston";
  stored.streetAddress.addressLine = {"Main Street"};
  stored.streetAddress.country = {"United States", "US"};
  LocationCache cache;
  cache.add(scan({1, 2, 3}), stored);

  Location out;
  out.streetAddress.addressLine = {"stale"};
  ASSERT_TRUE(cache.get(scan({1, 2, 3}), out));
  EXPECT_EQ(out, stored);

  Location untouched = at(9);
  EXPECT_FALSE(cache.get(scan({4, 5, 6}), untouched));
  EXPECT_EQ(untouched, at(9));
  EXPECT_EQ(cache.find(scan({4, 5, 6})), cache.end());
}

TEST(LocationCache, KeepsAtMostFiftyEntriesDroppingTheOldest) {
  LocationCache cache;
  for (uint64_t i = 0; i < 50; ++i) cache.add(scan({1000 + 3 * i, 1001 + 3 * i, 1002 + 3 * i}), at(double(i)));
  EXPECT_EQ(cache.size(), 50u);
  EXPECT_EQ(lookup(cache, scan({1000, 1001, 1002})), 0);
  cache.add(scan({1, 2, 3}), at(50));
  EXPECT_EQ(cache.size(), 50u);
  EXPECT_EQ(lookup(cache, scan({1000, 1001, 1002})), -1);  // the oldest went
  EXPECT_EQ(lookup(cache, scan({1003, 1004, 1005})), 1);
  EXPECT_EQ(lookup(cache, scan({1, 2, 3})), 50);
}

TEST(LocationCache, AddingReplacesEntriesHoldingAllTheNewMacs) {
  LocationCache cache;
  cache.add(scan({1, 2, 3}), at(1));
  cache.add(scan({1, 3}), at(2));
  cache.add(scan({2, 1}), at(3));
  ASSERT_EQ(cache.size(), 2u);
  EXPECT_EQ(cache.entries()[0].second, at(2));
  EXPECT_EQ(cache.entries()[1].second, at(3));
  // Re-adding the same scan replaces its entry rather than duplicating it.
  cache.add(scan({1, 2}), at(4));
  ASSERT_EQ(cache.size(), 2u);
  EXPECT_EQ(lookup(cache, scan({1, 2})), 4);
}

}  // namespace
}  // namespace API
}  // namespace WPS
