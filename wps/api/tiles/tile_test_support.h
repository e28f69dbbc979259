// Helpers shared by the tile tests and benchmarks: random access points,
// tile files in memory behind guard pages, temporary files, and hostile files.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "wps/api/tiles/compressed_file_reader.h"
#include "wps/api/tiles/located_access_point.h"
#include "wps/api/tiles/md4.h"
#include "wps/api/tiles/tile_writer.h"
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

// Rewrites a file's trailer after changing its body, as a server bug would.
inline std::vector<unsigned char> withTrailer(std::vector<unsigned char> bytes, const std::string& realm) {
  unsigned char digest[kMD4DigestSize];
  MD4(std::string(fileHEAD) + realm, digest);
  std::copy(digest, digest + kMD4DigestSize, bytes.end() - kMD4DigestSize);
  return bytes;
}

// Bits written most significant first, as the tile header holds them.
class BitPacker {
 public:
  void put(uint64_t value, unsigned bits) {
    for (unsigned i = bits; i-- > 0;) {
      if (used_ % 8 == 0) bytes_.push_back(0);
      if ((value >> i) & 1) bytes_.back() |= static_cast<unsigned char>(0x80 >> (used_ % 8));
      ++used_;
    }
  }
  std::vector<unsigned char> bytes() const { return bytes_; }

 private:
  std::vector<unsigned char> bytes_;
  unsigned used_ = 0;
};

inline void appendBE32(std::vector<unsigned char>& out, uint32_t value) {
  for (int shift = 24; shift >= 0; shift -= 8) out.push_back(static_cast<unsigned char>(value >> shift));
}

// An unbound file built to stall a reader: one tile header with an index of
// 24,000 keys all 0 (block lengths 0), and 65,535 tiles, the first
// `tileLength` bytes long and all others of length 0, so they share that
// header (about 454 KB). A reader that trusted it would walk every index of
// every tile for each absent MAC.
inline std::vector<unsigned char> stallingTileFile(uint32_t tileLength) {
  std::vector<unsigned char> file(fileHEAD, fileHEAD + fileHEADSZ);
  BitPacker header;
  header.put(1, 3);                                        // precision code 1, P = 12
  header.put(4096, 20);                                    // origin latitude 1 degree
  header.put(8192, 21);                                    // origin longitude 2 degrees
  for (unsigned width : {3u, 4u, 2u, 1u}) header.put(width, width == 3u || width == 4u ? 5 : 3);
  const auto headerBytes = header.bytes();
  file.insert(file.end(), headerBytes.begin(), headerBytes.end());
  const unsigned entries = 24000;
  for (int twice = 0; twice < 2; ++twice) encodeVLEU(entries, file);  // records, index keys
  file.resize(file.size() + 8 * entries - 2, 0);                        // every key and block length 0
  file.resize(file.size() + 16, 0);                                     // some records
  for (unsigned i = 0; i < 0xFFFF; ++i) appendBE32(file, i == 0 ? tileLength : 0);
  file.push_back(0xFF);
  file.push_back(0xFF);
  file.resize(file.size() + kMD4DigestSize);
  return withTrailer(file, "");
}

}  // namespace testing
}  // namespace API
}  // namespace WPS
