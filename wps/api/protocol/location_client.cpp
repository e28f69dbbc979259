#include "wps/api/protocol/location_client.h"

#include <mutex>

#include "wps/api/protocol/config.h"

namespace WPS {
namespace API {

LocationClient& LocationClient::getInstance() {
  static std::once_flag once;
  static LocationClient* instance = nullptr;
  // Never destroyed: requests may still be made while the process exits.
  std::call_once(once, [] { instance = new LocationClient(); });
  return *instance;
}

LocationClient::LocationClient()
    : settings_(SPI::Logger::getLogger("WPS.API.LocationClient"), kDefaultServerUrl, kDefaultUserAgent) {}

void LocationClient::set_user_agent(const char* userAgent) { settings_.setUserAgent(userAgent); }

void LocationClient::set_server_url(const char* url) { settings_.setServerUrl(url); }

void LocationClient::set_proxy(const char* address, int port, const char* user, const char* password) {
  settings_.setProxy(address, port, user, password);
}

bool LocationClient::isNetworkModeEnabled() const { return !settings_.values().serverUrl.empty(); }

ConnectionSettings::Values LocationClient::settings() const { return settings_.values(); }

std::unique_ptr<SPI::XmlHttpRequest> LocationClient::openHttpRequest(SPI::XmlHttpRequest::HttpMethod method,
                                                                     const std::string& path, bool async) const {
  return settings_.openRequest(method, path, async);
}

}  // namespace API
}  // namespace WPS
