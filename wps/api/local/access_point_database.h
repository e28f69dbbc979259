// The access-point database: which scanned MAC addresses have a known
// position, and where.
//
// `AccessPointDatabase` asks an optional tile source first (the downloaded
// tiles) together with an optional learned source (the learned places, for
// the access points the tiles do not know), and otherwise a fixed set of
// local tile files
// (`CompressedFileCollection`, wps/api/tiles/compressed_file_collection.h).
//
// Ownership: the database owns its local files; the tile source is borrowed.
//
// Thread safety: none. The positioning library serialises every use on its
// lock.
#pragma once

#include <string>
#include <vector>

#include "wps/api/protocol/location.h"
#include "wps/api/tiles/compressed_file_collection.h"
#include "wps/api/tiles/located_access_point.h"
#include "wps/spi/logger.h"
#include "wps/spi/scan.h"

namespace WPS {
namespace API {

class AccessPointDatabase {
 public:
  // Opens every path of `paths` for the realm of `authentication`: a
  // directory contributes each regular file in it (in name order), any other
  // path is opened as a tile file. Files that cannot be opened are logged by
  // their reader and skipped. `tiles` (borrowed, may be null) is asked first
  // by `get`.
  AccessPointDatabase(const SimpleAuthentication& authentication, const std::vector<std::string>& paths,
                      TileSource* tiles = nullptr);
  AccessPointDatabase(const AccessPointDatabase&) = delete;
  AccessPointDatabase& operator=(const AccessPointDatabase&) = delete;

  // Appends to `located` the known access points among `scanned`: those of
  // the tile source and the learned source when they find any, otherwise
  // those of the local files in scan order.
  void get(const SPI::AccessPointList& scanned, const SPI::CellTowerList& cells,
           std::vector<LocatedAccessPoint>& located);
  void get(const SPI::AccessPointList& scanned, std::vector<LocatedAccessPoint>& located) {
    get(scanned, {}, located);
  }

  // Replaces the borrowed tile source (null: none).
  void setTileSource(TileSource* tiles) { tiles_ = tiles; }
  // Replaces the borrowed learned source (null: none).
  void setLearnedSource(TileSource* learned) { learned_ = learned; }
  [[nodiscard]] TileSource* tileSource() const { return tiles_; }
  [[nodiscard]] CompressedFileCollection& localFiles() { return collection_; }

 private:
  SPI::Logger& logger_;
  CompressedFileCollection collection_;
  TileSource* tiles_;
  TileSource* learned_ = nullptr;
};

}  // namespace API
}  // namespace WPS
