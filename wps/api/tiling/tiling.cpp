#include "wps/api/tiling/tiling.h"

#include <algorithm>
#include <utility>

#include "wps/api/tiles/tile_writer.h"
#include "wps/spi/file.h"

namespace WPS {
namespace API {

namespace {

const char* printable(const std::string& tile) { return tile.empty() ? "unknown" : tile.c_str(); }

// A text that can be used as a part of a tile's file name: no path separator,
// no '_' in the version (it would move the split between id and version), no
// control characters, and not a directory name.
bool usableInFileName(const std::string& text, bool allowUnderscore) {
  if (text.empty() || text == "." || text == "..") return false;
  for (unsigned char c : text) {
    if (c == '/' || c < 0x20 || c == 0x7f || (!allowUnderscore && c == '_')) return false;
  }
  return true;
}

bool usableTile(const TileInfo& tile) {
  return usableInFileName(tile.id, true) && usableInFileName(tile.version, false);
}

}  // namespace

Tiling::Tiling(const SimpleAuthentication& authentication, const TilingParameters& parameters,
               ScanCache::Limits limits)
    : logger_(SPI::Logger::getLogger("WPS.API.Tiling")),
      parameters_(parameters),
      realm_(authentication.realm),
      collection_(std::make_unique<TileCollection>(authentication.realm, parameters.maxDataSizeTotal)),
      client_(std::make_unique<TilingClient>(static_cast<TilingClient::Owner&>(*this), authentication, parameters.maxDataSizePerSession, limits)) {
  scanDirectory();
}

Tiling::~Tiling() {
  // The client's threads call back into this object: they end first.
  client_.reset();
}

std::string Tiling::filePath(const std::string& name) const {
  const std::string& dir = parameters_.directory;
  if (!dir.empty() && dir.back() == '/') return dir + name;
  return dir + "/" + name;
}

void Tiling::scanDirectory() {
  const std::string& dir = parameters_.directory;
  logger_.info("looking for existing tiles in %s", dir.c_str());
  if (!SPI::Directory::isDirectory(dir)) (void)SPI::Directory::create(dir);
  std::unique_ptr<SPI::Directory> listing = SPI::Directory::newInstance();
  const int rc = listing->open(dir);
  if (rc != 0) {
    logger_.error("failed to open %s with error %d. Tiling is disabled", dir.c_str(), rc);
    enabled_ = false;
    return;
  }
  enabled_ = true;

  struct Found {
    TileInfo info;
    std::string path;
    int64_t modified;
  };
  std::vector<Found> found;
  std::string name;
  while (listing->next(name)) {
    const std::string path = filePath(name);
    // A write cut short by a crash leaves its temporary file.
    if (name.size() > 8 && name.compare(name.size() - 8, 8, ".dat.tmp") == 0) {
      logger_.info("removing leftover %s", path.c_str());
      SPI::File::remove(path);
      continue;
    }
    TileInfo info;
    if (!parseTileFileName(name, info)) continue;
    const int64_t modified = SPI::File::modificationTime(path);
    if (modified < 0) continue;
    found.push_back({info, path, modified});
  }
  listing->close();

  // Oldest first, so that the most recently written tiles end up the most
  // recently used ones (the last to be closed or deleted).
  std::sort(found.begin(), found.end(), [](const Found& a, const Found& b) {
    return a.modified != b.modified ? a.modified < b.modified : a.path < b.path;
  });
  for (const Found& f : found) {
    logger_.info("found tile %s", tileName(f.info).c_str());
    (void)collection_->add(f.info, f.path);
  }
}

void Tiling::get(const std::vector<SPI::ScannedAccessPoint>& scanned, const std::vector<SPI::ScannedCellTower>& cells,
                 std::vector<LocatedAccessPoint>& located) {
  if (!enabled_ || scanned.empty()) return;
  client_->saveScan(scanned, cells);
  const std::string best = collection_->get(scanned, located);
  if (best.empty()) {
    logger_.info("can't determine location from the current tiles");
  } else {
    const std::string main = mainTile();
    if (best != main) logger_.info("most macs were found in tile %s (main tile is %s)", best.c_str(), printable(main));
  }
  (void)client_->postTilingRQ();
}

std::string Tiling::mainTile() const {
  SPI::StdMutexLock lock(mainTileMu_);
  return mainTile_;
}

void Tiling::onTilingRS(const TileInfoList& listed) {
  logger_.info("location server returned %u tiles", static_cast<unsigned>(listed.size()));
  if (!listed.empty()) {
    const std::string& suggested = listed.front().id;
    SPI::StdMutexLock lock(mainTileMu_);
    if (suggested == mainTile_) {
      logger_.info("main tile remains %s", suggested.c_str());
    } else {
      logger_.info("switching to main tile %s as suggested by server, was %s", suggested.c_str(),
                   printable(mainTile_));
      mainTile_ = suggested;
    }
  }

  TileInfoList usable;
  for (const TileInfo& tile : listed) {
    if (usableTile(tile)) {
      usable.push_back(tile);
    } else {
      logger_.error("tile %s cannot be stored under its name, ignored", tileName(tile).c_str());
    }
  }
  const TileInfoList fresh = collection_->selectNew(usable);
  if (fresh.empty()) {
    logger_.info("no new tiles to download");
    return;
  }
  const unsigned count = static_cast<unsigned>(fresh.size());
  if (!report(0, count)) {
    logger_.info("WPS_TilingCallback returned WPS_STOP before downloading the first tile");
    return;
  }
  logger_.info("queued %u tiles to download", count);
  client_->queueTilesToDownload(fresh);
}

void Tiling::onTilingFailed(const char* reason, int code) { logger_.error("%s (%d)", reason, code); }

bool Tiling::saveTile(const TileInfo& tile, const char* data, unsigned long size, std::string& path) {
  const std::string name = tileName(tile);
  if (!usableTile(tile)) {
    logger_.error("tile %s cannot be stored under its name, ignored", name.c_str());
    return false;
  }
  path = filePath(name + ".dat");
  std::vector<unsigned char> bytes(data, data + size);
  std::string error;
  if (!writeTileFile(path, bytes, error)) {
    logger_.error("failed to save tile %s: %s", name.c_str(), error.c_str());
    return false;
  }
  logger_.info("tile %s successfully saved as %s (%d)", name.c_str(), path.c_str(), static_cast<int>(size));
  return true;
}

bool Tiling::onTileDownloaded(unsigned index, unsigned count, const TileInfo& tile, const char* data,
                              unsigned long size) {
  std::string path;
  if (saveTile(tile, data, size, path)) (void)collection_->add(tile, path);
  return report(index, count);
}

bool Tiling::onTileFailed(unsigned index, unsigned count, const TileInfo&, int) { return report(index, count); }

bool Tiling::report(unsigned index, unsigned count) {
  if (parameters_.callback == nullptr) return true;
  if (parameters_.callback(parameters_.callbackArg, index, count) == WPS_STOP) {
    if (index > 0) logger_.info("WPS_TilingCallback returned WPS_STOP, stopping the downloads");
    return false;
  }
  return true;
}

}  // namespace API
}  // namespace WPS
