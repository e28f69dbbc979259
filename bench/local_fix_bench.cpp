// A whole local fix (`determineLocationLocally`) for a scan of 20 known access
// points with 10 realm-bound tile files open: database look-ups (found-MAC
// cache, then the files), gating, weighting, speed, bearing, smoothing and
// the traces. Time is simulated, one scan every two seconds, so every step of
// the computation runs as on a walking device.
//
//   BM_LocalFixSameAccessPoints  the same 20 access points each time (a device
//                                that stays in one place: found-MAC cache hits)
//   BM_LocalFixNewAccessPoints   20 access points drawn from 2,000 nearby ones
//                                each time (mostly cache misses: file look-ups)
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "wps/api/local/location_determination_private.h"
#include "wps/api/tiles/tile_writer.h"
#include "wps/spi/file.h"
#include "wps/spi/simulated_clock.h"

namespace {

using WPS::API::LocatedAccessPoint;
using WPS::API::Location;
using WPS::API::LocationDeterminationLocal;
using WPS::API::LocationDeterminationPrivate;
using WPS::SPI::MAC;
using WPS::SPI::ScannedAccessPoint;

constexpr int kFiles = 10;
constexpr size_t kAccessPointsPerFile = 20000;
constexpr size_t kNearby = 2000;  // in the last file, within about 300 m
const char kRealm[] = "bench.realm";

struct Fixture {
  std::string directory;
  std::vector<LocatedAccessPoint> nearby;

  Fixture() {
    const char* tmp = std::getenv("TMPDIR");
    directory = std::string(tmp ? tmp : "/tmp") + "/zonara_local_fix_bench";
    (void)WPS::SPI::Directory::create(directory);
    std::mt19937_64 rng(99);
    uint64_t mac = 0x000100000000ULL;
    for (int f = 0; f < kFiles; ++f) {
      // Each file covers its own square degree; the last one holds the scans.
      const double south = 40.0 + f, west = 2.0 + f;
      std::uniform_real_distribution<double> lat(south, south + 1.0), lon(west, west + 1.0);
      std::uniform_real_distribution<double> nearLat(south + 0.5, south + 0.5027), nearLon(west + 0.5, west + 0.504);
      std::vector<LocatedAccessPoint> aps;
      for (size_t i = 0; i < kAccessPointsPerFile; ++i) {
        LocatedAccessPoint ap;
        ap.mac = MAC::fromValue(mac += 1 + rng() % 1000);
        const bool near = f == kFiles - 1 && i < kNearby;
        ap.latitude = near ? nearLat(rng) : lat(rng);
        ap.longitude = near ? nearLon(rng) : lon(rng);
        ap.reliabilityCount = 18 + static_cast<uint32_t>(rng() % 100);
        ap.signalExponent = 0.2 + (rng() % 100) / 400.0;
        aps.push_back(ap);
        if (near) nearby.push_back(ap);
      }
      WPS::API::TileWriterOptions options;
      options.realm = kRealm;
      std::vector<unsigned char> bytes;
      std::string error;
      const std::string path = directory + "/tiles" + std::to_string(f) + ".wps";
      if (!WPS::API::buildTileFile(aps, options, bytes, error) || !WPS::API::writeTileFile(path, bytes, error)) {
        std::fprintf(stderr, "cannot build %s: %s\n", path.c_str(), error.c_str());
        std::abort();
      }
    }
  }
};

Fixture& fixture() {
  static Fixture f;
  return f;
}

std::vector<ScannedAccessPoint> scanOf(const std::vector<LocatedAccessPoint>& aps, std::mt19937_64& rng) {
  std::vector<ScannedAccessPoint> scan;
  std::uniform_int_distribution<int> rssi(-90, -45);
  for (const auto& ap : aps) scan.emplace_back(ap.mac, static_cast<int16_t>(rssi(rng)));
  return scan;
}

void runFixes(benchmark::State& state, bool newAccessPoints) {
  Fixture& f = fixture();
  WPS::SPI::SimulatedClock clock(WPS::SPI::Time(1700000000, 0));
  WPS::SPI::ScopedClock scoped(clock);
  LocationDeterminationPrivate::resetTracesForTesting();
  auto local = LocationDeterminationLocal::newInstance();
  const char* paths[] = {f.directory.c_str(), nullptr};
  local->set_paths(paths);
  if (local->open(WPS::API::SimpleAuthentication("bench", kRealm)) != 0) std::abort();

  std::mt19937_64 rng(5);
  std::vector<std::vector<ScannedAccessPoint>> scans;
  for (int s = 0; s < 64; ++s) {
    std::vector<LocatedAccessPoint> chosen;
    const size_t start = newAccessPoints ? (s * 20) % (kNearby - 20) : 0;
    chosen.assign(f.nearby.begin() + static_cast<std::ptrdiff_t>(start),
                  f.nearby.begin() + static_cast<std::ptrdiff_t>(start + 20));
    scans.push_back(scanOf(chosen, rng));
  }
  size_t i = 0, found = 0;
  for (auto _ : state) {
    Location out;
    found += local->determineLocationLocally(nullptr, scans[i], {}, out) == 0;
    benchmark::DoNotOptimize(out);
    i = (i + 1) % scans.size();
    clock.advance(2000);
  }
  if (found == 0) state.SkipWithError("no fix found");
  state.SetItemsProcessed(state.iterations());
  local->close();
}

void BM_LocalFixSameAccessPoints(benchmark::State& state) { runFixes(state, false); }
BENCHMARK(BM_LocalFixSameAccessPoints);

void BM_LocalFixNewAccessPoints(benchmark::State& state) { runFixes(state, true); }
BENCHMARK(BM_LocalFixNewAccessPoints);

}  // namespace

BENCHMARK_MAIN();
