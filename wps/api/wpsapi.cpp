// The public WPS_ functions: one process-wide lock around each, the library's
// long-lived objects made on first use, and the location request built from
// the scan loop (periodic_scan.cpp) and wifi_location_callback.
#include "wps/api/wpsapi.h"

#include <algorithm>
#include <cstdint>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <vector>

#include "wps/api/learn/learned_places.h"
#include "wps/api/local/location_determination_local.h"
#include "wps/api/location_cache.h"
#include "wps/api/protocol/location.h"
#include "wps/api/protocol/location_client.h"
#include "wps/api/remote/location_determination_remote.h"
#include "wps/api/wpsapi_internal.h"
#include "wps/spi/concurrent.h"
#include "wps/spi/logger.h"

namespace WPS {
namespace API {
namespace {

using SPI::AccessPointList;
using SPI::CellTowerList;
using SPI::Logger;

// The library lock, taken by every public function for its whole duration.
// Made once (thread-safe static initialisation) and kept for the process.
SPI::Mutex& libraryMutex() {
  static const std::unique_ptr<SPI::Mutex> mutex = SPI::Mutex::newInstance();
  return *mutex;
}

// The library's long-lived objects, each made on first use. Guarded by
// libraryMutex().
struct Library {
  std::unique_ptr<LocationDeterminationLocal> local;
  std::unique_ptr<LocationDeterminationRemote> remote;
  std::unique_ptr<LocationCache> cache;
  // Made by WPS_set_learned_places; null while learning is off. The local
  // determination borrows it.
  std::unique_ptr<LearnedPlaces> learned;

  LocationDeterminationLocal& localDetermination() {
    if (!local) {
      local = LocationDeterminationLocal::newInstance();
      local->set_learned_places(learned.get());
    }
    return *local;
  }
  LocationDeterminationRemote& remoteDetermination() {
    if (!remote) remote = LocationDeterminationRemote::newInstance();
    return *remote;
  }
  LocationCache& locationCache() {
    if (!cache) cache = std::make_unique<LocationCache>();
    return *cache;
  }
};

Library& library() {
  static Library instance;
  return instance;
}

// The state of one location request, handed to wifi_location_callback by the
// scan loop.
struct LocationRequest {
  Logger& logger;
  SimpleAuthentication authentication;
  WPS_StreetAddressLookup lookup;
  AccessPointList accessPoints;  // every access point scanned so far, each MAC once, as last seen
  CellTowerList cells;           // every cell tower scanned so far
  int resultCode = WPS_ERROR_NO_LOCATION_FROM_SCAN;
  Location location;  // the last location found; nap 0 before any
  size_t accessPointsAtLastLocation = 0;
  // The number of access points when the server was last asked.
  size_t accessPointsAtLastAsk = 0;
  // Set once the server refused the credentials: it is not asked again.
  bool serverRefused = false;

  // Collaborators, borrowed from the Library for the request.
  LocationDeterminationLocal& local;
  LocationDeterminationRemote& remote;
  LocationCache* cache;  // null while no location was ever cached
  LearnedPlaces* learned;  // null while learning is off

  LocationRequest(const WPS_SimpleAuthentication* auth, WPS_StreetAddressLookup mode, Library& lib)
      : logger(Logger::getLogger("WPS_location")),
        authentication(auth),
        lookup(mode),
        local(lib.localDetermination()),
        remote(lib.remoteDetermination()),
        cache(lib.cache.get()),
        learned(lib.learned.get()) {}

  [[nodiscard]] bool haveLocation() const { return resultCode == WPS_OK; }

  // A determination that failed: its code becomes the request's result unless
  // a location was already found, which is kept.
  void failed(int code) {
    if (!haveLocation()) resultCode = code;
  }

  void found(const Location& fix) {
    resultCode = WPS_OK;
    location = fix;
    accessPointsAtLastLocation = accessPoints.size();
  }
};

// Adds a scan's access points to the request: each MAC once, as last seen
// (its latest signal and time: a request's "age" counts from the latest
// sighting).
void mergeAccessPoints(LocationRequest& request, const WPS_ScanResult& scan, int64_t elapsed) {
  Logger& logger = request.logger;
  for (const auto& ap : *scan.accessPoints) {
    auto known = std::find_if(request.accessPoints.begin(), request.accessPoints.end(),
                              [&](const auto& a) { return a.mac == ap.mac; });
    if (known == request.accessPoints.end()) {
      request.accessPoints.push_back(ap);
    } else {
      *known = ap;
    }
  }
  logger.debug("scanned %d APs so far (%d)", static_cast<int>(request.accessPoints.size()),
               static_cast<int>(elapsed));
}

// Adds the scan's cells not yet known to the request.
void mergeCells(LocationRequest& request, const WPS_ScanResult& scan, int64_t elapsed) {
  Logger& logger = request.logger;
  for (const auto& cell : *scan.cells) {
    const bool known = std::any_of(request.cells.begin(), request.cells.end(),
                                   [&](const auto& c) { return c.sameTower(cell); });
    if (!known) request.cells.push_back(cell);
  }
  logger.debug("scanned %d cells so far (%d)", static_cast<int>(request.cells.size()), static_cast<int>(elapsed));
}

// The downloaded tiles' answer: whether the scan ends, or nullopt when they
// found nothing and the server may be asked.
std::optional<WPS_Continuation> locateLocally(LocationRequest& request, bool networkMode) {
  Logger& logger = request.logger;
  Location fix;
  const Location* previous = request.haveLocation() ? &request.location : nullptr;
  const int rc = request.local.determineLocationLocally(previous, request.accessPoints, request.cells, fix);
  if (rc != 0) {
    if (!networkMode) request.failed(rc);
    return std::nullopt;
  }
  request.found(fix);
  if (fix.nap > 2) {
    logger.info("location (local): %f, %f +/-%.1fm (%d) %.2fkm/h %.2f", fix.latitude, fix.longitude, fix.hpe,
                fix.nap, fix.speed, fix.bearing);
    return WPS_STOP;
  }
  logger.debug("location request succeeded locally: %f, %f +/-%.1fm %d", fix.latitude, fix.longitude, fix.hpe,
               fix.nap);
  return WPS_CONTINUE;
}

// The location cache's answer, otherwise the server's; the scan ends with a
// position from more than two access points.
WPS_Continuation locateRemotely(LocationRequest& request) {
  Logger& logger = request.logger;
  // A recent answer for (nearly) the same access points serves instead of the
  // server.
  Location fix;
  if (request.cache != nullptr && request.cache->get(request.accessPoints, fix)) {
    logger.debug("found location in cache with nap = %d", fix.nap);
    fix.fromServer = true;
    request.found(fix);
    return fix.nap > 2 ? WPS_STOP : WPS_CONTINUE;
  }
  logger.debug("no-location found in cache");

  request.accessPointsAtLastAsk = request.accessPoints.size();
  const int rc = request.remote.getLocationRemotely(request.authentication, request.lookup, request.accessPoints,
                                                    request.cells, fix);
  if (rc != WPS_OK) {
    if (rc == WPS_ERROR_UNAUTHORIZED) request.serverRefused = true;
    request.failed(rc);
    return WPS_CONTINUE;
  }
  fix.fromServer = true;
  request.found(fix);
  if (request.learned != nullptr) {
    const size_t learned = request.learned->learn(request.accessPoints, fix);
    if (learned > 0) logger.debug("learned %d access points", static_cast<int>(learned));
  }
  if (fix.nap > 2) {
    logger.info("location (remote): %f, %f +/-%.1fm (%d)", fix.latitude, fix.longitude, fix.hpe, fix.nap);
    return WPS_STOP;
  }
  logger.debug("location request succeeded remotely: %f, %f +/-%.1fm %d", fix.latitude, fix.longitude, fix.hpe,
               fix.nap);
  return WPS_CONTINUE;
}

// Called by the scan loop after each scan; decides whether the scan ends.
WPS_Continuation wifi_location_callback(void* context, WPS_ReturnCode result, const WPS_ScanResult* scan) {
  auto& request = *static_cast<LocationRequest*>(context);
  // A period whose scan failed (the adapter was reset) brings nothing new.
  if (result != WPS_OK || scan == nullptr) return WPS_CONTINUE;
  const int64_t elapsed = scan->timer->elapsed();
  mergeAccessPoints(request, *scan, elapsed);
  if (request.accessPoints.empty()) return WPS_CONTINUE;
  const int newAps = static_cast<int>(request.accessPoints.size() - request.accessPointsAtLastLocation);
  request.logger.debug("new APs since last location: %d", newAps);
  mergeCells(request, *scan, elapsed);

  const bool networkMode = LocationClient::getInstance().isNetworkModeEnabled();
  // A position computed on the device carries no street address, so the tiles
  // are tried only when none was asked for.
  if (request.lookup == WPS_NO_STREET_ADDRESS_LOOKUP) {
    if (const std::optional<WPS_Continuation> decided = locateLocally(request, networkMode)) return *decided;
  }

  if (!networkMode || request.serverRefused) return WPS_CONTINUE;
  const int previousNap = request.haveLocation() ? request.location.nap : 0;
  const bool askServer = previousNap + newAps >= 3 || (previousNap == 0 && newAps > 0 && elapsed > 2999);
  if (!askServer) return WPS_CONTINUE;
  // A JSON API server's answer for the same access points would not change:
  // it is not asked twice for them.
  const bool geolocationApi = LocationClient::getInstance().speaksGeolocationApi();
  if (geolocationApi && request.accessPoints.size() <= request.accessPointsAtLastAsk) return WPS_CONTINUE;
  return locateRemotely(request);
}

// One location request under the held library lock. Returns the request's
// code; `out` holds the location on WPS_OK and a zeroed one on
// WPS_ERROR_NO_LOCATION_FROM_SCAN.
int locate(const WPS_SimpleAuthentication* authentication, WPS_StreetAddressLookup lookup, Location& out) {
  Library& lib = library();
  LocationDeterminationLocal& local = lib.localDetermination();
  // close() in every case, also when open() fails part-way.
  struct Closer {
    LocationDeterminationLocal& local;
    ~Closer() { local.close(); }
  } closer{local};

  if (lib.learned) lib.learned->refresh();
  const int opened = local.open(SimpleAuthentication(authentication));
  if (opened != 0) return opened;

  LocationRequest request(authentication, lookup, lib);
  const WPS_ReturnCode scanned = periodicScan(500, 10, wifi_location_callback, &request);
  if (scanned != WPS_OK) return scanned;

  // Only a location found is worth remembering; a failed request would
  // otherwise answer the next one with nothing.
  if (request.resultCode == WPS_OK && !request.accessPoints.empty()) {
    lib.locationCache().add(request.accessPoints, request.location);
  }
  out = request.resultCode == WPS_OK ? request.location : Location{};
  return request.resultCode;
}

template <typename Function>
WPS_ReturnCode guarded(Function&& function) noexcept {
  try {
    SPI::MutexLock lock(libraryMutex());
    return static_cast<WPS_ReturnCode>(function());
  } catch (...) {
    // Only memory exhaustion is expected here; nothing may cross the C
    // boundary.
    return WPS_ERROR;
  }
}

bool handsOutLocation(int code) { return code == WPS_OK || code == WPS_ERROR_NO_LOCATION_FROM_SCAN; }

// True for the answers a location request gives after scanning (found, not
// found, refused, server or determination failures), false when the request
// could not run at all (no adapter, no scan).
bool isRequestOutcome(int code) {
  switch (code) {
    case WPS_OK:
    case WPS_ERROR_NO_LOCATION_FROM_SCAN:
    case WPS_ERROR_UNAUTHORIZED:
    case WPS_ERROR_SERVER_UNAVAILABLE:
    case WPS_ERROR_LOCATION_CANNOT_BE_DETERMINED:
    case WPS_ERROR_PROXY_UNAUTHORIZED:
      return true;
    default:
      return false;
  }
}

// Hands one result of WPS_periodic_location to the caller's callback: the
// location (valid during the call) on WPS_OK, null otherwise.
WPS_Continuation periodic_location_callback(WPS_LocationCallback callback, void* arg, int code,
                                            const Location& location) {
  WPS_Location* record = code == WPS_OK ? static_cast<WPS_Location*>(location) : nullptr;
  const WPS_Continuation answer = callback(arg, static_cast<WPS_ReturnCode>(code), record);
  Location::free_location(record);
  return answer;
}

}  // namespace

void setLocalDeterminationForTesting(std::unique_ptr<LocationDeterminationLocal> local) {
  SPI::MutexLock lock(libraryMutex());
  Library& lib = library();
  lib.local = std::move(local);
  if (lib.local) lib.local->set_learned_places(lib.learned.get());
}

void clearLocationCacheForTesting() {
  SPI::MutexLock lock(libraryMutex());
  library().cache.reset();
}

}  // namespace API
}  // namespace WPS

using WPS::API::guarded;
using WPS::API::library;

extern "C" {

WPS_ReturnCode WPS_location(const WPS_SimpleAuthentication* authentication,
                            WPS_StreetAddressLookup street_address_lookup, WPS_Location** location) {
  if (location == nullptr) return WPS_ERROR;
  *location = nullptr;
  return guarded([&] {
    WPS::API::Location found;
    const int code = WPS::API::locate(authentication, street_address_lookup, found);
    if (WPS::API::handsOutLocation(code)) *location = static_cast<WPS_Location*>(found);
    return code;
  });
}

WPS_ReturnCode WPS_periodic_location(const WPS_SimpleAuthentication* authentication,
                                     WPS_StreetAddressLookup street_address_lookup, unsigned long period,
                                     unsigned iterations, WPS_LocationCallback callback, void* arg) {
  if (callback == nullptr) return WPS_ERROR;
  try {
    for (unsigned done = 0; iterations == 0 || done < iterations; ++done) {
      const WPS::SPI::Timer timer;
      WPS::API::Location found;
      int code = WPS_ERROR;
      {
        WPS::SPI::MutexLock lock(WPS::API::libraryMutex());
        code = WPS::API::locate(authentication, street_address_lookup, found);
      }
      // The report runs without the lock, so the callback may call the
      // library itself.
      const WPS_Continuation answer = WPS::API::periodic_location_callback(callback, arg, code, found);
      // Without an adapter or a working scan there is nothing to repeat.
      if (!WPS::API::isRequestOutcome(code)) return static_cast<WPS_ReturnCode>(code);
      if (answer == WPS_STOP || (iterations != 0 && done + 1 >= iterations)) break;
      const int64_t elapsed = timer.elapsed();
      if (elapsed < static_cast<int64_t>(period)) WPS::SPI::Thread::msleep(static_cast<int64_t>(period) - elapsed);
    }
    return WPS_OK;
  } catch (...) {
    return WPS_ERROR;
  }
}

WPS_ReturnCode WPS_ip_location(const WPS_SimpleAuthentication* authentication,
                               WPS_StreetAddressLookup street_address_lookup, WPS_IPLocation** location) {
  if (location == nullptr) return WPS_ERROR;
  *location = nullptr;
  return guarded([&] {
    WPS::API::IPLocation ip;
    int code = WPS_ERROR_SERVER_UNAVAILABLE;
    code = library().remoteDetermination().getIPLocationRemotely(WPS::API::SimpleAuthentication(authentication),
                                                                  street_address_lookup, ip);
    if (code == WPS_OK) *location = static_cast<WPS_IPLocation*>(ip);
    return code;
  });
}

WPS_ReturnCode WPS_register_user(const WPS_SimpleAuthentication* authentication,
                                 const WPS_SimpleAuthentication* new_authentication) {
  return guarded([&] {
    return library().remoteDetermination().registerUser(WPS::API::SimpleAuthentication(authentication),
                                                        WPS::API::SimpleAuthentication(new_authentication));
  });
}

WPS_ReturnCode WPS_tiling(const char* dirpath, unsigned long max_data_size_per_session,
                          unsigned long max_data_size_total, WPS_TilingCallback callback, void* param) {
  if (max_data_size_per_session > max_data_size_total) {
    WPS::SPI::Logger::getLogger("WPS_tiling")
        .warn("maxDataSizePerSession %d > maxDataSizeTotal %d, maxDataSizePerSession reduced",
              static_cast<int>(max_data_size_per_session), static_cast<int>(max_data_size_total));
    max_data_size_per_session = max_data_size_total;
  }
  return guarded([&] {
    WPS::API::TilingParameters parameters;
    parameters.directory = dirpath != nullptr ? dirpath : "";
    parameters.maxDataSizePerSession = max_data_size_per_session;
    parameters.maxDataSizeTotal = max_data_size_total;
    parameters.callback = callback;
    parameters.callbackArg = param;
    library().localDetermination().set_tiling(parameters);
    return WPS_OK;
  });
}

WPS_ReturnCode WPS_set_local_files_path(const char** paths) {
  return guarded([&] {
    library().localDetermination().set_paths(paths);
    return WPS_OK;
  });
}

WPS_ReturnCode WPS_set_learned_places(const char* dirpath, const char* realm) {
  return guarded([&] {
    WPS::API::Library& lib = library();
    lib.localDetermination().set_learned_places(nullptr);
    lib.learned.reset();
    if (dirpath == nullptr || *dirpath == '\0') return WPS_OK;
    if (realm == nullptr || *realm == '\0') return WPS_ERROR;
    lib.learned = std::make_unique<WPS::API::LearnedPlaces>(dirpath, realm);
    lib.localDetermination().set_learned_places(lib.learned.get());
    return WPS_OK;
  });
}

WPS_ReturnCode WPS_forget_learned_places(unsigned long* forgotten) {
  return guarded([&] {
    WPS::API::LearnedPlaces* learned = library().learned.get();
    if (learned == nullptr) return WPS_ERROR;
    const size_t count = learned->forget();
    if (forgotten != nullptr) *forgotten = count;
    return WPS_OK;
  });
}

WPS_ReturnCode WPS_learned_places_count(unsigned long* access_points, unsigned long* places) {
  return guarded([&] {
    WPS::API::LearnedPlaces* learned = library().learned.get();
    if (learned == nullptr) return WPS_ERROR;
    learned->refresh();
    if (access_points != nullptr) *access_points = learned->store().size();
    if (places != nullptr) *places = learned->store().places();
    return WPS_OK;
  });
}

WPS_ReturnCode WPS_set_tier2_area(const char* dirpath, unsigned size_kb) {
  return guarded([&] {
    library().localDetermination().set_tier2_area(dirpath, size_kb);
    return WPS_OK;
  });
}

WPS_ReturnCode WPS_set_server_url(const char* url) {
  return guarded([&] {
    WPS::API::LocationClient::getInstance().set_server_url(url);
    return WPS_OK;
  });
}

WPS_ServerProtocol WPS_server_protocol(void) {
  const WPS::API::LocationClient& client = WPS::API::LocationClient::getInstance();
  if (!client.isNetworkModeEnabled()) return WPS_PROTOCOL_NONE;
  return client.speaksGeolocationApi() ? WPS_PROTOCOL_GEOLOCATION_API : WPS_PROTOCOL_XML;
}

WPS_ReturnCode WPS_set_user_agent(const char* ua) {
  return guarded([&] {
    WPS::API::LocationClient::getInstance().set_user_agent(ua);
    return WPS_OK;
  });
}

WPS_ReturnCode WPS_set_proxy(const char* address, int port, const char* user, const char* password) {
  return guarded([&] {
    WPS::API::LocationClient::getInstance().set_proxy(address, port, user, password);
    return WPS_OK;
  });
}

WPS_ReturnCode WPS_periodic_scan(unsigned long period, unsigned iterations, WPS_ScanCallback callback,
                                 void* context) {
  return guarded([&] { return WPS::API::periodicScan(period, iterations, callback, context); });
}

void WPS_free_location(WPS_Location* location) { WPS::API::Location::free_location(location); }

void WPS_free_ip_location(WPS_IPLocation* location) { WPS::API::IPLocation::free_ip_location(location); }

}  // extern "C"
