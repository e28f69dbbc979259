// System sleep and wake from logind: the signal PrepareForSleep(b) of
// org.freedesktop.login1.Manager on the system bus (true before sleeping,
// false after waking). Without logind the signal never comes and nothing
// happens.
//
// Thread safety: made, used and destroyed on one thread; the callback runs
// on that thread's run loop.
#pragma once

#include <functional>

#include "platform/dbus.h"

namespace zonara {

class LogindSleepWatcher {
 public:
  using Callback = std::function<void(bool sleeping)>;

  // `bus` (the system bus) is borrowed and must outlive the watcher.
  LogindSleepWatcher(DBusConnection& bus, Callback callback);
  ~LogindSleepWatcher();
  LogindSleepWatcher(const LogindSleepWatcher&) = delete;
  LogindSleepWatcher& operator=(const LogindSleepWatcher&) = delete;

  // Connects to the system bus; nullptr (with `error` filled) when there is
  // none.
  [[nodiscard]] static std::unique_ptr<DBusConnection> openSystemBus(std::string* error);

 private:
  DBusConnection& bus_;
  Callback callback_;
  unsigned subscription_ = 0;
};

}  // namespace zonara
