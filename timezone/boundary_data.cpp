#include "timezone/boundary_data.h"

#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>

namespace zonara::timezone {
namespace {

namespace fs = std::filesystem;

constexpr const char* kDefaultDataDirs = "/usr/local/share:/usr/share";

std::string environment(const char* name) {
  const char* value = std::getenv(name);
  return value ? value : "";
}

std::vector<std::string> splitFolders(const std::string& list) {
  std::vector<std::string> folders;
  size_t start = 0;
  while (start <= list.size()) {
    size_t end = list.find(':', start);
    if (end == std::string::npos) end = list.size();
    // XDG: relative entries are invalid and ignored.
    if (end > start && list[start] == '/') folders.push_back(list.substr(start, end - start));
    start = end + 1;
  }
  return folders;
}

std::string inShare(const std::string& share) {
  return (fs::path(share) / "zonara" / BoundaryDataSearch::kFileName).string();
}

bool isRegularFile(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

}  // namespace

BoundaryDataSearch BoundaryDataSearch::forThisProcess() {
  BoundaryDataSearch search;
  search.explicitPath = environment("ZONARA_TZ_DATA");
  search.dataHome = environment("XDG_DATA_HOME");
  search.home = environment("HOME");
  search.dataDirs = environment("XDG_DATA_DIRS");
  search.installPrefix = ZONARA_INSTALL_PREFIX;
  std::error_code ec;
  const fs::path exe = fs::read_symlink("/proc/self/exe", ec);
  if (!ec) search.executablePath = exe.string();
  return search;
}

std::vector<std::string> BoundaryDataSearch::candidates() const {
  if (!explicitPath.empty()) return {explicitPath};
  std::vector<std::string> out;
  if (!dataHome.empty() && dataHome.front() == '/') {
    out.push_back(inShare(dataHome));
  } else if (!home.empty()) {
    out.push_back(inShare(home + "/.local/share"));
  }
  std::vector<std::string> dirs = splitFolders(dataDirs);
  if (dirs.empty()) dirs = splitFolders(kDefaultDataDirs);
  for (const std::string& dir : dirs) out.push_back(inShare(dir));
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
