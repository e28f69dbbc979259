#include "wps/api/local/location_determination_local.h"

#include "wps/api/collection/tier2_collection.h"
#include "wps/api/learn/learned_places.h"
#include "wps/api/local/access_point_database.h"
#include "wps/api/local/location_determination_private.h"
#include "wps/api/tiling/tiling.h"

namespace WPS {
namespace API {

std::unique_ptr<LocationDeterminationLocal> LocationDeterminationLocal::newInstance(const char* path) {
  return std::make_unique<LocationDeterminationPrivate>(path);
}

LocationDeterminationLocal::LocationDeterminationLocal(const char* path) : path_(path ? path : "") {}

LocationDeterminationLocal::~LocationDeterminationLocal() = default;

int LocationDeterminationLocal::open(const SimpleAuthentication& authentication) {
  const bool sameUser =
      authentication_.username == authentication.username && authentication_.realm == authentication.realm;
  authentication_ = authentication;
  if (!tiling_.configured()) {
    if (downloadedTiles_ && tiles_ == downloadedTiles_.get()) tiles_ = nullptr;
    downloadedTiles_.reset();
  } else if (!downloadedTiles_ || !sameUser || !(downloadedTiles_->parameters() == tiling_)) {
    if (downloadedTiles_ && tiles_ == downloadedTiles_.get()) tiles_ = nullptr;
    downloadedTiles_.reset();  // aborts its downloads and waits for them
    downloadedTiles_ = std::make_unique<Tiling>(authentication, tiling_);
    tiles_ = downloadedTiles_.get();
  }
  database_ = std::make_unique<AccessPointDatabase>(authentication, paths_, tiles_);
  database_->setLearnedSource(learned_);
  if (tier2_) tier2_->setAuthentication(authentication);
  return 0;
}

void LocationDeterminationLocal::close() { database_.reset(); }

void LocationDeterminationLocal::set_paths(const char** paths) {
  paths_.clear();
  if (paths == nullptr) return;
  for (const char** p = paths; *p != nullptr; ++p) paths_.emplace_back(*p);
}

void LocationDeterminationLocal::set_tiling(const TilingParameters& parameters) { tiling_ = parameters; }

void LocationDeterminationLocal::set_tile_source(TileSource* tiles) {
  tiles_ = tiles;
  if (database_) database_->setTileSource(tiles);
}

void LocationDeterminationLocal::set_learned_places(LearnedPlaces* learned) {
  learned_ = learned;
  if (database_) database_->setLearnedSource(learned);
}

void LocationDeterminationLocal::set_tier2_area(const char* dir, unsigned long quota_kb) {
  // The old area's open file is closed and queued before the new one starts.
  tier2_.reset();
  if (dir == nullptr || *dir == '\0') return;
  tier2_ = Tier2Collection::newInstance(authentication_, dir, quota_kb);
}

}  // namespace API
}  // namespace WPS
