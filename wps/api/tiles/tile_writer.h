// Making tile files: the inverse of the tile reader (see docs/tile-format.md).
//
// Access points are grouped by a latitude/longitude grid into tiles; each tile
// gets the finest precision and the narrowest field widths that hold its
// access points, its records are sorted by search key (plain MAC, or the
// realm-bound key) and delta-coded, and a block index is written in front of
// them. The file ends with the tile length table, the tile count and the MD4
// trailer that binds it to the realm.
//
// What the format cannot hold is clamped, not refused: reliability counts to
// 18..145, signal exponents to 1/6..1/2, positions to the tile precision.
// Access points whose search keys collide in a tile keep the first one given.
//
// Thread safety: all functions are reentrant.
#pragma once

#include <cstdint>
#include <istream>
#include <string>
#include <vector>

#include "wps/api/tiles/located_access_point.h"

namespace WPS {
namespace API {

struct TileWriterOptions {
  // Realm the file is bound to; empty for a file keyed by plain MACs.
  std::string realm;
  // Precision code 1..7 (coordinates in units of 2^-(code + 11) degrees;
  // 7 is about 0.4 m). Lowered per tile only when a tile's extent would need
  // offsets wider than 31 bits.
  unsigned precisionCode = 7;
  // Edge of the grid cells that become tiles, in degrees; 0 or less puts every
  // access point into one tile.
  double tileSizeDegrees = 1.0;
  // Records per block of the block index (1..256), or 0 to choose per tile.
  // A look-up binary-searches the index and then reads one block, so its
  // cost is about log2(n) index keys plus B/2 records for n blocks of B
  // records; the automatic choice is sqrt(records), kept within 16..32 (the
  // index costs 8 bytes per block).
  unsigned blockRecords = 0;
  // Each tile's origin at its grid cell's south-west corner less one unit
  // (cellOrigin) instead of its smallest coordinates, so that a record's
  // search key depends only on its MAC and its cell, never on the other
  // access points. Needs tileSizeDegrees > 0 and the precision code kept
  // (cells of a degree or less).
  bool cellOrigins = false;
  // The MACs given are the search keys already (tileSearchKey for the cell's
  // origin, with cellOrigins): they are written as they are and the realm
  // goes only into the trailer. Lets a file be rewritten without knowing the
  // MACs behind its keys.
  bool presetKeys = false;
};

// The origin, in units of 2^-(precisionCode + 11) degrees, of the grid cell
// of `cellDegrees` holding `degrees`: the cell's south-west corner less one
// unit (never 0, which marks an invalid tile).
[[nodiscard]] int32_t cellOrigin(double degrees, double cellDegrees, unsigned precisionCode);

// Appends the VLEU encoding of `value` (at most kMaxVLEValue) to `out`.
void encodeVLEU(uint64_t value, std::vector<unsigned char>& out);

// Parses CSV lines "MAC,LATITUDE,LONGITUDE,RELIABILITY_COUNT,SIGNAL_EXPONENT".
// A first line starting with "MAC" is a header; empty lines and lines starting
// with '#' are skipped. Appends to `out` and returns true, or returns false
// with `error` naming the first bad line (`out` then holds the lines before it).
[[nodiscard]] bool parseAccessPointsCSV(std::istream& in, std::vector<LocatedAccessPoint>& out,
                                        std::string& error);

// Encodes one tile of `accessPoints` (not empty, all with valid coordinates)
// and appends its bytes to `out`. Returns false with `error` set otherwise.
[[nodiscard]] bool encodeTile(const std::vector<LocatedAccessPoint>& accessPoints, const TileWriterOptions& options,
                              std::vector<unsigned char>& out, std::string& error);

// Assembles a whole file from already encoded tiles: magic, tiles, length
// table, count and the realm's MD4 trailer.
[[nodiscard]] bool assembleTileFile(const std::vector<std::vector<unsigned char>>& tiles, const std::string& realm,
                                    std::vector<unsigned char>& out, std::string& error);

// Groups `accessPoints` into tiles and encodes the whole file into `out`.
// `tileCount`, when given, receives the number of tiles written.
[[nodiscard]] bool buildTileFile(const std::vector<LocatedAccessPoint>& accessPoints,
                                 const TileWriterOptions& options, std::vector<unsigned char>& out,
                                 std::string& error, unsigned* tileCount = nullptr);

// Writes `bytes` to `path` through a temporary file renamed into place, so a
// reader never sees a half-written tile file.
[[nodiscard]] bool writeTileFile(const std::string& path, const std::vector<unsigned char>& bytes,
                                 std::string& error);

// The two steps of writeTileFile, for a caller that replaces several files
// together: write `path` + kTemporarySuffix, then rename it over `path`.
// Until the rename the old file stays whole; a failed step removes the
// temporary file and returns false with `error` set.
inline constexpr const char* kTemporarySuffix = ".tmp";
[[nodiscard]] bool writeTemporaryFile(const std::string& path, const std::vector<unsigned char>& bytes,
                                      std::string& error);
[[nodiscard]] bool replaceWithTemporaryFile(const std::string& path, std::string& error);

}  // namespace API
}  // namespace WPS
