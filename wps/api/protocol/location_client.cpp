#include "wps/api/protocol/location_client.h"

#include <mutex>
#include <string_view>

#include "wps/api/protocol/config.h"
#include "wps/spi/os_release.h"

namespace WPS {
namespace API {

std::string defaultUserAgent() {
  return std::string("Zonara/") + WPS_CLIENT_VERSION + " (" + SPI::osPrettyName() + ")";
}

bool isGeolocationApiUrl(const std::string& url) {
  static constexpr std::string_view kPath = "/v1/geolocate";
  const size_t schemeEnd = url.find("://");
  const size_t pathEnd = url.find_first_of("?#", schemeEnd == std::string::npos ? 0 : schemeEnd + 3);
  const std::string_view path = std::string_view(url).substr(0, pathEnd);
  return path.size() >= kPath.size() && path.substr(path.size() - kPath.size()) == kPath;
}

LocationClient& LocationClient::getInstance() {
  static std::once_flag once;
  static LocationClient* instance = nullptr;
  // Never destroyed: requests may still be made while the process exits.
  std::call_once(once, [] { instance = new LocationClient(); });
  return *instance;
}

LocationClient::LocationClient()
    : settings_(SPI::Logger::getLogger("WPS.API.LocationClient"), kDefaultServerUrl, defaultUserAgent()) {}

void LocationClient::set_user_agent(const char* userAgent) { settings_.setUserAgent(userAgent); }

void LocationClient::set_server_url(const char* url) { settings_.setServerUrl(url); }

void LocationClient::set_proxy(const char* address, int port, const char* user, const char* password) {
  settings_.setProxy(address, port, user, password);
}

bool LocationClient::isNetworkModeEnabled() const { return !settings_.values().serverUrl.empty(); }

bool LocationClient::speaksGeolocationApi() const { return isGeolocationApiUrl(settings_.values().serverUrl); }

ConnectionSettings::Values LocationClient::settings() const { return settings_.values(); }

std::unique_ptr<SPI::XmlHttpRequest> LocationClient::openHttpRequest(SPI::XmlHttpRequest::HttpMethod method,
                                                                     const std::string& path, bool async) const {
  return settings_.openRequest(method, path, async);
}

}  // namespace API
}  // namespace WPS
