#include "wps/api/tiles/tile.h"

#include <cmath>
#include <cstdio>

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

Tile::Tile(const std::string& realm, const SPI::MemoryBuffer& buf, int tileNumber)
    : logger_(SPI::Logger::getLogger("WPS.API.Tile")), realm_(realm), buffer_(buf), tileNumber_(tileNumber) {}

std::unique_ptr<Tile> Tile::load(unsigned long offset, const std::string& realm, const SPI::MemoryBuffer& buf,
                                 int tileNumber) {
  const size_t size = buf.size();
  if (offset >= size) return nullptr;
  // A tile at the very end of a small file has fewer than 25 header bytes; the
  // stream's limit then stops every read at the end of the file.
  const size_t headerBytes = size - offset < kHeaderBytes ? size - offset : kHeaderBytes;
  const unsigned char* header = buf.acquire(offset, headerBytes);
  if (header == nullptr) return nullptr;

  std::unique_ptr<Tile> tile(new Tile(realm, buf, tileNumber));
  BitInputStream in(header, 0, uint64_t{headerBytes} * 8);
  tile->precisionCode_ = static_cast<uint8_t>(in.readBitUInt(3));
  const int P = tile->precision();
  tile->originLatitude_ = in.readBitSInt(packBits(180, P));
  tile->originLongitude_ = in.readBitSInt(packBits(360, P));
  tile->latitudeWidth_ = static_cast<uint8_t>(in.readBitUInt(5));
  tile->longitudeWidth_ = static_cast<uint8_t>(in.readBitUInt(5));
  tile->countWidth_ = static_cast<uint8_t>(in.readBitUInt(3));
  tile->exponentWidth_ = static_cast<uint8_t>(in.readBitUInt(3));
  const uint64_t count = readVLEU(in);
  const uint64_t entries = readVLEU(in);
  buf.release(header);

  if (in.overrun() || tile->precisionCode_ == 0 || tile->originLatitude_ == 0 || tile->originLongitude_ == 0 ||
      tile->latitudeWidth_ == 0 || tile->longitudeWidth_ == 0 || tile->countWidth_ == 0 ||
      tile->exponentWidth_ == 0) {
    return nullptr;
  }
  // The index holds key 0 plus (length, key) for each further entry: 8n - 2
  // bytes. It must exist and lie inside the file.
  if (entries == 0 || entries > UINT32_MAX || count > UINT32_MAX) return nullptr;
  const uint64_t dataOffset = offset + in.position() / 8;
  const uint64_t dataLength = entries * 8 - 2;
  if (dataOffset > UINT32_MAX || dataLength > UINT32_MAX || dataOffset + dataLength > size) return nullptr;
  const unsigned char* index = buf.acquire(dataOffset, dataLength);
  if (index == nullptr) return nullptr;

  tile->accessPointCount_ = static_cast<uint32_t>(count);
  tile->indexEntries_ = static_cast<uint32_t>(entries);
  tile->dataOffset_ = static_cast<uint32_t>(dataOffset);
  tile->dataLength_ = static_cast<uint32_t>(dataLength);
  tile->dataStream_.reset(index, 0, dataLength * 8);
  tile->scale_ = std::ldexp(1.0, -P);
  tile->exponentDivisor_ = (std::ldexp(1.0, tile->exponentWidth_) - 1.0) * 3.0;
  return tile;
}

bool Tile::findAP(const SPI::MAC& mac, LocatedAccessPoint& out) {
  recordsRead_ = 0;
  const uint64_t key = searchKey(mac);
  dataStream_.reset();
  const uint64_t key0 = dataStream_.readAlignedLE(6);
  if (dataStream_.overrun() || key < key0) return false;

  // Walk the index to the block whose first key is the greatest not above
  // `key`. Block starts are bit offsets from the end of the index.
  uint64_t blockStart = 0;
  uint64_t blockKey = key0;
  for (uint32_t i = 1; i < indexEntries_; ++i) {
    const uint64_t length = dataStream_.readAlignedLE(2);
    const uint64_t entryKey = dataStream_.readAlignedLE(6);
    if (dataStream_.overrun()) return false;
    if (key < entryKey) return scanBlock(blockStart, blockStart + length, blockKey, key, mac, out);
    blockStart += length;
    blockKey = entryKey;
    // An index key is the first record of its block: read just that record.
    if (key == entryKey) return scanBlock(blockStart, blockStart + recordFieldBits() + 8, blockKey, key, mac, out);
  }
  // The last index key is the tile's greatest key: anything above it is absent.
  // With a single index key, the one block runs to the end of the file.
  if (indexEntries_ > 1 || key != key0) return false;
  const uint64_t tail = buffer_.size() - (uint64_t{dataOffset_} + dataLength_);
  return scanBlock(0, tail * 8, blockKey, key, mac, out);
}

bool Tile::scanBlock(uint64_t start, uint64_t end, uint64_t blockKey, uint64_t key, const SPI::MAC& mac,
                     LocatedAccessPoint& out) {
  const uint64_t size = buffer_.size();
  const uint64_t recordsOffset = uint64_t{dataOffset_} + dataLength_;
  if (end <= start) return false;
  const uint64_t firstByte = recordsOffset + start / 8;
  uint64_t endByte = recordsOffset + (end + 7) / 8;
  if (firstByte >= size) return false;
  if (endByte > size) endByte = size;
  const uint64_t bytes = endByte - firstByte;
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
      out.mac = mac;
      out.latitude = static_cast<double>(int64_t{originLatitude_} + latOffset) * scale_;
      out.longitude = static_cast<double>(int64_t{originLongitude_} + lonOffset) * scale_;
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
