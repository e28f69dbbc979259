// Time-zone boundaries on the computer: the zone at a point, the distance to the
// nearest border, and the zones near a point, answered from one memory-mapped
// file in the format of docs/timezone-data.md (written by `zonara-tzdata`).
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace zonara::timezone {

struct BoundaryError {
  std::string message;
};

class MappedBoundaryFile;

// A read-only view of a boundary data file. Every const method may be called
// from any thread at the same time; the object owns its mapping and unmaps it
// when destroyed.
class BoundaryIndex {
 public:
  // Maps the file at `path` read-only. nullptr with `error` set when it is missing,
  // truncated, of another format/version, or inconsistent. Never crashes.
  [[nodiscard]] static std::unique_ptr<BoundaryIndex> open(const std::string& path, std::string* error);

  ~BoundaryIndex();
  BoundaryIndex(const BoundaryIndex&) = delete;
  BoundaryIndex& operator=(const BoundaryIndex&) = delete;

  // Every zone at the point, the principal first (more than one only where the data overlaps);
  // over the ocean "Etc/GMT+N"/"Etc/GMT-N" by 15-degree bands (POSIX sign; on +-180 both
  // "Etc/GMT+12" and "Etc/GMT-12"). nullopt + error for latitude outside [-90,90], longitude
  // outside [-180,180] or not finite.
  [[nodiscard]] std::optional<std::vector<std::string>> zonesAt(double lat, double lon, std::string* error) const;

  // Metres from the point to the nearest boundary between the point's zone and another zone
  // (ocean zones count; edges that exist only because polygons are clipped to index cells are
  // not boundaries), capped at 100000. Same errors as zonesAt.
  [[nodiscard]] std::optional<double> borderDistance(double lat, double lon, std::string* error) const;

  // Every zone with territory within `radiusMetres` of the point (the point's own zone first).
  // Same errors as zonesAt, and for a negative or not finite radius.
  [[nodiscard]] std::optional<std::vector<std::string>> zonesWithin(double lat, double lon, double radiusMetres, std::string* error) const;

  // The release label stored by the converter (e.g. "timezone-boundary-builder 2026d (geo-tz 8.1.9)").
  [[nodiscard]] const std::string& release() const;

  // The number of named land zones in the file (ocean bands not counted).
  [[nodiscard]] size_t zoneCount() const;

 private:
  explicit BoundaryIndex(std::unique_ptr<MappedBoundaryFile> file);
  std::unique_ptr<MappedBoundaryFile> file_;
};

}  // namespace zonara::timezone
