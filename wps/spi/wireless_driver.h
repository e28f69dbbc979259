// The wireless-card driver behind the Wi-Fi adapter: the few operations the
// adapter's scanner thread needs from the platform (is there a card, attach,
// detach, the card's MAC address, one scan).
//
// A driver offers its scan results in one or both of two forms:
//  - split scan: complete fixed records (BSSID, raw signal, SSID, channel,
//    noise), for sources that always know every field;
//  - dictionary scan: one keyed entry per access point in which any field may
//    be missing or malformed, for sources that hand out attribute sets (the
//    kernel's nl80211 scan results). The adapter validates each entry.
// The adapter runs each scan the driver offers (see `scanKinds`), in that
// order, and appends both results.
//
// Thread safety: after construction a driver is used by one thread at a time
// (the adapter's scanner thread between `attach` and `detach`; the enumerating
// thread for `isAvailable`). Drivers are owned by the adapter that uses them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace WPS {
namespace SPI {

// One access point of a split scan.
struct SplitScanRecord {
  uint16_t channel = 0;
  int16_t noise = 0;
  // Raw driver signal: negative dBm, 1..99 a percentage, 0 unknown.
  int16_t signal = 0;
  unsigned char bssid[6] = {0, 0, 0, 0, 0, 0};  // transmission order
  std::string ssid;                             // at most 32 bytes
};

// One access point of a dictionary scan; every field may be absent.
struct ScanDictionary {
  // The BSSID bytes as the source gave them (transmission order). Absent when
  // the source had none; the adapter rejects any length but 6 and an all-zero
  // address.
  std::optional<std::vector<unsigned char>> bssid;
  // Raw signal as the source gave it (negative dBm, 1..99 a percentage, 0
  // unknown); the adapter rejects values outside signed 16 bits.
  std::optional<int64_t> signal;
  // SSID bytes; absent when the source had no SSID element. An SSID of more
  // than 32 bytes is rejected by the adapter (the access point is kept with
  // an empty SSID).
  std::optional<std::string> ssid;
  std::optional<uint16_t> channel;
  std::optional<int16_t> noise;
};

class WirelessDriver {
 public:
  enum ScanKind : unsigned {
    SPLIT_SCAN = 1,
    DICTIONARY_SCAN = 2,
  };

  virtual ~WirelessDriver() = default;

  // A short name for logs ("nl80211", "scan file").
  [[nodiscard]] virtual const char* name() const = 0;
  // The driver's version for the "Wireless version" log line.
  [[nodiscard]] virtual double version() const = 0;
  // True when the driver can work on this machine now (a wireless interface
  // exists, the scan file is readable). Does not attach.
  [[nodiscard]] virtual bool isAvailable() = 0;

  // Prepares for scanning. Returns 0 or an errno-style code; on failure the
  // driver stays detached and no other call but `isAvailable` may follow.
  [[nodiscard]] virtual int attach() = 0;
  // Releases what `attach` acquired. Harmless when not attached.
  virtual void detach() = 0;

  // The card's own MAC address (transmission order). Returns 0 or a code.
  [[nodiscard]] virtual int getCardInfo(unsigned char mac[6]) = 0;

  // Bit set of ScanKind: the scans this driver offers.
  [[nodiscard]] virtual unsigned scanKinds() const = 0;
  // One split scan into `out` (replaced). Returns 0 or a code; drivers that do
  // not offer it return 95 (EOPNOTSUPP).
  [[nodiscard]] virtual int scanSplit(std::vector<SplitScanRecord>& out) = 0;
  // One dictionary scan into `out` (replaced). Returns 0 or a code; drivers
  // that do not offer it return 95 (EOPNOTSUPP).
  [[nodiscard]] virtual int scanDictionary(std::vector<ScanDictionary>& out) = 0;
};

}  // namespace SPI
}  // namespace WPS
