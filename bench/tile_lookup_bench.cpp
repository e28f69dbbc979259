// Look-ups in a realm-bound tile file of 100,000 access points written by the
// project's tile writer (automatic block size): MACs that are present, MACs
// absent for the first time (every one searches the tiles), and absent MACs
// asked again (answered from the absent-MAC list). And a hostile file built to
// stall look-ups: opening it (refused) and looking a MAC up afterwards.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "wps/api/tiles/compressed_file_reader.h"
#include "wps/api/tiles/tile_test_support.h"
#include "wps/api/tiles/tile_writer.h"

namespace {

using WPS::API::CompressedFileReaderProtected;
using WPS::API::LocatedAccessPoint;
using WPS::SPI::MAC;

constexpr size_t kAccessPoints = 100000;
const char kRealm[] = "bench.realm";

struct Fixture {
  std::vector<LocatedAccessPoint> aps;
  std::string path;

  Fixture() {
    std::mt19937_64 rng(42);
    std::uniform_real_distribution<double> lat(48.0, 49.0), lon(2.0, 3.0);
    aps.reserve(kAccessPoints);
    for (size_t i = 0; i < kAccessPoints; ++i) {
      LocatedAccessPoint ap;
      ap.mac = MAC::fromValue((rng() & 0x0FFFFFFFFFULL) << 8 | (i & 0xFF));  // below 0x100000000000
      ap.latitude = lat(rng);
      ap.longitude = lon(rng);
      ap.reliabilityCount = 18 + static_cast<uint32_t>(rng() % 100);
      ap.signalExponent = 0.2 + (rng() % 100) / 400.0;
      aps.push_back(ap);
    }
    const char* dir = std::getenv("TMPDIR");
    path = std::string(dir ? dir : "/tmp") + "/zonara_tile_lookup_bench.wps";
    WPS::API::TileWriterOptions options;
    options.realm = kRealm;
    std::vector<unsigned char> bytes;
    std::string error;
    if (!WPS::API::buildTileFile(aps, options, bytes, error) || !WPS::API::writeTileFile(path, bytes, error)) {
      std::fprintf(stderr, "cannot build the benchmark file: %s\n", error.c_str());
      std::abort();
    }
  }
};

Fixture& fixture() {
  static Fixture f;
  return f;
}

std::unique_ptr<CompressedFileReaderProtected> openReader() {
  auto reader = std::make_unique<CompressedFileReaderProtected>();
  if (reader->open(kRealm, fixture().path) != 0) std::abort();
  return reader;
}

void BM_LookupPresent(benchmark::State& state) {
  auto reader = openReader();
  const auto& aps = fixture().aps;
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(reader->get(aps[i].mac));
    i = (i + 7919) % aps.size();
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_LookupPresent);

void BM_LookupAbsentFirstTime(benchmark::State& state) {
  auto reader = openReader();
  uint64_t next = 0xFE0000000000ULL;  // above every MAC of the file
  for (auto _ : state) {
    benchmark::DoNotOptimize(reader->get(MAC::fromValue(next++)));
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_LookupAbsentFirstTime);

void BM_LookupAbsentRepeated(benchmark::State& state) {
  auto reader = openReader();
  std::vector<MAC> absent;
  for (uint64_t i = 0; i < 20; ++i) absent.push_back(MAC::fromValue(0xFE0000000000ULL + i));
  for (const auto& mac : absent) (void)reader->get(mac);
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(reader->get(absent[i]));
    i = (i + 1) % absent.size();
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_LookupAbsentRepeated);

void BM_OpenFile(benchmark::State& state) {
  (void)fixture();
  for (auto _ : state) {
    CompressedFileReaderProtected reader;
    benchmark::DoNotOptimize(reader.open(kRealm, fixture().path));
  }
}
BENCHMARK(BM_OpenFile);

void BM_HostileFileOpenAndLookup(benchmark::State& state) {
  const char* dir = std::getenv("TMPDIR");
  const std::string path = std::string(dir ? dir : "/tmp") + "/zonara_tile_lookup_bench_hostile.wps";
  WPS::API::testing::writeBytes(path, WPS::API::testing::stallingTileFile(0));
  uint64_t next = 0x0012A3000000ULL;
  for (auto _ : state) {
    CompressedFileReaderProtected reader;
    benchmark::DoNotOptimize(reader.open("", path));
    benchmark::DoNotOptimize(reader.get(MAC::fromValue(next++)));
  }
  std::remove(path.c_str());
}
BENCHMARK(BM_HostileFileOpenAndLookup);

}  // namespace

BENCHMARK_MAIN();
