// Whether a VPN carries the computer's default route. While one does, the
// Internet sees the VPN's address, so a position found from the IP address
// places the computer wherever the VPN ends.
//
// The Linux detector looks in two places:
//   - the kernel's routing: the route it would take to an address on the
//     Internet (one of each family, reserved for documentation: 192.0.2.1
//     and 2001:db8::1, never contacted), asked with RTM_GETROUTE so that
//     policy routing (a WireGuard table chosen by a rule) is honoured, and the
//     kind of the interface that route leaves through, read from rtnetlink:
//     a tun device (also the type ARPHRD_NONE without a kind), WireGuard, PPP
//     (kind "ppp" or type ARPHRD_PPP) or IPsec (kinds "xfrm", "vti", "vti6");
//   - NetworkManager, when it owns its name on the system bus: an active
//     connection (State 2, activated) that is a VPN ("Vpn" true, or "Type"
//     "vpn" or "wireguard"). This catches VPNs without an interface of their
//     own (IPsec in policy mode).
//
// Thread safety: any thread. Each call opens its own netlink socket; the
// system bus connection is borrowed and must outlive the detector.
#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "platform/dbus.h"

namespace zonara {

class VpnDetector {
 public:
  virtual ~VpnDetector() = default;
  // The VPN carrying the default route now, described for the log
  // ("tun0, a tun interface"); nullopt when there is none or it cannot be
  // told (the failure is logged).
  [[nodiscard]] virtual std::optional<std::string> activeVpn() = 0;
};

// The VPN kind of an interface from its rtnetlink kind (IFLA_INFO_KIND, ""
// when none) and link type (ARPHRD_*): "tun", "wireguard", "ppp", "ipsec", or
// "" for an interface that is no VPN.
[[nodiscard]] std::string vpnKindOfInterface(const std::string& linkKind, unsigned linkType);

// The VPN kind (as above) of the interface called `name` in this network
// namespace, read from rtnetlink; "" when it is no VPN or does not exist.
// Any thread.
[[nodiscard]] std::string vpnKindOfInterfaceNamed(const std::string& name);

class LinuxVpnDetector final : public VpnDetector {
 public:
  // `systemBus` may be null (then only the routing is looked at).
  explicit LinuxVpnDetector(DBusConnection* systemBus) : systemBus_(systemBus) {}
  [[nodiscard]] std::optional<std::string> activeVpn() override;

  // The interface the default route of the kernel leaves through, when it
  // is a VPN's (the routing half of `activeVpn`).
  [[nodiscard]] static std::optional<std::string> vpnCarryingDefaultRoute();
  // An active NetworkManager VPN connection on `bus` ("NetworkManager VPN
  // connection \"Office\""); nullopt when none, or NetworkManager is absent or
  // does not answer within `timeout`.
  [[nodiscard]] static std::optional<std::string> activeNetworkManagerVpn(
      DBusConnection& bus, std::chrono::milliseconds timeout = std::chrono::seconds(1));

 private:
  DBusConnection* systemBus_;
};

}  // namespace zonara
