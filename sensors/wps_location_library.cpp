#include "sensors/wps_location_library.h"

#include <vector>

#include "platform/file_system.h"

namespace zonara {

WPS_ReturnCode WpsLocationLibrary::registerUser(const WPS_SimpleAuthentication& registrar,
                                                const WPS_SimpleAuthentication& user) {
  return WPS_register_user(&registrar, &user);
}

WPS_ReturnCode WpsLocationLibrary::tiling(const std::string& folder, unsigned long perSession, unsigned long total) {
  return WPS_tiling(folder.c_str(), perSession, total, nullptr, nullptr);
}

namespace {

PositionSource sourceOf(WPS_LocationSource source) {
  switch (source) {
    case WPS_SOURCE_IP_ADDRESS: return PositionSource::IPAddress;
    case WPS_SOURCE_LEARNED: return PositionSource::LearnedPlaces;
    case WPS_SOURCE_SERVER: return PositionSource::PositioningServer;
    case WPS_SOURCE_WIFI: break;
  }
  return PositionSource::DeviceTiles;
}

}  // namespace

WPS_ReturnCode WpsLocationLibrary::location(const WPS_SimpleAuthentication& authentication, double* longitude,
                                            double* latitude, PositionQuality* quality) {
  WPS_Location* found = nullptr;
  const WPS_ReturnCode rc = WPS_location(&authentication, WPS_NO_STREET_ADDRESS_LOOKUP, &found);
  if (rc == WPS_OK && found) {
    *longitude = found->longitude;
    *latitude = found->latitude;
    *quality = PositionQuality{found->hpe, sourceOf(found->source)};
  }
  WPS_free_location(found);
  return rc == WPS_OK && !found ? WPS_ERROR : rc;
}

WPS_ReturnCode WpsLocationLibrary::ipLocation(double* longitude, double* latitude) {
  WPS_IPLocation* found = nullptr;
  const WPS_ReturnCode rc = WPS_ip_location(nullptr, WPS_NO_STREET_ADDRESS_LOOKUP, &found);
  if (rc == WPS_OK && found) {
    *longitude = found->longitude;
    *latitude = found->latitude;
  }
  WPS_free_ip_location(found);
  return rc == WPS_OK && !found ? WPS_ERROR : rc;
}

bool WpsLocationLibrary::usesAccounts() { return WPS_server_protocol() == WPS_PROTOCOL_XML; }

void WpsLocationLibrary::setServerURL(const std::string& url) { (void)WPS_set_server_url(url.c_str()); }

LearnedPlaces::LearnedPlaces(std::string dataFolder)
    : folder_(dataFolder + "/Learned"), accountPath_(dataFolder + "/Telluro.plist") {}

void LearnedPlaces::disable() { (void)WPS_set_learned_places(nullptr, nullptr); }

bool LearnedPlaces::enable() {
  const std::string realm = LearnedPlacesRealm(accountPath_, true);
  return !realm.empty() && WPS_set_learned_places(folder_.c_str(), realm.c_str()) == WPS_OK;
}

bool LearnedPlaces::open() {
  const std::string realm = LearnedPlacesRealm(accountPath_, false);
  return !realm.empty() && WPS_set_learned_places(folder_.c_str(), realm.c_str()) == WPS_OK;
}

LearnedPlaces::Counts LearnedPlaces::counts() {
  Counts counts;
  if (open()) (void)WPS_learned_places_count(&counts.accessPoints, &counts.places);
  return counts;
}

unsigned long LearnedPlaces::forget() {
  unsigned long forgotten = 0;
  if (open()) (void)WPS_forget_learned_places(&forgotten);
  (void)WPS_set_learned_places(nullptr, nullptr);
  // What was set aside as unreadable was learned too.
  std::vector<std::string> names;
  if (folderEntries(folder_, &names) == 0) {
    for (const std::string& name : names) (void)removeFile(folder_ + "/" + name);
  }
  return forgotten;
}

}  // namespace zonara
