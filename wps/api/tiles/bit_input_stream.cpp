#include "wps/api/tiles/bit_input_stream.h"

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

uint64_t readVLEU(BitInputStream& in) {
  const unsigned char* first = in.readAlignedBytes(1);
  if (first == nullptr) return 0;
  const int k = getVLELength(*first);
  if (k == 0) return *first;
  const unsigned char* rest = in.readAlignedBytes(static_cast<size_t>(k));
  if (rest == nullptr) return 0;
  if (k <= 3) {
    // Up to three following bytes: the whole value fits 32 bits.
    uint32_t value = 0;
    for (int i = 0; i < k; ++i) value = (value << 8) | rest[i];
    return static_cast<uint32_t>(getValueBase(*first, k)) + value;
  }
  uint64_t value = 0;
  for (int i = 0; i < k; ++i) value = (value << 8) | rest[i];
  return getValueBase(*first, k) + value;
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
