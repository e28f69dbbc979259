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

namespace {

// " (near a border: it may be ZONE)", or "".
std::string mayBe(const std::optional<std::string>& otherPossibleZone) {
  return otherPossibleZone ? " (near a border: it may be " + *otherPossibleZone + ")" : "";
}

}  // namespace

void NotificationController::timezoneDidChange() {
  std::string zone = controller_.detectedTimezone().value_or("(null)");
  const std::string message = "Timezone changed to: " + zone + mayBe(controller_.otherPossibleZone());
  const uint64_t change = controller_.lastChangeSerial();
  if (change == 0) {
    notifyWithTitle(kApplicationName, message, kTimezoneChanged);
    return;
  }
  AppController& controller = controller_;
  notifier_.show(kApplicationName, message, kTimezoneChanged, icon(), {{kUndoAction, "Undo"}},
                 [&controller, change](const std::string&) { (void)controller.undo(change); });
}

void NotificationController::askToChange(const std::string& zone,
                                         const std::optional<std::string>& otherPossibleZone) {
  AppController& controller = controller_;
  notifier_.show(kApplicationName, "Change time zone to " + zone + "?" + mayBe(otherPossibleZone), kChangeQuestion,
                 icon(), {{kChangeAction, "Change"}, {kKeepAction, "Keep"}},
                 [&controller, zone](const std::string& key) { controller.answerQuestion(zone, key == kChangeAction); });
}

void NotificationController::timezoneChangedBack(const std::string& zone) {
  notifyWithTitle(kApplicationName, "Timezone changed back to: " + zone, kTimezoneChanged);
}

void NotificationController::notifyWithTitle(const std::string& title, const std::string& message,
                                             const std::string& notificationName) {
  notifier_.notify(title, message, notificationName, icon());
}

std::string NotificationController::icon() const {
  // A missing icon file means no icon, not a broken one.
  return (!iconPath_.empty() && isReadable(iconPath_)) ? iconPath_ : "";
}

}  // namespace zonara
