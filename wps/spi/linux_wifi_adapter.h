// The Wi-Fi adapter of Linux: a scanner thread drives a `WirelessDriver`
// (nl80211 or the scan file) and converts its results to access points.
//
// The adapter and its scanner thread share one mutex, one condition variable
// and an event word of EVENT_* bits. The scanner thread holds the mutex
// except while it waits on the condition for the next event, so it holds it
// for the whole of a scan: `startScan` finds the mutex taken and reports
// "scanner busy", and `getScannedAccessPoints` waits for the scan to end.
//
// Log categories: "WPS.SPI.LinuxWifiAdapter" (caller side) and
// "WPS.SPI.LinuxWifiAdapter.Scanner" (scanner thread).
//
// Thread safety: see WifiAdapter. The driver is used only by the scanner
// thread between `open` and `close`.
#pragma once

#include <pthread.h>

#include <memory>
#include <string>

#include "wps/spi/concurrent.h"
#include "wps/spi/logger.h"
#include "wps/spi/wifi_adapter.h"
#include "wps/spi/wireless_driver.h"

namespace WPS {
namespace SPI {

class LinuxWifiAdapter final : public WifiAdapter {
 public:
  // Event bits of the event word.
  static constexpr int EVENT_STOP = 1;  // the scanner thread is to end
  static constexpr int EVENT_INFO = 2;  // read the card's MAC address
  static constexpr int EVENT_SCAN = 4;  // perform one scan

  // Takes ownership of `driver` (not null).
  explicit LinuxWifiAdapter(std::unique_ptr<WirelessDriver> driver);
  // Closes the adapter (joins the scanner thread).
  ~LinuxWifiAdapter() override;
  LinuxWifiAdapter(const LinuxWifiAdapter&) = delete;
  LinuxWifiAdapter& operator=(const LinuxWifiAdapter&) = delete;

  [[nodiscard]] int open() override;
  [[nodiscard]] int startScan() override;
  [[nodiscard]] int getScannedAccessPoints(AccessPointList& out) override;
  void close() override;
  [[nodiscard]] std::string description() const override;

  // The kernel release (uname -r), read once per process by the first scanner
  // thread; empty until then, "unknown" when uname failed.
  [[nodiscard]] static std::string osVersion();

 private:
  class ScannerThread;

  // Sets an event bit, logging "%x already set" when it already was. Caller
  // holds mutex_.
  void setEvent(int event) WPS_REQUIRES(mutex_);

  Logger& logger_;
  std::unique_ptr<WirelessDriver> driver_;

  // Guards the event word, the status and the results. description_ is
  // written by the scanner thread only while open() waits for it; thread_ and
  // hasThread_ belong to the caller of open/close.
  PthreadMutex mutex_;
  PthreadCond cond_;
  int events_ WPS_GUARDED_BY(mutex_) = 0;
  int status_ WPS_GUARDED_BY(mutex_) = 0;        // last scan's code (0 = good)
  int attachStatus_ WPS_GUARDED_BY(mutex_) = 0;  // the driver's attach code, for open()
  bool scannerRunning_ WPS_GUARDED_BY(mutex_) = false;
  AccessPointList results_ WPS_GUARDED_BY(mutex_);
  std::string description_;  // written by the scanner thread during open()

  pthread_t thread_{};
  bool hasThread_ = false;
};

}  // namespace SPI
}  // namespace WPS
