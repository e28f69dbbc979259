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

namespace {

// The coordinate grid of a tile: its precision, origin and offset widths, and
// every access point's position in grid units.
struct TileGrid {
  unsigned code = 0;  // precision code (1..7)
  int P = 0;          // units per degree: 2^P
  int64_t originLat = 0, originLon = 0;
  unsigned A = 0, B = 0;  // bits of the latitude and longitude offsets
  std::vector<int64_t> lat, lon;
};

// How each record's reliability count and signal exponent are stored.
struct TileFields {
  std::vector<uint32_t> reliability;  // reliabilityCount - 18, capped at 127
  unsigned R = 1;                     // its width
  std::vector<double> exponent;       // the clamped signal exponents
  unsigned X = 1;                     // their width
  double divisor = 0.0;               // exponent steps per unit
};

// A tile needs at least one access point, each with a valid position.
bool checkAccessPoints(const std::vector<LocatedAccessPoint>& accessPoints, std::string& error) {
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
  return true;
}

// Precision: the finest requested one whose offsets fit the 5-bit widths.
// With cell origins the origin is no later than the corner of the first
// access point's cell.
TileGrid chooseGrid(const std::vector<LocatedAccessPoint>& accessPoints, const TileWriterOptions& options) {
  const size_t count = accessPoints.size();
  TileGrid g;
  g.lat.resize(count);
  g.lon.resize(count);
  for (g.code = std::clamp(options.precisionCode, 1u, 7u);; --g.code) {
    g.P = static_cast<int>(g.code) + kPrecisionBase;
    const double units = std::ldexp(1.0, g.P);
    for (size_t i = 0; i < count; ++i) {
      g.lat[i] = std::llround(accessPoints[i].latitude * units);
      g.lon[i] = std::llround(accessPoints[i].longitude * units);
    }
    // A zero origin marks an invalid tile, so a tile starting exactly on the
    // equator or the prime meridian starts one unit earlier.
    g.originLat = *std::min_element(g.lat.begin(), g.lat.end());
    g.originLon = *std::min_element(g.lon.begin(), g.lon.end());
    if (g.originLat == 0) g.originLat = -1;
    if (g.originLon == 0) g.originLon = -1;
    if (options.cellOrigins) {
      g.originLat = std::min<int64_t>(g.originLat, cellOrigin(accessPoints[0].latitude, options.tileSizeDegrees, g.code));
      g.originLon = std::min<int64_t>(g.originLon, cellOrigin(accessPoints[0].longitude, options.tileSizeDegrees, g.code));
    }
    g.A = std::max(1u, bitsFor(static_cast<uint64_t>(*std::max_element(g.lat.begin(), g.lat.end()) - g.originLat)));
    g.B = std::max(1u, bitsFor(static_cast<uint64_t>(*std::max_element(g.lon.begin(), g.lon.end()) - g.originLon)));
    if ((g.A <= 31 && g.B <= 31) || g.code == 1) return g;
  }
}

// The origin fits the header's signed fields and the offsets their widths.
bool gridFits(const TileGrid& g, std::string& error) {
  const auto fitsSigned = [](int64_t v, unsigned bits) {
    return bits >= 2 && bits <= 32 && v >= -(int64_t{1} << (bits - 1)) && v < (int64_t{1} << (bits - 1));
  };
  if (g.A > 31 || g.B > 31 || !fitsSigned(g.originLat, packBits(180, g.P)) ||
      !fitsSigned(g.originLon, packBits(360, g.P))) {
    error = "the access points of a tile span too large an area";
    return false;
  }
  return true;
}

TileFields chooseFields(const std::vector<LocatedAccessPoint>& accessPoints) {
  const size_t count = accessPoints.size();
  TileFields f;
  // Count field: reliabilityCount - 18, as narrow as the largest needs.
  f.reliability.resize(count);
  for (size_t i = 0; i < count; ++i) {
    const uint32_t c = accessPoints[i].reliabilityCount;
    f.reliability[i] = std::min<uint32_t>(c < kReliabilityCountBase ? 0 : c - kReliabilityCountBase, 127);
  }
  f.R = std::max(1u, bitsFor(*std::max_element(f.reliability.begin(), f.reliability.end())));

  // Exponent field: the narrowest width that holds every exponent exactly,
  // otherwise the widest (7 bits, steps of 1/381).
  f.exponent.resize(count);
  for (size_t i = 0; i < count; ++i) {
    f.exponent[i] = std::clamp(accessPoints[i].signalExponent, kSignalExponentBase, 0.5);
  }
  for (f.X = 1; f.X < 7; ++f.X) {
    const double divisor = (std::ldexp(1.0, static_cast<int>(f.X)) - 1.0) * 3.0;
    const bool exact = std::all_of(f.exponent.begin(), f.exponent.end(), [&](double x) {
      const double e = std::round((x - kSignalExponentBase) * divisor);
      return std::fabs(decodeSignalExponent(static_cast<uint32_t>(e), f.X) - x) <= 1e-9;
    });
    if (exact) break;
  }
  f.divisor = (std::ldexp(1.0, static_cast<int>(f.X)) - 1.0) * 3.0;
  return f;
}

// Search keys in ascending order; the first of colliding keys stays. Preset
// keys are computed without a realm.
std::vector<Coded> sortedKeys(const std::vector<LocatedAccessPoint>& accessPoints, const std::string& realm,
                              const TileGrid& g) {
  std::vector<Coded> coded(accessPoints.size());
  for (size_t i = 0; i < accessPoints.size(); ++i) {
    coded[i] = {tileSearchKey(accessPoints[i].mac, realm, static_cast<int32_t>(g.originLat),
                              static_cast<int32_t>(g.originLon)),
                i};
  }
  std::stable_sort(coded.begin(), coded.end(), [](const Coded& a, const Coded& b) { return a.key < b.key; });
  coded.erase(std::unique(coded.begin(), coded.end(), [](const Coded& a, const Coded& b) { return a.key == b.key; }),
              coded.end());
  return coded;
}

// Block starts: every blockRecords-th record, and the last record on its own
// so that the last index key is the tile's greatest.
std::vector<size_t> blockStartsFor(size_t records, unsigned requestedBlockRecords) {
  const size_t blockRecords =
      requestedBlockRecords != 0
          ? std::clamp(requestedBlockRecords, 1u, 256u)
          : std::clamp<size_t>(static_cast<size_t>(std::lround(std::sqrt(static_cast<double>(records)))), 16, 32);
  std::vector<size_t> blockStarts;
  for (size_t i = 0; i < records; i += blockRecords) blockStarts.push_back(i);
  if (blockStarts.back() != records - 1) blockStarts.push_back(records - 1);
  return blockStarts;
}

// The records, byte-aligned, key deltas restarting at each block; the bit
// offset of each block goes to `blockBits`.
BitOutputStream encodeRecords(const std::vector<Coded>& coded, const std::vector<size_t>& blockStarts,
                              const TileGrid& g, const TileFields& f, std::vector<uint64_t>& blockBits) {
  BitOutputStream body;
  const uint32_t maxE = (1u << f.X) - 1;
  size_t nextBlock = 0;
  uint64_t previousKey = 0;
  for (size_t i = 0; i < coded.size(); ++i) {
    body.align();
    const bool startsBlock = nextBlock < blockStarts.size() && blockStarts[nextBlock] == i;
    if (startsBlock) {
      blockBits.push_back(body.bitPosition());
      ++nextBlock;
    }
    const size_t k = coded[i].input;
    body.writeVLEU(startsBlock ? 0 : coded[i].key - previousKey);
    body.writeBits(static_cast<uint64_t>(g.lat[k] - g.originLat), g.A);
    body.writeBits(static_cast<uint64_t>(g.lon[k] - g.originLon), g.B);
    body.writeBits(f.reliability[k], f.R);
    const double e = std::round((f.exponent[k] - kSignalExponentBase) * f.divisor);
    body.writeBits(std::min<uint32_t>(static_cast<uint32_t>(e), maxE), f.X);
    previousKey = coded[i].key;
  }
  return body;
}

// The block index: the first key, then each further block's length in bits
// and first key.
bool blockIndex(const std::vector<Coded>& coded, const std::vector<size_t>& blockStarts,
                const std::vector<uint64_t>& blockBits, std::vector<unsigned char>& index, std::string& error) {
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
  return true;
}

// The tile header: precision, origin, field widths and counts.
void writeHeader(BitOutputStream& tile, const TileGrid& g, const TileFields& f, size_t records, size_t blocks) {
  const unsigned latBits = packBits(180, g.P), lonBits = packBits(360, g.P);
  tile.writeBits(g.code, 3);
  tile.writeBits(static_cast<uint64_t>(g.originLat) & ((uint64_t{1} << latBits) - 1), latBits);
  tile.writeBits(static_cast<uint64_t>(g.originLon) & ((uint64_t{1} << lonBits) - 1), lonBits);
  tile.writeBits(g.A, 5);
  tile.writeBits(g.B, 5);
  tile.writeBits(f.R, 3);
  tile.writeBits(f.X, 3);
  tile.writeVLEU(records);
  tile.writeVLEU(blocks);
}

}  // namespace

bool encodeTile(const std::vector<LocatedAccessPoint>& accessPoints, const TileWriterOptions& options,
                std::vector<unsigned char>& out, std::string& error) {
  if (!checkAccessPoints(accessPoints, error)) return false;
  const TileGrid grid = chooseGrid(accessPoints, options);
  if (!gridFits(grid, error)) return false;
  const TileFields fields = chooseFields(accessPoints);
  const std::vector<Coded> coded = sortedKeys(accessPoints, options.presetKeys ? std::string() : options.realm, grid);
  const std::vector<size_t> blockStarts = blockStartsFor(coded.size(), options.blockRecords);

  std::vector<uint64_t> blockBits;
  const BitOutputStream body = encodeRecords(coded, blockStarts, grid, fields, blockBits);
  std::vector<unsigned char> index;
  if (!blockIndex(coded, blockStarts, blockBits, index, error)) return false;

  BitOutputStream tile;
  writeHeader(tile, grid, fields, coded.size(), blockStarts.size());
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
