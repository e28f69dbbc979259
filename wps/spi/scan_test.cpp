#include "wps/spi/scan.h"

#include <gtest/gtest.h>

namespace WPS::SPI {
namespace {

ScannedAccessPoint ap(uint64_t mac, int16_t rssi = -60) { return ScannedAccessPoint(MAC::fromValue(mac), rssi); }

AccessPointList list(std::initializer_list<uint64_t> macs) {
  AccessPointList out;
  for (uint64_t m : macs) out.push_back(ap(m));
  return out;
}

TEST(MACTest, StoresLeastSignificantOctetFirstAndPrintsFromTheLastByte) {
  const unsigned char air[6] = {0x00, 0x12, 0xA3, 0xB4, 0xC5, 0xD6};
  MAC m = MAC::fromTransmissionOrder(air);
  const unsigned char expectedStored[6] = {0xD6, 0xC5, 0xB4, 0xA3, 0x12, 0x00};
  unsigned char stored[6];
  m.copy(stored);
  EXPECT_EQ(0, memcmp(stored, expectedStored, 6));
  EXPECT_EQ(m.toString(), "0012A3B4C5D6");
  EXPECT_EQ(m.toColonString(), "00:12:A3:B4:C5:D6");
  EXPECT_EQ(m.value(), 0x0012A3B4C5D6ull);
  EXPECT_EQ(MAC::fromValue(0x0012A3B4C5D6ull), m);
}

TEST(MACTest, ParsesTheUsualSpellingsAndRejectsTheRest) {
  const struct {
    const char* text;
    bool ok;
  } cases[] = {
      {"00:12:a3:B4:c5:D6", true}, {"00-12-A3-B4-C5-D6", true}, {"0012A3B4C5D6", true},
      {"00:12:A3:B4:C5", false},   {"00:12:A3:B4:C5:D", false}, {"0012A3B4C5DG", false},
      {"00;12;A3;B4;C5;D6", false}, {"", false},                {"00:12:A3:B4:C5:D6:", false},
  };
  for (const auto& c : cases) {
    MAC m = MAC::fromValue(1);
    EXPECT_EQ(MAC::parse(c.text, m), c.ok) << c.text;
    EXPECT_EQ(m.toString(), c.ok ? "0012A3B4C5D6" : "000000000001") << c.text;
  }
}

TEST(ScanComparisonTest, ComparesByMACOnly) {
  const struct {
    AccessPointList a, b;
    bool equal;
    int distance;
  } cases[] = {
      {list({1, 2, 3}), list({3, 1, 2}), true, 0},  // order does not matter
      {list({1, 2, 3}), list({4, 5, 6, 7}), false, 7},
      {list({}), list({}), true, 0},
      {list({}), list({1}), false, 1},
      {list({1, 2}), list({1, 2, 3}), false, 1},
      {list({1, 4}), list({1, 2, 3}), false, 3},
      // A repeated MAC: equality only asks that each entry of a be found in b,
      // and every equal pair counts towards the distance.
      {list({1, 1}), list({1, 2}), true, 0},
      {list({1, 1}), list({1, 1}), true, -4},
  };
  for (size_t i = 0; i < std::size(cases); ++i) {
    const auto& c = cases[i];
    EXPECT_EQ(c.a == c.b, c.equal) << "case " << i;
    EXPECT_EQ(distance(c.a, c.b), c.distance) << "case " << i;
    EXPECT_EQ(distance(c.b, c.a), c.distance) << "case " << i;
    if (c.equal) {
      EXPECT_TRUE(c.a <= c.b) << "case " << i;
    }
  }
  // Subset needs every MAC present, not only a smaller size.
  EXPECT_FALSE(list({1, 2, 3}) <= list({4, 5, 6, 7}));
  EXPECT_TRUE(list({}) <= list({}));
  EXPECT_TRUE(list({2, 1}) <= list({1, 2, 3}));
  EXPECT_FALSE(list({1, 2, 3}) <= list({1, 2}));
  EXPECT_FALSE(list({1, 4}) <= list({1, 2, 3}));
}

TEST(ScanComparisonTest, IgnoresSignalAndName) {
  AccessPointList a = {ap(1, -40), ap(2, -90)};
  AccessPointList b = {ap(2, -30), ap(1, -255)};
  b[0].ssid = "cafe";
  EXPECT_TRUE(a == b);
  EXPECT_EQ(distance(a, b), 0);
}

TEST(ScanComparisonTest, CellTowerSubsetUsesTheTowerIdentity) {
  ScannedCellTower t1{310, 26, 100, 5000, 0, -70, {}};
  ScannedCellTower t2{310, 26, 100, 5001, 0, -70, {}};
  ScannedCellTower t1b = t1;
  t1b.rssi = -90;
  t1b.timingAdvance = 3;
  EXPECT_TRUE(CellTowerList({t1b}) <= CellTowerList({t2, t1}));
  EXPECT_FALSE(CellTowerList({t1, t2}) <= CellTowerList({t1}));
  EXPECT_FALSE(CellTowerList({t2}) <= CellTowerList({t1}));
  EXPECT_TRUE(CellTowerList({}) <= CellTowerList({}));
}

TEST(RSSITest, ConvertsRawDriverSignal) {
  const struct {
    int16_t raw, rssi;
  } cases[] = {{0, -255}, {-70, -70}, {-1, -1}, {1, -103}, {10, -95}, {50, -58}, {99, -11}, {100, -255}, {500, -255}};
  for (const auto& c : cases) EXPECT_EQ(rssiFromRawSignal(c.raw), c.rssi) << "raw " << c.raw;
}

}  // namespace
}  // namespace WPS::SPI
