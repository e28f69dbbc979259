#include "wps/api/learn/learned_places.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "wps/api/tiles/tile_writer.h"
#include "wps/spi/file.h"

namespace WPS {
namespace API {
namespace {

// The whole content of a small file; false when it cannot be read.
bool readWholeFile(const std::string& path, std::vector<unsigned char>& bytes) {
  auto file = SPI::File::newInstance();
  if (!file || file->open(path, SPI::File::READ) != 0) return false;
  const int64_t size = file->size();
  if (size < 0) return false;
  bytes.resize(static_cast<size_t>(size));
  size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t n = file->read(bytes.data() + done, bytes.size() - done);
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

}  // namespace

LearnedPlaces::LearnedPlaces(std::string directory, std::string realm, size_t capacity)
    : logger_(SPI::Logger::getLogger("WPS.API.LearnedPlaces")),
      directory_(std::move(directory)),
      store_(std::move(realm), capacity) {
  load();
}

LearnedPlaces::~LearnedPlaces() = default;

void LearnedPlaces::load() {
  if (!SPI::Directory::isDirectory(directory_) && SPI::Directory::create(directory_) != 0) {
    logger_.error("cannot create the learned places folder %s", directory_.c_str());
  }
  // A save that stopped before its renames leaves temporary files behind.
  for (const char* name : {kStateFile, kTileFile}) {
    const std::string temporary = path(name) + kTemporarySuffix;
    if (SPI::File::exists(temporary)) (void)SPI::File::remove(temporary);
  }
  if (!SPI::File::exists(path(kStateFile))) {
    if (SPI::File::exists(path(kTileFile))) (void)SPI::File::remove(path(kTileFile));
    return;
  }
  std::vector<unsigned char> bytes;
  if (!readWholeFile(path(kStateFile), bytes) || !store_.parse(bytes)) {
    logger_.warn("learned places in %s cannot be read: set aside, learning starts again", directory_.c_str());
    setAside();
    return;
  }
  openTiles();
  if (!tiles_ && store_.size() > 0) {
    logger_.info("learned tile file of %s missing or broken: rebuilt", directory_.c_str());
    (void)save();
  }
  logger_.info("%lu learned access points in %s", static_cast<unsigned long>(store_.size()), directory_.c_str());
}

void LearnedPlaces::setAside() {
  for (const char* name : {kStateFile, kTileFile}) {
    const std::string from = path(name);
    const std::string to = from + kCorruptSuffix;
    if (SPI::File::exists(from) && SPI::File::rename(from, to) != 0) (void)SPI::File::remove(from);
  }
  (void)store_.clear();
  tiles_.reset();
}

void LearnedPlaces::openTiles() {
  tiles_.reset();
  if (!SPI::File::exists(path(kTileFile))) return;
  auto reader = CompressedFileReader::newInstance();
  if (reader && reader->open(store_.realm(), path(kTileFile)) == 0) tiles_ = std::move(reader);
}

bool LearnedPlaces::save() {
  tiles_.reset();
  if (store_.size() == 0) {
    for (const char* name : {kStateFile, kTileFile}) {
      if (SPI::File::exists(path(name))) (void)SPI::File::remove(path(name));
    }
    return true;
  }
  TileWriterOptions options;
  options.realm = store_.realm();
  options.precisionCode = LearnedStore::kPrecisionCode;
  options.tileSizeDegrees = LearnedStore::kCellDegrees;
  options.cellOrigins = true;
  options.presetKeys = true;
  std::vector<unsigned char> tileBytes;
  std::string error;
  const bool written = buildTileFile(store_.tileRecords(), options, tileBytes, error) &&
                       writeTemporaryFile(path(kTileFile), tileBytes, error) &&
                       writeTemporaryFile(path(kStateFile), store_.serialize(), error);
  if (!written) {
    logger_.error("cannot save learned places: %s", error.c_str());
    openTiles();
    return false;
  }
  if (beforeRename_ && !beforeRename_()) return false;
  const bool replaced =
      replaceWithTemporaryFile(path(kTileFile), error) && replaceWithTemporaryFile(path(kStateFile), error);
  if (!replaced) logger_.error("cannot save learned places: %s", error.c_str());
  openTiles();
  return replaced;
}

void LearnedPlaces::refresh() {
  if (store_.size() == 0 || SPI::File::exists(path(kStateFile))) return;
  logger_.info("learned places of %s were deleted: forgotten", directory_.c_str());
  (void)store_.clear();
  tiles_.reset();
}

size_t LearnedPlaces::learn(const SPI::AccessPointList& scanned, const Location& fix) {
  refresh();
  const size_t recorded = store_.learn(scanned, fix);
  if (recorded > 0) {
    logger_.debug("learned %lu access points at %f, %f +/-%.0fm", static_cast<unsigned long>(recorded),
                  fix.latitude, fix.longitude, fix.hpe);
    (void)save();
  }
  return recorded;
}

void LearnedPlaces::get(const SPI::AccessPointList& scanned, const SPI::CellTowerList& /*cells*/,
                        std::vector<LocatedAccessPoint>& located) {
  if (!tiles_) return;
  for (const SPI::ScannedAccessPoint& ap : scanned) {
    const bool already = std::any_of(located.begin(), located.end(),
                                     [&ap](const LocatedAccessPoint& l) { return l.mac == ap.mac; });
    if (already) continue;
    const LocatedAccessPoint found = tiles_->get(ap.mac);
    if (!found.empty()) located.push_back(found);
  }
}

double LearnedPlaces::accuracyFloor(const std::vector<LocatedAccessPoint>& located) const {
  double floor = std::numeric_limits<double>::infinity();
  for (const LocatedAccessPoint& ap : located) {
    if (const LearnedStore::Entry* entry = store_.find(ap.mac)) floor = std::min(floor, entry->accuracy);
  }
  return std::isinf(floor) ? 0.0 : floor;
}

bool LearnedPlaces::allLearned(const std::vector<LocatedAccessPoint>& located) const {
  return !located.empty() && std::all_of(located.begin(), located.end(), [this](const LocatedAccessPoint& ap) {
    return store_.find(ap.mac) != nullptr;
  });
}

size_t LearnedPlaces::forget() {
  const size_t forgotten = store_.clear();
  (void)save();
  return forgotten;
}

}  // namespace API
}  // namespace WPS
