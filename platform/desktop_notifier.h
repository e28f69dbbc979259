// Messages shown to the user through the desktop's notification service
// (org.freedesktop.Notifications on the session bus).
//
// Thread safety: the thread that made the notifier (it uses that thread's
// run loop for the replies).
#pragma once

#include <string>

#include "platform/dbus.h"

namespace zonara {

class DesktopNotifier {
 public:
  virtual ~DesktopNotifier() = default;
  // Shows a message. `notificationName` is the kind of message ("Zonara
  // Launched"); `iconPath` is an image file or empty. Never blocks for the
  // service; without a service the message is dropped silently.
  virtual void notify(const std::string& title, const std::string& message, const std::string& notificationName,
                      const std::string& iconPath) = 0;
};

// Calls org.freedesktop.Notifications.Notify with application name
// `appName`, the icon path as its icon, the title as summary, the message as
// body, the notification name in the hint "x-zonara-notification-name" (and
// the icon path in "image-path"), and the server's default expiry. The bus is
// not asked to start a service that is not running.
class FreedesktopNotifier final : public DesktopNotifier {
 public:
  static constexpr const char* kNameHint = "x-zonara-notification-name";

  // `bus` is borrowed.
  FreedesktopNotifier(DBusConnection& bus, std::string appName) : bus_(bus), appName_(std::move(appName)) {}
  void notify(const std::string& title, const std::string& message, const std::string& notificationName,
              const std::string& iconPath) override;

 private:
  DBusConnection& bus_;
  const std::string appName_;
};

}  // namespace zonara
