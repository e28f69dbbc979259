// The helper's messages to the user, shown through the desktop's
// notification service: "Launched" at start-up, "Timezone changed to: %s"
// after each applied change of the detected zone (with the action "Undo",
// which undoes that change while it is the last one), "Timezone changed back
// to: %s" after an undo, "Change time zone to %s?" (actions "Change" and
// "Keep") when the user wants to be asked first, and why a zone could not be
// applied. Without a notification service they are dropped silently.
//
// Thread safety: main thread only.
#pragma once

#include <optional>
#include <string>

#include "platform/desktop_notifier.h"

namespace zonara {

class AppController;

class NotificationController {
 public:
  static constexpr const char* kTimezoneChanged = "Timezone changed";
  static constexpr const char* kLaunched = "Zonara Launched";
  static constexpr const char* kTimezoneNotChanged = "Timezone not changed";
  static constexpr const char* kChangeQuestion = "Change timezone?";
  // Action keys (the labels are "Undo", "Change" and "Keep").
  static constexpr const char* kUndoAction = "undo";
  static constexpr const char* kChangeAction = "change";
  static constexpr const char* kKeepAction = "keep";

  // Observes `controller`'s detected zone. Both arguments are borrowed and
  // must outlive this object; `iconPath` may name a missing file (then no
  // icon is shown).
  NotificationController(AppController& controller, DesktopNotifier& notifier, std::string iconPath);

  // Reads the new zone from the controller and shows the change, with
  // "Undo" when the controller can undo it.
  void timezoneDidChange();
  // Asks whether to change to `zone`, naming `otherPossibleZone` when given;
  // the answer goes to the controller's `answerQuestion`.
  void askToChange(const std::string& zone, const std::optional<std::string>& otherPossibleZone);
  // Tells that the last change was undone.
  void timezoneChangedBack(const std::string& zone);
  void notifyWithTitle(const std::string& title, const std::string& message, const std::string& notificationName);

 private:
  // The icon file when readable, else "".
  [[nodiscard]] std::string icon() const;

  AppController& controller_;
  DesktopNotifier& notifier_;
  const std::string iconPath_;
};

}  // namespace zonara
