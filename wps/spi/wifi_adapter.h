// The positioning library's view of a Wi-Fi card: enumerate the usable cards,
// open one, start scans and collect their access points, close it.
//
// Typical use:
//   auto adapters = WifiAdapter::enumerateAdapters();
//   if (!adapters.empty() && adapters[0]->open() == 0) {
//     adapters[0]->startScan();
//     ...
//     AccessPointList aps;
//     if (adapters[0]->getScannedAccessPoints(aps) == 0) { use aps }
//     adapters[0]->close();
//   }
//
// Thread safety: an adapter's methods may be called from any thread, but
// `open` and `close` must not race each other or any other call (the library
// serialises its public functions, which is where adapters are used).
// `startScan` never blocks on a running scan; `getScannedAccessPoints` waits
// for it to finish.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "wps/spi/scan.h"

namespace WPS {
namespace SPI {

class WifiAdapter {
 public:
  virtual ~WifiAdapter() = default;

  // The usable adapters of this machine, owned by the caller:
  //  - when the environment variable "WPS_SCAN_FILE" is set, one adapter over
  //    the scan-file driver reading that file;
  //  - else, when the kernel has a wireless interface, one adapter over nl80211;
  //  - else none, and "No wireless available" is logged as an error
  //    (category "WPS.SPI.WifiAdapter").
  [[nodiscard]] static std::vector<std::unique_ptr<WifiAdapter>> enumerateAdapters();

  // Starts the adapter's scanner thread and waits until it has read the card's
  // MAC address into `description()`. Returns 0 or an error code (the thread
  // could not start, the driver could not attach); the adapter is closed then.
  // Opening an open adapter returns 0 and does nothing.
  [[nodiscard]] virtual int open() = 0;

  // Asks the scanner thread for one scan without waiting for it. When a scan
  // is already running, logs "scanner busy" and returns 0: its results serve.
  // Returns 0, or 9 (EBADF) when the adapter is not open.
  [[nodiscard]] virtual int startScan() = 0;

  // Waits for a requested or running scan to end, then moves its access points
  // into `out` (replacing the contents) and returns 0; the results are handed
  // out once, a second call gives an empty list. When the scan failed, logs
  // "scanner thread failed: %x" and returns its code, leaving `out` unchanged.
  [[nodiscard]] virtual int getScannedAccessPoints(AccessPointList& out) = 0;

  // Stops and joins the scanner thread, after a running scan has finished.
  // Harmless when closed. Results not yet collected are dropped.
  virtual void close() = 0;

  // The card's MAC address as "00:1a:2b:3c:4d:5e" once open; empty before,
  // or when the card could not tell. Never waits for a scan.
  [[nodiscard]] virtual std::string description() const = 0;
};

}  // namespace SPI
}  // namespace WPS
