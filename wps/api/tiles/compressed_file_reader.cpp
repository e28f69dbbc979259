#include "wps/api/tiles/compressed_file_reader.h"

#include <cstring>

#include "wps/api/tiles/md4.h"

namespace WPS {
namespace API {

std::unique_ptr<CompressedFileReader> CompressedFileReader::newInstance() {
  return std::make_unique<CompressedFileReaderProtected>();
}

CompressedFileReaderProtected::CompressedFileReaderProtected()
    : logger_(SPI::Logger::getLogger("WPS.API.CompressedFileReader")) {}

CompressedFileReaderProtected::~CompressedFileReaderProtected() { close(); }

int CompressedFileReaderProtected::open(const std::string& realm, const std::string& fileName) {
  close();
  realm_ = realm;
  logger_.info("Opening %s for realm %s...", fileName.c_str(), realm.c_str());

  file_ = SPI::File::newInstance();
  if (!file_) {
    logger_.error("Couldn't instantiate File object");
    return -1;
  }
  if (file_->open(fileName, SPI::File::READ) != 0) {
    logger_.error("Couldn't open %s", fileName.c_str());
    close();
    return -1;
  }
  const int64_t size = file_->size();
  if (size < 0) {
    logger_.error("size() failed for file %s", fileName.c_str());
    close();
    return -1;
  }
  if (size == 0) {
    logger_.info("Ignore empty file %s", fileName.c_str());
    close();
    return -1;
  }
  std::unique_ptr<SPI::MemoryBuffer> mapped = file_->map(0, static_cast<size_t>(size));
  if (!mapped) {
    logger_.error("Couldn't map file %s", fileName.c_str());
    close();
    return -1;
  }
  // The mapping outlives the descriptor; nothing else is read through it.
  file_->close();
  return openBuffer(realm, fileName, std::move(mapped));
}

int CompressedFileReaderProtected::openBuffer(const std::string& realm, const std::string& fileName,
                                              std::unique_ptr<SPI::MemoryBuffer> buffer) {
  close();
  realm_ = realm;
  buffer_ = std::move(buffer);
  fileName_ = fileName;
  if (!buffer_) return -1;
  if (!checkDataHeader() || !loadTiles()) {
    logger_.error("Compressed file %s is broken", fileName.c_str());
    close();
    return -1;
  }
  return 0;
}

bool CompressedFileReaderProtected::checkDataHeader() {
  const size_t size = buffer_->size();
  if (size <= fileHEADSZ + kTileFileTrailerSize) return false;
  const unsigned char* head = buffer_->acquire(0, fileHEADSZ);
  if (head == nullptr) return false;
  const bool magic = std::memcmp(head, fileHEAD, fileHEADSZ) == 0;
  buffer_->release(head);
  if (!magic) return false;
  const unsigned char* digest = buffer_->acquire(size - kMD4DigestSize, kMD4DigestSize);
  if (digest == nullptr) return false;
  const bool bound = cmpMD4Hash(std::string(fileHEAD, fileHEADSZ) + realm_, digest) == 0;
  buffer_->release(digest);
  return bound;
}

bool CompressedFileReaderProtected::loadTiles() {
  const uint64_t size = buffer_->size();
  if (size < kTileFileTrailerSize) return false;
  const unsigned char* countBytes = buffer_->acquire(size - kTileFileTrailerSize, 2);
  if (countBytes == nullptr) return false;
  const unsigned tileCount = (unsigned{countBytes[0]} << 8) | countBytes[1];
  buffer_->release(countBytes);
  if (uint64_t{tileCount} * 4 + kTileFileTrailerSize > size) return false;

  const uint64_t tableOffset = size - kTileFileTrailerSize - uint64_t{tileCount} * 4;
  const unsigned char* table = tileCount == 0 ? nullptr : buffer_->acquire(tableOffset, tileCount * 4);
  if (tileCount != 0 && table == nullptr) return false;

  // Tiles lie one after another between the magic and the length table.
  uint64_t offset = fileHEADSZ;
  uint64_t totalAccessPoints = 0;
  bool ok = true;
  for (unsigned i = 0; i < tileCount; ++i) {
    const unsigned char* l = table + 4 * i;
    const uint64_t length = (uint64_t{l[0]} << 24) | (uint64_t{l[1]} << 16) | (uint64_t{l[2]} << 8) | l[3];
    std::unique_ptr<Tile> tile;
    if (length <= tableOffset - offset) tile = Tile::load(offset, length, realm_, *buffer_, static_cast<int>(i));
    if (!tile) {
      logger_.error("invalid tile %u in file %s", i, fileName_.c_str());
      ok = false;
      break;
    }
    offset += length;
    totalAccessPoints += tile->accessPointCount();
    fileOrder_.push_back(tile.get());
    cold_.push_back(std::move(tile));
  }
  if (table != nullptr) buffer_->release(table);
  if (!ok) return false;

  uint64_t capacity = totalAccessPoints / 256;
  if (capacity < kMinAbsentCapacity) capacity = kMinAbsentCapacity;
  if (capacity > kMaxAbsentCapacity) capacity = kMaxAbsentCapacity;
  absentLimit_ = absentCapacity_ = static_cast<unsigned>(capacity);
  return true;
}

LocatedAccessPoint CompressedFileReaderProtected::get(const SPI::MAC& mac) {
  LocatedAccessPoint result;
  if (!buffer_) return result;

  const uint64_t value = mac.value();
  auto known = absentIndex_.find(value);
  if (known != absentIndex_.end()) {
    absent_.splice(absent_.begin(), absent_, known->second);
    return result;
  }
  if (searchList(hot_, mac, result) || searchList(cold_, mac, result)) return result;
  rememberAbsent(mac);
  return LocatedAccessPoint{};
}

bool CompressedFileReaderProtected::searchList(TileList& list, const SPI::MAC& mac, LocatedAccessPoint& out) {
  for (auto it = list.begin(); it != list.end(); ++it) {
    if ((*it)->findAP(mac, out)) {
      hot_.splice(hot_.begin(), list, it);
      return true;
    }
  }
  return false;
}

void CompressedFileReaderProtected::rememberAbsent(const SPI::MAC& mac) {
  const uint64_t value = mac.value();
  absent_.push_front(value);
  absentIndex_[value] = absent_.begin();
  if (absentCapacity_ > 0) {
    --absentCapacity_;
  } else {
    absentIndex_.erase(absent_.back());
    absent_.pop_back();
  }
}

void CompressedFileReaderProtected::close() {
  hot_.clear();
  cold_.clear();
  fileOrder_.clear();
  absent_.clear();
  absentIndex_.clear();
  absentLimit_ = absentCapacity_ = 0;
  buffer_.reset();
  if (file_) {
    file_->close();
    file_.reset();
  }
  fileName_.clear();
}

std::vector<const Tile*> CompressedFileReaderProtected::tiles() const { return fileOrder_; }

std::vector<int> CompressedFileReaderProtected::hotTileNumbers() const {
  std::vector<int> numbers;
  for (const auto& tile : hot_) numbers.push_back(tile->tileNumber());
  return numbers;
}

std::vector<int> CompressedFileReaderProtected::coldTileNumbers() const {
  std::vector<int> numbers;
  for (const auto& tile : cold_) numbers.push_back(tile->tileNumber());
  return numbers;
}

std::vector<SPI::MAC> CompressedFileReaderProtected::absentMACs() const {
  std::vector<SPI::MAC> macs;
  for (uint64_t value : absent_) macs.push_back(SPI::MAC::fromValue(value));
  return macs;
}

}  // namespace API
}  // namespace WPS
