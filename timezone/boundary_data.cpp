#include "timezone/boundary_data.h"

#include <filesystem>

#include "platform/file_system.h"
#include "platform/processes.h"
#include "platform/xdg.h"

namespace zonara::timezone {
namespace {

namespace fs = std::filesystem;

std::string inShare(const std::string& share) {
  return (fs::path(share) / "zonara" / BoundaryDataSearch::kFileName).string();
}

}  // namespace

BoundaryDataSearch BoundaryDataSearch::forThisProcess() {
  BoundaryDataSearch search;
  search.explicitPath = environmentValue("ZONARA_TZ_DATA").value_or("");
  search.dataHome = xdgDataHome();
  search.dataDirs = xdgDataDirs();
  search.installPrefix = ZONARA_INSTALL_PREFIX;
  search.executablePath = currentExecutablePath();
  return search;
}

std::vector<std::string> BoundaryDataSearch::candidates() const {
  if (!explicitPath.empty()) return {explicitPath};
  std::vector<std::string> out;
  if (!dataHome.empty()) out.push_back(inShare(dataHome));
  for (const std::string& dir : dataDirs) out.push_back(inShare(dir));
  if (!installPrefix.empty()) out.push_back(inShare(installPrefix + "/share"));
  if (!executablePath.empty()) {
    for (fs::path dir = fs::path(executablePath).parent_path().parent_path(); !dir.empty();
         dir = dir.parent_path()) {
      out.push_back(inShare((dir / "share").string()));
      if (dir == dir.root_path()) break;
    }
  }
  return out;
}

std::string findBoundaryData(const BoundaryDataSearch& search) {
  for (const std::string& path : search.candidates()) {
    if (isRegularFile(path)) return path;
  }
  return "";
}

BoundaryData openBoundaryData(const BoundaryDataSearch& search, std::string* error) {
  std::string refusals;
  const std::vector<std::string> candidates = search.candidates();
  for (const std::string& path : candidates) {
    if (!search.explicitPath.empty() && !isRegularFile(path)) {
      if (error) *error = "ZONARA_TZ_DATA names " + path + ", which is not a readable file";
      return {};
    }
    if (!isRegularFile(path)) continue;
    std::string why;
    std::unique_ptr<BoundaryIndex> index = BoundaryIndex::open(path, &why);
    if (index) return {std::move(index), path};
    refusals += (refusals.empty() ? "" : "; ") + why;
  }
  if (error) {
    if (!refusals.empty()) {
      *error = "no usable time-zone boundary data: " + refusals;
    } else {
      *error = "no time-zone boundary data (zonara/" + std::string(BoundaryDataSearch::kFileName) +
               " under XDG_DATA_HOME, XDG_DATA_DIRS or the install prefix; or set ZONARA_TZ_DATA)";
    }
  }
  return {};
}

}  // namespace zonara::timezone
