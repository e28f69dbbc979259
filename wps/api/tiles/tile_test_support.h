// Helpers shared by the tile tests: random access points, tile files in
// memory behind guard pages, and temporary files.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "wps/api/tiles/located_access_point.h"
#include "wps/spi/file.h"

namespace WPS {
namespace API {
namespace testing {

// A read-only copy of some bytes placed so that the byte after the last one
// (or, with `atStart`, the byte before the first one) lies on an inaccessible
// page: any read outside the bytes faults at once, sanitizer or not.
class GuardedBuffer final : public SPI::MemoryBuffer {
 public:
  explicit GuardedBuffer(const std::vector<unsigned char>& bytes, bool atStart = false) : size_(bytes.size()) {
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    const size_t dataPages = (size_ + page - 1) / page + 1;
    length_ = (dataPages + 2) * page;
    void* base = mmap(nullptr, length_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (base == MAP_FAILED) std::abort();
    region_ = static_cast<unsigned char*>(base);
    unsigned char* first = region_ + page;
    data_ = atStart ? first : first + dataPages * page - size_;
    if (size_ > 0) std::memcpy(data_, bytes.data(), size_);
    mprotect(region_, page, PROT_NONE);
    mprotect(first, dataPages * page, PROT_READ);
    mprotect(first + dataPages * page, page, PROT_NONE);
  }
  ~GuardedBuffer() override { munmap(region_, length_); }
  GuardedBuffer(const GuardedBuffer&) = delete;
  GuardedBuffer& operator=(const GuardedBuffer&) = delete;

  [[nodiscard]] const unsigned char* acquire(size_t offset, size_t length) const override {
    if (offset > size_ || length > size_ - offset) return nullptr;
    ++acquired_;
    return data_ + offset;
  }
  void release(const unsigned char*) const override {}
  [[nodiscard]] size_t size() const override { return size_; }
  // Number of ranges handed out so far.
  [[nodiscard]] unsigned acquired() const { return acquired_; }

 private:
  unsigned char* region_ = nullptr;
  unsigned char* data_ = nullptr;
  size_t length_ = 0;
  size_t size_;
  mutable unsigned acquired_ = 0;
};

// `count` access points with distinct MACs spread over the given box, with
// reliability counts and exponents the tile format holds exactly.
inline std::vector<LocatedAccessPoint> randomAccessPoints(std::mt19937_64& rng, size_t count, double south,
                                                          double north, double west, double east) {
  std::uniform_real_distribution<double> lat(south, north), lon(west, east);
  std::uniform_int_distribution<uint32_t> reliability(18, 18 + 127), exponent(0, 127);
  std::uniform_int_distribution<uint64_t> mac(1, (uint64_t{1} << 48) - 1);
  std::vector<LocatedAccessPoint> out;
  std::set<uint64_t> seen;
  while (out.size() < count) {
    LocatedAccessPoint ap;
    const uint64_t value = mac(rng);
    if (!seen.insert(value).second) continue;
    ap.mac = SPI::MAC::fromValue(value);
    ap.latitude = lat(rng);
    ap.longitude = lon(rng);
    ap.reliabilityCount = reliability(rng);
    ap.signalExponent = exponent(rng) / 381.0 + 1.0 / 6.0;
    out.push_back(ap);
  }
  return out;
}

inline std::string tempPath(const std::string& name) {
  const char* dir = std::getenv("ZONARA_TEST_TMPDIR");
  return std::string(dir ? dir : "/tmp") + "/" + name;
}

inline void writeBytes(const std::string& path, const std::vector<unsigned char>& bytes) {
  std::ofstream(path, std::ios::binary | std::ios::trunc)
      .write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

}  // namespace testing
}  // namespace API
}  // namespace WPS
