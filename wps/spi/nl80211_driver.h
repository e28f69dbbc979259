// The wireless driver over the kernel's nl80211 interface (libnl-genl-3).
//
// A scan reads the kernel's cached scan results of one station interface
// (NL80211_CMD_GET_SCAN dump, no privilege needed) and drops entries the card
// has not seen for more than `kMaxAgeMilliseconds`. Before reading, and at most
// once per `kTriggerIntervalMilliseconds`, it asks for a fresh scan: directly
// with NL80211_CMD_TRIGGER_SCAN when the process may (CAP_NET_ADMIN), else
// through NetworkManager's RequestScan when NetworkManager runs. It does not
// wait for that scan: its results show up in the cache, and so in later scans,
// a few seconds later.
//
// Each BSS entry becomes one ScanDictionary (the driver offers the dictionary
// scan only): BSSID from NL80211_BSS_BSSID; the raw signal from
// NL80211_BSS_SIGNAL_MBM divided by 100 (dBm), else NL80211_BSS_SIGNAL_UNSPEC
// (0..100, a percentage); the SSID from information element 0; the channel from
// NL80211_BSS_FREQUENCY. nl80211 reports no noise per BSS; noise stays absent.
//
// The card information is the interface's MAC address. The interface is the
// first station-mode interface the kernel lists.
//
// Log category "WPS.SPI.Nl80211Driver".
//
// Thread safety: as WirelessDriver; the free functions are reentrant.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "wps/spi/logger.h"
#include "wps/spi/time.h"
#include "wps/spi/wireless_driver.h"

struct nl_msg;
struct nl_sock;

namespace WPS {
namespace SPI {

namespace nl80211 {

// Cached results older than this are dropped.
inline constexpr uint32_t kMaxAgeMilliseconds = 15000;

// The channel number of a centre frequency in MHz (2.4, 4.9, 5, 6 and 60 GHz
// bands); 0 for a frequency outside them.
[[nodiscard]] uint16_t channelFromFrequency(uint32_t mhz);

// The SSID of a block of information elements (element 0), or nothing when
// there is no SSID element or the elements are truncated before its end. A
// hidden network's SSID (length 0, or only zero bytes) is the empty string.
[[nodiscard]] std::optional<std::string> ssidFromInformationElements(const unsigned char* data, size_t length);

// The raw signal of a BSS from NL80211_BSS_SIGNAL_MBM (100 × dBm): whole dBm,
// truncated toward zero.
[[nodiscard]] inline int64_t rawSignalFromMbm(int32_t mbm) { return mbm / 100; }

// Reads one NL80211_CMD_NEW_SCAN_RESULTS message (one BSS) into `out`.
// Returns false, leaving `out` in an unspecified state, when the message has
// no BSS attribute, cannot be parsed, or the BSS was last seen more than
// `maxAgeMilliseconds` ago.
[[nodiscard]] bool parseScanResult(struct nl_msg* message, uint32_t maxAgeMilliseconds, ScanDictionary& out);

// A wireless interface of the kernel.
struct Interface {
  uint32_t index = 0;
  std::string name;
  unsigned char mac[6] = {0, 0, 0, 0, 0, 0};
  uint32_t type = 0;  // NL80211_IFTYPE_*
};

// Reads one NL80211_CMD_NEW_INTERFACE message (the answer to a
// NL80211_CMD_GET_INTERFACE dump). Returns false when it names no interface
// index.
[[nodiscard]] bool parseInterface(struct nl_msg* message, Interface& out);

}  // namespace nl80211

class Nl80211Driver final : public WirelessDriver {
 public:
  // A fresh scan is requested at most this often.
  static constexpr int64_t kTriggerIntervalMilliseconds = 10000;

  Nl80211Driver();
  ~Nl80211Driver() override;
  Nl80211Driver(const Nl80211Driver&) = delete;
  Nl80211Driver& operator=(const Nl80211Driver&) = delete;

  // The station-mode interfaces the kernel's nl80211 lists (empty when
  // nl80211 is missing, as on machines without Wi-Fi).
  [[nodiscard]] static std::vector<nl80211::Interface> listStationInterfaces();

  [[nodiscard]] const char* name() const override { return "nl80211"; }
  [[nodiscard]] double version() const override { return 3.0; }
  // True when a station-mode interface exists.
  [[nodiscard]] bool isAvailable() override;
  // Opens the netlink socket and picks the interface. Returns 0, ENODEV when
  // there is no wireless interface, or the failed call's errno.
  [[nodiscard]] int attach() override;
  void detach() override;
  [[nodiscard]] int getCardInfo(unsigned char mac[6]) override;
  [[nodiscard]] unsigned scanKinds() const override { return DICTIONARY_SCAN; }
  [[nodiscard]] int scanSplit(std::vector<SplitScanRecord>& out) override;
  // Requests a fresh scan (rate-limited), then reads the cached results.
  // Returns 0 or the errno of the failed dump.
  [[nodiscard]] int scanDictionary(std::vector<ScanDictionary>& out) override;

 private:
  // Asks for a fresh scan when the last request is old enough.
  void requestFreshScan();
  // Sends NL80211_CMD_TRIGGER_SCAN; returns 0 or a negative libnl code.
  int triggerScan();

  Logger& logger_;
  struct SocketDeleter {
    void operator()(struct nl_sock* socket) const;
  };
  std::unique_ptr<struct nl_sock, SocketDeleter> socket_;
  int familyId_ = -1;
  nl80211::Interface interface_;
  Time lastTrigger_;
  bool triggerPermitted_ = true;  // false once the kernel said EPERM
};

}  // namespace SPI
}  // namespace WPS
