// POSIX implementation of File, Directory and MemoryBuffer.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "wps/spi/file.h"
#include "wps/spi/logger.h"

namespace WPS {
namespace SPI {
namespace {

Logger& fileLogger() { return Logger::getLogger("WPS.SPI.IO.UnixFile"); }
Logger& directoryLogger() { return Logger::getLogger("WPS.SPI.IO.UnixDirectory"); }

const char* errorText(int code, char* buffer, size_t size) { return strerror_r(code, buffer, size); }

// Logs "<call>(<path>) failed <errno>: <text>" and returns the code.
int logPathFailure(Logger& logger, const char* call, const std::string& path, int code) {
  char text[256];
  logger.error("%s(%s) failed %d: %s", call, path.c_str(), code, errorText(code, text, sizeof text));
  return code;
}

// A read-only mapping. The kernel maps whole pages from a page-aligned file
// offset; the view starts `lead_` bytes into the mapping.
class UnixMemoryBuffer final : public MemoryBuffer {
 public:
  UnixMemoryBuffer(void* base, size_t mappedLength, size_t lead, size_t length)
      : base_(base), mappedLength_(mappedLength), lead_(lead), length_(length) {}
  ~UnixMemoryBuffer() override { munmap(base_, mappedLength_); }
  UnixMemoryBuffer(const UnixMemoryBuffer&) = delete;
  UnixMemoryBuffer& operator=(const UnixMemoryBuffer&) = delete;

  const unsigned char* acquire(size_t offset, size_t length) const override {
    if (offset > length_ || length > length_ - offset) return nullptr;
    return static_cast<const unsigned char*>(base_) + lead_ + offset;
  }
  void release(const unsigned char*) const override {}
  size_t size() const override { return length_; }

 private:
  void* base_;
  size_t mappedLength_;
  size_t lead_;
  size_t length_;
};

class UnixFile final : public File {
 public:
  ~UnixFile() override { close(); }

  int open(const std::string& path, int mode) override {
    close();
    int flags = O_CLOEXEC;
    if ((mode & WRITE) || (mode & APPEND)) {
      flags |= (mode & READ) ? O_RDWR : O_WRONLY;
    } else {
      flags |= O_RDONLY;
    }
    if (mode & CREATE) flags |= O_CREAT;
    if (mode & TRUNCATE) flags |= O_TRUNC;
    if (mode & APPEND) flags |= O_APPEND;
    int fd;
    do {
      fd = ::open(path.c_str(), flags, 0644);
    } while (fd < 0 && errno == EINTR);
    if (fd < 0) return logPathFailure(fileLogger(), "open", path, errno);
    fd_ = fd;
    path_ = path;
    return 0;
  }

  ssize_t read(void* buffer, size_t length) override {
    if (fd_ < 0) return -1;
    ssize_t n;
    do {
      n = ::read(fd_, buffer, length);
    } while (n < 0 && errno == EINTR);
    if (n < 0) logPathFailure(fileLogger(), "read", path_, errno);
    return n;
  }

  int write(const void* buffer, size_t length) override {
    if (fd_ < 0) return EBADF;
    const char* p = static_cast<const char*>(buffer);
    while (length > 0) {
      ssize_t n = ::write(fd_, p, length);
      if (n < 0) {
        if (errno == EINTR) continue;
        return logPathFailure(fileLogger(), "write", path_, errno);
      }
      p += n;
      length -= static_cast<size_t>(n);
    }
    return 0;
  }

  std::unique_ptr<MemoryBuffer> map(size_t offset, size_t length) override {
    int code = 0;
    struct stat st;
    if (fd_ < 0) {
      code = EBADF;
    } else if (fstat(fd_, &st) != 0) {
      code = errno;
    } else if (length == 0 || offset > static_cast<size_t>(st.st_size) ||
               length > static_cast<size_t>(st.st_size) - offset) {
      code = EINVAL;
    }
    if (code == 0) {
      const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
      const size_t alignedOffset = offset - offset % page;
      const size_t lead = offset - alignedOffset;
      void* base = mmap(nullptr, length + lead, PROT_READ, MAP_PRIVATE, fd_, static_cast<off_t>(alignedOffset));
      if (base != MAP_FAILED) return std::make_unique<UnixMemoryBuffer>(base, length + lead, lead, length);
      code = errno;
    }
    char text[256];
    fileLogger().error("mmap(%s, %d, %d) failed %d: %s", path_.c_str(), static_cast<int>(offset),
                       static_cast<int>(length), code, errorText(code, text, sizeof text));
    return nullptr;
  }

  int close() override {
    if (fd_ < 0) return 0;
    int rc = ::close(fd_);
    fd_ = -1;
    if (rc != 0 && errno != EINTR) return logPathFailure(fileLogger(), "close", path_, errno);
    return 0;
  }

  int64_t size() override {
    struct stat st;
    if (fd_ < 0) return -1;
    if (fstat(fd_, &st) != 0) {
      logPathFailure(fileLogger(), "stat", path_, errno);
      return -1;
    }
    return st.st_size;
  }

  bool isOpen() const override { return fd_ >= 0; }
  const std::string& path() const override { return path_; }

 private:
  int fd_ = -1;
  std::string path_;
};

class UnixDirectory final : public Directory {
 public:
  ~UnixDirectory() override { close(); }

  int open(const std::string& path) override {
    close();
    dir_ = opendir(path.c_str());
    if (dir_ == nullptr) return logPathFailure(directoryLogger(), "opendir", path, errno);
    return 0;
  }

  bool next(std::string& name) override {
    if (dir_ == nullptr) return false;
    while (struct dirent* entry = readdir(dir_)) {
      if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0) continue;
      name = entry->d_name;
      return true;
    }
    return false;
  }

  int close() override {
    if (dir_ == nullptr) return 0;
    DIR* dir = dir_;
    dir_ = nullptr;
    // The handle is printed as "%p" would print it; format it before it is freed.
    char handle[32];
    std::snprintf(handle, sizeof handle, "%p", static_cast<void*>(dir));
    if (closedir(dir) != 0) {
      int code = errno;
      char text[256];
      directoryLogger().error("closedir(%s) failed %d: %s", handle, code, errorText(code, text, sizeof text));
      return code;
    }
    return 0;
  }

 private:
  DIR* dir_ = nullptr;
};

}  // namespace

std::unique_ptr<File> File::newInstance() { return std::make_unique<UnixFile>(); }

int File::remove(const std::string& path) {
  if (::unlink(path.c_str()) != 0) return logPathFailure(fileLogger(), "unlink", path, errno);
  return 0;
}

int64_t File::size(const std::string& path) {
  struct stat st;
  if (::stat(path.c_str(), &st) != 0) {
    logPathFailure(fileLogger(), "stat", path, errno);
    return -1;
  }
  return st.st_size;
}

int File::rename(const std::string& from, const std::string& to) {
  if (::rename(from.c_str(), to.c_str()) != 0) return logPathFailure(fileLogger(), "rename", from, errno);
  return 0;
}

bool File::exists(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

int64_t File::modificationTime(const std::string& path) {
  struct stat st;
  if (::stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return -1;
  return static_cast<int64_t>(st.st_mtime);
}

std::unique_ptr<Directory> Directory::newInstance() { return std::make_unique<UnixDirectory>(); }

bool Directory::isDirectory(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

int Directory::create(const std::string& path) {
  if (path.empty()) return EINVAL;
  if (isDirectory(path)) return 0;
  const size_t slash = path.find_last_of('/');
  if (slash != std::string::npos && slash > 0) {
    int rc = create(path.substr(0, slash));
    if (rc != 0) return rc;
  }
  if (::mkdir(path.c_str(), 0755) != 0 && errno != EEXIST) {
    return logPathFailure(directoryLogger(), "mkdir", path, errno);
  }
  return 0;
}

}  // namespace SPI
}  // namespace WPS
