// The learned places of this installation on disk, and their use by the local
// determination.
//
// A folder (the helper's is $XDG_DATA_HOME/Zonara/Learned/) holds two files,
// both bound to the installation's realm and holding keyed hashes, never MACs:
//   places.state  the LearnedStore in its serialised form (learned_store.h):
//                 what learning needs (running means, sightings, last seen,
//                 the access points being ignored);
//   places.wps    a tile file (docs/tile-format.md) of the learned access
//                 points, one tile per degree cell with the cell's corner as
//                 origin, read by the local determination like a downloaded
//                 tile.
// Each save writes both to temporary files and then renames them into place
// (tile file first), so a crash leaves the old files whole. A state file that
// cannot be read (another realm, altered, cut short) is set aside as
// places.state.corrupt (with the tile file as places.wps.corrupt), logged,
// and learning starts again empty; a missing or broken tile file is rebuilt
// from the state.
//
// As a TileSource it finds the learned access points among a scan.
//
// Thread safety: none; the library serialises every use on its lock.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "wps/api/learn/learned_store.h"
#include "wps/api/tiles/compressed_file_collection.h"
#include "wps/api/tiles/compressed_file_reader.h"
#include "wps/spi/logger.h"

namespace WPS {
namespace API {

class LearnedPlaces final : public TileSource {
 public:
  static constexpr const char* kStateFile = "places.state";
  static constexpr const char* kTileFile = "places.wps";
  static constexpr const char* kCorruptSuffix = ".corrupt";

  // Loads the folder's learned places for `realm` (not empty), creating the
  // folder when missing. Never fails: what cannot be read is set aside.
  LearnedPlaces(std::string directory, std::string realm, size_t capacity = LearnedStore::kCapacity);
  ~LearnedPlaces() override;
  LearnedPlaces(const LearnedPlaces&) = delete;
  LearnedPlaces& operator=(const LearnedPlaces&) = delete;

  // Learns from a server's fix (LearnedStore::learn) and saves when anything
  // was recorded. Returns the number of access points recorded.
  size_t learn(const SPI::AccessPointList& scanned, const Location& fix);

  // TileSource: the learned access points among `scanned`.
  void get(const SPI::AccessPointList& scanned, const SPI::CellTowerList& cells,
           std::vector<LocatedAccessPoint>& located) override;
  // The accuracy a position from `located` can have at best: the smallest
  // learned accuracy among the learned access points of the list; 0 when none
  // of them is learned.
  [[nodiscard]] double accuracyFloor(const std::vector<LocatedAccessPoint>& located) const;
  // True when every access point of `located` (not empty) is a learned one.
  [[nodiscard]] bool allLearned(const std::vector<LocatedAccessPoint>& located) const;

  // Deletes everything learned (both files); returns the number of access
  // points forgotten.
  size_t forget();
  // Forgets what is held in memory when another process deleted the files
  // (the control program's forget), so the next save does not bring it back.
  void refresh();

  [[nodiscard]] const LearnedStore& store() const { return store_; }
  [[nodiscard]] const std::string& directory() const { return directory_; }

  // Called between writing the temporary files and renaming them; answering
  // false stops the save there, as a crash would. For tests.
  void setBeforeRenameForTesting(std::function<bool()> hook) { beforeRename_ = std::move(hook); }

 private:
  void load();
  void setAside();
  [[nodiscard]] bool save();
  void openTiles();
  [[nodiscard]] std::string path(const char* name) const { return directory_ + "/" + name; }

  SPI::Logger& logger_;  // "WPS.API.LearnedPlaces"
  std::string directory_;
  LearnedStore store_;
  std::unique_ptr<CompressedFileReader> tiles_;  // null while no tile file is open
  std::function<bool()> beforeRename_;
};

}  // namespace API
}  // namespace WPS
