// One tile of a tile file: an area's known access points stored as a sorted,
// delta-coded bit stream behind a small block index (see docs/tile-format.md).
//
// A tile reads straight from the file's memory mapping and never outside it:
// a corrupt tile gives "not found" (or, at load, no tile), never a bad read.
//
// Ownership: a `Tile` borrows the `MemoryBuffer` it was loaded from; the
// buffer must outlive the tile. Thread safety: `findAP` moves the tile's own
// read position, so one tile is searched by one thread at a time.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "wps/api/tiles/bit_input_stream.h"
#include "wps/api/tiles/located_access_point.h"
#include "wps/spi/file.h"
#include "wps/spi/logger.h"
#include "wps/spi/scan.h"

namespace WPS {
namespace API {

// Offset added to a record's count field to give `reliabilityCount`.
inline constexpr uint32_t kReliabilityCountBase = 18;
// Smallest signal exponent a record can hold; the exponent field spans from
// here to 1/2.
inline constexpr double kSignalExponentBase = 0.16666666666666666;
// P = precision code + kPrecisionBase; coordinates are in units of 2^-P degrees.
inline constexpr int kPrecisionBase = 11;

// The 48-bit search key of `mac` in a tile with the given origin (in 2^-P
// degree units). Unbound (empty realm): the MAC's 48-bit value. Bound: the
// first four bytes of MD4(first 8 hex digits of the MAC + origin latitude +
// origin longitude + realm, numbers in decimal) above the MAC's last two
// printed octets, so the keys differ per tile and per realm.
[[nodiscard]] uint64_t tileSearchKey(const SPI::MAC& mac, const std::string& realm, int32_t originLatitude,
                                     int32_t originLongitude);

// The signal exponent a record's exponent field `e` of width `X` stands for:
// e / ((2^X - 1) * 3) + 1/6.
[[nodiscard]] double decodeSignalExponent(uint32_t e, unsigned X);

class Tile {
 public:
  // The header is read from at most this many bytes at the tile's offset.
  static constexpr size_t kHeaderBytes = 25;

  // Reads the tile of `length` bytes at byte `offset` of `buf`, checks its
  // header and block index and computes where each block starts. Returns
  // nullptr when the tile is invalid: it is empty or does not lie inside the
  // buffer; precision code, an origin or a field width is zero; the header is
  // cut off; there is no index key or more index keys than records; the index
  // does not lie inside the tile; its keys are not strictly ascending; a block
  // length is zero or the lengths add up to more than the tile's records.
  // Reads every index entry once (cost linear in the index, paid at open).
  // `realm` is the reader's realm (empty for an unbound file); `tileNumber`
  // the tile's position in its file.
  [[nodiscard]] static std::unique_ptr<Tile> load(uint64_t offset, uint64_t length, const std::string& realm,
                                                  const SPI::MemoryBuffer& buf, int tileNumber);

  ~Tile();
  Tile(const Tile&) = delete;
  Tile& operator=(const Tile&) = delete;

  // Looks `mac` up: a binary search of the block index finds the one block
  // that can hold its key, and only that block's records are read. On a hit fills `out` (with `mac`) and
  // returns true; otherwise returns false and leaves `out` unchanged.
  [[nodiscard]] bool findAP(const SPI::MAC& mac, LocatedAccessPoint& out);

  // This tile's search key for `mac`.
  [[nodiscard]] uint64_t searchKey(const SPI::MAC& mac) const {
    return tileSearchKey(mac, realm_, originLatitude_, originLongitude_);
  }

  [[nodiscard]] int tileNumber() const { return tileNumber_; }
  [[nodiscard]] unsigned precisionCode() const { return precisionCode_; }
  [[nodiscard]] int precision() const { return static_cast<int>(precisionCode_) + kPrecisionBase; }
  [[nodiscard]] double scale() const { return scale_; }
  [[nodiscard]] int32_t originLatitude() const { return originLatitude_; }
  [[nodiscard]] int32_t originLongitude() const { return originLongitude_; }
  [[nodiscard]] unsigned latitudeWidth() const { return latitudeWidth_; }
  [[nodiscard]] unsigned longitudeWidth() const { return longitudeWidth_; }
  [[nodiscard]] unsigned countWidth() const { return countWidth_; }
  [[nodiscard]] unsigned exponentWidth() const { return exponentWidth_; }
  [[nodiscard]] uint32_t accessPointCount() const { return accessPointCount_; }
  [[nodiscard]] uint32_t indexEntries() const { return indexEntries_; }
  [[nodiscard]] uint32_t dataOffset() const { return dataOffset_; }
  [[nodiscard]] uint32_t dataLength() const { return dataLength_; }
  // Bits of one record after its key delta.
  [[nodiscard]] unsigned recordFieldBits() const {
    return latitudeWidth_ + longitudeWidth_ + countWidth_ + exponentWidth_;
  }
  // Records decoded (key deltas read) and index keys compared by the last
  // `findAP`; for diagnostics and tests.
  [[nodiscard]] unsigned recordsReadByLastSearch() const { return recordsRead_; }
  [[nodiscard]] unsigned indexKeysReadByLastSearch() const { return indexKeysRead_; }

 private:
  Tile(const std::string& realm, const SPI::MemoryBuffer& buf, int tileNumber);
  // Reads the header fields from the first bytes of the tile; false when
  // cut off or a field that must not be zero is.
  [[nodiscard]] bool readHeader(uint64_t offset, uint64_t length, uint64_t& count, uint64_t& entries,
                                uint64_t& headerBytes);
  // Checks the index (ascending keys, block lengths) against `recordBits`,
  // the size of the records part, and fills `blockStarts_`.
  [[nodiscard]] bool loadIndex(uint64_t recordBits);
  // Index key `i` (0 <= i < indexEntries_): entries are 8 bytes apart, key 0
  // at byte 0 and key i after its 2-byte block length at byte 8i.
  [[nodiscard]] uint64_t indexKey(uint32_t i) const;
  // Reads the records of the block starting `start` bits into the records and
  // ending at bit `end` (exclusive) whose first record has `blockKey`.
  bool scanBlock(uint64_t start, uint64_t end, uint64_t blockKey, uint64_t key, const SPI::MAC& mac,
                 LocatedAccessPoint& out);

  SPI::Logger& logger_;
  std::string realm_;
  const SPI::MemoryBuffer& buffer_;
  // The block index, held from load to destruction.
  const unsigned char* index_ = nullptr;
  // Bit offset of each block within the records; one per index key.
  std::vector<uint64_t> blockStarts_;
  uint64_t recordsOffset_ = 0;
  uint64_t recordBits_ = 0;
  uint32_t dataOffset_ = 0;
  uint32_t dataLength_ = 0;
  int32_t originLatitude_ = 0;
  int32_t originLongitude_ = 0;
  uint8_t precisionCode_ = 0;
  uint8_t latitudeWidth_ = 0;
  uint8_t longitudeWidth_ = 0;
  uint8_t countWidth_ = 0;
  uint8_t exponentWidth_ = 0;
  double scale_ = 0.0;
  double exponentDivisor_ = 0.0;
  uint32_t accessPointCount_ = 0;
  uint32_t indexEntries_ = 0;
  int tileNumber_ = 0;
  unsigned recordsRead_ = 0;
  unsigned indexKeysRead_ = 0;
};

}  // namespace API
}  // namespace WPS
