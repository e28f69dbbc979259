// Asks NetworkManager, over D-Bus (GIO GDBus), to scan on a wireless
// interface. Used by the nl80211 driver when the process may not trigger a
// scan itself; NetworkManager holds the privilege and does it for us.
//
// Thread safety: any thread; each call uses its own connection or GIO's shared
// system-bus connection, which is thread-safe.
#pragma once

#include <string>

namespace WPS {
namespace SPI {

// NetworkManager's D-Bus names.
inline constexpr const char* kNetworkManagerService = "org.freedesktop.NetworkManager";
inline constexpr const char* kNetworkManagerPath = "/org/freedesktop/NetworkManager";
inline constexpr const char* kNetworkManagerWirelessInterface = "org.freedesktop.NetworkManager.Device.Wireless";

// Each D-Bus call gives up after this long.
inline constexpr int kNetworkManagerCallTimeoutMilliseconds = 1000;

// Requests a scan on interface `ifname`: checks that NetworkManager owns its
// name on the bus (it is never started for us), looks the device up with
// GetDeviceByIpIface and calls Device.Wireless.RequestScan with no options.
//
// `busAddress` empty means the system bus; otherwise a D-Bus address to
// connect to (tests use a private bus).
//
// Returns 0 when NetworkManager accepted the request; 2 (ENOENT) when no bus,
// no NetworkManager or no such device; 5 (EIO) when NetworkManager refused
// (it rate-limits scans) or a call failed. Failures are logged at debug level
// (category "WPS.SPI.Nl80211Driver"), since a refused request only means the
// cached results are all there is.
[[nodiscard]] int requestNetworkManagerScan(const std::string& ifname, const std::string& busAddress = {});

}  // namespace SPI
}  // namespace WPS
