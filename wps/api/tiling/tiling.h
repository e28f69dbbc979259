// Downloaded tiles for local positioning: the tiles directory, its collection
// of open tile files, the main tile, and the exchange with the server that
// brings new tiles.
//
// `Tiling` is made from the tiling parameters of WPS_tiling. At construction
// it opens every "<id>_<version>.dat" file already in the directory (the
// directory is created when missing; one that cannot be listed disables
// tiling). Each look-up (`get`) saves the scan for the tiling client, finds the
// scan's MACs in the tiles, and lets the client ask the server for tiles once
// enough scans were seen. Tiles listed by the server that the collection does
// not hold at the same or a newer revision are downloaded on the download's
// own thread, written to the directory and opened at once, so the next look-up
// already sees them.
//
// The application's tiling callback is called with (0, count) before the
// first download, count being the number of tiles to download, and with
// (i, count) after the i-th tile's download ended, whether it succeeded or
// failed. WPS_STOP at any of these calls stops the downloads. The callback runs
// on a download thread and must not call the library's public functions.
//
// Ownership: the `Tiling` owns its collection and client; the access-point
// database borrows it. Thread safety: `get` and the inspection members may be
// called from any thread (the collection and the main tile have locks of
// their own); the destructor aborts running downloads and waits for them.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "wps/api/protocol/location.h"
#include "wps/api/tiles/compressed_file_collection.h"
#include "wps/api/tiles/located_access_point.h"
#include "wps/api/tiling/tile_collection.h"
#include "wps/api/tiling/tiling_client.h"
#include "wps/api/tiling/tiling_parameters.h"
#include "wps/spi/concurrent.h"
#include "wps/spi/logger.h"
#include "wps/spi/scan.h"

namespace WPS {
namespace API {

class Tiling final : public TileSource, private TilingClient::Owner {
 public:
  // Tiles of `authentication`'s realm in `parameters.directory`, at most
  // `maxDataSizeTotal` bytes of them.
  Tiling(const SimpleAuthentication& authentication, const TilingParameters& parameters,
         ScanCache::Limits limits = {});
  ~Tiling() override;
  Tiling(const Tiling&) = delete;
  Tiling& operator=(const Tiling&) = delete;

  // False when the directory could not be opened: `get` then does nothing.
  [[nodiscard]] bool enabled() const { return enabled_; }

  // Appends the access points of `scanned` found in the tiles to `located`.
  // Nothing happens for an empty scan. Logs "can't determine location from
  // the current tiles" when no tile holds any MAC, and "most macs were found in
  // tile %s (main tile is %s)" when that tile is not the main tile. Then a
  // tiling request may go out (TilingClient::postTilingRQ).
  void get(const SPI::AccessPointList& scanned, const SPI::CellTowerList& cells,
           std::vector<LocatedAccessPoint>& located) override;

  // Opens the tile files found in the directory ("looking for existing tiles
  // in %s", "found tile %s"). Called by the constructor.
  void scanDirectory();

  // Writes a downloaded tile as "<id>_<version>.dat" in the directory, in one
  // go through a temporary file ("tile %s successfully saved as %s (%d)").
  // Returns false (logged) when the tile's name cannot be a file name or the
  // file cannot be written; nothing is left behind then.
  bool saveTile(const TileInfo& tile, const char* data, unsigned long size, std::string& path);

  // The identifier of the main tile; "" while none is set.
  [[nodiscard]] std::string mainTile() const;
  [[nodiscard]] const TilingParameters& parameters() const { return parameters_; }
  [[nodiscard]] const std::string& realm() const { return realm_; }
  [[nodiscard]] TileCollection& collection() { return *collection_; }
  [[nodiscard]] TilingClient& client() { return *client_; }

 private:
  void onTilingRS(const TileInfoList& tiles) override;
  void onTilingFailed(const char* reason, int code) override;
  bool onTileDownloaded(unsigned index, unsigned count, const TileInfo& tile, const char* data,
                        unsigned long size) override;
  bool onTileFailed(unsigned index, unsigned count, const TileInfo& tile, int error) override;
  // Calls the application's callback; false when it answered WPS_STOP.
  bool report(unsigned index, unsigned count);
  [[nodiscard]] std::string filePath(const std::string& name) const;

  SPI::Logger& logger_;  // "WPS.API.Tiling"
  const TilingParameters parameters_;
  const std::string realm_;
  bool enabled_ = false;
  mutable SPI::StdMutex mainTileMu_;
  std::string mainTile_ WPS_GUARDED_BY(mainTileMu_);
  std::unique_ptr<TileCollection> collection_;
  std::unique_ptr<TilingClient> client_;  // after the collection: goes first
};

}  // namespace API
}  // namespace WPS
