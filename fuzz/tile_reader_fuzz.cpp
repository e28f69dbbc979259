// Fuzz target: arbitrary bytes opened as a tile file, then MACs looked up.
//
// The first input byte picks how the rest is used: with bit 0 set, the rest
// gets a valid trailer for the realm chosen by bit 1 (so the fuzzer reaches
// the tile parsing instead of stopping at the digest check); otherwise the
// rest is the whole file. MACs to look up come from the input itself (every
// 6 bytes) plus a few fixed ones. The bytes are held in an exact-size heap
// block, so the sanitizers see any read outside them.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "wps/api/tiles/compressed_file_reader.h"
#include "wps/api/tiles/md4.h"
#include "wps/api/tiles/tile_writer.h"

namespace {

class HeapBuffer final : public WPS::SPI::MemoryBuffer {
 public:
  HeapBuffer(const unsigned char* data, size_t size) : bytes_(new unsigned char[size == 0 ? 1 : size]), size_(size) {
    if (size > 0) std::memcpy(bytes_.get(), data, size);
  }
  const unsigned char* acquire(size_t offset, size_t length) const override {
    if (offset > size_ || length > size_ - offset) return nullptr;
    return bytes_.get() + offset;
  }
  void release(const unsigned char*) const override {}
  size_t size() const override { return size_; }

 private:
  std::unique_ptr<unsigned char[]> bytes_;
  size_t size_;
};

}  // namespace

// A valid tile file to start mutating from (used by the standalone driver).
std::vector<unsigned char> tileReaderFuzzSeed() {
  std::mt19937_64 rng(1);
  std::uniform_real_distribution<double> offset(0, 0.3);
  std::vector<WPS::API::LocatedAccessPoint> aps;
  for (int i = 0; i < 40; ++i) {
    WPS::API::LocatedAccessPoint ap;
    ap.mac = WPS::SPI::MAC::fromValue(rng() & 0xFFFFFFFFFFFFULL);
    ap.latitude = (i % 2 ? 10.0 : 11.0) + offset(rng);
    ap.longitude = 20.0 + offset(rng);
    ap.reliabilityCount = 18 + static_cast<uint32_t>(rng() % 100);
    ap.signalExponent = 0.25;
    aps.push_back(ap);
  }
  WPS::API::TileWriterOptions options;
  options.blockRecords = 4;
  std::vector<unsigned char> file;
  std::string error;
  if (!WPS::API::buildTileFile(aps, options, file, error)) return {};
  // Mode byte 0x01: the trailer is re-made for the empty realm.
  file.insert(file.begin(), 0x01);
  file.resize(file.size() - WPS::API::kMD4DigestSize);
  return file;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const unsigned mode = data[0];
  std::vector<unsigned char> file(data + 1, data + size);
  const std::string realm = (mode & 2) ? "fuzz" : "";
  if (mode & 1) {
    unsigned char digest[WPS::API::kMD4DigestSize];
    WPS::API::MD4(std::string(WPS::API::fileHEAD) + realm, digest);
    file.insert(file.end(), digest, digest + sizeof digest);
  }
  WPS::API::CompressedFileReaderProtected reader;
  if (reader.openBuffer(realm, "fuzz.wps", std::make_unique<HeapBuffer>(file.data(), file.size())) != 0) return 0;
  for (size_t i = 1; i + 6 <= size && i < 6 * 64; i += 6) {
    uint64_t value = 0;
    for (size_t k = 0; k < 6; ++k) value = (value << 8) | data[i + k];
    (void)reader.get(WPS::SPI::MAC::fromValue(value));
  }
  for (uint64_t value : {uint64_t{0}, uint64_t{1}, uint64_t{0x0012A3B4C5D6}, (uint64_t{1} << 48) - 1}) {
    (void)reader.get(WPS::SPI::MAC::fromValue(value));
    (void)reader.get(WPS::SPI::MAC::fromValue(value));  // the absent-MAC list path
  }
  return 0;
}
