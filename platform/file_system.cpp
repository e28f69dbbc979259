#include "platform/file_system.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace zonara {

int createFolderIfAbsent(const std::string& path) {
  struct stat st;
  if (lstat(path.c_str(), &st) == 0) return 0;
  return mkdir(path.c_str(), 0755) == 0 ? 0 : errno;
}

int createFolders(const std::string& path) {
  std::string partial;
  std::stringstream parts(path);
  std::string part;
  if (!path.empty() && path[0] != '/') partial = ".";
  while (std::getline(parts, part, '/')) {
    if (part.empty()) continue;
    partial += "/" + part;
    if (mkdir(partial.c_str(), 0755) != 0 && errno != EEXIST) return errno;
  }
  return isFolder(path) ? 0 : ENOTDIR;
}

bool pathExists(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0;
}

bool isFolder(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool isRegularFile(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

bool isExecutableFile(const std::string& path) { return isRegularFile(path) && access(path.c_str(), X_OK) == 0; }

std::optional<std::string> resolvedPath(const std::string& path) {
  if (path.empty()) return std::nullopt;
  char resolved[PATH_MAX];
  if (realpath(path.c_str(), resolved) == nullptr) return std::nullopt;
  return std::string(resolved);
}

std::optional<std::string> readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  std::stringstream text;
  text << in.rdbuf();
  if (in.bad()) return std::nullopt;
  return text.str();
}

int writeFileAtomically(const std::string& path, const std::string& content, unsigned mode) {
  const std::string tmp = path + ".tmp";
  int fd = open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
  if (fd < 0) return errno;
  int error = 0;
  if (write(fd, content.data(), content.size()) != static_cast<ssize_t>(content.size())) error = errno ? errno : EIO;
  if (close(fd) != 0 && error == 0) error = errno;
  if (error == 0 && rename(tmp.c_str(), path.c_str()) != 0) error = errno;
  if (error != 0) unlink(tmp.c_str());
  return error;
}

int removeFile(const std::string& path) { return unlink(path.c_str()) == 0 ? 0 : errno; }

int folderEntries(const std::string& path, std::vector<std::string>* names) {
  DIR* dir = opendir(path.c_str());
  if (dir == nullptr) return errno;
  while (struct dirent* e = readdir(dir)) {
    std::string name = e->d_name;
    if (name != "." && name != "..") names->push_back(std::move(name));
  }
  closedir(dir);
  std::sort(names->begin(), names->end());
  return 0;
}

std::vector<std::string> findFolders(const std::string& path, const std::string& suffix) {
  namespace fs = std::filesystem;
  std::vector<std::string> found;
  std::error_code ec;
  fs::recursive_directory_iterator it(path, fs::directory_options::skip_permission_denied, ec);
  for (; !ec && it != fs::recursive_directory_iterator(); it.increment(ec)) {
    const std::string name = it->path().filename().string();
    if (name.size() <= suffix.size() || name.compare(name.size() - suffix.size(), suffix.size(), suffix) != 0) continue;
    // What a found folder holds is its own affair.
    it.disable_recursion_pending();
    std::error_code typeError;
    if (it->is_directory(typeError)) found.push_back(it->path().string());
  }
  std::sort(found.begin(), found.end());
  return found;
}

}  // namespace zonara
