// Fuzz target: arbitrary bytes opened as a time-zone boundary file, then zones,
// border distances and zones within a radius looked up.
//
// The first input byte picks how the rest is used: with bit 0 set, the rest
// gets its header's file size and checksums made right (so the fuzzer reaches
// the grid, cell records and edge chains instead of stopping at a checksum);
// otherwise the rest is the whole file. Points come from the input's last 16
// bytes plus a few fixed ones. The file lives in a memfd, so BoundaryIndex maps
// it exactly as it maps a file on disk.
#include <sys/mman.h>
#include <unistd.h>

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "timezone/boundary_index.h"
#include "timezone/boundary_test_data.h"
#include "timezone/tzdata_convert.h"

namespace {

double scaled(const uint8_t* p, double range) {
  uint32_t v;
  std::memcpy(&v, p, 4);
  return (double(v) / 4294967295.0 * 2 - 1) * range;
}

}  // namespace

// A valid boundary file (the tests' small world) to start mutating from, with
// the header fix-up selected (used by the standalone driver).
std::vector<unsigned char> boundaryFuzzSeed() {
  std::string dir = "/tmp";
  auto [index, geo] = zonara::timezone::testing::writeSmallWorld(dir);
  std::string out = dir + "/timezone_boundaries_fuzz_seed.dat", error;
  if (!zonara::timezone::convertBoundaryData(index, geo, out, "fuzz seed", nullptr, &error)) return {};
  std::ifstream in(out, std::ios::binary);
  std::vector<unsigned char> bytes{1};
  bytes.insert(bytes.end(), std::istreambuf_iterator<char>(in), {});
  return bytes;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  std::string file(reinterpret_cast<const char*>(data + 1), size - 1);
  if (data[0] & 1) zonara::timezone::testing::fixHeader(file);
  int fd = memfd_create("timezone_boundaries_fuzz", MFD_CLOEXEC);
  if (fd < 0) return 0;
  if (write(fd, file.data(), file.size()) != ssize_t(file.size())) {
    close(fd);
    return 0;
  }
  std::string error;
  auto index = zonara::timezone::BoundaryIndex::open("/proc/self/fd/" + std::to_string(fd), &error);
  close(fd);
  if (!index) return 0;
  std::vector<std::pair<double, double>> points{{15, -95}, {35, -45}, {-45, 90}, {20.1, -90}, {0, 0}, {90, 180}, {-90, -180}};
  if (size >= 17) points.push_back({scaled(data + size - 16, 90), scaled(data + size - 12, 180)});
  for (auto [lat, lon] : points) {
    (void)index->zonesAt(lat, lon, &error);
    (void)index->borderDistance(lat, lon, &error);
    (void)index->zonesWithin(lat, lon, 200000, &error);
  }
  (void)index->release();
  (void)index->zoneCount();
  return 0;
}
