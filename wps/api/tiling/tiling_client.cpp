#include "wps/api/tiling/tiling_client.h"

#include <algorithm>
#include <chrono>

#include "wps/api/protocol/location_client.h"
#include "wps/api/protocol/protocol.h"
#include "wps/api/tiling/tile_collection.h"
#include "wps/spi/preferences.h"

namespace WPS {
namespace API {

using SPI::XmlHttpRequest;

// ---- ScanCache ----

void ScanCache::add(const std::vector<SPI::ScannedAccessPoint>& aps, const std::vector<SPI::ScannedCellTower>& cells) {
  const SPI::Time now = SPI::Time::now();
  ++scans_;
  for (SPI::ScannedAccessPoint ap : aps) {
    if (ap.time.seconds == 0) ap.time = now;
    auto same = std::find_if(aps_.begin(), aps_.end(), [&](const auto& held) { return held.mac == ap.mac; });
    if (same != aps_.end()) aps_.erase(same);
    aps_.push_back(std::move(ap));
  }
  for (SPI::ScannedCellTower cell : cells) {
    if (cell.time.seconds == 0) cell.time = now;
    auto same = std::find_if(cells_.begin(), cells_.end(), [&](const auto& held) { return held.sameTower(cell); });
    if (same != cells_.end()) cells_.erase(same);
    cells_.push_back(cell);
  }
  if (aps_.size() > limits_.capacity) aps_.erase(aps_.begin(), aps_.end() - static_cast<long>(limits_.capacity));
  if (cells_.size() > limits_.capacity) {
    cells_.erase(cells_.begin(), cells_.end() - static_cast<long>(limits_.capacity));
  }
}

void ScanCache::clear() {
  scans_ = 0;
  aps_.clear();
  cells_.clear();
}

// ---- Tile hosts ----

bool tileUrlAllowed(const std::string& url, const std::string& serverHost, const std::string& allowedHosts) {
  if (url.find("://") == std::string::npos) return true;  // relative to the server
  const std::string host = XmlHttpRequest::hostOf(url);
  if (host.empty()) return false;
  return SPI::hostListed(host, serverHost) || SPI::hostListed(host, allowedHosts);
}

// ---- FileDownloadQueue ----

FileDownloadQueue::FileDownloadQueue(Listener& listener)
    : listener_(listener), queueLogger_(SPI::Logger::getLogger("WPS.API.FileDownloadQueue")) {}

FileDownloadQueue::~FileDownloadQueue() {
  stopped_ = true;
  abortAndWait();
}

bool FileDownloadQueue::start(const TileInfoList& tiles, unsigned long maxBytes) {
  if (running_.exchange(true)) return false;
  tiles_.assign(tiles.begin(), tiles.end());
  index_ = 0;
  downloaded_ = 0;
  maxBytes_ = maxBytes;
  bytes_ = 0;
  stopped_ = false;
  allowedHosts_ = SPI::readLibraryPreference(kAllowedTileHostsKey);
  next();
  return true;
}

void FileDownloadQueue::stop() {
  stopped_ = true;
  abort();
}

std::unique_ptr<XmlHttpRequest> FileDownloadQueue::openDownload(const std::string& url) {
  const LocationClient& client = LocationClient::getInstance();
  // A location relative to the server (no scheme) is requested from it.
  if (url.find("://") == std::string::npos) return client.openHttpRequest(XmlHttpRequest::GET, url, true);
  const ConnectionSettings::Values v = client.settings();
  if (!tileUrlAllowed(url, XmlHttpRequest::hostOf(v.serverUrl), allowedHosts_)) {
    queueLogger_.error("tile URL %s is not on the positioning server's host, refused", url.c_str());
    return nullptr;
  }
  std::unique_ptr<XmlHttpRequest> request = XmlHttpRequest::newInstance();
  const int rc = request->open(XmlHttpRequest::GET, url, v.proxyHost, v.proxyPort, v.proxyUser, v.proxyPassword, true);
  if (rc != 0) {
    queueLogger_.error("failed (%d) to open request to %s", rc, url.c_str());
    return nullptr;
  }
  if (!v.userAgent.empty()) request->setRequestHeader("User-Agent", v.userAgent);
  return request;
}

void FileDownloadQueue::next() {
  const unsigned count = static_cast<unsigned>(tiles_.size());
  while (!stopped_.load() && index_ < tiles_.size()) {
    if (bytes_.load() >= maxBytes_) {
      queueLogger_.info("per-session limit of %lu bytes reached, %u tiles not downloaded", maxBytes_,
                        static_cast<unsigned>(tiles_.size() - index_));
      stopped_ = true;
      break;
    }
    const TileInfo& tile = tiles_[index_];
    queueLogger_.info("downloading tile %s (%u of %u) from %s", tileName(tile).c_str(),
                      static_cast<unsigned>(index_ + 1), count, tile.url.c_str());
    std::unique_ptr<XmlHttpRequest> request = openDownload(tile.url);
    // What the session has left bounds the body (0 would mean no bound).
    if (request) (void)request->setMaxResponseBytes(std::max(maxBytes_ - std::min(bytes_.load(), maxBytes_), 1ul));
    const int rc = request ? RESTClient::send(std::move(request), XmlHttpRequest::GET, nullptr, 0, this) : -1;
    if (rc == 0) return;  // continues in onSuccess or onFailure
    queueLogger_.error("failed to start the download of tile %s: %d", tileName(tile).c_str(), rc);
    chargeFailedAttempt();
    const size_t failed = index_++;
    if (!listener_.onFileFailed(static_cast<unsigned>(failed + 1), count, tiles_[failed], rc)) stopped_ = true;
  }
  finish();
}

void FileDownloadQueue::chargeFailedAttempt() { bytes_ += kFailedAttemptBytes; }

void FileDownloadQueue::finish() {
  const unsigned downloaded = downloaded_;
  const unsigned count = static_cast<unsigned>(tiles_.size());
  if (stopped_.load() && index_ < tiles_.size()) {
    queueLogger_.info("downloads stopped, %u of %u tiles downloaded", downloaded, count);
  } else {
    queueLogger_.info("downloads finished, %u of %u tiles downloaded", downloaded, count);
  }
  running_ = false;
  listener_.onDownloadsFinished(downloaded, count);
}

void FileDownloadQueue::onSuccess(const char* data, unsigned long length) {
  const unsigned count = static_cast<unsigned>(tiles_.size());
  const TileInfo tile = tiles_[index_];
  const unsigned number = static_cast<unsigned>(++index_);
  if (stopped_.load()) {
    finish();
    return;
  }
  if (bytes_.load() + length > maxBytes_) {
    queueLogger_.info("per-session limit of %lu bytes reached, tile %s (%lu bytes) dropped", maxBytes_,
                      tileName(tile).c_str(), length);
    stopped_ = true;
    finish();
    return;
  }
  bytes_ += length;
  ++downloaded_;
  if (!listener_.onFileDownloaded(number, count, tile, data, length)) stopped_ = true;
  next();
}

void FileDownloadQueue::onFailure(int error) {
  const unsigned count = static_cast<unsigned>(tiles_.size());
  const TileInfo tile = tiles_[index_];
  const unsigned number = static_cast<unsigned>(++index_);
  if (stopped_.load()) {
    finish();
    return;
  }
  if (error == XmlHttpRequest::kEFBIG) {
    queueLogger_.info("per-session limit of %lu bytes reached, tile %s (larger than the %lu bytes left) dropped",
                      maxBytes_, tileName(tile).c_str(), maxBytes_ - std::min(bytes_.load(), maxBytes_));
    stopped_ = true;
    finish();
    return;
  }
  queueLogger_.error("failed to download tile %s: %d", tileName(tile).c_str(), error);
  chargeFailedAttempt();
  if (!listener_.onFileFailed(number, count, tile, error)) stopped_ = true;
  next();
}

// ---- TilingClient ----

TilingClient::TilingClient(Owner& owner, SimpleAuthentication authentication, unsigned long maxDataSizePerSession,
                           ScanCache::Limits limits)
    : owner_(owner),
      logger_(SPI::Logger::getLogger("WPS.API.TilingClient")),
      authentication_(std::move(authentication)),
      maxDataSizePerSession_(maxDataSizePerSession),
      cache_(limits),
      queue_(*this),
      request_(*this) {}

TilingClient::~TilingClient() {
  // Downloads first, so that a handler of the request that would queue them
  // finds the queue stopping; then no handler of either may run any more.
  queue_.stop();
  request_.abortAndWait();
  queue_.stop();
  queue_.abortAndWait();
}

void TilingClient::saveScan(const std::vector<SPI::ScannedAccessPoint>& aps,
                            const std::vector<SPI::ScannedCellTower>& cells) {
  SPI::StdMutexLock lock(mu_);
  cache_.add(aps, cells);
}

int TilingClient::postTilingRQ() {
  std::string body;
  {
    SPI::StdMutexLock lock(mu_);
    if (static_cast<long>(maxDataSizePerSession_) <= 0) {
      logger_.info("_maxDataSizePerSession %d <= 0, TilingRQ will not be sent.",
                   static_cast<int>(maxDataSizePerSession_));
      return kNoDataAllowed;
    }
    if (busy_) {
      logger_.debug("a tiling session is running, TilingRQ will not be sent");
      return kBusy;
    }
    // Without a server the scans wait in the cache (bounded by its capacity).
    // A geolocation API server offers no tiles: the scans wait the same way.
    const LocationClient& client = LocationClient::getInstance();
    if (!client.isNetworkModeEnabled() || client.speaksGeolocationApi()) return kNoNetwork;
    if (cache_.scanCount() <= cache_.limits().maxScans) return kTooFewScans;
    if (cache_.accessPoints().size() < cache_.limits().minAccessPoints) {
      logger_.info("%d aps are not enough to send TilingRQ", static_cast<int>(cache_.accessPoints().size()));
      cache_.clear();
      return kTooFewAccessPoints;
    }
    logger_.info("scan caches exceeded %d scans, sending TilingRQ", static_cast<int>(cache_.limits().maxScans));
    body = TilingRQ(authentication_, cache_.accessPoints(), cache_.cellTowers(), maxDataSizePerSession_);
    cache_.clear();
    busy_ = true;
    downloadsQueued_ = false;
    ++session_;
  }
  logger_.debug("TilingRQ text: %s", body.c_str());
  std::unique_ptr<XmlHttpRequest> request =
      LocationClient::getInstance().openHttpRequest(XmlHttpRequest::POST, "/tiling", true);
  const int rc = request ? RESTClient::send(std::move(request), XmlHttpRequest::POST, body.data(), body.size(), &request_)
                         : -1;
  if (rc != 0) {
    logger_.error("failed to send TilingRQ: %d", rc);
    endSession();
  }
  return rc;
}

void TilingClient::onTilingRS(int status, const char* data, unsigned long length) {
  uint64_t session;
  {
    SPI::StdMutexLock lock(mu_);
    session = session_;
  }
  if (status != 200) {
    logger_.error("failed to send TilingRQ: %d", status);
    owner_.onTilingFailed("TilingRQ failed", status);
  } else {
    const std::string text(data != nullptr ? data : "", length);
    logger_.info("TilingRS text: %s", text.c_str());
    TileInfoList tiles;
    if (!parseTilingRS(text, tiles)) {
      logger_.error("failed to parse TilingRS");
      owner_.onTilingFailed("failed to parse TilingRS", -1);
    } else {
      if (tiles.size() > kMaxTilesPerAnswer) {
        logger_.error("TilingRS lists %lu tiles, only the first %lu are taken", static_cast<unsigned long>(tiles.size()),
                      static_cast<unsigned long>(kMaxTilesPerAnswer));
        tiles.resize(kMaxTilesPerAnswer);
      }
      owner_.onTilingRS(tiles);
    }
  }
  // Without downloads the session ends with the answer (the queue ends it
  // otherwise, maybe already).
  SPI::StdMutexLock lock(mu_);
  if (!downloadsQueued_ && session_ == session) endSessionLocked();
}

void TilingClient::queueTilesToDownload(const TileInfoList& tiles) {
  {
    SPI::StdMutexLock lock(mu_);
    downloadsQueued_ = true;
  }
  if (!queue_.start(tiles, maxDataSizePerSession_)) {
    logger_.error("downloads are still running, %u tiles not queued", static_cast<unsigned>(tiles.size()));
    SPI::StdMutexLock lock(mu_);
    downloadsQueued_ = false;
  }
}

void TilingClient::stopDownloads() { queue_.stop(); }

bool TilingClient::onFileDownloaded(unsigned index, unsigned count, const TileInfo& tile, const char* data,
                                    unsigned long size) {
  return owner_.onTileDownloaded(index, count, tile, data, size);
}

bool TilingClient::onFileFailed(unsigned index, unsigned count, const TileInfo& tile, int error) {
  return owner_.onTileFailed(index, count, tile, error);
}

void TilingClient::onDownloadsFinished(unsigned, unsigned) { endSession(); }

void TilingClient::endSession() {
  SPI::StdMutexLock lock(mu_);
  endSessionLocked();
}

void TilingClient::endSessionLocked() {
  busy_ = false;
  downloadsQueued_ = false;
  idle_.notify_all();
}

bool TilingClient::busy() const {
  SPI::StdMutexLock lock(mu_);
  return busy_;
}

bool TilingClient::waitUntilIdle(int64_t timeoutMs) const {
  SPI::StdMutexLock lock(mu_);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  while (busy_) {
    if (idle_.wait_until(mu_, deadline) == std::cv_status::timeout) return !busy_;
  }
  return true;
}

size_t TilingClient::cachedScans() const {
  SPI::StdMutexLock lock(mu_);
  return cache_.scanCount();
}

}  // namespace API
}  // namespace WPS
