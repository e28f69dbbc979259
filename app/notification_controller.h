// The helper's messages to the user, shown through the desktop's
// notification service: "Launched" at start-up, "Timezone changed to: %s"
// after each applied change of the detected zone, and why a zone could not
// be applied. Without a notification service they are dropped silently.
//
// Thread safety: main thread only.
#pragma once

#include <string>

#include "platform/desktop_notifier.h"

namespace zonara {

class AppController;

class NotificationController {
 public:
  static constexpr const char* kTimezoneChanged = "Timezone changed";
  static constexpr const char* kLaunched = "Zonara Launched";
  static constexpr const char* kTimezoneNotChanged = "Timezone not changed";

  // Observes `controller`'s detected zone. Both arguments are borrowed and
  // must outlive this object; `iconPath` may name a missing file (then no
  // icon is shown).
  NotificationController(AppController& controller, DesktopNotifier& notifier, std::string iconPath);

  // Reads the new zone from the controller and shows the change.
  void timezoneDidChange();
  void notifyWithTitle(const std::string& title, const std::string& message, const std::string& notificationName);

 private:
  AppController& controller_;
  DesktopNotifier& notifier_;
  const std::string iconPath_;
};

}  // namespace zonara
