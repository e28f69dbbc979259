#include "wps/api/local/access_point_database.h"

#include <algorithm>

#include "wps/spi/file.h"

namespace WPS {
namespace API {

// ---------------------------------------------------------------------------
// AccessPointDatabase

namespace {

// The tile files named by `path`: the regular files of a directory in name
// order, or the path itself.
std::vector<std::string> expandPath(const std::string& path) {
  if (!SPI::Directory::isDirectory(path)) return {path};
  std::vector<std::string> files;
  std::unique_ptr<SPI::Directory> dir = SPI::Directory::newInstance();
  if (!dir || dir->open(path) != 0) return files;
  std::string name;
  while (dir->next(name)) {
    const std::string full = path + "/" + name;
    if (SPI::File::exists(full)) files.push_back(full);
  }
  dir->close();
  std::sort(files.begin(), files.end());
  return files;
}

}  // namespace

AccessPointDatabase::AccessPointDatabase(const SimpleAuthentication& authentication,
                                         const std::vector<std::string>& paths, TileSource* tiles)
    : logger_(SPI::Logger::getLogger("WPS.API.AccessPointDatabase")),
      collection_(authentication.realm),
      tiles_(tiles) {
  for (const std::string& path : paths) {
    for (const std::string& file : expandPath(path)) (void)collection_.add(file);
  }
}

void AccessPointDatabase::get(const SPI::AccessPointList& scanned, const SPI::CellTowerList& cells,
                              std::vector<LocatedAccessPoint>& located) {
  const size_t before = located.size();
  if (tiles_ != nullptr) tiles_->get(scanned, cells, located);
  if (learned_ != nullptr) learned_->get(scanned, cells, located);
  if (located.size() > before) return;
  const bool debug = logger_.isEnabledFor(SPI::Logger::DEBUG);
  for (const SPI::ScannedAccessPoint& ap : scanned) {
    LocatedAccessPoint lap;
    if (collection_.get(ap.mac, lap) != nullptr) {
      located.push_back(lap);
      if (debug) logger_.debug("MAC %s extracted successfully", ap.mac.toString().c_str());
    } else if (debug) {
      logger_.debug("MAC %s not found", ap.mac.toString().c_str());
    }
  }
}

}  // namespace API
}  // namespace WPS
