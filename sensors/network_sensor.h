// Finds the wireless and wired interfaces in the dynamic store, watches
// them through the system configuration monitor, and asks the positioning
// sensor for a location check when the wireless interface is powered and no
// longer busy (it has just joined a network), or when the wired interface
// has IPv4 addresses it did not have before (it has joined a network; losing
// them is no reason to look). The local notification "ZonaraNetworkChanged"
// is posted on `center` just before such a check.
//
// Discovery looks at the store's interfaces in index order: one with an
// "AirPort" entity is the wireless interface, else one with a "Link" entity
// the wired one, unless it is a VPN's (tun, WireGuard, PPP, IPsec: see
// platform/vpn_detector.h); for either role the later interface wins. Interfaces are
// discovered once, at construction.
//
// Thread safety: main thread only (changes arrive on its run loop). The 1.0 s
// wait before the check blocks the main thread, by design.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/notification_center.h"
#include "sensors/system_configuration_monitor.h"
#include "sensors/telluro_sensor.h"

namespace zonara {

class NetworkSensor {
 public:
  // `monitor` is kept alive by the sensor; `check` and `center` are borrowed.
  NetworkSensor(std::shared_ptr<CSystemConfigurationMonitor> monitor, LocationCheck& check,
                NotificationCenter& center);
  ~NetworkSensor();
  NetworkSensor(const NetworkSensor&) = delete;
  NetworkSensor& operator=(const NetworkSensor&) = delete;

  // Change handler for the monitor's notification: looks only at the first
  // changed key for the wireless interface, and at all of them for the
  // wired interface's IPv4 key. At most one check per change.
  void update(const Notification& notification);

  [[nodiscard]] const std::optional<std::string>& airportInterface() const { return airportInterface_; }
  [[nodiscard]] const std::string& airportKey() const { return airportKey_; }
  [[nodiscard]] const std::string& airportLinkKey() const { return airportLinkKey_; }
  [[nodiscard]] const std::string& ethernetKey() const { return ethernetKey_; }
  [[nodiscard]] const std::string& ethernetIPKey() const { return ethernetIPKey_; }
  [[nodiscard]] const std::optional<std::string>& ethernetInterface() const { return ethernetInterface_; }

 private:
  // The wireless interface's key `key` with `value` says it joined a network.
  [[nodiscard]] bool wirelessJoined(const std::string& key, const std::optional<PrefValue::Dictionary>& value) const;
  // The wired interface's IPv4 key is among `changed` with new addresses
  // (remembered for the next change).
  [[nodiscard]] bool wiredNetworkChanged(const std::vector<std::string>& changed);
  [[nodiscard]] std::vector<std::string> wiredAddresses();

  std::shared_ptr<CSystemConfigurationMonitor> monitor_;
  LocationCheck& check_;
  NotificationCenter& center_;
  NotificationCenter::ObserverId observer_ = 0;
  std::string airportKey_;
  std::string airportLinkKey_;
  std::optional<std::string> airportInterface_;
  std::string ethernetKey_;
  std::string ethernetIPKey_;
  std::optional<std::string> ethernetInterface_;
  std::vector<std::string> wiredAddresses_;
};

// A dictionary as "{key = value; ...}" for the log.
[[nodiscard]] std::string describeStoreValue(const std::optional<PrefValue::Dictionary>& value);

}  // namespace zonara
