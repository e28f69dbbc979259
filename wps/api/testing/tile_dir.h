// Test helpers for downloaded tiles: a fresh directory per test, tile files of
// random access points around a point, and scans made of those access points.
#pragma once

#include <dirent.h>
#include <sys/stat.h>

#include <fstream>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "wps/api/testing/fake_positioning_server.h"
#include "wps/api/tiles/located_access_point.h"
#include "wps/api/tiles/tile_test_support.h"
#include "wps/spi/scan.h"
#include "wps/spi/testing/temp_dir.h"
#include "wps/spi/time.h"

namespace WPS {
namespace API {
namespace testing {

// A new empty tiles directory under the test's scratch folder, removed with
// its files at the end.
class TileDir {
 public:
  TileDir() : dir_("tiles-") {}

  [[nodiscard]] const std::string& path() const { return dir_.path(); }
  [[nodiscard]] std::string file(const std::string& name) const { return dir_.file(name); }
  [[nodiscard]] bool has(const std::string& name) const {
    struct stat st {};
    return ::stat(file(name).c_str(), &st) == 0;
  }
  // Names of the entries, sorted.
  [[nodiscard]] std::set<std::string> names() const {
    std::set<std::string> out;
    if (DIR* dir = ::opendir(path().c_str())) {
      while (dirent* entry = ::readdir(dir)) {
        const std::string name = entry->d_name;
        if (name != "." && name != "..") out.insert(name);
      }
      ::closedir(dir);
    }
    return out;
  }
  void write(const std::string& name, const std::string& bytes) const {
    std::ofstream(file(name), std::ios::binary | std::ios::trunc).write(bytes.data(),
                                                                        static_cast<std::streamsize>(bytes.size()));
  }

 private:
  zonara::testing::TempDir dir_;
};

// `count` access points within about 0.01 degrees of (lat, lon).
inline std::vector<LocatedAccessPoint> accessPointsAround(uint64_t seed, size_t count, double lat, double lon) {
  std::mt19937_64 rng(seed);
  return randomAccessPoints(rng, count, lat - 0.01, lat + 0.01, lon - 0.01, lon + 0.01);
}

// A tile file of `aps` for `realm`.
inline std::string tileFile(const std::vector<LocatedAccessPoint>& aps, const std::string& realm) {
  return FakePositioningServer::makeTileFile(aps, realm);
}

// A scan of the given access points, seen `ageMs` milliseconds ago.
inline std::vector<SPI::ScannedAccessPoint> scanOf(const std::vector<LocatedAccessPoint>& aps, int64_t ageMs = 0) {
  SPI::Time now = SPI::Time::now();
  int64_t ms = int64_t{now.seconds} * 1000 + now.milliseconds - ageMs;
  SPI::Time seen(static_cast<int32_t>(ms / 1000), static_cast<int32_t>(ms % 1000));
  std::vector<SPI::ScannedAccessPoint> scan;
  for (const LocatedAccessPoint& ap : aps) scan.emplace_back(ap.mac, -60, "net", seen);
  return scan;
}

}  // namespace testing
}  // namespace API
}  // namespace WPS
