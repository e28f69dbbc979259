#include "wps/api/bit_input_stream.h"

#include <cmath>

namespace WPS {
namespace API {

void BitInputStream::reset(const unsigned char* data, uint64_t start, uint64_t limit) {
  data_ = data;
  limit_ = data == nullptr ? 0 : limit;
  start_ = start > limit_ ? limit_ : start;
  pos_ = start_;
  overrun_ = false;
}

void BitInputStream::reset() {
  pos_ = start_;
  overrun_ = false;
}

uint64_t BitInputStream::readBitULong(unsigned bits) {
  if (bits == 0) return 0;
  if (bits > 64 || remaining() < bits) {
    fail();
    return 0;
  }
  uint64_t value = 0;
  unsigned left = bits;
  while (left > 0) {
    const unsigned char byte = data_[pos_ >> 3];
    const unsigned available = 8 - static_cast<unsigned>(pos_ & 7);
    const unsigned take = available < left ? available : left;
    const unsigned chunk = (static_cast<unsigned>(byte) >> (available - take)) & ((1u << take) - 1);
    value = (value << take) | chunk;
    pos_ += take;
    left -= take;
  }
  return value;
}

int64_t BitInputStream::readBitSLong(unsigned bits) {
  uint64_t value = readBitULong(bits);
  if (bits > 0 && bits < 64 && ((value >> (bits - 1)) & 1)) value |= ~0ULL << bits;
  return static_cast<int64_t>(value);
}

uint64_t BitInputStream::readAlignedLE(unsigned bytes) {
  readAlign();
  if (bytes > 8 || remaining() < uint64_t{bytes} * 8) {
    fail();
    return 0;
  }
  const unsigned char* p = data_ + (pos_ >> 3);
  uint64_t value = 0;
  for (unsigned i = bytes; i > 0; --i) value = (value << 8) | p[i - 1];
  pos_ += uint64_t{bytes} * 8;
  return value;
}

void BitInputStream::readAlign() {
  if (pos_ < limit_) {
    const uint64_t aligned = (pos_ + 7) & ~uint64_t{7};
    pos_ = aligned < limit_ ? aligned : limit_;
  }
}

bool BitInputStream::read(unsigned char* dst, size_t bytes) {
  readAlign();
  if (remaining() / 8 < bytes) {
    fail();
    return false;
  }
  const unsigned char* p = data_ + (pos_ >> 3);
  for (size_t i = 0; i < bytes; ++i) dst[i] = p[i];
  pos_ += uint64_t{bytes} * 8;
  return true;
}

void BitInputStream::skip(uint64_t bits) {
  if (remaining() < bits) {
    fail();
    return;
  }
  pos_ += bits;
}

int getVLELength(unsigned char firstByte) {
  int k = 0;
  while (k < kMaxVLELength && (firstByte & (0x80u >> k))) ++k;
  return k;
}

uint64_t getValueBase(unsigned char firstByte, int k) {
  if (k < 0 || k > kMaxVLELength) return 0;
  return (uint64_t{static_cast<unsigned char>(firstByte & vleValueBaseMasks[k])} << (8 * k)) + vleDeltas[k];
}

uint64_t readVLEU(BitInputStream& in) {
  in.readAlign();
  if (in.remaining() < 8) {
    in.skip(8);  // marks the overrun
    return 0;
  }
  const auto first = static_cast<unsigned char>(in.readBitUInt(8));
  const int k = getVLELength(first);
  if (k == 0) return first;
  if (in.remaining() < uint64_t(k) * 8) {
    in.skip(uint64_t(k) * 8);
    return 0;
  }
  if (k <= 3) {
    // Up to three following bytes: the whole value fits 32 bits.
    const uint32_t rest = in.readBitUInt(8 * k);
    return static_cast<uint32_t>(getValueBase(first, k)) + rest;
  }
  return getValueBase(first, k) + in.readBitULong(8 * k);
}

uint8_t packBits(double range, int P) {
  static const double kLn2 = std::log(2.0);
  if (range == 0.0) return 0;
  const double bits = std::ceil(std::log(range) / kLn2 + P);
  if (!(bits > 0.0) || bits > 255.0) return 0;
  return static_cast<uint8_t>(bits);
}

}  // namespace API
}  // namespace WPS
