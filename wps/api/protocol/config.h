// Fixed configuration of the positioning library: the protocol namespace,
// the default server and the User-Agent requests carry.
#pragma once

#include <string>

#include "wps/api/wpsapi.h"

namespace WPS {
namespace API {

// The namespace of every element of the positioning protocol.
inline constexpr const char* kProtocolNamespace = "http://telluro.example/wps/2005";

// The server URL a LocationClient starts with: the community database's
// geolocation JSON API. (XML request paths such as "/location" are appended
// to a server URL as they are; a URL ending in "/v1/geolocate" is the whole
// address of a JSON API.)
inline constexpr const char* kDefaultServerUrl = WPS_DEFAULT_SERVER_URL;

// The User-Agent a LocationClient starts with: "Zonara/VERSION (PRETTY_NAME)",
// the operating system's name read from /etc/os-release. Services that use no
// keys ask each client to name itself this way.
[[nodiscard]] std::string defaultUserAgent();

}  // namespace API
}  // namespace WPS
