// System sleep and wake from logind: the signal PrepareForSleep(b) of
// org.freedesktop.login1.Manager on the system bus (true before sleeping,
// false after waking). Without logind the signal never comes and nothing
// happens.
//
// So that the machine does not go to sleep before the helper has handled
// PrepareForSleep(true), the watcher holds a delay inhibitor
// (Inhibit("sleep", "Zonara", ..., "delay"), a file descriptor whose closing
// releases it): logind waits for it before sleeping. It is released right
// after the callback has handled the coming sleep and taken again after
// waking. Inhibit is asked for without blocking; when logind refuses or is
// absent the watcher works without one.
//
// Thread safety: made, used and destroyed on one thread; the callback runs
// on that thread's run loop.
#pragma once

#include <functional>

#include "platform/dbus.h"

typedef struct _GCancellable GCancellable;
typedef struct _GObject GObject;
typedef struct _GAsyncResult GAsyncResult;

namespace zonara {

class LogindSleepWatcher {
 public:
  using Callback = std::function<void(bool sleeping)>;

  // `bus` (the system bus) is borrowed and must outlive the watcher. Asks
  // for the inhibitor at once.
  LogindSleepWatcher(DBusConnection& bus, Callback callback);
  // Releases the inhibitor.
  ~LogindSleepWatcher();
  LogindSleepWatcher(const LogindSleepWatcher&) = delete;
  LogindSleepWatcher& operator=(const LogindSleepWatcher&) = delete;

  // Whether the inhibitor is held now.
  [[nodiscard]] bool holdsInhibitor() const { return inhibitor_ >= 0; }

  // Connects to the system bus; nullptr (with `error` filled) when there is
  // none.
  [[nodiscard]] static std::unique_ptr<DBusConnection> openSystemBus(std::string* error);

 private:
  void prepareForSleep(bool sleeping);
  void takeInhibitor();
  void releaseInhibitor();
  static void inhibitorArrived(GObject* source, GAsyncResult* result, void* data);

  DBusConnection& bus_;
  Callback callback_;
  unsigned subscription_ = 0;
  int inhibitor_ = -1;                    // owned file descriptor
  GCancellable* pending_ = nullptr;       // the Inhibit call in flight (owned)
};

}  // namespace zonara
