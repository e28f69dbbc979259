// Peak memory of a process that opens tile files for local positioning.
//
//   local_memory [DIR [FILES [ACCESS_POINTS_PER_FILE]]]
//
// Without tile files in DIR (default $TMPDIR/zonara_local_memory), it first
// writes FILES (default 10) realm-bound files of ACCESS_POINTS_PER_FILE
// (default 100000) access points and then runs itself again, so the figures
// come from a process that never held the writer's buffers. It prints VmHWM
// (peak resident set) and VmRSS from /proc/self/status at start, after
// opening every file, and after 1,000 local fixes of 20-access-point scans,
// with the resident set split into heap (RssAnon) and mapped file pages
// (RssFile, clean pages of the tile files that the kernel can drop).
// FIXES in the environment changes the number of fixes.
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "wps/api/local/location_determination_private.h"
#include "wps/api/tiles/tile_writer.h"
#include "wps/spi/file.h"
#include "wps/spi/simulated_clock.h"

namespace {

using WPS::API::LocatedAccessPoint;
using WPS::SPI::MAC;

const char kRealm[] = "bench.realm";

std::string status(const char* key) {
  std::ifstream in("/proc/self/status");
  std::string line;
  while (std::getline(in, line)) {
    if (line.rfind(key, 0) == 0) return line;
  }
  return std::string(key) + " ?";
}

void report(const char* when) {
  std::printf("%-24s %s  %s  %s  %s\n", when, status("VmHWM").c_str(), status("VmRSS").c_str(),
              status("RssAnon").c_str(), status("RssFile").c_str());
  std::fflush(stdout);
}

// The MACs of the access points of file `f`, regenerated from its seed.
std::vector<LocatedAccessPoint> accessPointsOf(int f, size_t count) {
  std::mt19937_64 rng(1000 + static_cast<uint64_t>(f));
  std::uniform_real_distribution<double> lat(40.0 + f, 41.0 + f), lon(2.0 + f, 3.0 + f);
  std::vector<LocatedAccessPoint> aps;
  aps.reserve(count);
  uint64_t mac = (static_cast<uint64_t>(f) + 1) << 40;
  for (size_t i = 0; i < count; ++i) {
    LocatedAccessPoint ap;
    ap.mac = MAC::fromValue(mac += 1 + rng() % 1000);
    ap.latitude = lat(rng);
    ap.longitude = lon(rng);
    ap.reliabilityCount = 18 + static_cast<uint32_t>(rng() % 100);
    ap.signalExponent = 0.2 + (rng() % 100) / 400.0;
    aps.push_back(ap);
  }
  return aps;
}

}  // namespace

int main(int argc, char** argv) {
  const char* tmp = std::getenv("TMPDIR");
  const std::string dir = argc > 1 ? argv[1] : std::string(tmp ? tmp : "/tmp") + "/zonara_local_memory";
  const int files = argc > 2 ? std::atoi(argv[2]) : 10;
  const size_t perFile = argc > 3 ? std::strtoul(argv[3], nullptr, 10) : 100000;

  const std::string first = dir + "/tiles0.wps";
  if (!WPS::SPI::File::exists(first)) {
    (void)WPS::SPI::Directory::create(dir);
    for (int f = 0; f < files; ++f) {
      std::vector<unsigned char> bytes;
      std::string error;
      WPS::API::TileWriterOptions options;
      options.realm = kRealm;
      const std::string path = dir + "/tiles" + std::to_string(f) + ".wps";
      if (!WPS::API::buildTileFile(accessPointsOf(f, perFile), options, bytes, error) ||
          !WPS::API::writeTileFile(path, bytes, error)) {
        std::fprintf(stderr, "cannot build %s: %s\n", path.c_str(), error.c_str());
        return 1;
      }
    }
    std::vector<char*> args(argv, argv + argc);
    args.push_back(nullptr);
    execv("/proc/self/exe", args.data());
    std::perror("execv");
    return 1;
  }

  report("start");
  WPS::SPI::SimulatedClock clock(WPS::SPI::Time(1700000000, 0));
  WPS::SPI::ScopedClock scoped(clock);
  auto local = WPS::API::LocationDeterminationLocal::newInstance();
  const char* paths[] = {dir.c_str(), nullptr};
  local->set_paths(paths);
  if (local->open(WPS::API::SimpleAuthentication("bench", kRealm)) != 0) return 1;
  report("after opening the files");

  // Scans of 20 access points from the last file, so the look-ups walk every
  // file before the hits make that one the first. The first 2,000 access
  // points of the file are regenerated (the same sequence), not all of them,
  // so the harness itself adds little to the figures.
  const std::vector<LocatedAccessPoint> aps = accessPointsOf(files - 1, std::min<size_t>(perFile, 2000));
  std::mt19937_64 rng(3);
  int found = 0;
  const int fixes = std::getenv("FIXES") ? std::atoi(std::getenv("FIXES")) : 1000;
  for (int i = 0; i < fixes; ++i) {
    std::vector<WPS::SPI::ScannedAccessPoint> scan;
    const size_t start = rng() % (aps.size() - 20);
    for (size_t k = 0; k < 20; ++k) scan.emplace_back(aps[start + k].mac, static_cast<int16_t>(-50 - k));
    WPS::API::Location out;
    found += local->determineLocationLocally(nullptr, scan, {}, out) == 0;
    clock.advance(2000);
  }
  const std::string after = "after " + std::to_string(fixes) + " fixes";
  report(after.c_str());
  std::printf("files %d, access points per file %zu, fixes found %d\n", files, perFile, found);
  local->close();
  return 0;
}
