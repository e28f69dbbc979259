// The live network state as a key/value store, watched for changes.
//
// Keys and their values (dictionaries of property-list values):
//   "State:/Network/Interface/<ifname>/Link"    {"Active": boolean, carrier present}
//   "State:/Network/Interface/<ifname>/AirPort" (wireless interfaces only)
//       {"Power Status": 1 when the interface is administratively up, else 0,
//        "Busy": 1 when it is up but its operational state is not yet UP
//                (associating or authenticating), else 0}
//   "State:/Network/Interface/<ifname>/IPv4"    {"Addresses": array of dotted
//       quads}, present only while the interface has an IPv4 address
// Loopback interfaces are left out.
//
// Clients register notification keys (exact) and patterns (regular
// expressions matched against the whole key). Whenever the values of some
// matching keys change (appear, disappear or differ), the change callback is
// called once with all of them, on the run loop the store was opened on, in
// the store's order (interface index, then AirPort, Link, IPv4).
//
// Thread safety: a store belongs to the thread that opened it; every call and
// every callback happens there.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/preferences_store.h"

namespace zonara {

class RunLoop;

class DynamicStore {
 public:
  using ChangeCallback = std::function<void(const std::vector<std::string>& changedKeys)>;

  virtual ~DynamicStore() = default;

  // Opens the session: reads the current state and starts listening.
  // `callback` is called for changed registered keys once attached. False on
  // failure; `errorCode` and `errorString` then say why.
  [[nodiscard]] virtual bool open(ChangeCallback callback) = 0;
  // Delivers changes on `runLoop` (borrowed; it must outlive the store).
  // False on failure, with the error recorded.
  [[nodiscard]] virtual bool attach(RunLoop& runLoop) = 0;
  // Replaces the registered keys and patterns. False on failure (a pattern
  // that is not a valid regular expression), with the error recorded.
  [[nodiscard]] virtual bool setNotificationKeys(const std::vector<std::string>& keys,
                                                 const std::vector<std::string>& patterns) = 0;
  // The current value under exactly `key`, or nullopt when it has none.
  [[nodiscard]] virtual std::optional<PrefValue::Dictionary> copyValue(const std::string& key) = 0;
  // Names of the interfaces the store knows, in interface-index order.
  [[nodiscard]] virtual std::vector<std::string> interfaces() = 0;

  // The last failure: a code (an errno or library error number) and its text.
  [[nodiscard]] virtual int errorCode() const = 0;
  [[nodiscard]] virtual std::string errorString() const = 0;

  // "State:/Network/Interface/<interface>/<entity>".
  [[nodiscard]] static std::string interfaceEntityKey(const std::string& interface, const std::string& entity);
};

// The store fed by rtnetlink (libnl-route-3). Every batch of link or address
// notifications -- and a receive-buffer overflow, after which notifications
// were lost -- leads to a fresh full read of links and addresses, compared
// with the previous one to find the changed keys. Wireless interfaces are
// those whose "<sysfsRoot>/class/net/<ifname>/uevent" says "DEVTYPE=wlan" or
// that have a "phy80211" entry there.
class NetlinkDynamicStore final : public DynamicStore {
 public:
  explicit NetlinkDynamicStore(std::string sysfsRoot = "/sys");
  ~NetlinkDynamicStore() override;
  NetlinkDynamicStore(const NetlinkDynamicStore&) = delete;
  NetlinkDynamicStore& operator=(const NetlinkDynamicStore&) = delete;

  [[nodiscard]] bool open(ChangeCallback callback) override;
  [[nodiscard]] bool attach(RunLoop& runLoop) override;
  [[nodiscard]] bool setNotificationKeys(const std::vector<std::string>& keys,
                                         const std::vector<std::string>& patterns) override;
  [[nodiscard]] std::optional<PrefValue::Dictionary> copyValue(const std::string& key) override;
  [[nodiscard]] std::vector<std::string> interfaces() override;
  [[nodiscard]] int errorCode() const override { return errorCode_; }
  [[nodiscard]] std::string errorString() const override { return errorString_; }

 private:
  struct Impl;
  void setError(int code, std::string text);
  int errorCode_ = 0;
  std::string errorString_;
  std::unique_ptr<Impl> impl_;
};

}  // namespace zonara
