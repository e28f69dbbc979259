// Location determination on the device: from one Wi-Fi scan and the known
// positions of access points in tile files, without asking the server.
//
// `LocationDeterminationLocal::newInstance()` returns the working
// implementation (`LocationDeterminationPrivate`). The public WPS_ functions
// create one per process, configure it with the setters, and for each location
// request call `open`, then `determineLocationLocally` once per scan, then
// `close`.
//
// Ownership: the object owns its access-point database (made by `open`, freed
// by `close`) and its scan-collection area (made by `set_tier2_area`). Texts
// and paths passed in are copied.
//
// Thread safety: none. The public functions serialise every use on the
// library's lock; the module-wide traces of fixes are shared by all instances
// and also rely on that lock.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "wps/api/protocol/location.h"
#include "wps/api/tiling/tiling_parameters.h"
#include "wps/api/wpsapi.h"
#include "wps/spi/scan.h"

namespace WPS {
namespace API {

class AccessPointDatabase;
class LearnedPlaces;
class Tier2Collection;
class TileSource;
class Tiling;

class LocationDeterminationLocal {
 public:
  // Return codes of determineLocationLocally.
  static constexpr int kLocationFound = 0;
  static constexpr int kCannotDetermine = 6;

  // The working implementation, with `path` as its local data directory
  // (may be empty).
  [[nodiscard]] static std::unique_ptr<LocationDeterminationLocal> newInstance(const char* path = "");

  virtual ~LocationDeterminationLocal();

  // Creates the access-point database over the configured local files and,
  // when tiling parameters were set, the downloaded tiles. Returns 0, or a
  // WPS_ReturnCode when the database cannot be made.
  [[nodiscard]] virtual int open(const SimpleAuthentication& authentication);
  // Releases the database (the scan-collection area stays configured).
  virtual void close();

  // The directories of local tile files used from the next `open` on; a null
  // array or entry list ends at the first null.
  virtual void set_paths(const char** paths);
  // Tile download settings used from the next `open` on. With a directory,
  // `open` makes the downloaded tiles (`Tiling`: the directory's tile files,
  // the tiling requests and downloads) and uses them as the tile source; they
  // live across `close` and `open`, so downloads started during one location
  // request go on after it and serve the next ones. They are made anew only
  // when the settings or the user name or realm change; settings without a
  // directory drop them.
  virtual void set_tiling(const TilingParameters& parameters);
  // The downloaded tiles, asked before the local files (borrowed; must outlive
  // this object or be replaced; null: none). Takes effect at once, also for an
  // open database.
  virtual void set_tile_source(TileSource* tiles);
  // The learned places (borrowed; null: none), asked together with the
  // downloaded tiles. Takes effect at once, also for an open database. A
  // location found from learned access points only is marked `learned`, and
  // its hpe is never below their accuracy.
  virtual void set_learned_places(LearnedPlaces* learned);
  // Creates (or replaces) the scan-collection area `dir` with a quota in
  // kilobytes; a null or empty `dir` removes it. The lines carry the user
  // name of the last `open` (empty before the first).
  virtual void set_tier2_area(const char* dir, unsigned long quota_kb);

  // Computes a location from `aps` (the known access points among them) into
  // `out`, starting from `previous` (may be null). Returns kLocationFound or
  // kCannotDetermine (also when no database is open). `out` is stamped with the
  // present time either way.
  [[nodiscard]] virtual int determineLocationLocally(const Location* previous,
                                                     const std::vector<SPI::ScannedAccessPoint>& aps,
                                                     const std::vector<SPI::ScannedCellTower>& cells,
                                                     Location& out) = 0;

  // Read access for the library and tests.
  [[nodiscard]] const std::vector<std::string>& paths() const { return paths_; }
  [[nodiscard]] const TilingParameters& tilingParameters() const { return tiling_; }
  [[nodiscard]] AccessPointDatabase* database() const { return database_.get(); }
  [[nodiscard]] Tier2Collection* tier2Collection() const { return tier2_.get(); }
  [[nodiscard]] TileSource* tileSource() const { return tiles_; }
  [[nodiscard]] LearnedPlaces* learnedPlaces() const { return learned_; }

 protected:
  explicit LocationDeterminationLocal(const char* path);

  std::string path_;
  std::vector<std::string> paths_;
  TilingParameters tiling_;
  // The downloaded tiles made by `open` (before the database, which borrows
  // them, so that they are destroyed after it).
  std::unique_ptr<Tiling> downloadedTiles_;
  std::unique_ptr<AccessPointDatabase> database_;
  std::unique_ptr<Tier2Collection> tier2_;
  TileSource* tiles_ = nullptr;
  LearnedPlaces* learned_ = nullptr;
  SimpleAuthentication authentication_;
};

}  // namespace API
}  // namespace WPS
