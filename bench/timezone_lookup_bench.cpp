// Time-zone look-ups in the boundary data file: times one call at a time and
// prints medians and percentiles (a harness, not a Google Benchmark, because
// the targets are on percentiles), the time to open the file, its size and the
// process's private memory after a million look-ups.
//
//   timezone_lookup_bench [DATA_FILE]     (default: the build tree's file)
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "timezone/boundary_index.h"

namespace {

using zonara::timezone::BoundaryIndex;
using Clock = std::chrono::steady_clock;

struct Point {
  double lat, lon;
};

long statusKb(const char* key) {
  std::ifstream in("/proc/self/status");
  std::string line;
  while (std::getline(in, line)) {
    if (line.rfind(key, 0) == 0) return std::stol(line.substr(std::string(key).size() + 1));
  }
  return -1;
}

// Nanoseconds of each call of f over the points.
template <typename F>
std::vector<double> timeEach(const std::vector<Point>& points, F&& f) {
  std::vector<double> ns;
  ns.reserve(points.size());
  for (const Point& p : points) {
    auto t0 = Clock::now();
    f(p);
    auto t1 = Clock::now();
    ns.push_back(std::chrono::duration<double, std::nano>(t1 - t0).count());
  }
  return ns;
}

double percentile(std::vector<double> v, double q) {
  std::sort(v.begin(), v.end());
  return v[std::min(v.size() - 1, size_t(q * double(v.size())))];
}

void report(const char* what, const std::vector<double>& ns) {
  std::printf("%-52s n=%-7zu median %8.0f ns   p90 %8.0f ns   p99 %8.0f ns   max %9.0f ns\n", what, ns.size(),
              percentile(ns, 0.5), percentile(ns, 0.9), percentile(ns, 0.99), percentile(ns, 1.0));
}

bool isOcean(const std::vector<std::string>& zones) { return zones[0].rfind("Etc/", 0) == 0; }

// Random points, uniform over the sphere, on land (a named zone) or not.
std::vector<Point> randomPoints(const BoundaryIndex& index, size_t n, bool landOnly, uint64_t seed) {
  std::mt19937_64 rng(seed);
  std::uniform_real_distribution<double> u(-1, 1), lon(-180, 180);
  std::vector<Point> out;
  std::string error;
  while (out.size() < n) {
    Point p{std::asin(u(rng)) * 180 / M_PI, lon(rng)};
    if (!landOnly || !isOcean(*index.zonesAt(p.lat, p.lon, &error))) out.push_back(p);
  }
  return out;
}

// Land points within `metres` of a boundary between zones.
std::vector<Point> pointsNearBoundaries(const BoundaryIndex& index, size_t n, double metres, uint64_t seed) {
  std::mt19937_64 rng(seed);
  std::vector<Point> seeds = randomPoints(index, 2000, true, seed);
  std::normal_distribution<double> jitter(0, 0.2);
  std::vector<Point> out;
  std::string error;
  // Walk from land points in random directions until near a boundary.
  for (size_t i = 0; out.size() < n; ++i) {
    Point p = seeds[i % seeds.size()];
    for (int step = 0; step < 400 && out.size() < n; ++step) {
      p.lat = std::clamp(p.lat + jitter(rng), -89.0, 89.0);
      p.lon = std::clamp(p.lon + jitter(rng), -179.9, 179.9);
      auto d = index.borderDistance(p.lat, p.lon, &error);
      if (d && *d < metres && !isOcean(*index.zonesAt(p.lat, p.lon, &error))) out.push_back(p);
    }
  }
  return out;
}

std::vector<Point> zoneTabCities() {
  std::vector<Point> out;
  std::ifstream tab("/usr/share/zoneinfo/zone.tab");
  std::string line;
  auto parse = [](const std::string& s, size_t degreeDigits) {
    double sign = s[0] == '-' ? -1 : 1;
    double v = std::stod(s.substr(1, degreeDigits)) + std::stod(s.substr(1 + degreeDigits, 2)) / 60;
    if (s.size() > 3 + degreeDigits) v += std::stod(s.substr(3 + degreeDigits, 2)) / 3600;
    return sign * v;
  };
  while (std::getline(tab, line)) {
    if (line.empty() || line[0] == '#') continue;
    std::istringstream fields(line);
    std::string country, coords;
    fields >> country >> coords;
    size_t split = coords.find_first_of("+-", 1);
    out.push_back({parse(coords.substr(0, split), 2), parse(coords.substr(split), 3)});
  }
  return out;
}

void benchOpen(const std::string& path) {
  std::vector<double> ns;
  std::string error;
  for (int i = 0; i < 200; ++i) {
    auto t0 = Clock::now();
    auto index = BoundaryIndex::open(path, &error);
    auto t1 = Clock::now();
    if (!index) return;
    ns.push_back(std::chrono::duration<double, std::nano>(t1 - t0).count());
  }
  std::printf("%-52s median %8.3f ms   max %8.3f ms\n", "open (page cache warm)", percentile(ns, 0.5) / 1e6, percentile(ns, 1.0) / 1e6);
}

}  // namespace

int main(int argc, char** argv) {
  std::string path = argc > 1 ? argv[1] : ZONARA_TZ_BOUNDARY_FILE;
  long anonAtStart = statusKb("RssAnon:");
  std::string error;
  auto index = BoundaryIndex::open(path, &error);
  if (!index) {
    std::fprintf(stderr, "timezone_lookup_bench: %s\n", error.c_str());
    return 1;
  }
  struct stat st{};
  stat(path.c_str(), &st);
  std::printf("file %s: %.1f MB, %zu zones, %s\n", path.c_str(), double(st.st_size) / 1e6, index->zoneCount(), index->release().c_str());

  // A million random look-ups first, for the private-memory figure (points made as they go).
  long anonBefore = statusKb("RssAnon:");
  size_t sink = 0;
  std::mt19937_64 rng(1);
  std::uniform_real_distribution<double> u(-1, 1), lon(-180, 180);
  for (int i = 0; i < 1000000; ++i) sink += index->zonesAt(std::asin(u(rng)) * 180 / M_PI, lon(rng), &error)->size();
  std::printf("RssAnon: %ld kB at start, %ld kB after opening, %ld kB after 1,000,000 random look-ups; RssFile %ld kB\n",
              anonAtStart, anonBefore, statusKb("RssAnon:"), statusKb("RssFile:"));

  std::vector<Point> land = randomPoints(*index, 200000, true, 2);
  std::vector<Point> anywhere = randomPoints(*index, 200000, false, 3);
  std::vector<Point> near = pointsNearBoundaries(*index, 20000, 1000, 4);
  std::vector<Point> cities = zoneTabCities();
  auto zonesAt = [&](const Point& p) { sink += index->zonesAt(p.lat, p.lon, &error)->size(); };
  auto border = [&](const Point& p) { sink += size_t(*index->borderDistance(p.lat, p.lon, &error)); };
  auto within = [&](const Point& p) { sink += index->zonesWithin(p.lat, p.lon, 10000, &error)->size(); };
  std::vector<Point> none(200000, Point{0, 0});
  report("(clock overhead: an empty timed call)", timeEach(none, [](const Point&) {}));
  report("zonesAt, random land points", timeEach(land, zonesAt));
  report("zonesAt, random points anywhere", timeEach(anywhere, zonesAt));
  report("zonesAt, land points within 1 km of a boundary", timeEach(near, zonesAt));
  report("zonesAt, principal cities of zone.tab", timeEach(cities, zonesAt));
  land.resize(20000);
  report("borderDistance, random land points", timeEach(land, border));
  report("borderDistance, points within 1 km of a boundary", timeEach(near, border));
  report("zonesWithin 10 km, random land points", timeEach(land, within));
  report("zonesWithin 10 km, points within 1 km of a boundary", timeEach(near, within));
  benchOpen(path);
  std::printf("(checksum %zu)\n", sink);
  return 0;
}
