// A small watcher over the dynamic store of live network state: clients
// register key patterns, and every change of a matching key posts one
// `kSystemConfigurationMonitorNotification` on the default notification
// centre, with the monitor as its object and "changedKeys" in its user info
// (the changed keys joined by newlines, in the store's order; see
// `changedKeysFromNotification`). It also answers one-off reads of a key.
//
// Ownership: `monitor()` hands out the shared instance, creating it on first
// call. The class does not keep it alive: the first caller holds on to it
// (the network sensor does); once every holder has let go, the next call
// makes a new one.
//
// Failures: opening the store, and registering keys with it, throw
// std::runtime_error with the texts below filled with the store's error code
// and message. Nothing here catches them.
//
// Thread safety: the thread that creates the monitor (the main thread) owns
// it; registrations, reads and notifications all happen there.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "platform/dynamic_store.h"
#include "platform/notification_center.h"

namespace zonara {

inline constexpr const char* kSystemConfigurationMonitorNotification = "kSystemConfigurationMonitorNotification";

class CSystemConfigurationMonitor {
 public:
  using StoreFactory = std::function<std::unique_ptr<DynamicStore>()>;

  // The shared instance (made on the calling thread's run loop on first call
  // or after every holder released it). Throws as described above.
  [[nodiscard]] static std::shared_ptr<CSystemConfigurationMonitor> monitor();
  // How `monitor()` makes its store; null restores the default (rtnetlink,
  // sysfs at "/sys"). Also where the notifications go (null = default centre).
  static void setStoreFactory(StoreFactory factory, NotificationCenter* center = nullptr);

  // Opens `store` on the current thread's run loop; throws on failure.
  CSystemConfigurationMonitor(std::unique_ptr<DynamicStore> store, NotificationCenter& center);
  ~CSystemConfigurationMonitor();
  CSystemConfigurationMonitor(const CSystemConfigurationMonitor&) = delete;
  CSystemConfigurationMonitor& operator=(const CSystemConfigurationMonitor&) = delete;

  // Adds a pattern (set semantics) and re-registers keys and patterns.
  void notifyForPattern(const std::string& pattern);
  // The current value under exactly `key`, or nullopt when it has none.
  [[nodiscard]] std::optional<PrefValue::Dictionary> valueForPattern(const std::string& key);
  // The store's interfaces in index order.
  [[nodiscard]] std::vector<std::string> interfaces();

  // The changed keys carried by one of this monitor's notifications.
  [[nodiscard]] static std::vector<std::string> changedKeysFromNotification(const Notification& notification);

 private:
  void resetNotificationKeys();
  void changed(const std::vector<std::string>& changedKeys);

  std::unique_ptr<DynamicStore> mSCDynamicStoreRef;
  std::set<std::string> mKeys;  // exact keys; nothing adds to it
  std::set<std::string> mPatterns;
  NotificationCenter& center_;
};

}  // namespace zonara
