// Scan records of the positioning library and the comparisons of scans.
//
// Thread safety: plain values.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "wps/spi/time.h"

namespace WPS {
namespace SPI {

// A 48-bit MAC address (BSSID). The six bytes are stored least significant
// octet first, so the address prints from the last stored byte down:
// stored {D6,C5,B4,A3,12,00} prints as "0012A3B4C5D6".
class MAC {
 public:
  MAC() = default;
  // From six bytes in transmission order (as they appear on the air and in
  // "00:12:A3:B4:C5:D6").
  static MAC fromTransmissionOrder(const unsigned char octets[6]);
  // From the 48-bit value whose most significant byte is the first printed octet.
  static MAC fromValue(uint64_t value);
  // Parses "00:12:A3:B4:C5:D6", "00-12-a3-b4-c5-d6" or "0012A3B4C5D6".
  // Returns false (leaving `out` unchanged) for anything else.
  [[nodiscard]] static bool parse(const std::string& text, MAC& out);

  // Twelve upper-case hexadecimal digits, from the last stored byte down.
  [[nodiscard]] std::string toString() const;
  // "00:12:A3:B4:C5:D6".
  [[nodiscard]] std::string toColonString() const;
  // The 48-bit value (first printed octet most significant).
  [[nodiscard]] uint64_t value() const;
  // Copies the six stored bytes (least significant octet first).
  void copy(unsigned char out[6]) const;
  // The stored bytes (least significant octet first).
  [[nodiscard]] const unsigned char* bytes() const { return bytes_; }

  friend bool operator==(const MAC& a, const MAC& b);
  friend bool operator<(const MAC& a, const MAC& b) { return a.value() < b.value(); }

 private:
  unsigned char bytes_[6] = {0, 0, 0, 0, 0, 0};
};

// RSSI value meaning "signal unknown".
inline constexpr int16_t kUnknownRSSI = -255;

// One access point seen by a Wi-Fi scan.
struct ScannedAccessPoint {
  MAC mac;
  int16_t rssi = kUnknownRSSI;  // dBm; kUnknownRSSI when unknown
  std::string ssid;             // network name, possibly empty
  // The scan's further 32 bits: the radio channel and the noise level (dBm,
  // 0 when the driver gives none), carried through unchanged.
  uint16_t channel = 0;
  int16_t noise = 0;
  Time time;  // when it was scanned; seconds 0 = unknown

  ScannedAccessPoint() = default;
  ScannedAccessPoint(const MAC& m, int16_t r, std::string s = {}, Time t = {})
      : mac(m), rssi(r), ssid(std::move(s)), time(t) {}
};

// One cell tower seen by a radio scan.
struct ScannedCellTower {
  uint16_t mcc = 0;
  uint16_t mnc = 0;
  int32_t lac = 0;
  int32_t ci = 0;
  int32_t timingAdvance = 0;
  int16_t rssi = kUnknownRSSI;
  Time time;

  // Two records name the same tower when mcc, mnc, lac and ci agree.
  [[nodiscard]] bool sameTower(const ScannedCellTower& other) const {
    return mcc == other.mcc && mnc == other.mnc && lac == other.lac && ci == other.ci;
  }
};

using AccessPointList = std::vector<ScannedAccessPoint>;
using CellTowerList = std::vector<ScannedCellTower>;

// Comparisons of scans by MAC only (signal, SSID and time are ignored).
// a == b: same size, and every entry of a has an entry of b with the same MAC.
[[nodiscard]] bool operator==(const AccessPointList& a, const AccessPointList& b);
// a <= b: a has no more entries than b and every MAC of a occurs in b.
[[nodiscard]] bool operator<=(const AccessPointList& a, const AccessPointList& b);
// |a| + |b| - 2 × (number of (entry of a, entry of b) pairs with equal MAC).
[[nodiscard]] int distance(const AccessPointList& a, const AccessPointList& b);
// a <= b for cell towers: every tower of a occurs in b and a is no longer.
[[nodiscard]] bool operator<=(const CellTowerList& a, const CellTowerList& b);

// Converts a driver's raw signal value to dBm: negative values are dBm
// already; 1..99 is a percentage mapped onto -103..-11 dBm; 0 and values of
// 100 and more are unknown (kUnknownRSSI).
[[nodiscard]] int16_t rssiFromRawSignal(int16_t raw);

}  // namespace SPI
}  // namespace WPS
