#include "wps/api/tiles/tile_writer.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <map>
#include <utility>

#include "wps/api/position_check.h"
#include "wps/api/tiles/bit_input_stream.h"
#include "wps/api/tiles/compressed_file_reader.h"  // fileHEAD
#include "wps/api/tiles/md4.h"
#include "wps/api/tiles/tile.h"
#include "wps/spi/file.h"

namespace WPS {
namespace API {
namespace {

// Most-significant-bit-first writer, the counterpart of BitInputStream.
class BitOutputStream {
 public:
  void writeBits(uint64_t value, unsigned bits) {
    for (unsigned i = bits; i > 0; --i) {
      if ((bits_ & 7) == 0) bytes_.push_back(0);
      if ((value >> (i - 1)) & 1) bytes_.back() |= static_cast<unsigned char>(0x80u >> (bits_ & 7));
      ++bits_;
    }
  }
  void align() { bits_ = bytes_.size() * 8; }
  void writeBytes(const std::vector<unsigned char>& bytes) {
    align();
    bytes_.insert(bytes_.end(), bytes.begin(), bytes.end());
    bits_ = bytes_.size() * 8;
  }
  void writeVLEU(uint64_t value) {
    std::vector<unsigned char> encoded;
    encodeVLEU(value, encoded);
    writeBytes(encoded);
  }
  [[nodiscard]] uint64_t bitPosition() const { return bits_; }
  [[nodiscard]] const std::vector<unsigned char>& bytes() const { return bytes_; }

 private:
  std::vector<unsigned char> bytes_;
  uint64_t bits_ = 0;
};

// Bits needed for the unsigned value `v` (0 for 0).
unsigned bitsFor(uint64_t v) {
  unsigned n = 0;
  while (v != 0) {
    ++n;
    v >>= 1;
  }
  return n;
}

void appendLE(std::vector<unsigned char>& out, uint64_t value, unsigned bytes) {
  for (unsigned i = 0; i < bytes; ++i) out.push_back(static_cast<unsigned char>(value >> (8 * i)));
}

void appendBE(std::vector<unsigned char>& out, uint64_t value, unsigned bytes) {
  for (unsigned i = bytes; i > 0; --i) out.push_back(static_cast<unsigned char>(value >> (8 * (i - 1))));
}

bool validCoordinates(const LocatedAccessPoint& ap) { return positionProblem(ap.latitude, ap.longitude) == nullptr; }

std::string trim(const std::string& s) {
  const auto first = s.find_first_not_of(" \t\r\n");
  if (first == std::string::npos) return {};
  const auto last = s.find_last_not_of(" \t\r\n");
  return s.substr(first, last - first + 1);
}

template <typename T>
bool parseNumber(const std::string& text, T& out) {
  const std::string t = trim(text);
  if (t.empty()) return false;
  const char* begin = t.data();
  if (*begin == '+') ++begin;
  auto [end, ec] = std::from_chars(begin, t.data() + t.size(), out);
  return ec == std::errc() && end == t.data() + t.size();
}

struct Coded {
  uint64_t key;
  size_t input;  // position in the input, to keep the first of colliding keys
};

}  // namespace

int32_t cellOrigin(double degrees, double cellDegrees, unsigned precisionCode) {
  const double units = std::ldexp(1.0, static_cast<int>(std::clamp(precisionCode, 1u, 7u)) + kPrecisionBase);
  return static_cast<int32_t>(std::llround(std::floor(degrees / cellDegrees) * cellDegrees * units) - 1);
}

void encodeVLEU(uint64_t value, std::vector<unsigned char>& out) {
  if (value > kMaxVLEValue) value = kMaxVLEValue;
  int k = 0;
  while (k < kMaxVLELength && value >= vleDeltas[k + 1]) ++k;
  const uint64_t rest = value - vleDeltas[k];
  // k leading one bits, then (for k < 6) a zero bit, then the top value bits.
  const unsigned prefix = (0xFF00u >> k) & 0xFFu;
  out.push_back(static_cast<unsigned char>(prefix | static_cast<unsigned>(rest >> (8 * k))));
  for (int i = k; i > 0; --i) out.push_back(static_cast<unsigned char>(rest >> (8 * (i - 1))));
}

bool parseAccessPointsCSV(std::istream& in, std::vector<LocatedAccessPoint>& out, std::string& error) {
  std::string line;
  unsigned lineNumber = 0;
  while (std::getline(in, line)) {
    ++lineNumber;
    const std::string text = trim(line);
    if (text.empty() || text[0] == '#') continue;
    if (lineNumber == 1 && text.size() >= 3 && (text.compare(0, 3, "MAC") == 0 || text.compare(0, 3, "mac") == 0)) {
      continue;
    }
    std::vector<std::string> fields;
    size_t start = 0;
    for (;;) {
      const size_t comma = text.find(',', start);
      fields.push_back(text.substr(start, comma == std::string::npos ? std::string::npos : comma - start));
      if (comma == std::string::npos) break;
      start = comma + 1;
    }
    LocatedAccessPoint ap;
    uint64_t count = 0;
    const bool ok = fields.size() == 5 && SPI::MAC::parse(trim(fields[0]), ap.mac) &&
                    parseNumber(fields[1], ap.latitude) && parseNumber(fields[2], ap.longitude) &&
                    parseNumber(fields[3], count) && parseNumber(fields[4], ap.signalExponent) &&
                    validCoordinates(ap) && std::isfinite(ap.signalExponent);
    if (!ok) {
      error = "line " + std::to_string(lineNumber) +
              ": expected MAC,LATITUDE,LONGITUDE,RELIABILITY_COUNT,SIGNAL_EXPONENT with latitude in "
              "[-90, 90] and longitude in [-180, 180]";
      return false;
    }
    ap.reliabilityCount = count > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(count);
    out.push_back(ap);
  }
  return true;
}

bool encodeTile(const std::vector<LocatedAccessPoint>& accessPoints, const TileWriterOptions& options,
                std::vector<unsigned char>& out, std::string& error) {
  if (accessPoints.empty()) {
    error = "a tile needs at least one access point";
    return false;
  }
  for (const auto& ap : accessPoints) {
    if (!validCoordinates(ap)) {
      error = "access point " + ap.mac.toString() + " has an invalid position";
      return false;
    }
  }
  const size_t count = accessPoints.size();

  // Precision: the finest requested one whose offsets fit the 5-bit widths.
  unsigned code = std::clamp(options.precisionCode, 1u, 7u);
  int P = 0;
  int64_t originLat = 0, originLon = 0;
  unsigned A = 0, B = 0;
  std::vector<int64_t> lat(count), lon(count);
  for (;; --code) {
    P = static_cast<int>(code) + kPrecisionBase;
    const double units = std::ldexp(1.0, P);
    for (size_t i = 0; i < count; ++i) {
      lat[i] = std::llround(accessPoints[i].latitude * units);
      lon[i] = std::llround(accessPoints[i].longitude * units);
    }
    // A zero origin marks an invalid tile, so a tile starting exactly on the
    // equator or the prime meridian starts one unit earlier.
    originLat = *std::min_element(lat.begin(), lat.end());
    originLon = *std::min_element(lon.begin(), lon.end());
    if (originLat == 0) originLat = -1;
    if (originLon == 0) originLon = -1;
    if (options.cellOrigins) {
      originLat = std::min<int64_t>(originLat, cellOrigin(accessPoints[0].latitude, options.tileSizeDegrees, code));
      originLon = std::min<int64_t>(originLon, cellOrigin(accessPoints[0].longitude, options.tileSizeDegrees, code));
    }
    A = std::max(1u, bitsFor(static_cast<uint64_t>(*std::max_element(lat.begin(), lat.end()) - originLat)));
    B = std::max(1u, bitsFor(static_cast<uint64_t>(*std::max_element(lon.begin(), lon.end()) - originLon)));
    if ((A <= 31 && B <= 31) || code == 1) break;
  }
  const unsigned latBits = packBits(180, P), lonBits = packBits(360, P);
  const auto fitsSigned = [](int64_t v, unsigned bits) {
    return bits >= 2 && bits <= 32 && v >= -(int64_t{1} << (bits - 1)) && v < (int64_t{1} << (bits - 1));
  };
  if (A > 31 || B > 31 || !fitsSigned(originLat, latBits) || !fitsSigned(originLon, lonBits)) {
    error = "the access points of a tile span too large an area";
    return false;
  }

  // Count field: reliabilityCount - 18, as narrow as the largest needs.
  std::vector<uint32_t> r(count);
  for (size_t i = 0; i < count; ++i) {
    const uint32_t c = accessPoints[i].reliabilityCount;
    r[i] = std::min<uint32_t>(c < kReliabilityCountBase ? 0 : c - kReliabilityCountBase, 127);
  }
  const unsigned R = std::max(1u, bitsFor(*std::max_element(r.begin(), r.end())));

  // Exponent field: the narrowest width that holds every exponent exactly,
  // otherwise the widest (7 bits, steps of 1/381).
  std::vector<double> exponent(count);
  for (size_t i = 0; i < count; ++i) {
    exponent[i] = std::clamp(accessPoints[i].signalExponent, kSignalExponentBase, 0.5);
  }
  unsigned X = 1;
  for (; X < 7; ++X) {
    const double divisor = (std::ldexp(1.0, static_cast<int>(X)) - 1.0) * 3.0;
    bool exact = true;
    for (double x : exponent) {
      const double e = std::round((x - kSignalExponentBase) * divisor);
      if (std::fabs(decodeSignalExponent(static_cast<uint32_t>(e), X) - x) > 1e-9) {
        exact = false;
        break;
      }
    }
    if (exact) break;
  }
  const double divisor = (std::ldexp(1.0, static_cast<int>(X)) - 1.0) * 3.0;
  const uint32_t maxE = (1u << X) - 1;

  // Search keys in ascending order; the first of colliding keys stays.
  std::vector<Coded> coded(count);
  const std::string keyRealm = options.presetKeys ? std::string() : options.realm;
  for (size_t i = 0; i < count; ++i) {
    coded[i] = {tileSearchKey(accessPoints[i].mac, keyRealm, static_cast<int32_t>(originLat),
                              static_cast<int32_t>(originLon)),
                i};
  }
  std::stable_sort(coded.begin(), coded.end(), [](const Coded& a, const Coded& b) { return a.key < b.key; });
  coded.erase(std::unique(coded.begin(), coded.end(), [](const Coded& a, const Coded& b) { return a.key == b.key; }),
              coded.end());
  const size_t records = coded.size();

  // Block starts: every blockRecords-th record, and the last record on its
  // own so that the last index key is the tile's greatest.
  const size_t blockRecords =
      options.blockRecords != 0
          ? std::clamp(options.blockRecords, 1u, 256u)
          : std::clamp<size_t>(static_cast<size_t>(std::lround(std::sqrt(static_cast<double>(records)))), 16, 32);
  std::vector<size_t> blockStarts;
  for (size_t i = 0; i < records; i += blockRecords) blockStarts.push_back(i);
  if (blockStarts.back() != records - 1) blockStarts.push_back(records - 1);

  BitOutputStream body;
  std::vector<uint64_t> blockBits;  // bit offset of each block within the records
  size_t nextBlock = 0;
  uint64_t previousKey = 0;
  for (size_t i = 0; i < records; ++i) {
    body.align();
    const bool startsBlock = nextBlock < blockStarts.size() && blockStarts[nextBlock] == i;
    if (startsBlock) {
      blockBits.push_back(body.bitPosition());
      ++nextBlock;
    }
    const size_t k = coded[i].input;
    body.writeVLEU(startsBlock ? 0 : coded[i].key - previousKey);
    body.writeBits(static_cast<uint64_t>(lat[k] - originLat), A);
    body.writeBits(static_cast<uint64_t>(lon[k] - originLon), B);
    body.writeBits(r[k], R);
    const double e = std::round((exponent[k] - kSignalExponentBase) * divisor);
    body.writeBits(std::min<uint32_t>(static_cast<uint32_t>(e), maxE), X);
    previousKey = coded[i].key;
  }

  BitOutputStream tile;
  tile.writeBits(code, 3);
  tile.writeBits(static_cast<uint64_t>(originLat) & ((uint64_t{1} << latBits) - 1), latBits);
  tile.writeBits(static_cast<uint64_t>(originLon) & ((uint64_t{1} << lonBits) - 1), lonBits);
  tile.writeBits(A, 5);
  tile.writeBits(B, 5);
  tile.writeBits(R, 3);
  tile.writeBits(X, 3);
  tile.writeVLEU(records);
  tile.writeVLEU(blockStarts.size());
  std::vector<unsigned char> index;
  appendLE(index, coded[0].key, 6);
  for (size_t b = 1; b < blockStarts.size(); ++b) {
    const uint64_t length = blockBits[b] - blockBits[b - 1];
    if (length > 0xFFFF) {
      error = "a block of records is longer than 65535 bits";
      return false;
    }
    appendLE(index, length, 2);
    appendLE(index, coded[blockStarts[b]].key, 6);
  }
  tile.writeBytes(index);
  tile.writeBytes(body.bytes());
  out.insert(out.end(), tile.bytes().begin(), tile.bytes().end());
  return true;
}

bool assembleTileFile(const std::vector<std::vector<unsigned char>>& tiles, const std::string& realm,
                      std::vector<unsigned char>& out, std::string& error) {
  if (tiles.empty() || tiles.size() > 0xFFFF) {
    error = "a tile file holds 1 to 65535 tiles";
    return false;
  }
  out.assign(fileHEAD, fileHEAD + fileHEADSZ);
  for (const auto& tile : tiles) {
    if (tile.size() > UINT32_MAX) {
      error = "a tile is longer than 4 GiB";
      return false;
    }
    out.insert(out.end(), tile.begin(), tile.end());
  }
  for (const auto& tile : tiles) appendBE(out, tile.size(), 4);
  appendBE(out, tiles.size(), 2);
  unsigned char digest[kMD4DigestSize];
  MD4(std::string(fileHEAD, fileHEADSZ) + realm, digest);
  out.insert(out.end(), digest, digest + kMD4DigestSize);
  return true;
}

bool buildTileFile(const std::vector<LocatedAccessPoint>& accessPoints, const TileWriterOptions& options,
                   std::vector<unsigned char>& out, std::string& error, unsigned* tileCount) {
  if (accessPoints.empty()) {
    error = "no access points";
    return false;
  }
  // Grid cells, in a fixed order so that the same input gives the same file.
  std::map<std::pair<int64_t, int64_t>, std::vector<LocatedAccessPoint>> cells;
  for (const auto& ap : accessPoints) {
    if (!validCoordinates(ap)) {
      error = "access point " + ap.mac.toString() + " has an invalid position";
      return false;
    }
    std::pair<int64_t, int64_t> cell{0, 0};
    if (options.tileSizeDegrees > 0) {
      cell = {static_cast<int64_t>(std::floor(ap.latitude / options.tileSizeDegrees)),
              static_cast<int64_t>(std::floor(ap.longitude / options.tileSizeDegrees))};
    }
    cells[cell].push_back(ap);
  }
  std::vector<std::vector<unsigned char>> tiles;
  for (const auto& [cell, members] : cells) {
    tiles.emplace_back();
    if (!encodeTile(members, options, tiles.back(), error)) return false;
  }
  if (tileCount != nullptr) *tileCount = static_cast<unsigned>(tiles.size());
  return assembleTileFile(tiles, options.realm, out, error);
}

bool writeTemporaryFile(const std::string& path, const std::vector<unsigned char>& bytes, std::string& error) {
  const std::string temporary = path + kTemporarySuffix;
  auto file = SPI::File::newInstance();
  if (!file || file->open(temporary, SPI::File::WRITE | SPI::File::CREATE | SPI::File::TRUNCATE) != 0) {
    error = "cannot create " + temporary;
    return false;
  }
  const int written = file->write(bytes.data(), bytes.size());
  const int closed = file->close();
  if (written != 0 || closed != 0) {
    (void)SPI::File::remove(temporary);
    error = "cannot write " + temporary;
    return false;
  }
  return true;
}

bool replaceWithTemporaryFile(const std::string& path, std::string& error) {
  const std::string temporary = path + kTemporarySuffix;
  if (SPI::File::rename(temporary, path) != 0) {
    (void)SPI::File::remove(temporary);
    error = "cannot rename " + temporary + " to " + path;
    return false;
  }
  return true;
}

bool writeTileFile(const std::string& path, const std::vector<unsigned char>& bytes, std::string& error) {
  return writeTemporaryFile(path, bytes, error) && replaceWithTemporaryFile(path, error);
}

}  // namespace API
}  // namespace WPS
