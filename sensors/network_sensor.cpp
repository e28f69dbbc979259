#include "sensors/network_sensor.h"

#include <algorithm>
#include <cctype>

#include "platform/clock.h"
#include "platform/system_log.h"
#include "platform/vpn_detector.h"
#include "platform/zonara_names.h"

namespace zonara {
namespace {

using namespace std::chrono_literals;

std::string describe(const PrefValue& value) {
  switch (value.type()) {
    case PrefValue::Type::String:
      return value.asString();
    case PrefValue::Type::Boolean:
      return value.asBool() ? "1" : "0";
    case PrefValue::Type::Integer:
      return std::to_string(value.asInteger());
    case PrefValue::Type::Real:
      return std::to_string(value.asReal());
    case PrefValue::Type::Data:
      return "<data>";
    case PrefValue::Type::Array: {
      std::string out = "(";
      for (size_t i = 0; i < value.asArray().size(); ++i) out += (i ? ", " : "") + describe(value.asArray()[i]);
      return out + ")";
    }
    case PrefValue::Type::Dictionary:
      return describeStoreValue(value.asDictionary());
  }
  return "";
}

// `text` with every "Link" (any case) replaced by "IPv4".
std::string replaceLinkWithIPv4(const std::string& text) {
  std::string out;
  for (size_t i = 0; i < text.size();) {
    if (i + 4 <= text.size() && std::tolower(static_cast<unsigned char>(text[i])) == 'l' &&
        std::tolower(static_cast<unsigned char>(text[i + 1])) == 'i' &&
        std::tolower(static_cast<unsigned char>(text[i + 2])) == 'n' &&
        std::tolower(static_cast<unsigned char>(text[i + 3])) == 'k') {
      out += "IPv4";
      i += 4;
    } else {
      out += text[i++];
    }
  }
  return out;
}

bool isVirtualPrivateNetwork(const std::string& interface) { return !vpnKindOfInterfaceNamed(interface).empty(); }

}  // namespace

std::string describeStoreValue(const std::optional<PrefValue::Dictionary>& value) {
  if (!value) return "(null)";
  std::string out = "{";
  for (const auto& [key, item] : *value) out += key + " = " + describe(item) + "; ";
  return out + "}";
}

NetworkSensor::NetworkSensor(std::shared_ptr<CSystemConfigurationMonitor> monitor, LocationCheck& check,
                             NotificationCenter& center)
    : monitor_(std::move(monitor)), check_(check), center_(center) {
  for (const std::string& name : monitor_->interfaces()) {
    const std::string airport = DynamicStore::interfaceEntityKey(name, "AirPort");
    const std::string link = DynamicStore::interfaceEntityKey(name, "Link");
    if (monitor_->valueForPattern(airport)) {
      SystemLog("we found the airport network interface = %s", name.c_str());
      airportInterface_ = name;
      airportKey_ = airport;
      airportLinkKey_ = link;
      monitor_->notifyForPattern(airportKey_);
      monitor_->notifyForPattern(airportLinkKey_);
    } else if (monitor_->valueForPattern(link) && isVirtualPrivateNetwork(name)) {
      SystemLog("leaving out %s: a VPN interface is no wired network", name.c_str());
    } else if (monitor_->valueForPattern(link)) {
      SystemLog("we found the ethernet network interface = %s", name.c_str());
      ethernetInterface_ = name;
      ethernetKey_ = link;
      monitor_->notifyForPattern(ethernetKey_);
      ethernetIPKey_ = replaceLinkWithIPv4(ethernetKey_);
      monitor_->notifyForPattern(ethernetIPKey_);
      wiredAddresses_ = wiredAddresses();
    }
  }
  observer_ = center_.addObserver(kSystemConfigurationMonitorNotification,
                                  [this](const Notification& notification) { update(notification); });
}

NetworkSensor::~NetworkSensor() { center_.removeObserver(observer_); }

std::vector<std::string> NetworkSensor::wiredAddresses() {
  if (ethernetIPKey_.empty()) return {};
  const std::optional<PrefValue::Dictionary> value = monitor_->valueForPattern(ethernetIPKey_);
  std::vector<std::string> addresses;
  if (!value) return addresses;
  if (auto it = value->find("Addresses"); it != value->end()) {
    for (const PrefValue& address : it->second.asArray()) addresses.push_back(address.asString());
  }
  return addresses;
}

bool NetworkSensor::wiredNetworkChanged(const std::vector<std::string>& changed) {
  if (ethernetIPKey_.empty() || std::find(changed.begin(), changed.end(), ethernetIPKey_) == changed.end()) {
    return false;
  }
  std::vector<std::string> addresses = wiredAddresses();
  const bool joined = !addresses.empty() && addresses != wiredAddresses_;
  wiredAddresses_ = std::move(addresses);
  return joined;
}

void NetworkSensor::update(const Notification& notification) {
  const std::vector<std::string> changed = CSystemConfigurationMonitor::changedKeysFromNotification(notification);
  if (changed.empty()) return;
  const bool wiredChanged = wiredNetworkChanged(changed);
  const std::string& key = changed.front();  // the others are ignored for the wireless interface
  const std::optional<PrefValue::Dictionary> value = monitor_->valueForPattern(key);
  SystemLog("NetworkSensor change detected, path = %s, change = %s", key.c_str(), describeStoreValue(value).c_str());
  if (wirelessJoined(key, value)) {
    center_.post(Notification{kNetworkChangedNotification, this, {}});
    Clock::get().sleepFor(1000ms);
    check_.performLocationCheck();
  } else if (wiredChanged) {
    SystemLog("the wired network changed (%s has new addresses): looking for the position",
              ethernetInterface_.value_or("?").c_str());
    center_.post(Notification{kNetworkChangedNotification, this, {}});
    check_.performLocationCheck();
  }
}

bool NetworkSensor::wirelessJoined(const std::string& key, const std::optional<PrefValue::Dictionary>& value) const {
  if (airportKey_.empty() || key != airportKey_ || !value) return false;
  auto integer = [&](const char* name) -> int64_t {
    auto it = value->find(name);
    return it == value->end() ? 0 : it->second.asInteger();
  };
  return integer("Power Status") != 0 && integer("Busy") == 0;
}

}  // namespace zonara
