// The scan loop shared by WPS_periodic_scan and WPS_location.
#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "wps/api/wpsapi_internal.h"
#include "wps/spi/concurrent.h"
#include "wps/spi/logger.h"
#include "wps/spi/wifi_adapter.h"

namespace WPS {
namespace API {
namespace {

using SPI::AccessPointList;
using SPI::CellTowerList;
using SPI::Logger;
using SPI::WifiAdapter;

// Closes the adapter however the loop ends.
class OpenAdapter {
 public:
  explicit OpenAdapter(WifiAdapter& adapter) : adapter_(adapter) {}
  ~OpenAdapter() { adapter_.close(); }
  OpenAdapter(const OpenAdapter&) = delete;
  OpenAdapter& operator=(const OpenAdapter&) = delete;

 private:
  WifiAdapter& adapter_;
};

// The access points of `scan`, each MAC once (the first occurrence wins; a
// driver offering two kinds of scan may report an access point twice).
AccessPointList uniqueByMac(const AccessPointList& scan) {
  AccessPointList unique;
  unique.reserve(scan.size());
  for (const auto& ap : scan) {
    bool seen = std::any_of(unique.begin(), unique.end(), [&](const auto& u) { return u.mac == ap.mac; });
    if (!seen) unique.push_back(ap);
  }
  return unique;
}

CellTowerList uniqueTowers(const CellTowerList& cells) {
  CellTowerList unique;
  for (const auto& cell : cells) {
    bool seen = std::any_of(unique.begin(), unique.end(), [&](const auto& u) { return u.sameTower(cell); });
    if (!seen) unique.push_back(cell);
  }
  return unique;
}

// "0012A3B4C5D6(-61) 0012A3B4C5D7(-70)" for the scan logs.
std::string describe(const AccessPointList& aps) {
  std::string text;
  for (const auto& ap : aps) {
    if (!text.empty()) text += ' ';
    text += ap.mac.toString() + "(" + std::to_string(ap.rssi) + ")";
  }
  return text;
}

std::string describe(const CellTowerList& cells) {
  std::string text;
  for (const auto& c : cells) {
    if (!text.empty()) text += ' ';
    text += std::to_string(c.mcc) + "-" + std::to_string(c.mnc) + "-" + std::to_string(c.lac) + "-" +
            std::to_string(c.ci) + "(" + std::to_string(c.rssi) + ")";
  }
  return text;
}

// How fetching a scan's results went.
enum class Fetched {
  Ok,     // the results are in
  Reset,  // they could not be read; the adapter was reopened, no results
  Failed  // the adapter could not be reopened
};

// The results of the scan under way; an adapter that cannot give them is
// closed and opened again.
Fetched fetchScan(WifiAdapter& wifi, Logger& logger, AccessPointList& scanned) {
  if (wifi.getScannedAccessPoints(scanned) == 0) return Fetched::Ok;
  logger.error("couldn't get scanned AP list");
  logger.info("resetting Wi-Fi adapter");
  wifi.close();
  if (wifi.open() != 0) {
    logger.error("couldn't re-open Wi-Fi adapter");
    return Fetched::Failed;
  }
  scanned.clear();
  return Fetched::Reset;
}

void logScan(Logger& logger, const AccessPointList& scanned, const AccessPointList& aps,
             const CellTowerList& scannedCells, const CellTowerList& cells) {
  logger.debug("new APs %d: %s", static_cast<int>(scanned.size()), describe(scanned).c_str());
  logger.debug("new (unique) APs %d: %s", static_cast<int>(aps.size()), describe(aps).c_str());
  logger.debug("new cells %d: %s", static_cast<int>(scannedCells.size()), describe(scannedCells).c_str());
  logger.debug("new (unique) cells %d: %s", static_cast<int>(cells.size()), describe(cells).c_str());
}

}  // namespace

WPS_ReturnCode periodicScan(unsigned long period, unsigned iterations, WPS_ScanCallback callback, void* context) {
  Logger& logger = Logger::getLogger("WPS_periodic_scan");
  if (callback == nullptr) {
    logger.error("no scan callback");
    return WPS_ERROR;
  }
  const uint64_t duration = uint64_t{period} * iterations;
  const SPI::Timer timer;

  auto adapters = WifiAdapter::enumerateAdapters();
  if (adapters.empty()) {
    logger.error("couldn't find any Wi-Fi adapters");
    return WPS_ERROR;
  }
  WifiAdapter& wifi = *adapters.front();
  logger.debug("about to open Wi-Fi adapter");
  if (wifi.open() != 0) {
    logger.error("couldn't open Wi-Fi adapter");
    return WPS_ERROR;
  }
  OpenAdapter closer(wifi);
  // No cellular modem is driven on this platform: the adapter look-up finds none.
  logger.debug("couldn't find a GSM adapter");

  logger.debug("start scanning with %s", wifi.description().c_str());
  if (wifi.startScan() != 0) {
    logger.error("couldn't start scanning");
    return WPS_ERROR;
  }

  WPS_ReturnCode result = WPS_OK;
  const CellTowerList noCells;
  for (unsigned scans = 1;; ++scans) {
    AccessPointList scanned;
    const Fetched fetched = fetchScan(wifi, logger, scanned);
    if (fetched == Fetched::Failed) {
      result = WPS_ERROR;
      break;
    }
    const bool reset = fetched == Fetched::Reset;
    const WPS_ReturnCode scanResult = reset ? WPS_ERROR : WPS_OK;
    const AccessPointList aps = uniqueByMac(scanned);
    const CellTowerList cells = uniqueTowers(noCells);
    logScan(logger, scanned, aps, noCells, cells);

    const WPS_ScanResult scan{&timer, &aps, &cells};
    if (callback(context, scanResult, &scan) == WPS_STOP) break;

    const uint64_t elapsed = static_cast<uint64_t>(std::max<int64_t>(timer.elapsed(), 0));
    if (iterations == 0) {
      logger.debug("elapsed = %lu, duration = unbounded", static_cast<unsigned long>(elapsed));
    } else {
      logger.debug("elapsed = %lu, duration = %lu", static_cast<unsigned long>(elapsed),
                   static_cast<unsigned long>(duration));
      // The next scan would start at the next period boundary.
      const bool done = period == 0 ? scans >= iterations : (elapsed / period + 1) * period >= duration;
      if (done) break;
    }

    const uint64_t rest = period == 0 ? 0 : period - elapsed % period;
    logger.debug("sleeping for %lu ms...", static_cast<unsigned long>(rest));
    SPI::Thread::msleep(static_cast<int64_t>(rest));

    if (wifi.startScan() != 0) {
      logger.error(reset ? "couldn't restart Wi-Fi scanning after resetting" : "couldn't restart Wi-Fi scanning");
      result = WPS_ERROR;
      break;
    }
  }
  logger.debug("stopping");
  return result;
}

}  // namespace API
}  // namespace WPS
