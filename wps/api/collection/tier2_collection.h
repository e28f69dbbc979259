// Scan collection for upload: every local location request with a collection
// area records the access points the tiles do not know, one tab-separated
// text line each, into gzip files in the collection directory, which a
// `BoundedFileQueue` keeps within its size quota.
//
// Line format (one per unknown access point of a scan, ending in '\n'):
//   local time "%Y/%m/%d %I:%M:%S %p" TAB user TAB latitude TAB longitude
//   then access-point records "\tMAC\tSIGNAL": the unknown access point, the
//   known ones of the scan, then the other unknown ones.
// The MAC is twelve upper-case hexadecimal digits, positions use "%.6f".
//
// Files are named "T" + the creation time in whole seconds in base 36. A file
// is closed and queued once kCloseSize uncompressed bytes (or an eighth of
// the quota, when that is smaller) went into it, and when the collection
// closes. The queue counts the collection files already in the directory at
// start; it never counts or deletes a file it cannot tell is one.
//
// Ownership: `newInstance` hands the collection to the caller; it owns its
// open file and its queue. Thread safety: none (the library lock serialises
// its users).
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "wps/api/protocol/location.h"
#include "wps/spi/logger.h"
#include "wps/spi/scan.h"

namespace WPS {
namespace API {

// A compressed file written in pieces.
class CompressedFile {
 public:
  virtual ~CompressedFile() = default;
  // A gzip file.
  [[nodiscard]] static std::unique_ptr<CompressedFile> newInstance();

  // Opens `name` for appending (created when missing), closing what was open.
  // Returns 0, or -1 when the file cannot be opened.
  [[nodiscard]] virtual int open(const std::string& name) = 0;
  // Compresses and appends `size` bytes. Returns 0, or -1 on failure or when
  // nothing is open.
  [[nodiscard]] virtual int write(const void* data, size_t size) = 0;
  // Uncompressed bytes written since `open`, or -1 when nothing is open.
  [[nodiscard]] virtual long tell() = 0;
  // Flushes and closes; returns 0, or -1 when the final write failed. Safe
  // when nothing is open.
  virtual int close() = 0;
  [[nodiscard]] virtual bool isOpen() const = 0;
  // True when `name` begins with the gzip magic bytes.
  [[nodiscard]] static bool isCompressedFile(const std::string& name);
};

class GzipCompressedFile final : public CompressedFile {
 public:
  GzipCompressedFile() = default;
  ~GzipCompressedFile() override;
  GzipCompressedFile(const GzipCompressedFile&) = delete;
  GzipCompressedFile& operator=(const GzipCompressedFile&) = delete;

  [[nodiscard]] int open(const std::string& name) override;
  [[nodiscard]] int write(const void* data, size_t size) override;
  [[nodiscard]] long tell() override;
  int close() override;
  [[nodiscard]] bool isOpen() const override { return file_ != nullptr; }

 private:
  void* file_ = nullptr;  // gzFile
  long startOffset_ = 0;
};

// The closed collection files of a directory, oldest first, kept within a
// size quota by deleting the oldest.
class BoundedFileQueue {
 public:
  // Counts the collection files already in `directory` (named "T" + base 36
  // and holding gzip data whose text begins like a collection line; other
  // files are left alone), oldest first, and deletes the oldest at once when
  // they exceed the quota.
  BoundedFileQueue(std::string directory, uint64_t quotaBytes);

  // Queues the file `name` (in the directory) with its size on disk, or
  // updates its size when it is queued already; then deletes the oldest files
  // (possibly this one) until the total fits the quota.
  void push(const std::string& name);

  [[nodiscard]] uint64_t totalSize() const { return total_; }
  [[nodiscard]] uint64_t quota() const { return quota_; }
  // File names, oldest first.
  [[nodiscard]] std::vector<std::string> names() const;

 private:
  void enforceQuota();

  SPI::Logger& logger_;
  std::string directory_;
  uint64_t quota_;
  uint64_t total_ = 0;
  std::deque<std::pair<std::string, uint64_t>> files_;
};

class Tier2Collection {
 public:
  // Uncompressed bytes after which a file is closed and queued.
  static constexpr long kCloseSize = 64 * 1024;

  virtual ~Tier2Collection() = default;

  // An opened collection in `directory` (created when missing) holding at
  // most `quotaKb` kilobytes, writing the user name of `authentication` into
  // its lines. Logs "tier2 area set to %s with quota = %u kb". Null when the
  // directory cannot be created.
  [[nodiscard]] static std::unique_ptr<Tier2Collection> newInstance(const SimpleAuthentication& authentication,
                                                                    const std::string& directory,
                                                                    unsigned long quotaKb);

  // Writes one line per access point of `unknown` (none for an empty list).
  // `scan` is the whole scan, `known` and `unknown` its split by the tiles.
  void put(double latitude, double longitude, const SPI::AccessPointList& scan, const SPI::AccessPointList& known,
           const SPI::AccessPointList& unknown);

  // Appends a line to the present file. Returns 0 or -1.
  virtual int write(const std::string& line) = 0;
  // Closes and queues the present file.
  virtual void flush() = 0;

  // The user identity written into the lines.
  void setAuthentication(const SimpleAuthentication& authentication) { user_ = authentication.username; }
  [[nodiscard]] const std::string& directory() const { return directory_; }

  // "\t" + twelve upper-case hexadecimal digits + "\t" + signal.
  [[nodiscard]] static std::string format_ap_record(const SPI::ScannedAccessPoint& ap);
  // "T" + the present time in whole seconds, base 36.
  [[nodiscard]] static std::string generate_filename();
  // "T" + `seconds` in base 36 ("T0" for 0).
  [[nodiscard]] static std::string filenameForTime(uint64_t seconds);

 protected:
  Tier2Collection(const SimpleAuthentication& authentication, std::string directory);

  SPI::Logger& logger_;
  std::string user_;
  std::string directory_;
};

class Tier2CollectionCompressed final : public Tier2Collection {
 public:
  Tier2CollectionCompressed(const SimpleAuthentication& authentication, const std::string& directory,
                            uint64_t quotaBytes);
  ~Tier2CollectionCompressed() override;

  int write(const std::string& line) override;
  void flush() override;

  [[nodiscard]] const BoundedFileQueue& queue() const { return queue_; }
  // Uncompressed size at which the present file is closed.
  [[nodiscard]] long closeSize() const { return closeSize_; }

 private:
  std::unique_ptr<CompressedFile> file_;
  std::string fileName_;
  long closeSize_;
  BoundedFileQueue queue_;
};

}  // namespace API
}  // namespace WPS
