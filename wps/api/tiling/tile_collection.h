// The downloaded tile files the device keeps open for local positioning.
//
// A `TileCollection` holds at most kMaxOpenTiles open tile files of one
// realm, in least-recently-used order, and keeps the files it knows of within
// a size quota. It decides on every new tile file whether it replaces an older
// revision of the same tile or is itself outdated, deletes the files it
// rejects, and answers which of a scan's MACs its tiles know.
//
// A tile's revision is read from its version text: the leading run of decimal
// digits as an unsigned number ("17" and "17-b" are 17); a version without a
// leading digit has revision 0. Only the revision orders tiles of the same
// identifier.
//
// Thread safety: every public member takes the collection's mutex for its
// whole run, so look-ups from the caller's thread and additions from the
// download thread never interleave.
//
// The open files sit in a `CompressedFileCollection`, whose cache of found
// access points answers repeated MACs; a tile that is closed leaves the cache.
//
// Ownership: the collection owns its readers; it deletes files from disk only
// as described at each member.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "wps/api/protocol/location.h"
#include "wps/api/tiles/compressed_file_collection.h"
#include "wps/api/tiles/compressed_file_reader.h"
#include "wps/api/tiles/located_access_point.h"
#include "wps/spi/concurrent.h"
#include "wps/spi/logger.h"
#include "wps/spi/scan.h"

namespace WPS {
namespace API {

// A tile as the collection knows it: the server's description plus what the
// device adds.
struct CollectedTileInfo {
  TileInfo info;          // identifier, version and download location
  uint64_t revision = 0;  // read from info.version (revisionOf)
  std::string path;       // the local file
  int64_t size = 0;       // bytes of the file when it was added
};

// The revision number of a version text (see above).
[[nodiscard]] uint64_t revisionOf(const std::string& version);
// "<id>_<version>": how a tile is named in messages and files.
[[nodiscard]] std::string tileName(const TileInfo& info);
// Splits a tile file name "<id>_<version>.dat" (the id may itself contain '_';
// the version is what follows the last one). False for any other name.
[[nodiscard]] bool parseTileFileName(const std::string& fileName, TileInfo& info);

class TileCollection {
 public:
  // Open tiles beyond this count close the least recently used one.
  static constexpr size_t kMaxOpenTiles = 64;

  // Tiles are opened for `realm`; all files together may hold `quota` bytes.
  TileCollection(std::string realm, uint64_t quota);
  ~TileCollection();
  TileCollection(const TileCollection&) = delete;
  TileCollection& operator=(const TileCollection&) = delete;

  // Takes the tile file `path` (named by `info`) into the collection:
  //  - a tile of the same identifier at the same or a newer revision wins: the
  //    new file is deleted, "tile %s_%s is older than existing %s_%s" is
  //    logged and false returned;
  //  - an older revision is removed and its file deleted ("tile %s_%s is
  //    replaced by %s_%s");
  //  - a file that cannot be opened is deleted ("failed to open %s, deleting
  //    the file...") and false returned;
  //  - after insertion the least recently used files are deleted while all
  //    files exceed the quota, then the least recently used tiles are closed
  //    (files kept) while more than kMaxOpenTiles are open. The new tile itself
  //    may be among them.
  // True when the tile was opened and inserted.
  bool add(const TileInfo& info, const std::string& path);

  // Closes the least recently used tile, deleting its file when `deleteFile`
  // ("removing %s"). Nothing happens when the collection is empty.
  void pop(bool deleteFile);

  // Looks every MAC of `scanned` up in the open tiles (most recently hit tile
  // first; a hit moves the tile to the front) and appends each found access
  // point once to `located`. Returns the identifier of the tile with the most
  // hits (the earliest such tile on a tie), or "" when no tile holds any.
  [[nodiscard]] std::string get(const std::vector<SPI::ScannedAccessPoint>& scanned,
                                std::vector<LocatedAccessPoint>& located);

  // The tiles of `offered` that the collection does not hold at the same or a
  // newer revision, in the given order.
  [[nodiscard]] TileInfoList selectNew(const TileInfoList& offered);

  // Inspection.
  [[nodiscard]] size_t tileCount();
  [[nodiscard]] uint64_t totalSize();
  // Tiles from most to least recently used.
  [[nodiscard]] std::vector<CollectedTileInfo> tiles();
  [[nodiscard]] bool contains(const std::string& id);

 private:
  using Handle = CompressedFileList::Handle;

  void popLocked(bool deleteFile) WPS_REQUIRES(mutex_);
  void removeLocked(Handle handle, bool deleteFile) WPS_REQUIRES(mutex_);

  SPI::Logger& logger_;  // "WPS.API.TileCollection"
  const std::string realm_;
  const uint64_t quota_;
  SPI::PthreadMutex mutex_;
  // The open files in least-recently-used order, with the cache of found
  // access points in front of them.
  CompressedFileCollection files_ WPS_GUARDED_BY(mutex_);
  // The tile of each open file.
  std::map<Handle, CollectedTileInfo> tiles_ WPS_GUARDED_BY(mutex_);
  size_t tileCount_ WPS_GUARDED_BY(mutex_) = 0;
  uint64_t totalSize_ WPS_GUARDED_BY(mutex_) = 0;
};

}  // namespace API
}  // namespace WPS
