#include "wps/api/tiles/bit_input_stream.h"

#include <gtest/gtest.h>

#include <vector>

#include "wps/api/tiles/tile_writer.h"

namespace WPS {
namespace API {
namespace {

uint64_t decode(const std::vector<unsigned char>& bytes, bool* overrun = nullptr) {
  BitInputStream in(bytes.data(), 0, bytes.size() * 8);
  const uint64_t value = readVLEU(in);
  if (overrun) *overrun = in.overrun();
  return value;
}

TEST(VLEUTest, KnownEncodings) {
  struct Case {
    std::vector<unsigned char> bytes;
    uint64_t value;
  };
  const Case cases[] = {
      {{0x00}, 0},
      {{0x7F}, 127},
      {{0x80, 0x00}, 128},
      {{0xBF, 0xFF}, 16511},
      {{0xC0, 0x00, 0x00}, 16512},
      {{0xDF, 0xFF, 0xFF}, 2113663},
      {{0xE0, 0x00, 0x00, 0x00}, 2113664},
      {{0xF0, 0x00, 0x00, 0x00, 0x00}, 270549120},
      {{0xF8, 0, 0, 0, 0, 0}, 34630287488ULL},
      {{0xFC, 0, 0, 0, 0, 0, 0}, 4432676798592ULL},
      {{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}, kMaxVLEValue},
  };
  for (const auto& c : cases) {
    bool overrun = true;
    EXPECT_EQ(decode(c.bytes, &overrun), c.value) << "first byte " << int(c.bytes[0]);
    EXPECT_FALSE(overrun);
    std::vector<unsigned char> encoded;
    encodeVLEU(c.value, encoded);
    EXPECT_EQ(encoded, c.bytes) << c.value;
  }
}

TEST(VLEUTest, LengthAndBaseTables) {
  struct Case {
    unsigned char first;
    int k;
    uint64_t base;
  };
  const Case cases[] = {
      {0x00, 0, 0},         {0x7F, 0, 127},        {0x80, 1, 128},
      {0xBF, 1, 0x3F00 + 128}, {0xC0, 2, 16512},   {0xDF, 2, (0x1FULL << 16) + 16512},
      {0xE0, 3, 2113664},   {0xF0, 4, 270549120},  {0xF8, 5, 34630287488ULL},
      {0xFB, 5, (3ULL << 40) + 34630287488ULL},     {0xFC, 6, 4432676798592ULL},
      {0xFE, 6, (2ULL << 48) + 4432676798592ULL},   {0xFF, 6, (3ULL << 48) + 4432676798592ULL},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(getVLELength(c.first), c.k) << int(c.first);
    EXPECT_EQ(getValueBase(c.first, c.k), c.base) << int(c.first);
  }
}

// Every length boundary: the last value of length k-1, the first of length k
// and the one after it read back exactly and take the expected bytes.
TEST(VLEUTest, RoundTripAtEveryLengthBoundary) {
  for (int k = 0; k <= kMaxVLELength; ++k) {
    std::vector<uint64_t> values = {vleDeltas[k], vleDeltas[k] + 1};
    if (k > 0) values.push_back(vleDeltas[k] - 1);
    for (uint64_t value : values) {
      std::vector<unsigned char> bytes;
      encodeVLEU(value, bytes);
      const size_t expectedLength = (k > 0 && value == vleDeltas[k] - 1) ? k : k + 1;
      EXPECT_EQ(bytes.size(), expectedLength) << value;
      EXPECT_EQ(getVLELength(bytes[0]) + 1, static_cast<int>(bytes.size())) << value;
      EXPECT_EQ(decode(bytes), value);
    }
  }
}

TEST(VLEUTest, FewerBytesThanTheLengthGiveZero) {
  for (int k = 1; k <= kMaxVLELength; ++k) {
    std::vector<unsigned char> bytes;
    encodeVLEU(vleDeltas[k] + 5, bytes);
    bytes.pop_back();
    bool overrun = false;
    EXPECT_EQ(decode(bytes, &overrun), 0u) << "k=" << k;
    EXPECT_TRUE(overrun);
    // The limit, not the buffer, decides: a full encoding cut by the limit.
    std::vector<unsigned char> full;
    encodeVLEU(vleDeltas[k] + 5, full);
    BitInputStream in(full.data(), 0, (full.size() - 1) * 8);
    EXPECT_EQ(readVLEU(in), 0u);
  }
  bool overrun = false;
  EXPECT_EQ(decode({}, &overrun), 0u);
  EXPECT_TRUE(overrun);
}

TEST(VLEUTest, AlignsBeforeReading) {
  const std::vector<unsigned char> bytes = {0xA0, 0x80, 0x05};  // 3 bits, pad, VLEU 128+5
  BitInputStream in(bytes.data(), 0, 24);
  EXPECT_EQ(in.readBitUInt(3), 5u);
  EXPECT_EQ(readVLEU(in), 133u);
  EXPECT_EQ(in.remaining(), 0u);
}

TEST(BitInputStreamTest, ReadsMostSignificantBitFirstAcrossBytes) {
  const std::vector<unsigned char> bytes = {0xB5, 0x3C, 0xFF, 0x01};
  BitInputStream in(bytes.data(), 0, 32);
  EXPECT_EQ(in.readBitUInt(1), 1u);
  EXPECT_EQ(in.readBitUInt(3), 0x3u);      // 011
  EXPECT_EQ(in.readBitUInt(8), 0x53u);     // 0101 0011
  EXPECT_EQ(in.readBitSInt(4), -4);        // 1100
  EXPECT_EQ(in.readBitSInt(16), -255);     // 0xFF01
  EXPECT_EQ(in.remaining(), 0u);
  EXPECT_FALSE(in.overrun());
}

TEST(BitInputStreamTest, SignedAndWideValues) {
  const std::vector<unsigned char> bytes = {0x80, 0, 0, 0, 0, 0, 0, 0x01, 0x7F, 0xFF, 0xFF, 0xFF};
  BitInputStream in(bytes.data(), 0, bytes.size() * 8);
  EXPECT_EQ(in.readBitULong(64), 0x8000000000000001ULL);
  EXPECT_EQ(in.readBitSInt(32), 0x7FFFFFFF);
  in.reset();
  EXPECT_EQ(in.readBitSLong(64), static_cast<int64_t>(0x8000000000000001ULL));
  EXPECT_EQ(in.readBE(2), 0x7FFFu);
}

TEST(BitInputStreamTest, LittleEndianAlignedReads) {
  const std::vector<unsigned char> bytes = {0xFF, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x34, 0x12};
  BitInputStream in(bytes.data(), 0, bytes.size() * 8);
  EXPECT_EQ(in.readBitUInt(2), 3u);
  EXPECT_EQ(in.readAlignedLE(6), 0x060504030201ULL);
  EXPECT_EQ(in.readAlignedLE(2), 0x1234u);
  EXPECT_FALSE(in.overrun());
}

// A read past the limit returns 0, parks at the limit and stays failed; it
// never touches the bytes beyond the limit.
TEST(BitInputStreamTest, ReadsPastTheLimitGiveZero) {
  const std::vector<unsigned char> bytes = {0xFF, 0xFF};
  struct Case {
    const char* name;
    uint64_t (*read)(BitInputStream&);
  };
  const Case cases[] = {
      {"bits", [](BitInputStream& in) { return uint64_t{in.readBitUInt(10)}; }},
      {"long", [](BitInputStream& in) { return in.readBitULong(64); }},
      {"le", [](BitInputStream& in) { return in.readAlignedLE(2); }},
      {"vleu", [](BitInputStream& in) { return readVLEU(in); }},
      {"copy",
       [](BitInputStream& in) {
         unsigned char dst[2] = {0, 0};
         return uint64_t{in.read(dst, 2)};
       }},
  };
  for (const auto& c : cases) {
    BitInputStream in(bytes.data(), 3, 12);  // bits 3..11 of 0xFFFF
    EXPECT_EQ(c.read(in), 0u) << c.name;
    EXPECT_TRUE(in.overrun()) << c.name;
    EXPECT_EQ(in.position(), 12u) << c.name;
    EXPECT_EQ(in.readBitUInt(1), 0u) << c.name;
  }
  BitInputStream in(bytes.data(), 0, 12);
  in.readAlign();
  EXPECT_EQ(in.position(), 0u);
  EXPECT_EQ(in.readBitUInt(9), 0x1FFu);
  in.readAlign();
  EXPECT_EQ(in.position(), 12u);  // never beyond the limit
  EXPECT_FALSE(in.overrun());
  EXPECT_EQ(in.readBitUInt(33), 0u);  // wider than the call allows
  EXPECT_TRUE(in.overrun());

  BitInputStream none(nullptr, 0, 100);
  EXPECT_EQ(none.limit(), 0u);
  EXPECT_EQ(none.readBitUInt(1), 0u);
}

TEST(PackBitsTest, Widths) {
  struct Case {
    double range;
    int P;
    unsigned bits;
  };
  const Case cases[] = {
      {180, 12, 20}, {360, 12, 21}, {180, 18, 26}, {360, 18, 27}, {0, 12, 0},
      {1, 0, 0},     {0.5, 0, 0},   {0.25, 1, 0},  {3, 0, 2},     {180, -8, 0},
  };
  for (const auto& c : cases) EXPECT_EQ(packBits(c.range, c.P), c.bits) << c.range << " " << c.P;
}

}  // namespace
}  // namespace API
}  // namespace WPS
