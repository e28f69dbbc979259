// Converts the time-zone boundary polygons, as published in a quadtree of
// geobuf blobs (an index JSON and a .geo.dat file), into the memory-mappable
// file read by BoundaryIndex (format: docs/timezone-data.md).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace zonara::timezone {

struct ConvertStats {
  size_t zones = 0;       // named zones
  size_t leaves = 0;      // quadtree leaves read
  size_t mixedCells = 0;  // leaves with polygons
  size_t subCells = 0;    // sub-cells with edges
  size_t vertices = 0;    // polygon vertices read
  uint64_t fileBytes = 0;
};

// Reads INDEX_JSON and GEO_DAT and writes OUTPUT atomically (a temporary file
// beside it, then a rename), labelled with `release`. false with `error` set
// (and OUTPUT untouched) on unreadable or inconsistent input or a write failure.
[[nodiscard]] bool convertBoundaryData(const std::string& indexJsonPath, const std::string& geoDatPath,
                                       const std::string& outputPath, const std::string& release,
                                       ConvertStats* stats, std::string* error);

}  // namespace zonara::timezone
