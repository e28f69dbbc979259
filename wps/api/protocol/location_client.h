// The positioning library's own connection settings, used for every XML
// exchange with the positioning service (location, IP location, registration,
// tiling requests).
//
// It starts with the server URL kDefaultServerUrl and the user agent
// defaultUserAgent() (wps/api/config.h) and no proxy. The public WPS_set_server_url,
// WPS_set_user_agent and WPS_set_proxy change them. The network is used only
// while a server URL is set ("network mode").
//
// Thread safety: the instance is made once, on the first getInstance(), and
// lives for the whole process; every member may be called from any thread.
#pragma once

#include <memory>
#include <string>

#include "wps/api/protocol/rest_client.h"
#include "wps/spi/xml_http_request.h"

namespace WPS {
namespace API {

// True when `url`'s path (without query or fragment) ends in
// "/v1/geolocate": the server speaks the geolocation JSON API, not the XML
// protocol.
[[nodiscard]] bool isGeolocationApiUrl(const std::string& url);

class LocationClient {
 public:
  [[nodiscard]] static LocationClient& getInstance();

  LocationClient(const LocationClient&) = delete;
  LocationClient& operator=(const LocationClient&) = delete;

  // Null restores the default; the empty text sends no User-Agent.
  void set_user_agent(const char* userAgent);
  // Null restores the default URL; the empty text turns network mode off.
  void set_server_url(const char* url);
  // A null or empty address clears the proxy.
  void set_proxy(const char* address, int port, const char* user, const char* password);

  // True while a server URL is set.
  [[nodiscard]] bool isNetworkModeEnabled() const;
  // True while the server URL selects the geolocation JSON API
  // (isGeolocationApiUrl): no registration, no tiling, JSON exchanges.
  [[nodiscard]] bool speaksGeolocationApi() const;
  [[nodiscard]] ConnectionSettings::Values settings() const;

  // A request for the server URL + `path` with these settings, its
  // Content-Type and User-Agent headers set; null (logged) on failure.
  [[nodiscard]] std::unique_ptr<SPI::XmlHttpRequest> openHttpRequest(SPI::XmlHttpRequest::HttpMethod method,
                                                                     const std::string& path, bool async) const;

 private:
  LocationClient();
  ConnectionSettings settings_;
};

}  // namespace API
}  // namespace WPS
