// The layer between the sensors and the positioning library: the account
// (a registered user name kept in a property list), one blocking location
// lookup, the same lookup on a thread of its own under a run-loop time-out
// with exactly one delivery, and a rough distance between two positions.
//
// Account file: "<dataFolder>/Telluro.plist" (dataFolder is
// "$XDG_DATA_HOME/Zonara"), a dictionary whose key "telluroUsername" holds
// the registered user name. Every request uses the realm "vostrel.zz"; new
// users are registered by the account "vostrel"; when registration fails the
// lookup runs as "tamo" and the next lookup registers again.
//
// Thread safety: every member may be called from any thread. Results of the
// asynchronous lookup are delivered on the lookup's own thread (success or
// failure of the lookup) or on the calling thread's run loop (time-out); no
// lock of the helper is held while a callback runs.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "platform/mutex.h"
#include "sensors/location_source.h"
#include "wps/api/wpsapi.h"

namespace zonara {

// A position in degrees. The library's results are narrowed to single
// precision; the IP-location page's are kept as read. `quality` says how far
// to trust it: a position from the computer's IP address (the page, or a
// positioning server that knew none of the access points) is a city at best,
// where a Wi-Fi position is a street.
struct TelluroLocation {
  double longitude = 0;
  double latitude = 0;
  PositionQuality quality;
  [[nodiscard]] bool ipBased() const { return quality.source == PositionSource::IPAddress; }
};

// The positioning library's public functions the lookup uses; a seam so
// tests can script them.
class LocationLibrary {
 public:
  virtual ~LocationLibrary() = default;
  [[nodiscard]] virtual WPS_ReturnCode registerUser(const WPS_SimpleAuthentication& registrar,
                                                    const WPS_SimpleAuthentication& user) = 0;
  [[nodiscard]] virtual WPS_ReturnCode tiling(const std::string& folder, unsigned long perSession,
                                              unsigned long total) = 0;
  // On WPS_OK fills `longitude` and `latitude` (degrees) and `quality` (the
  // library's horizontal positioning error and what the position came from).
  [[nodiscard]] virtual WPS_ReturnCode location(const WPS_SimpleAuthentication& authentication, double* longitude,
                                                double* latitude, PositionQuality* quality) = 0;
  // The server's position for the computer's IP address (by default none);
  // its accuracy is not stated.
  [[nodiscard]] virtual WPS_ReturnCode ipLocation(double* /*longitude*/, double* /*latitude*/) { return WPS_ERROR; }
  // False when the server has no accounts and no tiles (the geolocation
  // JSON API): lookups then neither register nor configure tiling.
  [[nodiscard]] virtual bool usesAccounts() { return true; }
};

// The account file's user name: nullopt when the file or the key is absent.
[[nodiscard]] std::optional<std::string> GetTelluroUsername(const std::string& accountPath);
// Sets "telluroUsername" (other keys kept) and writes the file atomically;
// failure to write is ignored.
void SetTelluroUsername(const std::string& accountPath, const std::string& name);
// A fresh UUID in canonical upper-case form.
[[nodiscard]] std::string NewUUIDString();

// The realm of this installation's learned places, kept in the account file
// under "learnedPlacesRealm": a random UUID, made and stored on first use
// when `create` is set. Empty when there is none (and `create` is not set,
// or it cannot be stored).
[[nodiscard]] std::string LearnedPlacesRealm(const std::string& accountPath, bool create);

// Authentication for a lookup: the stored user, else a newly registered
// UUID, else "tamo". The record's fields point into the returned object,
// which must outlive every use of `record`.
struct TelluroAuthentication {
  std::string username;
  WPS_SimpleAuthentication record{};
};
[[nodiscard]] std::unique_ptr<TelluroAuthentication> GetTelluroAuthentication(LocationLibrary& library,
                                                                              const std::string& accountPath);

class TelluroHelper {
 public:
  static constexpr const char* kRealm = "vostrel.zz";
  static constexpr const char* kRegistrar = "vostrel";
  static constexpr const char* kFallbackUser = "tamo";
  static constexpr unsigned long kTilesPerSession = 460800;
  static constexpr unsigned long kTilesTotal = 20971520;

  // Called exactly once per asynchronous lookup: the position, or nullopt
  // when the lookup failed or timed out.
  using Callback = std::function<void(const std::optional<TelluroLocation>&)>;

  // `library` is borrowed and must outlive the helper. `dataFolder` holds
  // the account file and the "Telluro Cache" tile folder.
  TelluroHelper(LocationLibrary& library, std::string dataFolder);
  // Waits for lookup threads still running (they use the library).
  ~TelluroHelper();
  TelluroHelper(const TelluroHelper&) = delete;
  TelluroHelper& operator=(const TelluroHelper&) = delete;

  // The blocking lookup: account, tile download, location request (only the
  // location request when the library's server has no accounts).
  [[nodiscard]] std::optional<TelluroLocation> currentLocation();
  // The library's server's position for the computer's IP address, marked
  // ipBased; nullopt when it gives none. Blocking; any thread.
  [[nodiscard]] std::optional<TelluroLocation> ipLocation();

  // Starts the lookup on a new thread and returns at once. A one-shot
  // time-out timer is added to the calling thread's run loop: it delivers
  // nullopt if it fires before the lookup finished -- only while that run
  // loop runs, so on a thread that never runs it the lookup alone delivers.
  // A result that arrives after the time-out is dropped.
  void reportCurrentLocationTo(Callback callback, double timeoutSeconds);
  void reportCurrentLocation(Callback callback) { reportCurrentLocationTo(std::move(callback), 7.0); }
  void reportCurrentLocationQuickly(Callback callback) { reportCurrentLocationTo(std::move(callback), 1.0); }

  // Flat-earth distance in km: sqrt((a-c)^2 + (b-d)^2) * 111, in floats.
  [[nodiscard]] static float calculateDistanceFrom(float fromLongitude, float fromLatitude, float toLongitude,
                                                   float toLatitude);

  // Blocks until no lookup thread runs (tests, shutdown).
  void waitForLookups();
  // Whether a lookup thread is still running.
  [[nodiscard]] bool lookupsRunning();

  [[nodiscard]] const std::string& accountPath() const { return accountPath_; }
  [[nodiscard]] const std::string& cacheFolder() const { return cacheFolder_; }

 private:
  struct Context;
  void currentLocationLookup(const std::shared_ptr<Context>& context);
  static void currentLocationLookupTimeout(const std::shared_ptr<Context>& context);

  LocationLibrary& library_;
  const std::string accountPath_;
  const std::string cacheFolder_;  // ends with exactly one '/'
  Mutex mu_;
  CondVar idle_;
  int running_ ZONARA_GUARDED_BY(mu_) = 0;
};

}  // namespace zonara
