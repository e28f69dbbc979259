#include "wps/spi/scan.h"

#include <cctype>
#include <cstdio>
#include <cstring>

namespace WPS {
namespace SPI {

MAC MAC::fromTransmissionOrder(const unsigned char octets[6]) {
  MAC m;
  for (int i = 0; i < 6; ++i) m.bytes_[i] = octets[5 - i];
  return m;
}

MAC MAC::fromValue(uint64_t value) {
  MAC m;
  for (int i = 0; i < 6; ++i) m.bytes_[i] = static_cast<unsigned char>(value >> (8 * i));
  return m;
}

bool MAC::parse(const std::string& text, MAC& out) {
  std::string digits;
  const bool separated = text.size() == 17;
  if (!separated && text.size() != 12) return false;
  for (size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (separated && i % 3 == 2) {
      if (c != ':' && c != '-') return false;
      continue;
    }
    if (!std::isxdigit(static_cast<unsigned char>(c))) return false;
    digits.push_back(c);
  }
  if (digits.size() != 12) return false;
  out = fromValue(std::stoull(digits, nullptr, 16));
  return true;
}

std::string MAC::toString() const {
  char buffer[13];
  std::snprintf(buffer, sizeof buffer, "%02X%02X%02X%02X%02X%02X", bytes_[5], bytes_[4], bytes_[3], bytes_[2],
                bytes_[1], bytes_[0]);
  return buffer;
}

std::string MAC::toColonString() const {
  char buffer[18];
  std::snprintf(buffer, sizeof buffer, "%02X:%02X:%02X:%02X:%02X:%02X", bytes_[5], bytes_[4], bytes_[3],
                bytes_[2], bytes_[1], bytes_[0]);
  return buffer;
}

uint64_t MAC::value() const {
  uint64_t v = 0;
  for (int i = 5; i >= 0; --i) v = (v << 8) | bytes_[i];
  return v;
}

void MAC::copy(unsigned char out[6]) const { std::memcpy(out, bytes_, 6); }

bool operator==(const MAC& a, const MAC& b) { return std::memcmp(a.bytes_, b.bytes_, 6) == 0; }

namespace {

bool containsMAC(const AccessPointList& list, const MAC& mac) {
  for (const ScannedAccessPoint& ap : list) {
    if (ap.mac == mac) return true;
  }
  return false;
}

bool allIn(const AccessPointList& a, const AccessPointList& b) {
  for (const ScannedAccessPoint& ap : a) {
    if (!containsMAC(b, ap.mac)) return false;
  }
  return true;
}

}  // namespace

bool operator==(const AccessPointList& a, const AccessPointList& b) {
  return a.size() == b.size() && allIn(a, b);
}

bool operator<=(const AccessPointList& a, const AccessPointList& b) {
  if (a.size() > b.size()) return false;
  return allIn(a, b);
}

int distance(const AccessPointList& a, const AccessPointList& b) {
  int pairs = 0;
  for (const ScannedAccessPoint& x : a) {
    for (const ScannedAccessPoint& y : b) {
      if (x.mac == y.mac) ++pairs;
    }
  }
  return static_cast<int>(a.size() + b.size()) - 2 * pairs;
}

bool operator<=(const CellTowerList& a, const CellTowerList& b) {
  if (a.size() > b.size()) return false;
  for (const ScannedCellTower& x : a) {
    bool found = false;
    for (const ScannedCellTower& y : b) {
      if (x.sameTower(y)) {
        found = true;
        break;
      }
    }
    if (!found) return false;
  }
  return true;
}

int16_t rssiFromRawSignal(int16_t raw) {
  if (raw < 0) return raw;
  if (raw >= 1 && raw <= 99) return static_cast<int16_t>((raw * 85 - 850) / 90 - 95);
  return kUnknownRSSI;
}

}  // namespace SPI
}  // namespace WPS
