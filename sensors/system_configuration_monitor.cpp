#include "sensors/system_configuration_monitor.h"

#include <cstdio>
#include <stdexcept>

#include "platform/mutex.h"
#include "platform/run_loop.h"

namespace zonara {
namespace {

Mutex g_mu;
std::weak_ptr<CSystemConfigurationMonitor> theInstance ZONARA_GUARDED_BY(g_mu);
CSystemConfigurationMonitor::StoreFactory g_factory ZONARA_GUARDED_BY(g_mu);
NotificationCenter* g_center ZONARA_GUARDED_BY(g_mu) = nullptr;

std::string failure(const char* format, const DynamicStore& store) {
  const std::string message = store.errorString();
  char text[512];
  std::snprintf(text, sizeof text, format, store.errorCode(), message.c_str());
  return text;
}

}  // namespace

std::shared_ptr<CSystemConfigurationMonitor> CSystemConfigurationMonitor::monitor() {
  MutexLock lock(g_mu);
  if (auto existing = theInstance.lock()) return existing;
  std::unique_ptr<DynamicStore> store = g_factory ? g_factory() : std::make_unique<NetlinkDynamicStore>();
  auto created = std::make_shared<CSystemConfigurationMonitor>(
      std::move(store), g_center ? *g_center : NotificationCenter::defaultCenter());
  theInstance = created;
  return created;
}

void CSystemConfigurationMonitor::setStoreFactory(StoreFactory factory, NotificationCenter* center) {
  MutexLock lock(g_mu);
  g_factory = std::move(factory);
  g_center = center;
}

CSystemConfigurationMonitor::CSystemConfigurationMonitor(std::unique_ptr<DynamicStore> store,
                                                         NotificationCenter& center)
    : mSCDynamicStoreRef(std::move(store)), center_(center) {
  // The store calls back into this object only while it lives: it is owned
  // here and destroyed with the monitor.
  if (!mSCDynamicStoreRef->open([this](const std::vector<std::string>& keys) { changed(keys); })) {
    throw std::runtime_error(failure(
        "-[CSystemConfigurationMonitor init] SCDynamicStoreCreate() failed (%d, %s).", *mSCDynamicStoreRef));
  }
  if (!mSCDynamicStoreRef->attach(RunLoop::current())) {
    throw std::runtime_error(
        failure("-[CSystemConfigurationMonitor init] SCDynamicStoreCreateRunLoopSource() failed (%d, %s).",
                *mSCDynamicStoreRef));
  }
}

CSystemConfigurationMonitor::~CSystemConfigurationMonitor() = default;

void CSystemConfigurationMonitor::notifyForPattern(const std::string& pattern) {
  mPatterns.insert(pattern);
  resetNotificationKeys();
}

std::optional<PrefValue::Dictionary> CSystemConfigurationMonitor::valueForPattern(const std::string& key) {
  return mSCDynamicStoreRef->copyValue(key);
}

std::vector<std::string> CSystemConfigurationMonitor::interfaces() { return mSCDynamicStoreRef->interfaces(); }

void CSystemConfigurationMonitor::resetNotificationKeys() {
  if (mKeys.empty() && mPatterns.empty()) return;  // registration left as it was
  std::vector<std::string> keys(mKeys.begin(), mKeys.end());
  std::vector<std::string> patterns(mPatterns.begin(), mPatterns.end());
  if (!mSCDynamicStoreRef->setNotificationKeys(keys, patterns)) {
    throw std::runtime_error(failure(
        "-[CSystemConfigurationMonitor test] SCDynamicStoreSetNotificationKeys() failed (%d, %s).",
        *mSCDynamicStoreRef));
  }
}

void CSystemConfigurationMonitor::changed(const std::vector<std::string>& changedKeys) {
  std::string joined;
  for (const std::string& key : changedKeys) {
    if (!joined.empty()) joined += '\n';
    joined += key;
  }
  center_.post(Notification{kSystemConfigurationMonitorNotification, this, {{"changedKeys", joined}}});
}

std::vector<std::string> CSystemConfigurationMonitor::changedKeysFromNotification(const Notification& notification) {
  std::vector<std::string> keys;
  auto it = notification.userInfo.find("changedKeys");
  if (it == notification.userInfo.end() || it->second.empty()) return keys;
  size_t start = 0;
  for (;;) {
    size_t end = it->second.find('\n', start);
    keys.push_back(it->second.substr(start, end - start));
    if (end == std::string::npos) break;
    start = end + 1;
  }
  return keys;
}

}  // namespace zonara
