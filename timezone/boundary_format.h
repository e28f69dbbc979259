// The layout of the boundary data file (docs/timezone-data.md), shared by the
// writer (tzdata_convert) and the reader (boundary_index). Little-endian.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cmath>
#include <cstring>
#include <utility>
#include <optional>
#include <string>

namespace zonara::timezone::format {

inline constexpr char kMagic[8] = {'Z', 'N', 'T', 'Z', 'B', 'N', 'D', '\0'};
inline constexpr uint32_t kVersion = 1;

// Sections, in file order.
enum Section : uint32_t { kMeta = 0, kGrid = 1, kLists = 2, kCells = 3, kChains = 4, kSectionCount = 5 };

// Header: magic (8), version (4), header size (4), file size (8), then per
// section offset (8), length (8), CRC-32 (4), reserved (4); then the CRC-32 of
// everything before it (4) and 4 reserved bytes.
inline constexpr size_t kSectionRecord = 24;
inline constexpr size_t kHeaderSize = 24 + kSectionRecord * kSectionCount + 8;
inline constexpr size_t kSectionAlignment = 8;

// Quadtree bounds: the grid halves these repeatedly (lat/lon >= mid goes up/east).
inline constexpr double kLatMin = -89.9999, kLatMax = 89.9999;
inline constexpr double kLonMin = -179.9999, kLonMax = 179.9999;
inline constexpr uint32_t kMaxGridBits = 12;
inline constexpr uint32_t kMaxSubGrid = 64;
inline constexpr uint32_t kMaxFeaturesPerCell = 32;
// The converter refines a mixed cell's sub-grid until sub-cells hold about this many edges.
inline constexpr uint32_t kEdgesPerSubCell = 40;

// Grid and sub-cell entries: tag in the top two bits.
inline constexpr uint32_t kTagShift = 30;
inline constexpr uint32_t kValueMask = (1u << kTagShift) - 1;
enum EntryTag : uint32_t { kOcean = 0, kZone = 1, kList = 2, kMixed = 3 };
inline constexpr uint32_t entry(EntryTag tag, uint32_t value) { return (uint32_t(tag) << kTagShift) | value; }
inline constexpr EntryTag entryTag(uint32_t e) { return EntryTag(e >> kTagShift); }
inline constexpr uint32_t entryValue(uint32_t e) { return e & kValueMask; }

// A mixed cell's record in the CELLS section: bounds (4 doubles: lat0, lat1,
// lon0, lon1), sub-grid columns and rows, feature count, reserved (u16 each),
// the features' zone ids (u16, padded to 4 bytes), then columns*rows u32 sub-entries.
inline constexpr size_t kCellFixed = 32 + 8;

// Chain flags.
inline constexpr uint32_t kChainClip = 1;   // edges on the cell's border, made by clipping
inline constexpr uint32_t kChainCoast = 2;  // edges with no zone on their other side
inline constexpr uint32_t kChainFlagBits = 2;

// Coordinates inside chains are integer micro-degrees.
inline constexpr double kUnitsPerDegree = 1e6;

inline uint64_t zigzag(int64_t v) { return (uint64_t(v) << 1) ^ uint64_t(v >> 63); }
inline int64_t unzigzag(uint64_t v) { return int64_t(v >> 1) ^ -int64_t(v & 1); }

inline void putVarint(std::string& out, uint64_t v) {
  while (v >= 0x80) {
    out.push_back(char(uint8_t(v) | 0x80));
    v >>= 7;
  }
  out.push_back(char(uint8_t(v)));
}

// Reads a varint from [*p, end); false (and *p unspecified) when cut off or longer than 10 bytes.
inline bool getVarint(const uint8_t** p, const uint8_t* end, uint64_t* v) {
  uint64_t result = 0;
  for (int shift = 0; shift < 70 && *p < end; shift += 7) {
    uint8_t byte = *(*p)++;
    result |= uint64_t(byte & 0x7f) << shift;
    if (byte < 0x80) {
      *v = result;
      return true;
    }
  }
  return false;
}

template <typename T>
inline T load(const uint8_t* p) {
  T v;
  std::memcpy(&v, p, sizeof v);
  return v;
}

template <typename T>
inline void store(std::string& out, size_t at, T v) {
  std::memcpy(out.data() + at, &v, sizeof v);
}

template <typename T>
inline void append(std::string& out, T v) {
  out.append(reinterpret_cast<const char*>(&v), sizeof v);
}

// The grid cell of a point: the quadtree descent with the converter's arithmetic.
struct GridCell {
  uint32_t row, col;
};
inline GridCell gridCellOf(double lat, double lon, uint32_t bits) {
  double lat0 = kLatMin, lat1 = kLatMax, lon0 = kLonMin, lon1 = kLonMax;
  uint32_t row = 0, col = 0;
  for (uint32_t level = 0; level < bits; ++level) {
    double latMid = (lat0 + lat1) / 2, lonMid = (lon0 + lon1) / 2;
    row <<= 1;
    col <<= 1;
    if (lat >= latMid) { row |= 1; lat0 = latMid; } else { lat1 = latMid; }
    if (lon >= lonMid) { col |= 1; lon0 = lonMid; } else { lon1 = lonMid; }
  }
  return {row, col};
}

// Sub-cell index along one axis of a mixed cell spanning [lo, hi] in n parts.
inline uint32_t subIndex(double v, double lo, double hi, uint32_t n) {
  double f = (v - lo) * n / (hi - lo);
  if (!(f > 0)) return 0;
  if (f >= n) return n - 1;
  return uint32_t(f);
}

// The nominal reference point of sub-cell (i, j) of a cell spanning [x0, x1] x [y0, y1]
// micro-degrees in n x n parts; a chain record stores its reference point relative to it.
inline std::pair<int64_t, int64_t> subCellCenter(double x0, double x1, double y0, double y1, uint32_t n, uint32_t i, uint32_t j) {
  double w = (x1 - x0) / n, h = (y1 - y0) / n;
  return {std::llround(x0 + (i + 0.5) * w), std::llround(y0 + (j + 0.5) * h)};
}

// Does the closed edge (ax,ay)-(bx,by) cross the path from the point p to the
// reference point r that runs first along p's latitude to r's longitude, then
// along r's longitude to r? The point's latitude and r's longitude are taken
// as infinitesimally above/east of equal vertex values, so vertices on the path
// are counted once. r must not lie on an edge.
inline bool crossesPath(double ax, double ay, double bx, double by, double px, double py, double rx, double ry) {
  bool cross = false;
  if ((ay > py) != (by > py)) {
    double xi = ax + (py - ay) * (bx - ax) / (by - ay);
    if (px <= rx ? (xi >= px && xi <= rx) : (xi > rx && xi <= px)) cross = !cross;
  }
  if ((ax > rx) != (bx > rx)) {
    double yi = ay + (rx - ax) * (by - ay) / (bx - ax);
    if (py <= ry ? (yi > py && yi <= ry) : (yi >= ry && yi <= py)) cross = !cross;
  }
  return cross;
}

}  // namespace zonara::timezone::format
