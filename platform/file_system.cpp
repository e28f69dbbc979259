#include "platform/file_system.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
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

bool isReadable(const std::string& path) { return access(path.c_str(), R_OK) == 0; }

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

namespace {

// 0, or the errno of the failing write (EIO when it wrote nothing).
int writeAll(int fd, const std::string& content) {
  size_t done = 0;
  while (done < content.size()) {
    const ssize_t n = write(fd, content.data() + done, content.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return n < 0 ? errno : EIO;
    done += static_cast<size_t>(n);
  }
  return 0;
}

}  // namespace

int writeFileAtomically(const std::string& path, const std::string& content, unsigned mode) {
  const std::string tmp = path + ".tmp";
  int fd = open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
  if (fd < 0) return errno;
  int error = writeAll(fd, content);
  if (close(fd) != 0 && error == 0) error = errno;
  if (error == 0 && rename(tmp.c_str(), path.c_str()) != 0) error = errno;
  if (error != 0) unlink(tmp.c_str());
  return error;
}

int appendToFile(const std::string& path, const std::string& content, unsigned mode) {
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, mode);
  if (fd < 0) return errno;
  int error = writeAll(fd, content);
  if (error == 0 && fdatasync(fd) != 0) error = errno;
  if (close(fd) != 0 && error == 0) error = errno;
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

std::unique_ptr<MappedFile> MappedFile::open(const std::string& path, std::string* error) {
  auto fail = [&](const std::string& why) -> std::unique_ptr<MappedFile> {
    if (error) *error = path + ": " + why;
    return nullptr;
  };
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return fail(std::strerror(errno));
  struct stat st{};
  if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    close(fd);
    return fail("not a regular file");
  }
  const size_t size = static_cast<size_t>(st.st_size);
  if (size == 0) {  // nothing to map
    close(fd);
    return std::unique_ptr<MappedFile>(new MappedFile(nullptr, 0));
  }
  void* data = mmap(nullptr, size, PROT_READ, MAP_SHARED, fd, 0);
  const int mapError = errno;
  close(fd);  // the mapping keeps the file
  if (data == MAP_FAILED) return fail(std::string("cannot map: ") + std::strerror(mapError));
  return std::unique_ptr<MappedFile>(new MappedFile(static_cast<const uint8_t*>(data), size));
}

MappedFile::~MappedFile() {
  if (data_ != nullptr) munmap(const_cast<uint8_t*>(data_), size_);
}

}  // namespace zonara
