#include "wps/spi/linux_wifi_adapter.h"

#include <sys/utsname.h>

#include <cerrno>
#include <cstring>
#include <limits>
#include <mutex>
#include <utility>

namespace WPS {
namespace SPI {

namespace {

// The kernel release, shared by all scanner threads; read by the first one.
StdMutex osVersionMutex;
std::string osVersionText;

}  // namespace

// The scanner thread's body. Holds the adapter's mutex except while waiting
// for the next event.
class LinuxWifiAdapter::ScannerThread {
 public:
  explicit ScannerThread(LinuxWifiAdapter& adapter)
      : adapter_(adapter), logger_(Logger::getLogger("WPS.SPI.LinuxWifiAdapter.Scanner")) {}

  static void* start(void* argument) {
    ScannerThread thread(*static_cast<LinuxWifiAdapter*>(argument));
    thread.run();
    return nullptr;
  }

 private:
  void run();
  void readOsVersion();
  void readInfo() WPS_REQUIRES(adapter_.mutex_);
  void scan() WPS_REQUIRES(adapter_.mutex_);
  void scanSplit() WPS_REQUIRES(adapter_.mutex_);
  void scanDictionary() WPS_REQUIRES(adapter_.mutex_);

  LinuxWifiAdapter& adapter_;
  Logger& logger_;
};

void LinuxWifiAdapter::ScannerThread::readOsVersion() {
  std::string version;
  {
    StdMutexLock lock(osVersionMutex);
    if (osVersionText.empty()) {
      struct utsname name;
      if (uname(&name) != 0) {
        logger_.error("uname failed: %d", errno);
        osVersionText = "unknown";
      } else {
        osVersionText = name.release;
      }
    }
    version = osVersionText;
  }
  logger_.info("Linux version %s", version.c_str());
  if (logger_.isEnabledFor(Logger::INFO)) {
    logger_.info("Wireless version %.2f", adapter_.driver_->version());
  }
}

void LinuxWifiAdapter::ScannerThread::run() {
  readOsVersion();

  WirelessDriver& driver = *adapter_.driver_;
  int attached = driver.attach();
  if (attached != 0) {
    logger_.error("%s attach failed: %d", driver.name(), attached);
    adapter_.mutex_.lock();
    adapter_.attachStatus_ = attached;
    adapter_.scannerRunning_ = false;
    adapter_.cond_.broadcast();
    adapter_.mutex_.unlock();
    return;
  }

  adapter_.mutex_.lock();
  for (;;) {
    if (adapter_.events_ & EVENT_STOP) {
      logger_.debug(">>> EVENT_STOP");
      break;
    }
    if (adapter_.events_ & EVENT_INFO) {
      logger_.debug(">>> EVENT_INFO");
      readInfo();
      logger_.debug("<<< EVENT_INFO");
    }
    if (adapter_.events_ & EVENT_SCAN) {
      logger_.debug(">>> EVENT_SCAN");
      scan();
      logger_.debug("<<< EVENT_SCAN");
    }
    adapter_.events_ = 0;
    // Wakes open() waiting for its answer and getScannedAccessPoints() waiting
    // for a requested scan.
    adapter_.cond_.broadcast();
    while (adapter_.events_ == 0) adapter_.cond_.wait(adapter_.mutex_);
  }
  adapter_.scannerRunning_ = false;
  adapter_.cond_.broadcast();
  adapter_.mutex_.unlock();

  driver.detach();
}

void LinuxWifiAdapter::ScannerThread::readInfo() {
  unsigned char mac[6] = {0, 0, 0, 0, 0, 0};
  int rc = adapter_.driver_->getCardInfo(mac);
  if (rc != 0) {
    logger_.error("WirelessGetInfo failed: %x", rc);
    return;
  }
  char text[18];
  std::snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3], mac[4],
                mac[5]);
  adapter_.description_ = text;
  logger_.info("info = %s", text);
}

void LinuxWifiAdapter::ScannerThread::scan() {
  unsigned kinds = adapter_.driver_->scanKinds();
  if (kinds & WirelessDriver::SPLIT_SCAN) scanSplit();
  if (kinds & WirelessDriver::DICTIONARY_SCAN) scanDictionary();
}

void LinuxWifiAdapter::ScannerThread::scanSplit() {
  std::vector<SplitScanRecord> records;
  int rc = adapter_.driver_->scanSplit(records);
  if (rc != 0) {
    logger_.error("WirelessScanSplit failed: %x", rc);
    adapter_.status_ = rc;
    return;
  }
  if (records.empty()) {
    logger_.info("no AP found with WirelessScanSplit");
    return;
  }
  logger_.info("scanned %d APs with WirelessScanSplit", static_cast<int>(records.size()));
  Time now = Time::now();
  for (const SplitScanRecord& record : records) {
    ScannedAccessPoint ap(MAC::fromTransmissionOrder(record.bssid), rssiFromRawSignal(record.signal),
                          record.ssid, now);
    ap.channel = record.channel;
    ap.noise = record.noise;
    if (logger_.isEnabledFor(Logger::DEBUG)) {
      logger_.debug("MAC %s (%s); RSSI %d; channel: %d; noise: %d", ap.mac.toString().c_str(), ap.ssid.c_str(),
                    ap.rssi, ap.channel, ap.noise);
    }
    adapter_.results_.push_back(std::move(ap));
  }
}

void LinuxWifiAdapter::ScannerThread::scanDictionary() {
  std::vector<ScanDictionary> entries;
  int rc = adapter_.driver_->scanDictionary(entries);
  if (rc != 0) {
    logger_.error("WirelessCreateScanResults failed: %x", rc);
    adapter_.status_ = rc;
    return;
  }
  if (entries.empty()) {
    logger_.info("no AP found with WirelessCreateScanResults");
    return;
  }
  logger_.info("scanned %d APs with WirelessCreateScanResults", static_cast<int>(entries.size()));
  Time now = Time::now();
  for (size_t i = 0; i < entries.size(); ++i) {
    const ScanDictionary& entry = entries[i];
    const int index = static_cast<int>(i);
    if (!entry.bssid) {
      logger_.warn("no BSSID data for scan result %d", index);
      continue;
    }
    if (entry.bssid->size() != 6) {
      logger_.warn("BSSID length (%d) != 6 for scan result %d", static_cast<int>(entry.bssid->size()), index);
      continue;
    }
    MAC mac = MAC::fromTransmissionOrder(entry.bssid->data());
    if (mac.value() == 0) {
      // An all-zero address is a placeholder, not an access point.
      logger_.warn("no BSSID for scan result %d", index);
      continue;
    }
    const unsigned long macValue = static_cast<unsigned long>(mac.value());

    ScannedAccessPoint ap(mac, kUnknownRSSI, {}, now);
    if (!entry.signal) {
      logger_.warn("no signal for AP %12lX", macValue);
    } else if (*entry.signal < std::numeric_limits<int16_t>::min() ||
               *entry.signal > std::numeric_limits<int16_t>::max()) {
      logger_.warn("can't convert signal for AP %12lX", macValue);
    } else {
      ap.rssi = rssiFromRawSignal(static_cast<int16_t>(*entry.signal));
    }

    if (!entry.ssid) {
      logger_.warn("no SSID data for AP %12lX", macValue);
    } else if (entry.ssid->size() > 32) {
      logger_.warn("CFStringGetCString failed for AP %12lX", macValue);
    } else {
      ap.ssid = *entry.ssid;
    }
    if (entry.channel) ap.channel = *entry.channel;
    if (entry.noise) ap.noise = *entry.noise;

    if (logger_.isEnabledFor(Logger::DEBUG)) {
      logger_.debug("MAC %s (%s); RSSI %d; channel: %d; noise: %d", ap.mac.toString().c_str(), ap.ssid.c_str(),
                    ap.rssi, ap.channel, ap.noise);
    }
    adapter_.results_.push_back(std::move(ap));
  }
}

LinuxWifiAdapter::LinuxWifiAdapter(std::unique_ptr<WirelessDriver> driver)
    : logger_(Logger::getLogger("WPS.SPI.LinuxWifiAdapter")), driver_(std::move(driver)) {}

LinuxWifiAdapter::~LinuxWifiAdapter() { close(); }

void LinuxWifiAdapter::setEvent(int event) {
  if (events_ & event) logger_.warn("%x already set", event);
  events_ |= event;
}

int LinuxWifiAdapter::open() {
  if (hasThread_) return 0;

  mutex_.lock();
  events_ = 0;
  status_ = 0;
  attachStatus_ = 0;
  results_.clear();
  description_.clear();
  scannerRunning_ = true;
  int rc = pthread_create(&thread_, nullptr, &ScannerThread::start, this);
  if (rc != 0) {
    _log_error(logger_, "pthread_create", rc);
    scannerRunning_ = false;
    mutex_.unlock();
    return rc;
  }
  hasThread_ = true;

  setEvent(EVENT_INFO);
  cond_.broadcast();
  while ((events_ & EVENT_INFO) && scannerRunning_) cond_.wait(mutex_);
  int result = 0;
  if (!scannerRunning_) result = attachStatus_ != 0 ? attachStatus_ : EIO;
  mutex_.unlock();

  if (result != 0) {
    // The thread ended on its own (the driver did not attach): reap it.
    pthread_join(thread_, nullptr);
    hasThread_ = false;
  }
  return result;
}

int LinuxWifiAdapter::startScan() {
  if (!hasThread_) return EBADF;
  // A scanner holding the lock is busy scanning already: nothing to start.
  int rc = 0;
  if (!mutex_.tryLock(rc)) {
    if (rc != EBUSY) return rc;
    logger_.info("scanner busy");
    return 0;
  }
  status_ = 0;
  results_.clear();
  setEvent(EVENT_SCAN);
  cond_.broadcast();
  mutex_.unlock();
  return 0;
}

int LinuxWifiAdapter::getScannedAccessPoints(AccessPointList& out) {
  MutexLock lock(mutex_);
  // A scan requested but not yet picked up by the scanner thread is waited
  // for too, so the caller never sees the empty list of a scan not begun.
  while ((events_ & EVENT_SCAN) && scannerRunning_) cond_.wait(mutex_);
  if (status_ != 0) {
    logger_.error("scanner thread failed: %x", status_);
    return status_;
  }
  out = std::move(results_);
  results_.clear();
  return 0;
}

void LinuxWifiAdapter::close() {
  if (!hasThread_) return;
  mutex_.lock();
  setEvent(EVENT_STOP);
  cond_.broadcast();
  mutex_.unlock();

  int rc = pthread_join(thread_, nullptr);
  if (rc == EINVAL) {
    logger_.debug("pthread_join failed: %s (%d)", std::strerror(rc), rc);
  } else if (rc != 0) {
    logger_.warn("pthread_join failed: %s (%d)", std::strerror(rc), rc);
  }
  hasThread_ = false;
}

std::string LinuxWifiAdapter::description() const {
  // Written only by the scanner thread while open() waits for it, so it is
  // stable afterwards; reading without the mutex keeps this from waiting
  // for a running scan.
  return description_;
}

std::string LinuxWifiAdapter::osVersion() {
  StdMutexLock lock(osVersionMutex);
  return osVersionText;
}

}  // namespace SPI
}  // namespace WPS
