// Fixed configuration of the positioning library: the protocol namespace and
// the service's default address. Both live under the reserved ".example"
// top-level domain, so that a build never talks to anyone's server unless it
// is configured to (WPS_set_server_url).
#pragma once

namespace WPS {
namespace API {

// The namespace of every element of the positioning protocol.
inline constexpr const char* kProtocolNamespace = "http://telluro.example/wps/2005";

// The server URL a LocationClient starts with; request paths ("/location",
// ...) are appended to it as they are.
inline constexpr const char* kDefaultServerUrl = "https://api.telluro.example/wps2/";

// The User-Agent a LocationClient starts with.
inline constexpr const char* kDefaultUserAgent = "WPS API";

}  // namespace API
}  // namespace WPS
