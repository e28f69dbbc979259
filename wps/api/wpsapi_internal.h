// The inside of the public WPS_ functions, for the library's own code, its
// programs and its tests: what a scan callback receives, the scan loop without
// the library lock, and hooks that tests use to reset the process-wide state.
//
// Thread safety: `periodicScan` runs on the calling thread and expects the
// caller to serialise it (WPS_periodic_scan and WPS_location hold the library
// lock around it). The testing hooks take the library lock themselves.
#pragma once

#include <memory>

#include "wps/api/wpsapi.h"
#include "wps/spi/scan.h"
#include "wps/spi/time.h"

// One finished scan as a WPS_ScanCallback sees it. Everything it points to
// belongs to the scan loop and is valid only during the callback.
struct WPS_ScanResult {
  // Started when the scan loop began: `elapsed()` is the scanning time so far.
  const WPS::SPI::Timer* timer = nullptr;
  // The access points of this scan, each MAC once.
  const WPS::SPI::AccessPointList* accessPoints = nullptr;
  // The cell towers of this scan, each tower once (always empty on this
  // platform, which has no cellular adapter).
  const WPS::SPI::CellTowerList* cells = nullptr;
};

namespace WPS {
namespace API {

class LocationDeterminationLocal;

// The scan loop of WPS_periodic_scan, without taking the library lock.
//
// Opens the first Wi-Fi adapter, scans once per `period` milliseconds and
// calls `callback` after each scan with WPS_OK and the scan. A scan that
// fails resets the adapter (close and open); when that works the callback is
// called with WPS_ERROR and an empty scan for that period. The loop ends when
// the callback answers WPS_STOP, or when the next period would start at or
// after `period` × `iterations` milliseconds (`iterations` 0: no bound; with a
// `period` of 0, after `iterations` scans). Sleeps go through the installed
// clock (WPS::SPI::Thread::msleep), so tests run it in simulated time.
//
// Returns WPS_OK when the loop ran and ended normally, WPS_ERROR when there is
// no adapter, it cannot be opened, scanning cannot be (re)started, a reset
// adapter cannot be reopened, or `callback` is null. The adapter is closed
// before returning.
[[nodiscard]] WPS_ReturnCode periodicScan(unsigned long period, unsigned iterations, WPS_ScanCallback callback,
                                          void* context);

// Replaces the process-wide local determination (tests substitute a scripted
// one); null makes the next public function create the real one again.
void setLocalDeterminationForTesting(std::unique_ptr<LocationDeterminationLocal> local);

// Forgets the location cache, so a test starts without earlier answers.
void clearLocationCacheForTesting();

}  // namespace API
}  // namespace WPS
