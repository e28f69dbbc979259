// The tile files a positioning look-up reads, and the source it asks first.
//
// `TileSource` is what answers before the local files: the downloaded tiles.
// `CompressedFileCollection` holds a set of open tile files
// (`CompressedFileList`, most recently hit first) with a cache of the 50 most
// recently found access points in front, so a MAC seen again is answered
// without touching any file.
//
// Ownership: the collection owns its readers; a "file handle" is a borrowed
// `CompressedFileReader*` that stays valid until that file is popped, removed
// or the collection is destroyed.
//
// Thread safety: none. The positioning library serialises every use on its
// lock; the tile collection wraps its own use in its mutex.
#pragma once

#include <cstddef>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include "wps/api/tiles/compressed_file_reader.h"
#include "wps/api/tiles/located_access_point.h"
#include "wps/spi/logger.h"
#include "wps/spi/scan.h"

namespace WPS {
namespace API {

// A source of located access points that is asked before the local files:
// the downloaded tiles. Implemented by the tile collection.
class TileSource {
 public:
  virtual ~TileSource() = default;
  // Appends to `located` the known access points among `scanned` (any order,
  // unknown MACs left out). Called with the library lock held.
  virtual void get(const SPI::AccessPointList& scanned, const SPI::CellTowerList& cells,
                   std::vector<LocatedAccessPoint>& located) = 0;
};

// The open tile files, most recently hit first.
class CompressedFileList {
 public:
  using Handle = CompressedFileReader*;

  explicit CompressedFileList(std::string realm = {});
  ~CompressedFileList();
  CompressedFileList(const CompressedFileList&) = delete;
  CompressedFileList& operator=(const CompressedFileList&) = delete;

  // Opens `path` for the list's realm and puts it in front (a new file counts
  // as the most recently used). Returns its handle, or nullptr when the file
  // cannot be opened (the reader has logged why).
  [[nodiscard]] Handle add(const std::string& path);
  // Takes an already open reader (tests, tools). Returns its handle, or
  // nullptr for a null reader.
  Handle add(std::unique_ptr<CompressedFileReader> reader);
  // Looks `mac` up in each file in order; on a hit moves that file to the
  // front, fills `out` and returns its handle. Returns nullptr when no file
  // holds the MAC.
  [[nodiscard]] Handle get(const SPI::MAC& mac, LocatedAccessPoint& out);
  // Takes the least recently used file out of the list and hands it, still
  // open, to the caller (destroying it closes it). Null when the list is empty.
  [[nodiscard]] std::unique_ptr<CompressedFileReader> pop();
  // Takes the file of `handle` out of the list (null when it is not there).
  [[nodiscard]] std::unique_ptr<CompressedFileReader> remove(Handle handle);

  [[nodiscard]] size_t size() const { return files_.size(); }
  // Handles, most recently hit first.
  [[nodiscard]] std::vector<Handle> handles() const;
  [[nodiscard]] const std::string& realm() const { return realm_; }

 private:
  std::string realm_;
  std::list<std::unique_ptr<CompressedFileReader>> files_;
};

// The local tile files with a cache of recently found access points.
class CompressedFileCollection {
 public:
  // Places in the found-access-point cache.
  static constexpr size_t kCacheSize = 50;

  explicit CompressedFileCollection(std::string realm = {});
  CompressedFileCollection(const CompressedFileCollection&) = delete;
  CompressedFileCollection& operator=(const CompressedFileCollection&) = delete;

  // The access point of `mac` into `lap`, from the cache or the files; returns
  // the handle of the file it came from, or nullptr (then `lap` is untouched)
  // when no file holds it.
  [[nodiscard]] CompressedFileList::Handle get(const SPI::MAC& mac, LocatedAccessPoint& lap);

  // Opens a file and adds it to the list (see CompressedFileList::add).
  [[nodiscard]] CompressedFileList::Handle add(const std::string& path) { return files_.add(path); }
  CompressedFileList::Handle add(std::unique_ptr<CompressedFileReader> reader) {
    return files_.add(std::move(reader));
  }
  // Closes the least recently used file after dropping its cached entries.
  // Returns its file name, or "" when no file is open.
  [[nodiscard]] std::string pop();
  // Closes the file of `handle` after dropping its cached entries. Returns
  // false when the handle is not in the list.
  bool remove(CompressedFileList::Handle handle);

  // Drops every cached entry of `file`. Each dropped entry gives its place
  // back, so closing files never shrinks the cache below 50 places.
  void remove_from_cache(CompressedFileList::Handle file);

  [[nodiscard]] CompressedFileList& files() { return files_; }
  [[nodiscard]] const CompressedFileList& files() const { return files_; }
  // Cached MACs, most recently used first, and the free places left.
  [[nodiscard]] std::vector<SPI::MAC> cachedMACs() const;
  [[nodiscard]] size_t freeCachePlaces() const { return free_; }

 private:
  struct CacheEntry {
    LocatedAccessPoint lap;
    CompressedFileList::Handle file;
  };

  [[nodiscard]] CompressedFileList::Handle find_in_cache(const SPI::MAC& mac, LocatedAccessPoint& lap);
  void cache_ap(const LocatedAccessPoint& lap, CompressedFileList::Handle file);

  SPI::Logger& logger_;
  CompressedFileList files_;
  std::list<CacheEntry> cache_;
  size_t free_ = kCacheSize;
};

}  // namespace API
}  // namespace WPS
