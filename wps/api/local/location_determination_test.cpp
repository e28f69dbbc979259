#include <gtest/gtest.h>
#include <zlib.h>

#include <cmath>
#include <filesystem>
#include <random>

#include "wps/api/collection/tier2_collection.h"
#include "wps/api/local/access_point_database.h"
#include "wps/api/local/location_determination_private.h"
#include "wps/api/tiles/tile_writer.h"
#include "wps/spi/log_capture.h"
#include "wps/spi/simulated_clock.h"
#include "wps/spi/testing/temp_dir.h"

namespace WPS {
namespace API {
namespace {

using SPI::MAC;
using SPI::ScannedAccessPoint;

constexpr double kPi = 3.14159265358979323846;
constexpr double kR = 6372800.0;
const double kOriginLat = 48.0, kOriginLon = 2.0;

// A point `north` and `east` metres from (lat, lon).
std::pair<double, double> offset(double lat, double lon, double north, double east) {
  const double dLat = north / kR * 180.0 / kPi;
  const double dLon = east / (kR * std::cos(lat * kPi / 180.0)) * 180.0 / kPi;
  return {lat + dLat, lon + dLon};
}

// Great-circle distance by the haversine formula (independent of the code's
// law of cosines).
double haversine(double lat1, double lon1, double lat2, double lon2) {
  const double p1 = lat1 * kPi / 180.0, p2 = lat2 * kPi / 180.0;
  const double dp = p2 - p1, dl = (lon2 - lon1) * kPi / 180.0;
  const double a = std::sin(dp / 2) * std::sin(dp / 2) + std::cos(p1) * std::cos(p2) * std::sin(dl / 2) * std::sin(dl / 2);
  return 2 * kR * std::asin(std::sqrt(a));
}

LocatedAccessPoint located(uint64_t mac, double lat, double lon, uint32_t count = 40, double exponent = 0.3) {
  LocatedAccessPoint ap;
  ap.mac = MAC::fromValue(mac);
  ap.latitude = lat;
  ap.longitude = lon;
  ap.reliabilityCount = count;
  ap.signalExponent = exponent;
  return ap;
}

LocatedAccessPoint locatedAt(uint64_t mac, double north, double east, uint32_t count = 40, double exponent = 0.3) {
  const auto [lat, lon] = offset(kOriginLat, kOriginLon, north, east);
  return located(mac, lat, lon, count, exponent);
}

std::vector<ScannedAccessPoint> scanOf(const std::vector<LocatedAccessPoint>& aps, const std::vector<int>& rssi) {
  std::vector<ScannedAccessPoint> scan;
  for (size_t i = 0; i < aps.size(); ++i) scan.emplace_back(aps[i].mac, static_cast<int16_t>(rssi[i]));
  return scan;
}

std::vector<ScannedAccessPoint> scanOf(const std::vector<LocatedAccessPoint>& aps, int rssi = -60) {
  return scanOf(aps, std::vector<int>(aps.size(), rssi));
}

class LocalDeterminationTest : public ::testing::Test {
 protected:
  void SetUp() override { LocationDeterminationPrivate::resetTracesForTesting(); }
  void TearDown() override { LocationDeterminationPrivate::resetTracesForTesting(); }

  int locate(const std::vector<LocatedAccessPoint>& aps, Location& out, int rssi = -60) {
    return engine_.calculateLocation(nullptr, scanOf(aps, rssi), aps, out);
  }

  SPI::SimulatedClock clock_{SPI::Time(1700000000, 0)};
  SPI::ScopedClock scoped_{clock_};
  LocationDeterminationPrivate engine_;
};

TEST_F(LocalDeterminationTest, NothingLocatedAndNoRecentFixGivesNoLocation) {
  Location out;
  out.latitude = 5.0;
  EXPECT_EQ(engine_.calculateLocation(nullptr, {ScannedAccessPoint(MAC::fromValue(1), -50)}, {}, out), 6);
  EXPECT_EQ(out.latitude, 0.0);
  EXPECT_EQ(out.longitude, 0.0);
  EXPECT_EQ(out.hpe, 250.0);
  EXPECT_EQ(out.nap, 0);
  EXPECT_EQ(engine_.calcError({}), 250.0);
  // A database-less engine answers 6 and stamps the time.
  Location stamped;
  EXPECT_EQ(engine_.determineLocationLocally(nullptr, {}, {}, stamped), 6);
  EXPECT_EQ(stamped.time, SPI::Time(1700000000, 0));
}

TEST_F(LocalDeterminationTest, ErrorEstimateUsesTheCountAndTheSmallestUnclampedExponent) {
  auto expected = [](double n, double m) {
    const double e = ((std::sqrt(1.0 / n) / 0.1721 + std::pow(11.0, (m - 0.16667) / 0.3334) / 2.7546) - 4.0) * 70.85 / 1.7376 + 86.67;
    return std::max(e, 1.0);
  };
  std::vector<LocationDeterminationPrivate::APInfo> list(4);
  const double exponents[] = {0.3, 0.1, 0.9, 0.25};
  for (size_t i = 0; i < 4; ++i) list[i].signalExponent = exponents[i];
  EXPECT_DOUBLE_EQ(engine_.calcError(list), expected(4, 0.1));
  EXPECT_NEAR(engine_.calcError(list), 51.20, 0.01);
  list.resize(1);
  list[0].signalExponent = 0.5;
  EXPECT_DOUBLE_EQ(engine_.calcError(list), expected(1, 0.5));
  // Many good access points would give a negative figure: at least 1 m.
  list.assign(100, list[0]);
  for (auto& ap : list) ap.signalExponent = 0.16667;
  EXPECT_EQ(engine_.calcError(list), 1.0);
}

// Two access points 100 m apart: the fix divides the line between them in the
// ratio of their weights, which shows how a reading, a count and an exponent
// weigh.
TEST_F(LocalDeterminationTest, WeightsOfSignalReliabilityAndExponent) {
  auto f = [](double n) {
    if (n < 18) return 0.001;
    if (n > 30) return 1.0;
    return (std::log10(n) - std::log10(18.0)) * 0.999 / (std::log10(30.0) - std::log10(18.0)) + 0.001;
  };
  struct Case {
    const char* name;
    int rssiA;
    uint32_t countA;
    double exponentA;
    int rssiB;
    uint32_t countB;
    double exponentB;
    double weightRatio;  // wA / wB
    bool limited;        // "AP RSS was limited" is logged
  };
  const Case cases[] = {
      {"count 17 weighs as 18", -60, 17, 0.3, -60, 18, 0.3, 1.0, false},
      {"count 30 weighs as 31", -60, 30, 0.3, -60, 31, 0.3, 1.0, false},
      {"count 24 between", -60, 24, 0.3, -60, 30, 0.3, f(24), false},
      {"count 18 at the floor", -60, 18, 0.3, -60, 40, 0.3, 0.001, false},
      {"exponent 0.9 weighs as 0.5", -60, 40, 0.9, -70, 40, 0.5, std::pow(10.0, 0.5), false},
      {"exponent 0.1 weighs as 0.16667", -60, 40, 0.1, -80, 40, 0.16667, std::pow(100.0, 0.16667), false},
      {"-20 dBm weighs as -90", -20, 40, 0.3, -90, 40, 0.3, 1.0, true},
      {"-5 dBm weighs as -90", -5, 40, 0.3, -90, 40, 0.3, 1.0, true},
      {"-21 dBm is believed", -21, 40, 0.3, -90, 40, 0.3, std::pow(std::pow(10.0, 6.9), 0.3), false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    LocationDeterminationPrivate::resetTracesForTesting();
    LocationDeterminationPrivate engine;
    const auto a = locatedAt(0xA, 0, 0, c.countA, c.exponentA);
    const auto b = locatedAt(0xB, 100, 0, c.countB, c.exponentB);
    SPI::LogCapture log("WPS.API.LocationDeterminationLocal");
    Location out;
    ASSERT_EQ(engine.calculateLocation(nullptr, scanOf({a, b}, {c.rssiA, c.rssiB}), {a, b}, out), 0);
    const double fractionB = 1.0 / (1.0 + c.weightRatio);
    EXPECT_NEAR(out.latitude, a.latitude + fractionB * (b.latitude - a.latitude), 1e-9);
    EXPECT_EQ(out.nap, 2);
    EXPECT_EQ(log.contains("AP RSS was limited to -90dBm"), c.limited);
  }
  // Readings so weak that every weight underflows: the access points count
  // alike instead of giving NaN.
  LocationDeterminationPrivate::resetTracesForTesting();
  LocationDeterminationPrivate engine;
  const auto a = locatedAt(0xA, 0, 0), b = locatedAt(0xB, 100, 0);
  Location out;
  ASSERT_EQ(engine.calculateLocation(nullptr, scanOf({a, b}, {-32000, -32000}), {a, b}, out), 0);
  EXPECT_NEAR(out.latitude, (a.latitude + b.latitude) / 2, 1e-9);
}

// Below 16 km/h a reading is averaged with the access point's readings of
// the previous four scans.
TEST_F(LocalDeterminationTest, SlowReferenceAveragesReadingsOverRecentScans) {
  const auto a = locatedAt(0xA, 0, 0), b = locatedAt(0xB, 100, 0);
  const std::vector<std::vector<int>> readings = {{-60, -60}, {-64, -60}, {-68, -60}, {-72, -60}, {-76, -60}, {-80, -60}};
  for (size_t i = 0; i < readings.size(); ++i) {
    SCOPED_TRACE("scan " + std::to_string(i));
    Location out;
    ASSERT_EQ(engine_.calculateLocation(nullptr, scanOf({a, b}, readings[i]), {a, b}, out), 0);
    // Mean of this reading and up to four earlier ones of A (B is steady).
    double sum = 0;
    int count = 0;
    for (size_t k = i + 1; k-- > 0 && count < 5;) {
      sum += readings[k][0];
      ++count;
    }
    const double ratio = std::pow(10.0, (sum / count - -60.0) / 10.0 * 0.3);  // wA / wB
    const Location& raw = LocationDeterminationPrivate::posTrace()[0];
    EXPECT_NEAR(raw.latitude, a.latitude + (b.latitude - a.latitude) / (1.0 + ratio), 1e-9);
    clock_.advance(1000);
  }
}

// The first fix of a scan, recomputed here step by step: neighbourless access
// points dropped, the lower median as reference, the smallest radius that
// keeps three, and the weighted centroid.
TEST_F(LocalDeterminationTest, FirstFixMatchesAStraightforwardComputation) {
  struct Known {
    double north, east;
    int rssi;
    uint32_t count;
    double exponent;
  };
  const Known known[] = {
      {0, 0, -55, 40, 0.30},      {30, 10, -62, 25, 0.22},  {-20, 40, -70, 19, 0.45},
      {50, -30, -66, 60, 0.18},   {-60, -20, -75, 28, 0.40}, {150, 120, -80, 35, 0.33},
      {-90, 60, -72, 33, 0.26},   {9000, 0, -50, 60, 0.50},  // isolated: 9 km north
  };
  std::vector<LocatedAccessPoint> aps;
  std::vector<int> rssi;
  for (size_t i = 0; i < std::size(known); ++i) {
    aps.push_back(locatedAt(0x100 + i, known[i].north, known[i].east, known[i].count, known[i].exponent));
    rssi.push_back(known[i].rssi);
  }

  // Independent computation.
  std::vector<size_t> kept;
  for (size_t i = 0; i < aps.size(); ++i) {
    for (size_t j = 0; j < aps.size(); ++j) {
      if (i != j && std::fabs(aps[i].latitude - aps[j].latitude) + std::fabs(aps[i].longitude - aps[j].longitude) < 0.05) {
        kept.push_back(i);
        break;
      }
    }
  }
  ASSERT_EQ(kept.size(), 7u);
  std::vector<double> lats, lons;
  for (size_t i : kept) {
    lats.push_back(aps[i].latitude);
    lons.push_back(aps[i].longitude);
  }
  std::sort(lats.begin(), lats.end());
  std::sort(lons.begin(), lons.end());
  const double refLat = lats[3], refLon = lons[3];
  double radius = 0;
  for (double r : {75.0, 150.0, 300.0}) {
    radius = r;
    const auto within = std::count_if(kept.begin(), kept.end(), [&](size_t i) {
      return haversine(refLat, refLon, aps[i].latitude, aps[i].longitude) < r;
    });
    if (within >= 3) break;
  }
  EXPECT_EQ(radius, 75.0);
  double sumW = 0, lat = 0, lon = 0;
  int used = 0;
  for (size_t i : kept) {
    if (haversine(refLat, refLon, aps[i].latitude, aps[i].longitude) > radius) continue;
    const double n = aps[i].reliabilityCount;
    const double f = n < 18 ? 0.001 : n > 30 ? 1.0 : (std::log10(n) - std::log10(18.0)) * 0.999 / (std::log10(30.0) - std::log10(18.0)) + 0.001;
    const double e = std::min(0.5, std::max(0.16667, aps[i].signalExponent));
    const double w = std::pow(std::pow(10.0, rssi[i] / 10.0), e) * f;
    sumW += w;
    lat += w * aps[i].latitude;
    lon += w * aps[i].longitude;
    ++used;
  }
  ASSERT_GE(used, 3);
  ASSERT_LT(used, 7);

  Location out;
  ASSERT_EQ(engine_.calculateLocation(nullptr, scanOf(aps, rssi), aps, out), 0);
  EXPECT_NEAR(out.latitude, lat / sumW, 1e-9);
  EXPECT_NEAR(out.longitude, lon / sumW, 1e-9);
  EXPECT_EQ(out.nap, used);
  EXPECT_EQ(out.speed, 0.0);
  EXPECT_EQ(out.time, SPI::Time(1700000000, 0));
  ASSERT_EQ(LocationDeterminationPrivate::posTrace().size(), 1u);
  ASSERT_EQ(LocationDeterminationPrivate::smoothedPosTrace().size(), 1u);
  EXPECT_EQ(LocationDeterminationPrivate::smoothedPosTrace()[0].latitude, out.latitude);
}

// Makes a fix at (north, east) from one access point there, `ageMs` before now.
void fixAt(double north, double east, int64_t ageMs, SPI::SimulatedClock& clock) {
  LocationDeterminationPrivate engine;
  const auto ap = locatedAt(0xF00D, north, east);
  Location out;
  ASSERT_EQ(engine.calculateLocation(nullptr, scanOf({ap}), {ap}, out), 0);
  clock.advance(ageMs);
}

TEST_F(LocalDeterminationTest, TwoAccessPointsChooseTheirReferenceByTheirDistance) {
  // 299 m apart: the first access point is the reference even though an
  // older fix lies far away; both are within 300 m of it.
  fixAt(2000, 0, 25000, clock_);
  const auto a = locatedAt(1, 0, 0), b = locatedAt(2, 299, 0);
  Location out;
  ASSERT_EQ(locate({a, b}, out), 0);
  EXPECT_EQ(out.nap, 2);

  // 301 m apart with an older fix next to the second: the fix is the
  // reference, so the first one is gated out.
  LocationDeterminationPrivate::resetTracesForTesting();
  fixAt(301, 0, 25000, clock_);
  const auto c = locatedAt(3, 301, 0);
  Location held;
  ASSERT_EQ(locate({a, c}, held), 0);
  EXPECT_EQ(held.nap, 1);
  EXPECT_NEAR(held.latitude, c.latitude, 1e-9);

  // Without any earlier fix the first access point is the reference again.
  LocationDeterminationPrivate::resetTracesForTesting();
  LocationDeterminationPrivate fresh;
  Location first;
  ASSERT_EQ(fresh.calculateLocation(nullptr, scanOf({a, c}), {a, c}, first), 0);
  EXPECT_EQ(first.nap, 1);
  EXPECT_NEAR(first.latitude, a.latitude, 1e-9);
}

TEST_F(LocalDeterminationTest, GatingRadiusGrowsWithTheAgeOfTheReference) {
  struct Case {
    const char* name;
    int64_t ageMs;
    std::vector<double> distances;  // north of the reference fix, metres
    int nap;                        // 0: everything gated out
  };
  const Case cases[] = {
      // 25 s: too old for the recent track, so a lone access point measures
      // from the fix with the time counted as 0: 300 m.
      {"25 s, one at 290 m", 25000, {290}, 1},
      {"25 s, one at 310 m", 25000, {310}, 0},
      // 10 s: radii 175, 250, 400.
      {"10 s, one at 390 m", 10000, {390}, 1},
      {"10 s, one at 410 m", 10000, {410}, 0},
      {"10 s, three within 175", 10000, {170, -170, 100, 180}, 3},
      {"10 s, three within 250", 10000, {170, -170, 240, 260}, 3},
      {"10 s, else 400", 10000, {170, 260, -390, 410}, 3},
      // 2 s: radii 95, 170, 320.
      {"2 s, three within 95", 2000, {90, -90, 60, 100}, 3},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    LocationDeterminationPrivate::resetTracesForTesting();
    fixAt(0, 0, c.ageMs, clock_);
    std::vector<LocatedAccessPoint> aps;
    for (size_t i = 0; i < c.distances.size(); ++i) aps.push_back(locatedAt(0x200 + i, c.distances[i], (i % 2) ? 5.0 : -5.0));
    LocationDeterminationPrivate engine;
    Location out;
    const int result = engine.calculateLocation(nullptr, scanOf(aps), aps, out);
    if (c.nap == 0) {
      // Nothing left and no fix of the past 20 s: no location.
      EXPECT_EQ(result, c.ageMs >= 20000 ? 6 : 0);
      EXPECT_EQ(out.nap, c.ageMs >= 20000 ? 0 : 1);
    } else {
      EXPECT_EQ(result, 0);
      EXPECT_EQ(out.nap, c.nap);
    }
  }
}

TEST_F(LocalDeterminationTest, WhenEverythingIsGatedOutARecentFixIsHeld) {
  fixAt(0, 0, 5000, clock_);
  const Location previous = LocationDeterminationPrivate::smoothedPosTrace()[0];
  const std::vector<LocatedAccessPoint> far = {locatedAt(1, 800, 0), locatedAt(2, 810, 20), locatedAt(3, 790, -20)};
  Location out;
  ASSERT_EQ(locate(far, out), 0);
  EXPECT_EQ(out.latitude, previous.latitude);
  EXPECT_EQ(out.longitude, previous.longitude);
  EXPECT_EQ(out.nap, previous.nap);
  EXPECT_EQ(out.hpe, 250.0);
}

TEST_F(LocalDeterminationTest, AccessPointsWithoutNeighboursAreDropped) {
  SPI::LogCapture log("WPS.API.LocationDeterminationLocal");
  // Three access points kilometres apart: none is kept.
  const std::vector<LocatedAccessPoint> apart = {locatedAt(1, 0, 0), locatedAt(2, 8000, 0), locatedAt(3, 0, 8000)};
  Location out;
  EXPECT_EQ(locate(apart, out), 6);
  EXPECT_TRUE(log.contains("Error! List of AP cannot be one here!"));
  EXPECT_EQ(out.latitude, 0.0);

  // A pair and a stray: the pair is used.
  LocationDeterminationPrivate::resetTracesForTesting();
  log.clear();
  const std::vector<LocatedAccessPoint> pair = {locatedAt(4, 8000, 8000), locatedAt(5, 0, 0), locatedAt(6, 40, 0)};
  ASSERT_EQ(locate(pair, out), 0);
  EXPECT_EQ(out.nap, 2);
  EXPECT_FALSE(log.contains("Error! List of AP cannot be one here!"));
  EXPECT_NEAR(out.latitude, (pair[1].latitude + pair[2].latitude) / 2, 1e-9);
}

TEST_F(LocalDeterminationTest, TracesKeepTheLast41Fixes) {
  const std::vector<LocatedAccessPoint> aps = {locatedAt(1, 0, 0), locatedAt(2, 20, 0), locatedAt(3, 0, 20)};
  for (int i = 0; i < 42; ++i) {
    Location out;
    ASSERT_EQ(locate(aps, out), 0);
    clock_.advance(1000);
  }
  const auto& raw = LocationDeterminationPrivate::posTrace();
  const auto& smoothed = LocationDeterminationPrivate::smoothedPosTrace();
  ASSERT_EQ(raw.size(), 41u);
  ASSERT_EQ(smoothed.size(), 41u);
  // Newest first; the first fix (at +0 s) was pushed out by the 42nd.
  EXPECT_EQ(raw.front().time, SPI::Time(1700000041, 0));
  EXPECT_EQ(raw.back().time, SPI::Time(1700000001, 0));
  EXPECT_EQ(smoothed.back().time, SPI::Time(1700000001, 0));
  // A new instance continues the same track.
  LocationDeterminationPrivate other;
  Location out;
  ASSERT_EQ(other.calculateLocation(nullptr, scanOf(aps), aps, out), 0);
  EXPECT_EQ(LocationDeterminationPrivate::posTrace().front().time, SPI::Time(1700000042, 0));
  EXPECT_EQ(LocationDeterminationPrivate::posTrace().back().time, SPI::Time(1700000002, 0));
}

TEST_F(LocalDeterminationTest, DistancesAndMovementLimit) {
  const auto a = locatedAt(1, 0, 0), b = locatedAt(2, 1000, 0);
  EXPECT_NEAR(LocationDeterminationPrivate::calcDistance(a, b), 1000.0, 0.01);
  // The law of cosines is coarse for tiny distances, and acos of a sum that
  // rounds above 1 gives 0, never NaN.
  EXPECT_LT(LocationDeterminationPrivate::calcDistance(a, a), 0.2);
  Location l;
  l.latitude = a.latitude;
  l.longitude = a.longitude;
  EXPECT_FALSE(std::isnan(LocationDeterminationPrivate::calcDistance(l, l)));
  double x, y, z;
  LocationDeterminationPrivate::convertToCartesian(l, x, y, z);
  Location back;
  LocationDeterminationPrivate::convertFromCartesian(x, y, z, back);
  EXPECT_NEAR(back.latitude, l.latitude, 1e-9);
  EXPECT_NEAR(back.longitude, l.longitude, 1e-9);

  fixAt(0, 0, 10000, clock_);
  Location jump;
  jump.latitude = b.latitude;
  jump.longitude = b.longitude;
  jump.time = SPI::Time::now();
  const Location limited = engine_.limitMaxMovement(jump);
  EXPECT_NEAR(LocationDeterminationPrivate::calcDistance(LocationDeterminationPrivate::posTrace()[0], limited), 416.67, 0.1);
  const auto near = locatedAt(3, 300, 0);
  jump.latitude = near.latitude;
  EXPECT_EQ(engine_.limitMaxMovement(jump).latitude, near.latitude);
}

// --- Simulated scans -------------------------------------------------------

struct Grid {
  std::vector<LocatedAccessPoint> aps;
  std::vector<std::pair<double, double>> metres;  // north, east of the origin
};

// Access points every `spacing` metres over a square of `half` metres around
// the origin, with varied counts and exponents.
Grid makeGrid(double half, double spacing, std::mt19937_64& rng) {
  Grid grid;
  std::uniform_int_distribution<uint32_t> count(20, 80);
  std::uniform_real_distribution<double> exponent(0.2, 0.45), jitter(-3, 3);
  uint64_t mac = 0x001000000000ULL;
  for (double n = -half; n <= half; n += spacing) {
    for (double e = -half; e <= half; e += spacing) {
      const double north = n + jitter(rng), east = e + jitter(rng);
      grid.aps.push_back(locatedAt(++mac, north, east, count(rng), exponent(rng)));
      grid.metres.emplace_back(north, east);
    }
  }
  return grid;
}

// A scan at (north, east): path loss with exponent 3 from -40 dBm at 1 m,
// Gaussian noise of `noise` dB, heard down to -90 dBm.
std::vector<ScannedAccessPoint> scanAt(const Grid& grid, double north, double east, double noise, std::mt19937_64& rng) {
  std::normal_distribution<double> gauss(0.0, 1.0);
  std::vector<ScannedAccessPoint> scan;
  for (size_t i = 0; i < grid.aps.size(); ++i) {
    const double d = std::max(1.0, std::hypot(grid.metres[i].first - north, grid.metres[i].second - east));
    const double rssi = std::round(-40.0 - 30.0 * std::log10(d) + noise * gauss(rng));
    if (rssi >= -90.0) scan.emplace_back(grid.aps[i].mac, static_cast<int16_t>(rssi));
  }
  return scan;
}

std::vector<LocatedAccessPoint> knownIn(const Grid& grid, const std::vector<ScannedAccessPoint>& scan) {
  std::vector<LocatedAccessPoint> out;
  for (const auto& s : scan) {
    for (const auto& ap : grid.aps) {
      if (ap.mac == s.mac) out.push_back(ap);
    }
  }
  return out;
}

double angleBetween(double a, double b) {
  const double d = std::fmod(std::fabs(a - b), 360.0);
  return std::min(d, 360.0 - d);
}

class WalkTest : public LocalDeterminationTest, public ::testing::WithParamInterface<double> {};

TEST_P(WalkTest, FollowsAWalkWithSpeedAndBearing) {
  const double heading = GetParam();  // degrees clockwise from north
  std::mt19937_64 rng(static_cast<uint64_t>(heading) + 1);
  const Grid grid = makeGrid(300, 20, rng);
  const double speed = 1.4;          // m/s
  const int64_t intervalMs = 2000;   // one scan every 2 s
  const double startN = -0.5 * 60 * 2 * speed * std::cos(heading * kPi / 180.0);
  const double startE = -0.5 * 60 * 2 * speed * std::sin(heading * kPi / 180.0);
  for (int i = 0; i < 60; ++i) {
    SCOPED_TRACE("scan " + std::to_string(i));
    const double t = i * intervalMs / 1000.0;
    const double north = startN + speed * t * std::cos(heading * kPi / 180.0);
    const double east = startE + speed * t * std::sin(heading * kPi / 180.0);
    const auto scan = scanAt(grid, north, east, 2.0, rng);
    Location out;
    ASSERT_EQ(engine_.calculateLocation(nullptr, scan, knownIn(grid, scan), out), 0);
    const auto [trueLat, trueLon] = offset(kOriginLat, kOriginLon, north, east);
    EXPECT_LT(haversine(out.latitude, out.longitude, trueLat, trueLon), 40.0);
    if (i >= 10) {
      EXPECT_GE(out.speed, 1.0);
      EXPECT_LE(out.speed, 15.0);
      EXPECT_LT(angleBetween(out.bearing, heading), 45.0) << "bearing " << out.bearing;
    }
    clock_.advance(intervalMs);
  }
}

INSTANTIATE_TEST_SUITE_P(Headings, WalkTest, ::testing::Values(60.0, 180.0, 290.0));

TEST_F(LocalDeterminationTest, AStillDeviceWithSteadySignalsHasSpeedZero) {
  std::mt19937_64 rng(5);
  const Grid grid = makeGrid(200, 20, rng);
  const double north = 12, east = -7;
  double largestJump = 0;
  for (int i = 0; i < 30; ++i) {
    SCOPED_TRACE("scan " + std::to_string(i));
    auto scan = scanAt(grid, north, east, 0.0, rng);
    // Every other scan misses the access points to the east, so the raw
    // fixes jump back and forth while every reading that is there is steady.
    if (i % 2 == 1) {
      std::erase_if(scan, [&](const ScannedAccessPoint& s) {
        for (size_t k = 0; k < grid.aps.size(); ++k) {
          if (grid.aps[k].mac == s.mac) return grid.metres[k].second > east + 15;
        }
        return false;
      });
    }
    Location out;
    ASSERT_EQ(engine_.calculateLocation(nullptr, scan, knownIn(grid, scan), out), 0);
    EXPECT_EQ(out.speed, 0.0);
    const auto [lat, lon] = offset(kOriginLat, kOriginLon, north, east);
    EXPECT_LT(haversine(out.latitude, out.longitude, lat, lon), 40.0);
    const auto& raw = LocationDeterminationPrivate::posTrace();
    if (raw.size() >= 2) {
      largestJump = std::max(largestJump, haversine(raw[0].latitude, raw[0].longitude, raw[1].latitude, raw[1].longitude));
    }
    clock_.advance(2000);
  }
  EXPECT_GT(largestJump, 3.0);
}

// --- Through the database and into the scan collection ----------------------

TEST_F(LocalDeterminationTest, DeterminesFromTileFilesAndCollectsTheScan) {
  namespace fs = std::filesystem;
  const zonara::testing::TempDir scratch("local");
  const std::string tiles = scratch.file("tiles");
  const std::string area = scratch.file("area");
  fs::create_directories(tiles);
  const std::vector<LocatedAccessPoint> aps = {locatedAt(0x0A0000000001ULL, 0, 0), locatedAt(0x0A0000000002ULL, 30, 0),
                                               locatedAt(0x0A0000000003ULL, 0, 30)};
  TileWriterOptions options;
  options.realm = "realm";
  std::vector<unsigned char> bytes;
  std::string error;
  ASSERT_TRUE(buildTileFile(aps, options, bytes, error)) << error;
  ASSERT_TRUE(writeTileFile(tiles + "/area.dat", bytes, error)) << error;

  auto local = LocationDeterminationLocal::newInstance();
  const std::string tilesDir = tiles;
  const char* paths[] = {tilesDir.c_str(), nullptr};
  local->set_paths(paths);
  local->set_tier2_area(area.c_str(), 64);
  ASSERT_NE(local->tier2Collection(), nullptr);
  std::vector<ScannedAccessPoint> scan = scanOf(aps, -60);
  scan.emplace_back(MAC::fromValue(0x0B0000000001ULL), -77);
  Location out;
  EXPECT_EQ(local->determineLocationLocally(nullptr, scan, {}, out), 6);  // not open

  ASSERT_EQ(local->open(SimpleAuthentication("carol", "realm")), 0);
  ASSERT_EQ(local->determineLocationLocally(nullptr, scan, {}, out), 0);
  EXPECT_EQ(out.nap, 3);
  EXPECT_LT(haversine(out.latitude, out.longitude, aps[0].latitude, aps[0].longitude), 30.0);
  EXPECT_EQ(out.time, SPI::Time::now());

  // A scan that no tile knows is collected with position 0.
  LocationDeterminationPrivate::resetTracesForTesting();
  clock_.advance(1000);
  Location none;
  EXPECT_EQ(local->determineLocationLocally(nullptr, {ScannedAccessPoint(MAC::fromValue(0x0C0000000001ULL), -70)}, {}, none), 6);
  local->close();
  local->set_tier2_area(nullptr, 0);  // closes and queues the file
  EXPECT_EQ(local->tier2Collection(), nullptr);

  std::vector<std::string> lines;
  for (const auto& entry : fs::directory_iterator(area)) {
    gzFile f = gzopen(entry.path().c_str(), "rb");
    ASSERT_NE(f, nullptr);
    char buffer[4096];
    int n;
    std::string text;
    while ((n = gzread(f, buffer, sizeof buffer)) > 0) text.append(buffer, static_cast<size_t>(n));
    gzclose(f);
    for (size_t start = 0, end; (end = text.find('\n', start)) != std::string::npos; start = end + 1) {
      lines.push_back(text.substr(start, end - start));
    }
  }
  ASSERT_EQ(lines.size(), 2u);
  char position[64];
  std::snprintf(position, sizeof position, "\tcarol\t%.6f\t%.6f\t0B0000000001\t-77\t0A0000000001\t-60", out.latitude, out.longitude);
  EXPECT_NE(lines[0].find(position), std::string::npos) << lines[0];
  EXPECT_NE(lines[1].find("\tcarol\t0.000000\t0.000000\t0C0000000001\t-70"), std::string::npos) << lines[1];
}

}  // namespace
}  // namespace API
}  // namespace WPS
