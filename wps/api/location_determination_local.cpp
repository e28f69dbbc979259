#include "wps/api/location_determination_local.h"

#include "wps/api/access_point_database.h"
#include "wps/api/location_determination_private.h"
#include "wps/api/tier2_collection.h"

namespace WPS {
namespace API {

std::unique_ptr<LocationDeterminationLocal> LocationDeterminationLocal::newInstance(const char* path) {
  return std::make_unique<LocationDeterminationPrivate>(path);
}

LocationDeterminationLocal::LocationDeterminationLocal(const char* path) : path_(path ? path : "") {}

LocationDeterminationLocal::~LocationDeterminationLocal() = default;

int LocationDeterminationLocal::open(const SimpleAuthentication& authentication) {
  authentication_ = authentication;
  database_ = std::make_unique<AccessPointDatabase>(authentication, paths_, tiles_);
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

void LocationDeterminationLocal::set_tier2_area(const char* dir, unsigned long quota_kb) {
  // The old area's open file is closed and queued before the new one starts.
  tier2_.reset();
  if (dir == nullptr || *dir == '\0') return;
  tier2_ = Tier2Collection::newInstance(authentication_, dir, quota_kb);
}

}  // namespace API
}  // namespace WPS
