#include "wps/api/tiles/tile.h"

#include <cmath>
#include <cstdio>

#include "wps/api/position_check.h"
#include "wps/api/tiles/md4.h"

namespace WPS {
namespace API {

uint64_t tileSearchKey(const SPI::MAC& mac, const std::string& realm, int32_t originLatitude,
                       int32_t originLongitude) {
  const uint64_t value = mac.value();
  if (realm.empty()) return value;
  // The first four printed octets, as eight upper-case hexadecimal digits.
  char hex[16];
  std::snprintf(hex, sizeof hex, "%08X", static_cast<unsigned>(value >> 16));
  std::string text(hex);
  text += std::to_string(originLatitude);
  text += std::to_string(originLongitude);
  text += realm;
  unsigned char digest[kMD4DigestSize];
  MD4(text, digest);
  return (uint64_t{digest[0]} << 40) | (uint64_t{digest[1]} << 32) | (uint64_t{digest[2]} << 24) |
         (uint64_t{digest[3]} << 16) | (value & 0xFFFF);
}

double decodeSignalExponent(uint32_t e, unsigned X) {
  return e / ((std::ldexp(1.0, static_cast<int>(X)) - 1.0) * 3.0) + kSignalExponentBase;
}

namespace {

// A little-endian number of `bytes` bytes at `p`.
uint64_t readLE(const unsigned char* p, unsigned bytes) {
  uint64_t value = 0;
  for (unsigned i = bytes; i-- > 0;) value = (value << 8) | p[i];
  return value;
}

}  // namespace

Tile::Tile(const std::string& realm, const SPI::MemoryBuffer& buf, int tileNumber)
    : logger_(SPI::Logger::getLogger("WPS.API.Tile")), realm_(realm), buffer_(buf), tileNumber_(tileNumber) {}

Tile::~Tile() {
  if (index_ != nullptr) buffer_.release(index_);
}

std::unique_ptr<Tile> Tile::load(uint64_t offset, uint64_t length, const std::string& realm,
                                 const SPI::MemoryBuffer& buf, int tileNumber) {
  const uint64_t size = buf.size();
  if (length == 0 || offset >= size || length > size - offset) return nullptr;
  std::unique_ptr<Tile> tile(new Tile(realm, buf, tileNumber));
  uint64_t count = 0, entries = 0, headerBytes = 0;
  if (!tile->readHeader(offset, length, count, entries, headerBytes)) return nullptr;
  // The index holds key 0 plus (length, key) for each further entry: 8n - 2
  // bytes. It must exist, lie inside the tile and not name more blocks than
  // there are records.
  if (entries == 0 || entries > count || count > UINT32_MAX) return nullptr;
  const uint64_t dataOffset = offset + headerBytes;
  const uint64_t tileEnd = offset + length;
  if (entries > (tileEnd - dataOffset + 2) / 8) return nullptr;
  const uint64_t dataLength = entries * 8 - 2;
  if (dataOffset > UINT32_MAX || dataLength > UINT32_MAX) return nullptr;
  tile->index_ = buf.acquire(dataOffset, dataLength);
  if (tile->index_ == nullptr) return nullptr;

  tile->accessPointCount_ = static_cast<uint32_t>(count);
  tile->indexEntries_ = static_cast<uint32_t>(entries);
  tile->dataOffset_ = static_cast<uint32_t>(dataOffset);
  tile->dataLength_ = static_cast<uint32_t>(dataLength);
  tile->recordsOffset_ = dataOffset + dataLength;
  if (!tile->loadIndex((tileEnd - tile->recordsOffset_) * 8)) return nullptr;
  tile->scale_ = std::ldexp(1.0, -tile->precision());
  tile->exponentDivisor_ = (std::ldexp(1.0, tile->exponentWidth_) - 1.0) * 3.0;
  return tile;
}

bool Tile::readHeader(uint64_t offset, uint64_t length, uint64_t& count, uint64_t& entries,
                      uint64_t& headerBytes) {
  // A short tile has fewer than 25 header bytes; the stream's limit then
  // stops every read at the end of the tile.
  const size_t windowBytes = length < kHeaderBytes ? static_cast<size_t>(length) : kHeaderBytes;
  const unsigned char* header = buffer_.acquire(offset, windowBytes);
  if (header == nullptr) return false;
  BitInputStream in(header, 0, uint64_t{windowBytes} * 8);
  precisionCode_ = static_cast<uint8_t>(in.readBitUInt(3));
  const int P = precision();
  originLatitude_ = in.readBitSInt(packBits(180, P));
  originLongitude_ = in.readBitSInt(packBits(360, P));
  latitudeWidth_ = static_cast<uint8_t>(in.readBitUInt(5));
  longitudeWidth_ = static_cast<uint8_t>(in.readBitUInt(5));
  countWidth_ = static_cast<uint8_t>(in.readBitUInt(3));
  exponentWidth_ = static_cast<uint8_t>(in.readBitUInt(3));
  count = readVLEU(in);
  entries = readVLEU(in);
  headerBytes = in.position() / 8;
  buffer_.release(header);
  return !in.overrun() && precisionCode_ != 0 && originLatitude_ != 0 && originLongitude_ != 0 &&
         latitudeWidth_ != 0 && longitudeWidth_ != 0 && countWidth_ != 0 && exponentWidth_ != 0;
}

bool Tile::loadIndex(uint64_t recordBits) {
  recordBits_ = recordBits;
  blockStarts_.reserve(indexEntries_);
  blockStarts_.push_back(0);
  uint64_t previousKey = indexKey(0);
  uint64_t start = 0;
  for (uint32_t i = 1; i < indexEntries_; ++i) {
    const uint64_t blockLength = readLE(index_ + 8 * i - 2, 2);
    const uint64_t key = indexKey(i);
    start += blockLength;
    if (blockLength == 0 || start > recordBits || key <= previousKey) return false;
    blockStarts_.push_back(start);
    previousKey = key;
  }
  // The last block (the greatest key's record) needs at least a byte.
  return start < recordBits;
}

uint64_t Tile::indexKey(uint32_t i) const { return readLE(index_ + 8 * uint64_t{i}, 6); }

bool Tile::findAP(const SPI::MAC& mac, LocatedAccessPoint& out) {
  recordsRead_ = 0;
  indexKeysRead_ = 2;
  const uint64_t key = searchKey(mac);
  // The last index key is the tile's greatest key: anything outside the
  // first and last keys is absent without reading a record.
  const uint32_t last = indexEntries_ - 1;
  if (key < indexKey(0) || key > indexKey(last)) return false;

  // The greatest index key not above `key`: keys[low] <= key < keys[high].
  uint32_t low = 0, high = last;
  if (indexKey(last) == key) low = last;
  while (high - low > 1) {
    const uint32_t middle = low + (high - low) / 2;
    ++indexKeysRead_;
    if (indexKey(middle) <= key) {
      low = middle;
    } else {
      high = middle;
    }
  }
  const uint64_t blockEnd = low < last ? blockStarts_[low + 1] : recordBits_;
  // An index key is the first record of its block, so a key equal to it is
  // decided by that one record.
  return scanBlock(blockStarts_[low], blockEnd, indexKey(low), key, mac, out);
}

bool Tile::scanBlock(uint64_t start, uint64_t end, uint64_t blockKey, uint64_t key, const SPI::MAC& mac,
                     LocatedAccessPoint& out) {
  // Block bounds were checked against the tile at load.
  const uint64_t firstByte = recordsOffset_ + start / 8;
  const uint64_t bytes = recordsOffset_ + (end + 7) / 8 - firstByte;
  const unsigned char* block = buffer_.acquire(firstByte, bytes);
  if (block == nullptr) return false;

  const uint64_t limit = end - (start & ~uint64_t{7}) < bytes * 8 ? end - (start & ~uint64_t{7}) : bytes * 8;
  BitInputStream in(block, start & 7, limit);
  const unsigned fieldBits = recordFieldBits();
  uint64_t running = blockKey;
  bool found = false;
  for (;;) {
    in.readAlign();
    if (in.remaining() < 8) break;
    const uint64_t delta = readVLEU(in);
    if (in.overrun()) break;
    ++recordsRead_;
    if (running + delta < running) break;  // a corrupt delta wrapped the key
    running += delta;
    if (running > key) break;
    if (running == key) {
      const uint32_t latOffset = in.readBitUInt(latitudeWidth_);
      const uint32_t lonOffset = in.readBitUInt(longitudeWidth_);
      const uint32_t r = in.readBitUInt(countWidth_);
      const uint32_t e = in.readBitUInt(exponentWidth_);
      if (in.overrun()) break;
      const double latitude = static_cast<double>(int64_t{originLatitude_} + latOffset) * scale_;
      const double longitude = static_cast<double>(int64_t{originLongitude_} + lonOffset) * scale_;
      if (const char* problem = positionProblem(latitude, longitude)) {
        logger_.error("Refusing access point %s of tile %d at %g, %g: %s", mac.toColonString().c_str(), tileNumber_,
                      latitude, longitude, problem);
        break;
      }
      out.mac = mac;
      out.latitude = latitude;
      out.longitude = longitude;
      out.reliabilityCount = r + kReliabilityCountBase;
      out.signalExponent = e / exponentDivisor_ + kSignalExponentBase;
      found = true;
      break;
    }
    in.skip(fieldBits);
    if (in.overrun()) break;
  }
  buffer_.release(block);
  return found;
}

}  // namespace API
}  // namespace WPS
