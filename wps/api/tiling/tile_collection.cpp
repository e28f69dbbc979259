#include "wps/api/tiling/tile_collection.h"

#include <algorithm>
#include <set>
#include <utility>

#include "wps/spi/file.h"

namespace WPS {
namespace API {

uint64_t revisionOf(const std::string& version) {
  uint64_t revision = 0;
  for (char c : version) {
    if (c < '0' || c > '9') break;
    const uint64_t digit = static_cast<uint64_t>(c - '0');
    // Saturate rather than wrap: an absurdly long number still sorts last.
    if (revision > (UINT64_MAX - digit) / 10) return UINT64_MAX;
    revision = revision * 10 + digit;
  }
  return revision;
}

std::string tileName(const TileInfo& info) { return info.id + "_" + info.version; }

bool parseTileFileName(const std::string& fileName, TileInfo& info) {
  static const std::string kExtension = ".dat";
  if (fileName.size() <= kExtension.size() ||
      fileName.compare(fileName.size() - kExtension.size(), kExtension.size(), kExtension) != 0) {
    return false;
  }
  const std::string stem = fileName.substr(0, fileName.size() - kExtension.size());
  const size_t underscore = stem.rfind('_');
  if (underscore == std::string::npos || underscore == 0 || underscore + 1 == stem.size()) return false;
  info.id = stem.substr(0, underscore);
  info.version = stem.substr(underscore + 1);
  info.url.clear();
  return true;
}

TileCollection::TileCollection(std::string realm, uint64_t quota)
    : logger_(SPI::Logger::getLogger("WPS.API.TileCollection")),
      realm_(std::move(realm)),
      quota_(quota),
      files_(realm_) {}

TileCollection::~TileCollection() {
  SPI::MutexLock lock(mutex_);
  tiles_.clear();
}

bool TileCollection::add(const TileInfo& info, const std::string& path) {
  SPI::MutexLock lock(mutex_);
  const uint64_t revision = revisionOf(info.version);
  std::vector<Handle> replaced;
  for (const auto& [handle, tile] : tiles_) {
    if (tile.info.id != info.id) continue;
    if (revision <= tile.revision) {
      logger_.info("tile %s_%s is older than existing %s_%s", info.id.c_str(), info.version.c_str(),
                   tile.info.id.c_str(), tile.info.version.c_str());
      // The same file can be offered again (found at start and downloaded
      // under the same name): never delete the file the collection holds.
      if (path != tile.path) SPI::File::remove(path);
      return false;
    }
    logger_.info("tile %s_%s is replaced by %s_%s", tile.info.id.c_str(), tile.info.version.c_str(),
                 info.id.c_str(), info.version.c_str());
    replaced.push_back(handle);
  }
  for (Handle handle : replaced) removeLocked(handle, true);

  logger_.info("adding tile %s_%s to collection", info.id.c_str(), info.version.c_str());
  const Handle handle = files_.add(path);
  if (handle == nullptr) {
    logger_.error("failed to open %s, deleting the file...", path.c_str());
    SPI::File::remove(path);
    return false;
  }

  CollectedTileInfo& tile = tiles_[handle];
  tile.info = info;
  tile.revision = revision;
  tile.path = path;
  tile.size = std::max<int64_t>(0, SPI::File::size(path));
  totalSize_ += static_cast<uint64_t>(tile.size);
  ++tileCount_;

  // Size first: it removes files. The count limit only closes them.
  while (totalSize_ > quota_ && !tiles_.empty()) {
    logger_.info("the size of the tiles exceeded quota, popping the LRU tile...");
    popLocked(true);
  }
  while (tileCount_ > kMaxOpenTiles) {
    logger_.info("too many tiles opened, popping the LRU tile...");
    popLocked(false);
  }
  return true;
}

void TileCollection::pop(bool deleteFile) {
  SPI::MutexLock lock(mutex_);
  popLocked(deleteFile);
}

void TileCollection::popLocked(bool deleteFile) {
  const std::vector<Handle> handles = files_.files().handles();
  if (handles.empty()) return;
  removeLocked(handles.back(), deleteFile);
}

void TileCollection::removeLocked(Handle handle, bool deleteFile) {
  auto it = tiles_.find(handle);
  if (it == tiles_.end()) return;
  logger_.info("removing %s", it->second.path.c_str());
  // Drops the file's cached access points and closes it.
  files_.remove(handle);
  if (deleteFile) SPI::File::remove(it->second.path);
  totalSize_ -= static_cast<uint64_t>(it->second.size);
  tiles_.erase(it);
  --tileCount_;
}

std::string TileCollection::get(const std::vector<SPI::ScannedAccessPoint>& scanned,
                                std::vector<LocatedAccessPoint>& located) {
  SPI::MutexLock lock(mutex_);
  std::vector<std::pair<std::string, unsigned>> hits;  // in order of first hit
  std::set<uint64_t> seen;
  for (const SPI::ScannedAccessPoint& ap : scanned) {
    if (!seen.insert(ap.mac.value()).second) continue;
    LocatedAccessPoint found;
    const Handle handle = files_.get(ap.mac, found);
    if (handle == nullptr) continue;
    auto tile = tiles_.find(handle);
    if (tile == tiles_.end()) continue;
    located.push_back(found);
    const std::string& id = tile->second.info.id;
    auto counted = std::find_if(hits.begin(), hits.end(), [&](const auto& h) { return h.first == id; });
    if (counted == hits.end()) {
      hits.emplace_back(id, 1);
    } else {
      ++counted->second;
    }
  }
  std::string best;
  unsigned bestHits = 0;
  for (const auto& [id, count] : hits) {
    if (count > bestHits) {
      best = id;
      bestHits = count;
    }
  }
  return best;
}

TileInfoList TileCollection::selectNew(const TileInfoList& offered) {
  SPI::MutexLock lock(mutex_);
  TileInfoList selected;
  for (const TileInfo& info : offered) {
    const uint64_t revision = revisionOf(info.version);
    bool held = false;
    for (const auto& [handle, tile] : tiles_) {
      if (tile.info.id == info.id && tile.revision >= revision) {
        held = true;
        break;
      }
    }
    if (!held) selected.push_back(info);
  }
  return selected;
}

size_t TileCollection::tileCount() {
  SPI::MutexLock lock(mutex_);
  return tileCount_;
}

uint64_t TileCollection::totalSize() {
  SPI::MutexLock lock(mutex_);
  return totalSize_;
}

std::vector<CollectedTileInfo> TileCollection::tiles() {
  SPI::MutexLock lock(mutex_);
  std::vector<CollectedTileInfo> out;
  for (Handle handle : files_.files().handles()) {
    auto it = tiles_.find(handle);
    if (it != tiles_.end()) out.push_back(it->second);
  }
  return out;
}

bool TileCollection::contains(const std::string& id) {
  SPI::MutexLock lock(mutex_);
  for (const auto& [handle, tile] : tiles_) {
    if (tile.info.id == id) return true;
  }
  return false;
}

}  // namespace API
}  // namespace WPS
