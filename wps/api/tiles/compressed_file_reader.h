// Reader of one tile file: checks the file against the realm it was opened
// for, loads its tiles and looks access points up in them.
//
// A tile file is untrusted input. Whatever its content or length, opening it
// and looking MACs up never reads outside its memory mapping; a file whose
// header, trailer, length table or any tile header is wrong is "broken" and
// not opened, and corrupt records only make MACs absent.
//
// Ownership: `newInstance()` hands the reader to the caller; the reader owns
// its file, the mapping and the tiles. Thread safety: a reader is used by one
// thread at a time (the library lock serialises its users); distinct readers
// are independent.
#pragma once

#include <cstdint>
#include <list>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "wps/api/tiles/located_access_point.h"
#include "wps/api/tiles/tile.h"
#include "wps/spi/file.h"
#include "wps/spi/logger.h"
#include "wps/spi/scan.h"

namespace WPS {
namespace API {

// The magic at the start of every tile file, and its length.
inline constexpr char fileHEAD[] = "WPS2";
inline constexpr size_t fileHEADSZ = 4;
// Bytes after the length table: the 2-byte tile count and the 16-byte MD4
// trailer.
inline constexpr size_t kTileFileTrailerSize = 18;

// Limits of the absent-MAC list: (access points in the file) / 256, kept
// between these two.
inline constexpr unsigned kMinAbsentCapacity = 20;
inline constexpr unsigned kMaxAbsentCapacity = 500;

class CompressedFileReader {
 public:
  virtual ~CompressedFileReader() = default;
  // A new reader with nothing open.
  [[nodiscard]] static std::unique_ptr<CompressedFileReader> newInstance();

  // Opens `fileName` for `realm` (empty: a file whose keys are plain MACs),
  // closing what was open. Returns 0 when the file is mapped, its trailer
  // matches the realm and every tile is valid; otherwise -1 with the reason
  // logged, and nothing stays open. An empty file is dropped with an info
  // message only ("Ignore empty file %s") and also gives -1.
  [[nodiscard]] virtual int open(const std::string& realm, const std::string& fileName) = 0;
  // The access point of `mac`, or an all-zero value (`empty()`) when the file
  // does not hold it or nothing is open.
  [[nodiscard]] virtual LocatedAccessPoint get(const SPI::MAC& mac) = 0;
  // Releases the mapping, the tiles and both lists. Safe when nothing is open.
  virtual void close() = 0;
  // The name given to the last successful `open` (empty when closed).
  [[nodiscard]] virtual const std::string& fileName() const = 0;
};

class CompressedFileReaderProtected final : public CompressedFileReader {
 public:
  CompressedFileReaderProtected();
  ~CompressedFileReaderProtected() override;

  [[nodiscard]] int open(const std::string& realm, const std::string& fileName) override;
  [[nodiscard]] LocatedAccessPoint get(const SPI::MAC& mac) override;
  void close() override;
  [[nodiscard]] const std::string& fileName() const override { return fileName_; }

  // Opens tile file contents that are already in memory (`buffer`, taken over)
  // under the name `fileName`: the same checks and messages as `open` after
  // its file steps. Used by tools and tests that hold a file in memory.
  [[nodiscard]] int openBuffer(const std::string& realm, const std::string& fileName,
                               std::unique_ptr<SPI::MemoryBuffer> buffer);

  // Inspection, for tools and tests.
  // Tiles in file order (borrowed, valid until close).
  [[nodiscard]] std::vector<const Tile*> tiles() const;
  // Tile numbers of the hot list (tiles that had a hit, most recent first) and
  // of the cold list (tiles without a hit yet, in file order).
  [[nodiscard]] std::vector<int> hotTileNumbers() const;
  [[nodiscard]] std::vector<int> coldTileNumbers() const;
  // The most MACs the absent-MAC list holds (set by `open`); how many more it
  // takes before it starts dropping its least recently used entry; and how
  // many it holds.
  [[nodiscard]] unsigned absentLimit() const { return absentLimit_; }
  [[nodiscard]] unsigned absentCapacity() const { return absentCapacity_; }
  [[nodiscard]] size_t absentCount() const { return absent_.size(); }
  // MACs of the absent-MAC list, most recently used first.
  [[nodiscard]] std::vector<SPI::MAC> absentMACs() const;

 private:
  using TileList = std::list<std::unique_ptr<Tile>>;

  [[nodiscard]] bool checkDataHeader();
  [[nodiscard]] bool loadTiles();
  // Searches `list`; on a hit moves the tile to the front of the hot list.
  [[nodiscard]] bool searchList(TileList& list, const SPI::MAC& mac, LocatedAccessPoint& out);
  void rememberAbsent(const SPI::MAC& mac);

  SPI::Logger& logger_;
  std::string realm_;
  std::string fileName_;
  std::unique_ptr<SPI::File> file_;
  std::unique_ptr<SPI::MemoryBuffer> buffer_;
  TileList hot_;
  TileList cold_;
  std::vector<const Tile*> fileOrder_;
  // Absent MACs, most recently used first, with an index by 48-bit value.
  std::list<uint64_t> absent_;
  std::unordered_map<uint64_t, std::list<uint64_t>::iterator> absentIndex_;
  unsigned absentLimit_ = 0;
  unsigned absentCapacity_ = 0;
};

}  // namespace API
}  // namespace WPS
