#include "app/notification_controller.h"

#include "app/app_controller.h"
#include "platform/file_system.h"
#include "platform/zonara_names.h"

namespace zonara {

NotificationController::NotificationController(AppController& controller, DesktopNotifier& notifier,
                                               std::string iconPath)
    : controller_(controller), notifier_(notifier), iconPath_(std::move(iconPath)) {
  controller_.addDetectedTimezoneObserver([this] { timezoneDidChange(); });
}

void NotificationController::timezoneDidChange() {
  std::string zone = controller_.detectedTimezone().value_or("(null)");
  std::string message = "Timezone changed to: " + zone;
  if (const std::optional<std::string>& other = controller_.otherPossibleZone()) {
    message += " (near a border: it may be " + *other + ")";
  }
  notifyWithTitle(kApplicationName, message, kTimezoneChanged);
}

void NotificationController::notifyWithTitle(const std::string& title, const std::string& message,
                                             const std::string& notificationName) {
  // A missing icon file means no icon, not a broken one.
  std::string icon = (!iconPath_.empty() && isReadable(iconPath_)) ? iconPath_ : "";
  notifier_.notify(title, message, notificationName, icon);
}

}  // namespace zonara
