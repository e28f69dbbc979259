// Asking the positioning server for tiles around the user and downloading
// them.
//
// `ScanCache` buffers the scans seen by location requests. `TilingClient`
// decides from it when a tiling request is worth sending, posts it
// asynchronously to "/tiling", reads the answer and hands the listed tiles to
// its owner; the owner picks the ones it wants and the client downloads them
// with a `FileDownloadQueue`, one after another, each on the download's own
// thread, within the per-session byte limit.
//
// A session is one tiling exchange: the request, its answer and the downloads
// of the tiles it listed. Only one session runs at a time; the per-session
// byte count starts at zero with each.
//
// Hostile answers: the client takes at most `kMaxTilesPerAnswer` tiles of one
// answer (the collection keeps no more open anyway); every download attempt
// counts against the session's byte allowance, a failed one as
// `FileDownloadQueue::kFailedAttemptBytes`, and no download starts once the
// allowance is spent; an absolute tile URL is fetched only from the
// positioning server's own host or a host the preference
// `kAllowedTileHostsKey` names.
//
// Downloads: tiles are fetched in the server's order (its first tile, the main
// tile, first). A tile whose download fails or times out is skipped without a
// retry in this session; it is still missing from the collection, so the next
// tiling answer that lists it offers it again. Nothing reaches the disk before
// a download is complete (the owner writes the received bytes in one go).
//
// Threads: `saveScan`, `postTilingRQ` and the inspection members are called by
// the library's caller (under the library lock). The owner's members are
// called on the request threads, one at a time. The destructor aborts what
// runs and waits for the handlers; it must not be called from one of them.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "wps/api/protocol/location.h"
#include "wps/api/protocol/rest_client.h"
#include "wps/spi/concurrent.h"
#include "wps/spi/logger.h"
#include "wps/spi/scan.h"
#include "wps/spi/xml_http_request.h"

namespace WPS {
namespace API {

// The scans seen since the last tiling request: the distinct access points
// (the newest reading of each MAC) and cell towers, and how many scans brought
// them.
class ScanCache {
 public:
  struct Limits {
    // A tiling request is sent once more than this many scans were cached.
    // A location request that the server (or the location cache) answers
    // stops after its first scan, so this counts location requests as much
    // as scans: the second one that sees enough access points asks for tiles.
    size_t maxScans = 1;
    // ... and only when they hold at least this many distinct access points.
    size_t minAccessPoints = 3;
    // The most access points (and cell towers) kept; the oldest readings go
    // first. Bounds the size of a request.
    size_t capacity = 100;
  };

  explicit ScanCache(Limits limits) : limits_(limits) {}

  // Adds one scan. Readings without a time are stamped with the present time,
  // so that the request can tell their age.
  void add(const std::vector<SPI::ScannedAccessPoint>& aps, const std::vector<SPI::ScannedCellTower>& cells);
  void clear();

  [[nodiscard]] size_t scanCount() const { return scans_; }
  // Distinct access points, oldest reading first.
  [[nodiscard]] const std::vector<SPI::ScannedAccessPoint>& accessPoints() const { return aps_; }
  [[nodiscard]] const std::vector<SPI::ScannedCellTower>& cellTowers() const { return cells_; }
  [[nodiscard]] const Limits& limits() const { return limits_; }

 private:
  Limits limits_;
  size_t scans_ = 0;
  std::vector<SPI::ScannedAccessPoint> aps_;
  std::vector<SPI::ScannedCellTower> cells_;
};

// The preference (a text in the program's preferences domain, else in the
// library's) naming hosts besides the positioning server's own from which
// absolute tile URLs are fetched: host names separated by commas or blanks,
// or "*" for any host.
inline constexpr char kAllowedTileHostsKey[] = "AllowedTileHosts";

// Whether a tile at `url` may be fetched: a URL relative to the server, or an
// absolute one on `serverHost` or on one of `allowedHosts` (the preference's
// text). Host names compare without regard to case.
[[nodiscard]] bool tileUrlAllowed(const std::string& url, const std::string& serverHost,
                                  const std::string& allowedHosts);

// Downloads a list of tiles one after another through the REST client.
class FileDownloadQueue final : public RESTClient::Callback {
 public:
  // What a failed download attempt (refused, not started, or failed in
  // transfer) counts against the session's allowance.
  static constexpr unsigned long kFailedAttemptBytes = 4096;

  class Listener {
   public:
    virtual ~Listener() = default;
    // Tile `index` (1-based) of `count` arrived whole: `size` bytes at `data`,
    // valid during the call. Returning false stops the queue.
    virtual bool onFileDownloaded(unsigned index, unsigned count, const TileInfo& tile, const char* data,
                                  unsigned long size) = 0;
    // Tile `index` could not be downloaded (`error`: the transfer's error or
    // the HTTP status). Returning false stops the queue.
    virtual bool onFileFailed(unsigned index, unsigned count, const TileInfo& tile, int error) = 0;
    // The queue ended: `downloaded` tiles of `count` arrived. Called exactly
    // once per started queue, on a request thread, or on the caller's thread
    // when `start` could not start anything.
    virtual void onDownloadsFinished(unsigned downloaded, unsigned count) = 0;
  };

  explicit FileDownloadQueue(Listener& listener);
  ~FileDownloadQueue() override;

  // Starts downloading `tiles`, at most `maxBytes` bytes in all: a tile that
  // would take the count past it is dropped and ends the queue ("per-session
  // limit of %lu bytes reached..."). Each download is itself stopped as soon
  // as its body outgrows what the session has left, so an oversized tile is
  // never held in memory. A failed attempt counts kFailedAttemptBytes; once
  // the count reaches `maxBytes` no further download starts. Returns false
  // (and does nothing) while a queue is running.
  bool start(const TileInfoList& tiles, unsigned long maxBytes);
  // Ends the queue: the running download is aborted and no further one
  // starts. Any thread but a handler's; does not wait.
  void stop();
  [[nodiscard]] bool running() const { return running_.load(); }
  [[nodiscard]] unsigned long bytesDownloaded() const { return bytes_.load(); }

 protected:
  void onSuccess(const char* data, unsigned long length) override;
  void onFailure(int error) override;

 private:
  // Starts the next tile's download, or ends the queue.
  void next();
  void finish();
  [[nodiscard]] std::unique_ptr<SPI::XmlHttpRequest> openDownload(const std::string& url);
  // Counts a failed attempt against the allowance.
  void chargeFailedAttempt();

  Listener& listener_;
  SPI::Logger& queueLogger_;  // "WPS.API.FileDownloadQueue"
  std::vector<TileInfo> tiles_;
  std::string allowedHosts_;  // the kAllowedTileHostsKey preference, read at start
  size_t index_ = 0;  // the tile being downloaded
  unsigned downloaded_ = 0;
  unsigned long maxBytes_ = 0;
  std::atomic<unsigned long> bytes_{0};
  std::atomic<bool> running_{false};
  std::atomic<bool> stopped_{false};
};

class TilingClient final : private FileDownloadQueue::Listener {
 public:
  class Owner {
   public:
    virtual ~Owner() = default;
    // The server listed `tiles` (in its order). The owner answers by calling
    // queueTilesToDownload, or not.
    virtual void onTilingRS(const TileInfoList& tiles) = 0;
    // The exchange failed: `reason` and a code (-1 for an unreadable answer,
    // else the transfer's error or the HTTP status).
    virtual void onTilingFailed(const char* reason, int code) = 0;
    // Tile `index` of `count` arrived; returning false stops the downloads.
    virtual bool onTileDownloaded(unsigned index, unsigned count, const TileInfo& tile, const char* data,
                                  unsigned long size) = 0;
    // Tile `index` of `count` could not be downloaded; returning false stops
    // the downloads.
    virtual bool onTileFailed(unsigned index, unsigned count, const TileInfo& tile, int error) = 0;
  };

  // Result codes of postTilingRQ besides 0 (sent) and a send failure.
  static constexpr int kNoDataAllowed = -2;   // per-session limit not positive
  static constexpr int kTooFewScans = -3;     // not yet enough scans cached
  static constexpr int kTooFewAccessPoints = -4;
  static constexpr int kBusy = -5;            // a session is running
  static constexpr int kNoNetwork = -6;       // network mode is off (no server URL)

  // The most tiles taken from one answer; the rest are dropped and logged.
  static constexpr size_t kMaxTilesPerAnswer = 64;

  TilingClient(Owner& owner, SimpleAuthentication authentication, unsigned long maxDataSizePerSession,
               ScanCache::Limits limits);
  ~TilingClient() override;
  TilingClient(const TilingClient&) = delete;
  TilingClient& operator=(const TilingClient&) = delete;

  // Keeps a scan for the next tiling request.
  void saveScan(const std::vector<SPI::ScannedAccessPoint>& aps, const std::vector<SPI::ScannedCellTower>& cells);

  // Sends a tiling request when the cached scans justify one, and empties the
  // cache when it does. Not sent (and logged) with a per-session limit of 0
  // ("_maxDataSizePerSession %d <= 0, TilingRQ will not be sent.") or too few
  // access points ("%d aps are not enough to send TilingRQ", the cache is then
  // emptied); silently not sent while a session runs, with network mode off
  // (no server URL; the scans stay cached) or before more than `maxScans`
  // scans were seen. Returns 0 when the request went out.
  [[nodiscard]] int postTilingRQ();

  // The answer to the request: on status 200 "TilingRS text: %s" is logged and
  // the text parsed; the tiles go to the owner, a parse failure is reported as
  // "failed to parse TilingRS" with code -1. Other statuses are reported as
  // failures. Called on the request's thread.
  void onTilingRS(int status, const char* data, unsigned long length);

  // Downloads `tiles` within the per-session limit (from an owner's
  // onTilingRS). The session ends when the queue does.
  void queueTilesToDownload(const TileInfoList& tiles);

  // Stops the downloads of the running session. Any thread but a handler's.
  void stopDownloads();

  // True while a session runs.
  [[nodiscard]] bool busy() const;
  // Waits until no session runs or `timeoutMs` passed; true when idle.
  [[nodiscard]] bool waitUntilIdle(int64_t timeoutMs) const;
  [[nodiscard]] size_t cachedScans() const;
  [[nodiscard]] unsigned long maxDataSizePerSession() const { return maxDataSizePerSession_; }

 private:
  class TilingRequest final : public RESTClient::Callback {
   public:
    explicit TilingRequest(TilingClient& client) : client_(client) {}
    ~TilingRequest() override { abortAndWait(); }

   protected:
    void onSuccess(const char* data, unsigned long length) override { client_.onTilingRS(200, data, length); }
    void onFailure(int error) override { client_.onTilingRS(error, nullptr, 0); }

   private:
    TilingClient& client_;
  };

  bool onFileDownloaded(unsigned index, unsigned count, const TileInfo& tile, const char* data,
                        unsigned long size) override;
  bool onFileFailed(unsigned index, unsigned count, const TileInfo& tile, int error) override;
  void onDownloadsFinished(unsigned downloaded, unsigned count) override;
  void endSession();
  void endSessionLocked() WPS_REQUIRES(mu_);

  Owner& owner_;
  SPI::Logger& logger_;  // "WPS.API.TilingClient"
  const SimpleAuthentication authentication_;
  const unsigned long maxDataSizePerSession_;

  mutable SPI::StdMutex mu_;
  mutable std::condition_variable_any idle_;
  ScanCache cache_ WPS_GUARDED_BY(mu_);
  bool busy_ WPS_GUARDED_BY(mu_) = false;
  bool downloadsQueued_ WPS_GUARDED_BY(mu_) = false;  // the current session reached the download stage
  uint64_t session_ WPS_GUARDED_BY(mu_) = 0;          // number of the current (or last) session

  // Declared last: destroyed (and waited for) before the state above.
  FileDownloadQueue queue_;
  TilingRequest request_;
};

}  // namespace API
}  // namespace WPS
