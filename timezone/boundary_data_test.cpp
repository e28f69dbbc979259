// The look-up on the real boundary data, checked against a slow path written
// here: the published quadtree descended in the JSON, the cell's geobuf decoded
// with protozero and every ring tested. Needs the geo-tz data (scripts/setup);
// skipped without it unless ZONARA_REQUIRE_TZ_DATA is set, then it fails.
#define PROTOZERO_USE_VIEW std::string_view
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <protozero/pbf_reader.hpp>
#include <random>
#include <sstream>
#include <sys/stat.h>

#include "timezone/boundary_index.h"
#include "timezone/tzdata_convert.h"

namespace zonara::timezone {
namespace {

bool exists(const std::string& p) {
  struct stat st{};
  return stat(p.c_str(), &st) == 0;
}

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

// ---- the slow path ----

struct Ring {
  std::vector<std::pair<double, double>> pts;  // lon, lat degrees
};
struct Feature {
  std::string tzid;
  std::vector<Ring> rings;
};

std::vector<Feature> decodeCell(std::string_view blob) {
  std::vector<Feature> features;
  protozero::pbf_reader data(blob);
  std::string_view fc;
  while (data.next()) {
    if (data.tag() == 4) fc = data.get_view(); else data.skip();
  }
  protozero::pbf_reader collection(fc);
  while (collection.next(1)) {
    Feature f;
    std::vector<uint32_t> lengths;
    std::vector<int64_t> coords;
    uint32_t type = 0;
    protozero::pbf_reader feature(collection.get_view());
    while (feature.next()) {
      if (feature.tag() == 1) {
        protozero::pbf_reader g(feature.get_view());
        while (g.next()) {
          if (g.tag() == 1) type = g.get_enum();
          else if (g.tag() == 2) { auto r = g.get_packed_uint32(); lengths.assign(r.begin(), r.end()); }
          else if (g.tag() == 3) { auto r = g.get_packed_sint64(); coords.assign(r.begin(), r.end()); }
          else g.skip();
        }
      } else if (feature.tag() == 13) {
        protozero::pbf_reader v(feature.get_view());
        while (v.next()) {
          if (v.tag() == 1) f.tzid = std::string(v.get_view()); else v.skip();
        }
      } else {
        feature.skip();
      }
    }
    std::vector<uint32_t> ringLengths;
    if (lengths.empty()) ringLengths.push_back(uint32_t(coords.size() / 2));
    else if (type == 4) ringLengths = lengths;
    else for (size_t i = 1, p = 0; p < lengths[0]; ++p) for (uint32_t r = lengths[i++]; r > 0; --r) ringLengths.push_back(lengths[i++]);
    size_t at = 0;
    for (uint32_t n : ringLengths) {
      Ring ring;
      int64_t x = 0, y = 0;
      for (uint32_t k = 0; k < n; ++k, at += 2) {
        x += coords[at];
        y += coords[at + 1];
        ring.pts.push_back({x / 1e6, y / 1e6});
      }
      f.rings.push_back(std::move(ring));
    }
    features.push_back(std::move(f));
  }
  return features;
}

bool inside(const std::vector<Ring>& rings, double lat, double lon) {
  bool in = false;
  for (const Ring& r : rings) {
    for (size_t i = 0, j = r.pts.size() - 1; i < r.pts.size(); j = i++) {
      auto [xi, yi] = r.pts[i];
      auto [xj, yj] = r.pts[j];
      if ((yi > lat) != (yj > lat) && lon < xi + (lat - yi) * (xj - xi) / (yj - yi)) in = !in;
    }
  }
  return in;
}

class SlowPath {
 public:
  SlowPath(const std::string& dir) {
    index_ = nlohmann::json::parse(readFile(dir + "/timezones.geojson.index.json"));
    geo_ = readFile(dir + "/timezones.geojson.geo.dat");
  }

  // The zones at a point, empty for the ocean; *cellFeatures gets the cell's polygons when it has any.
  struct Bounds {
    double lat0, lat1, lon0, lon1;
    // Is the edge on the cell's border (made by clipping the polygons to the cell)?
    bool onBorder(std::pair<double, double> a, std::pair<double, double> b) const {
      auto on = [](double u, double v, double line) { return std::abs(u - line) < 2e-6 && std::abs(v - line) < 2e-6; };
      return on(a.first, b.first, lon0) || on(a.first, b.first, lon1) || on(a.second, b.second, lat0) || on(a.second, b.second, lat1);
    }
  };

  std::vector<std::string> zonesAt(double lat, double lon, std::vector<Feature>* cellFeatures = nullptr, Bounds* bounds = nullptr) const {
    lat = std::clamp(lat, -89.9999, 89.9999);
    lon = std::clamp(lon, -179.9999, 179.9999);
    double lat0 = -89.9999, lat1 = 89.9999, lon0 = -179.9999, lon1 = 179.9999;
    const nlohmann::json* node = &index_["lookup"];
    std::vector<std::string> zones;
    while (node->is_object() && !node->contains("pos")) {
      double latMid = (lat0 + lat1) / 2, lonMid = (lon0 + lon1) / 2;
      bool north = lat >= latMid, east = lon >= lonMid;
      const char* key = north ? (east ? "a" : "b") : (east ? "d" : "c");
      (north ? lat0 : lat1) = latMid;
      (east ? lon0 : lon1) = lonMid;
      if (!node->contains(key)) return zones;
      node = &(*node)[key];
    }
    if (node->is_array()) {
      for (const auto& z : *node) zones.push_back(index_["timezones"][z.get<size_t>()]);
      return zones;
    }
    std::vector<Feature> features = decodeCell(std::string_view(geo_).substr((*node)["pos"], (*node)["len"]));
    for (const auto& f : features) {
      if (inside(f.rings, lat, lon) && std::find(zones.begin(), zones.end(), f.tzid) == zones.end()) zones.push_back(f.tzid);
    }
    if (cellFeatures) *cellFeatures = std::move(features);
    if (bounds) *bounds = {lat0, lat1, lon0, lon1};
    return zones;
  }

 private:
  nlohmann::json index_;
  std::string geo_;
};

std::string band(double lon) {
  int offset = std::clamp(int(std::floor((lon + 7.5) / 15)), -12, 12);
  return offset == 0 ? "Etc/GMT" : offset > 0 ? "Etc/GMT-" + std::to_string(offset) : "Etc/GMT+" + std::to_string(-offset);
}

// ---- the fixture: the data file and the slow path, made once ----

class RealData : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    std::string dir = ZONARA_GEO_TZ_DATA_DIR;
    std::string file = ZONARA_TZ_BOUNDARY_FILE;
    if (!exists(dir + "/timezones.geojson.index.json")) {
      missing_ = "the geo-tz data is not in " + dir + " (run scripts/setup)";
      return;
    }
    std::string error;
    if (exists(file)) index_ = BoundaryIndex::open(file, &error).release();
    if (!index_) {
      // No usable build-time file: convert the package here (kept for the next run).
      const char* tmp = std::getenv("ZONARA_TEST_TMPDIR");
      file = std::string(tmp ? tmp : "/tmp") + "/timezone-boundaries.dat";
      index_ = BoundaryIndex::open(file, &error).release();
      if (!index_ && !convertBoundaryData(dir + "/timezones.geojson.index.json", dir + "/timezones.geojson.geo.dat", file,
                                          "test conversion", nullptr, &error)) {
        missing_ = "conversion failed: " + error;
        return;
      }
      if (!index_) index_ = BoundaryIndex::open(file, &error).release();
    }
    if (!index_) missing_ = "cannot open " + file + ": " + error;
    slow_ = new SlowPath(dir);
  }
  static void TearDownTestSuite() {
    delete index_;
    delete slow_;
    index_ = nullptr;
    slow_ = nullptr;
  }
  void SetUp() override {
    if (missing_.empty()) return;
    if (std::getenv("ZONARA_REQUIRE_TZ_DATA")) FAIL() << missing_;
    GTEST_SKIP() << missing_;
  }

  std::vector<std::string> fast(double lat, double lon) const {
    std::string error;
    auto z = index_->zonesAt(lat, lon, &error);
    EXPECT_TRUE(z.has_value()) << error;
    return z.value_or(std::vector<std::string>{});
  }
  std::vector<std::string> slow(double lat, double lon) const {
    auto z = slow_->zonesAt(lat, lon);
    if (z.empty()) {
      z.push_back(band(lon));
      if (std::abs(lon) == 180) z.push_back(band(-lon));
    }
    return z;
  }

  static inline std::string missing_;
  static inline BoundaryIndex* index_ = nullptr;
  static inline SlowPath* slow_ = nullptr;
};

TEST_F(RealData, AgreesWithTheSlowPathOnRandomPoints) {
  std::mt19937_64 rng(16);
  std::uniform_real_distribution<double> lat(-90, 90), lon(-180, 180);
  for (int i = 0; i < 4000; ++i) {
    double a = lat(rng), o = lon(rng);
    ASSERT_EQ(fast(a, o), slow(a, o)) << a << " " << o;
  }
}

TEST_F(RealData, AgreesNearThePolesAndTheDateLine) {
  std::mt19937_64 rng(17);
  std::uniform_real_distribution<double> unit(0, 1), lon(-180, 180);
  for (int i = 0; i < 1000; ++i) {
    double polar = 85 + 5 * unit(rng), dateLine = 179.9 + 0.1 * unit(rng), a = -90 + 180 * unit(rng);
    for (auto [la, lo] : {std::pair{polar, lon(rng)}, {-polar, lon(rng)}, {a, dateLine}, {a, -dateLine}}) {
      ASSERT_EQ(fast(la, lo), slow(la, lo)) << la << " " << lo;
    }
  }
  for (double a : {-90.0, -89.99995, -45.0, 0.0, 45.0, 65.5, 89.99995, 90.0}) {
    for (double o : {-180.0, 180.0}) EXPECT_EQ(fast(a, o), slow(a, o)) << a << " " << o;
  }
}

// Pairs of points a few metres either side of real edges of the data, and what
// the distance and radius queries must say about them.
TEST_F(RealData, AgreesAFewMetresEitherSideOfBoundaries) {
  std::mt19937_64 rng(18);
  std::uniform_real_distribution<double> lat(-60, 75), lon(-180, 180);
  const double metresPerDegree = 6371008.8 * M_PI / 180, offset = 3;
  int pairs = 0, borders = 0;
  for (int tries = 0; tries < 20000 && pairs < 2000; ++tries) {
    std::vector<Feature> features;
    SlowPath::Bounds bounds;
    double a = lat(rng), o = lon(rng);
    slow_->zonesAt(a, o, &features, &bounds);
    if (features.empty()) continue;
    const Feature& f = features[rng() % features.size()];
    const Ring& r = f.rings[rng() % f.rings.size()];
    size_t k = rng() % r.pts.size();
    auto [x1, y1] = r.pts[k];
    auto [x2, y2] = r.pts[(k + 1) % r.pts.size()];
    double t = 0.25 + 0.5 * std::uniform_real_distribution<double>(0, 1)(rng);
    double mx = x1 + t * (x2 - x1), my = y1 + t * (y2 - y1), c = std::cos(my * M_PI / 180);
    double ex = (x2 - x1) * c * metresPerDegree, ey = (y2 - y1) * metresPerDegree, len = std::hypot(ex, ey);
    if (len < 4 * offset) continue;  // too short to stand beside
    double nx = -ey / len * offset / (c * metresPerDegree), ny = ex / len * offset / metresPerDegree;
    double p[2][2] = {{my + ny, mx + nx}, {my - ny, mx - nx}};
    if (std::abs(mx) + std::abs(nx) > 179.9999) continue;
    ++pairs;
    for (auto& q : p) ASSERT_EQ(fast(q[0], q[1]), slow(q[0], q[1])) << q[0] << " " << q[1];
    auto zonesA = slow(p[0][0], p[0][1]), zonesB = slow(p[1][0], p[1][1]);
    std::sort(zonesA.begin(), zonesA.end());
    std::sort(zonesB.begin(), zonesB.end());
    if (zonesA == zonesB || bounds.onBorder(r.pts[k], r.pts[(k + 1) % r.pts.size()])) continue;  // no boundary here
    ++borders;
    for (int s = 0; s < 2; ++s) {
      std::string error;
      auto d = index_->borderDistance(p[s][0], p[s][1], &error);
      ASSERT_TRUE(d.has_value()) << error;
      EXPECT_LE(*d, offset * 1.05) << p[s][0] << " " << p[s][1];
      auto near = index_->zonesWithin(p[s][0], p[s][1], 3 * offset, &error);
      ASSERT_TRUE(near.has_value()) << error;
      for (const auto& z : s == 0 ? zonesB : zonesA) {
        EXPECT_NE(std::find(near->begin(), near->end(), z), near->end()) << z << " near " << p[s][0] << " " << p[s][1];
      }
    }
  }
  EXPECT_GE(pairs, 1000);
  EXPECT_GE(borders, 200);
}

TEST_F(RealData, PrincipalCitiesOfZoneTabGiveTheirZone) {
  std::ifstream tab("/usr/share/zoneinfo/zone.tab");
  ASSERT_TRUE(tab.good()) << "zone.tab missing (package tzdata)";
  auto parse = [](const std::string& s, size_t degreeDigits) {
    double sign = s[0] == '-' ? -1 : 1;
    double deg = std::stod(s.substr(1, degreeDigits)), min = std::stod(s.substr(1 + degreeDigits, 2));
    double sec = s.size() > 3 + degreeDigits ? std::stod(s.substr(3 + degreeDigits, 2)) : 0;
    return sign * (deg + min / 60 + sec / 3600);
  };
  std::string line;
  int cities = 0;
  while (std::getline(tab, line)) {
    if (line.empty() || line[0] == '#') continue;
    std::istringstream fields(line);
    std::string country, coords, zone;
    fields >> country >> coords >> zone;
    size_t split = coords.find_first_of("+-", 1);
    double lat = parse(coords.substr(0, split), 2), lon = parse(coords.substr(split), 3);
    ++cities;
    auto zones = fast(lat, lon);
    ASSERT_FALSE(zones.empty());
    if (zone == "Europe/Monaco") {
      EXPECT_EQ(zones[0], "Europe/Paris");  // the data draws Monaco's listed point in France
      continue;
    }
    EXPECT_EQ(zones[0], zone) << coords;
  }
  EXPECT_GT(cities, 400);
}

TEST_F(RealData, KnownPlaces) {
  EXPECT_EQ(fast(50.85, 4.35), std::vector<std::string>{"Europe/Brussels"});
  EXPECT_EQ(index_->zoneCount(), 419u);
  EXPECT_FALSE(index_->release().empty());
  std::string error;
  auto paris = index_->borderDistance(48.8566, 2.3522, &error);
  ASSERT_TRUE(paris.has_value());
  EXPECT_EQ(*paris, 100000);  // more than 100 km from any other zone
  auto basel = index_->zonesWithin(47.56, 7.59, 10000, &error);
  ASSERT_TRUE(basel.has_value());
  EXPECT_EQ(basel->front(), "Europe/Zurich");
  for (const char* z : {"Europe/Paris", "Europe/Berlin"}) EXPECT_NE(std::find(basel->begin(), basel->end(), z), basel->end()) << z;
}

}  // namespace
}  // namespace zonara::timezone
