// Bit-level reading of tile data: a bounded most-significant-bit-first reader
// over a mapped byte region, the variable-length unsigned integers (VLEU) of
// the tile format, and the field width of packed coordinates.
//
// Bounds: a `BitInputStream` never reads outside [data, data + ceil(limit/8)).
// A read that needs more bits than remain before the limit returns 0, moves
// the position to the limit and sets `overrun()`; later reads return 0 too.
// This is what makes corrupt or truncated tile files safe to read.
//
// Thread safety: a stream is a plain value used by one thread at a time; the
// free functions and tables are reentrant.
#pragma once

#include <cstddef>
#include <cstdint>

namespace WPS {
namespace API {

class BitInputStream {
 public:
  BitInputStream() = default;
  // A stream over `data` (borrowed, must outlive the stream's use) that starts
  // at bit `start` and may read up to bit `limit` (exclusive). Bit 0 is the most
  // significant bit of data[0]. `start` above `limit` is taken as `limit`.
  BitInputStream(const unsigned char* data, uint64_t start, uint64_t limit) { reset(data, start, limit); }

  // Re-targets the stream to another region (same meaning as the constructor).
  void reset(const unsigned char* data, uint64_t start, uint64_t limit);
  // Back to the start position given to the constructor or `reset`, clearing
  // the overrun flag.
  void reset();

  // Unsigned value of `bits` bits (0..32; 0 reads nothing and gives 0).
  [[nodiscard]] uint32_t readBitUInt(unsigned bits) { return static_cast<uint32_t>(readBitULong(bits > 32 ? 65 : bits)); }
  // Two's-complement value of `bits` bits (0..32).
  [[nodiscard]] int32_t readBitSInt(unsigned bits) { return static_cast<int32_t>(readBitSLong(bits > 32 ? 65 : bits)); }
  // Unsigned value of `bits` bits (0..64). A width above 64 is an overrun.
  [[nodiscard]] uint64_t readBitULong(unsigned bits);
  // Two's-complement value of `bits` bits (0..64).
  [[nodiscard]] int64_t readBitSLong(unsigned bits);
  // Big-endian value of `bytes` bytes (0..8) read from the current bit position.
  [[nodiscard]] uint64_t readBE(unsigned bytes) { return readBitULong(bytes * 8); }
  // Aligns to the next byte boundary, then reads a little-endian value of
  // `bytes` bytes (the format uses 6 for keys and 2 for block lengths; 0..8).
  [[nodiscard]] uint64_t readAlignedLE(unsigned bytes) {
    const unsigned char* p = bytes > 8 ? nullptr : readAlignedBytes(bytes);
    if (p == nullptr) {
      fail();
      return 0;
    }
    uint64_t value = 0;
    for (unsigned i = bytes; i > 0; --i) value = (value << 8) | p[i - 1];
    return value;
  }
  // Moves the position to the next multiple of 8 when it is below the limit
  // (never beyond the limit).
  void readAlign() {
    if (pos_ < limit_) {
      const uint64_t aligned = (pos_ + 7) & ~uint64_t{7};
      pos_ = aligned < limit_ ? aligned : limit_;
    }
  }
  // Aligns, then copies `bytes` bytes to `dst`. Returns false (copying nothing)
  // when fewer remain; that is an overrun.
  [[nodiscard]] bool read(unsigned char* dst, size_t bytes);
  // Advances by `bits`; past the limit is an overrun.
  void skip(uint64_t bits);
  // Aligns, then hands out the next `bytes` whole bytes (pointer into the
  // region) and moves past them; nullptr and an overrun when fewer remain.
  [[nodiscard]] const unsigned char* readAlignedBytes(size_t bytes) {
    readAlign();
    if (remaining() / 8 < bytes) {
      fail();
      return nullptr;
    }
    const unsigned char* p = data_ + (pos_ >> 3);
    pos_ += uint64_t{bytes} * 8;
    return p;
  }

  [[nodiscard]] uint64_t position() const { return pos_; }
  [[nodiscard]] uint64_t limit() const { return limit_; }
  [[nodiscard]] uint64_t remaining() const { return limit_ - pos_; }
  // True once a read asked for more bits than remained.
  [[nodiscard]] bool overrun() const { return overrun_; }

 private:
  void fail() {
    pos_ = limit_;
    overrun_ = true;
  }

  const unsigned char* data_ = nullptr;
  uint64_t start_ = 0;
  uint64_t pos_ = 0;
  uint64_t limit_ = 0;
  bool overrun_ = false;
};

// VLEU: the number k (0..6) of leading 1 bits of the first byte is the count
// of bytes that follow; value = ((first & vleValueBaseMasks[k]) << 8k)
// + (following bytes, big-endian) + vleDeltas[k]. Each length starts where the
// previous one ends, so every value has exactly one encoding.
inline constexpr int kMaxVLELength = 6;
inline constexpr unsigned char vleValueBaseMasks[kMaxVLELength + 1] = {0xFF, 0x7F, 0x3F, 0x1F, 0x0F, 0x07, 0x03};
inline constexpr uint64_t vleDeltas[kMaxVLELength + 1] = {
    0ULL, 128ULL, 16512ULL, 2113664ULL, 270549120ULL, 34630287488ULL, 4432676798592ULL};
// The largest value a VLEU can hold (k = 6: 50 value bits above the base).
inline constexpr uint64_t kMaxVLEValue = vleDeltas[6] + ((1ULL << 50) - 1);

// k for a first byte: 0xxxxxxx -> 0, 10xxxxxx -> 1, ... 111110xx -> 5,
// 111111xx -> 6.
[[nodiscard]] inline int getVLELength(unsigned char firstByte) {
  const int ones = __builtin_clz(~(unsigned{firstByte} << 24));
  return ones < kMaxVLELength ? ones : kMaxVLELength;
}
// The part of the value fixed by the first byte: its masked bits shifted above
// the k following bytes, plus the length's delta.
[[nodiscard]] inline uint64_t getValueBase(unsigned char firstByte, int k) {
  if (k < 0 || k > kMaxVLELength) return 0;
  return (uint64_t{static_cast<unsigned char>(firstByte & vleValueBaseMasks[k])} << (8 * k)) + vleDeltas[k];
}
// Aligns the stream and reads one VLEU. When the first byte or fewer than k
// following bytes remain before the limit, returns 0 and the stream is overrun.
[[nodiscard]] uint64_t readVLEU(BitInputStream& in);

// Width in bits of a signed coordinate spanning `range` degrees at 2^-P degree
// units: ceil(log2(range) + P), or 0 when range is 0 or the sum is not
// positive (or does not fit 8 bits). packBits(180, 12) = 20, packBits(360, 12) = 21.
[[nodiscard]] uint8_t packBits(double range, int P);

}  // namespace API
}  // namespace WPS
