// Files, directories and memory-mapped views for the positioning library.
//
// Every failing system call is logged with the path, errno and strerror text
// (category "WPS.SPI.IO.UnixFile" or "WPS.SPI.IO.UnixDirectory") and its errno
// is returned (0 = success).
//
// Thread safety: one `File` or `Directory` object must not be used by two
// threads at once; distinct objects are independent. A `MemoryBuffer` is
// read-only and may be read from any thread while it lives.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace WPS {
namespace SPI {

// A read-only view of part of a file, mapped into memory. The mapping lives as
// long as the buffer and is independent of the `File` it came from.
class MemoryBuffer {
 public:
  virtual ~MemoryBuffer() = default;
  // A pointer to `length` bytes at `offset` within the view, or nullptr when
  // that range is not inside the view (never a pointer past the mapping).
  [[nodiscard]] virtual const unsigned char* acquire(size_t offset, size_t length) const = 0;
  // Ends the use of a pointer from `acquire`. Does nothing; kept so callers
  // say when they are done.
  virtual void release(const unsigned char* pointer) const = 0;
  // Size of the view in bytes.
  [[nodiscard]] virtual size_t size() const = 0;
};

class File {
 public:
  // Mode bits for `open`.
  enum Mode : int {
    READ = 1,
    WRITE = 2,          // read-write when combined with READ
    CREATE = 4,         // create when missing (permissions 0644)
    TRUNCATE = 8,       // empty an existing file
    APPEND = 16,        // every write goes to the end
  };

  virtual ~File() = default;
  // A new, closed file object.
  [[nodiscard]] static std::unique_ptr<File> newInstance();

  // Opens `path`; closes a file already open first. Returns 0 or errno and logs
  // "open(%s) failed %d: %s".
  [[nodiscard]] virtual int open(const std::string& path, int mode) = 0;
  // Reads up to `length` bytes; returns the count (0 at the end) or -1 with the
  // error logged.
  [[nodiscard]] virtual ssize_t read(void* buffer, size_t length) = 0;
  // Writes all `length` bytes; returns 0 or errno and logs "write(%s) failed %d: %s".
  [[nodiscard]] virtual int write(const void* buffer, size_t length) = 0;
  // Maps `length` bytes at `offset` read-only. Returns nullptr on failure and logs
  // "mmap(%s, %d, %d) failed %d: %s" (path, offset, length, errno, text). A range
  // that is empty or reaches past the end of the file fails with EINVAL rather
  // than giving a mapping whose access would fault.
  [[nodiscard]] virtual std::unique_ptr<MemoryBuffer> map(size_t offset, size_t length) = 0;
  // Closes the file (no-op when closed); returns 0 or errno and logs
  // "close(%s) failed %d: %s".
  virtual int close() = 0;
  // Size of the open file, or -1.
  [[nodiscard]] virtual int64_t size() = 0;
  [[nodiscard]] virtual bool isOpen() const = 0;
  [[nodiscard]] virtual const std::string& path() const = 0;

  // Removes a file; returns 0 or errno and logs "unlink(%s) failed %d: %s".
  static int remove(const std::string& path);
  // Renames `from` to `to`, replacing `to` atomically when it exists; returns
  // 0 or errno and logs "rename(%s) failed %d: %s" with `from`.
  static int rename(const std::string& from, const std::string& to);
  // Size of a file in bytes, or -1 with "stat(%s) failed %d: %s" logged.
  [[nodiscard]] static int64_t size(const std::string& path);
  // True when `path` names an existing regular file (nothing is logged).
  [[nodiscard]] static bool exists(const std::string& path);
  // When `path` names an existing regular file, the time of its last
  // modification in seconds since the epoch; otherwise -1 (nothing is logged).
  [[nodiscard]] static int64_t modificationTime(const std::string& path);
};

class Directory {
 public:
  virtual ~Directory() = default;
  [[nodiscard]] static std::unique_ptr<Directory> newInstance();

  // Opens a directory for listing; returns 0 or errno and logs
  // "opendir(%s) failed %d: %s".
  [[nodiscard]] virtual int open(const std::string& path) = 0;
  // Stores the next entry's name (never "." or "..") and returns true, or
  // returns false at the end of the listing.
  [[nodiscard]] virtual bool next(std::string& name) = 0;
  // Closes the listing; returns 0 or errno and logs "closedir(%p) failed %d: %s".
  virtual int close() = 0;

  // True when `path` names an existing directory.
  [[nodiscard]] static bool isDirectory(const std::string& path);
  // Creates `path` and its missing parents (mode 0755); returns 0 or errno.
  static int create(const std::string& path);
};

}  // namespace SPI
}  // namespace WPS
