// Messages shown to the user through the desktop's notification service
// (org.freedesktop.Notifications on the session bus), optionally with
// actions the user can choose (buttons such as "Undo").
//
// Thread safety: the thread that made the notifier (it uses that thread's
// run loop for the replies and the chosen actions).
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/dbus.h"

namespace zonara {

// A choice offered with a message: `key` identifies it to the program,
// `label` is what the user reads.
struct NotificationAction {
  std::string key;
  std::string label;
};

// The action handlers of shown messages (desktop_notifier.cpp).
struct NotificationHandlers;

class DesktopNotifier {
 public:
  // Told of the key of the action the user chose, at most once per message,
  // on the notifier's thread.
  using ActionHandler = std::function<void(const std::string& key)>;

  virtual ~DesktopNotifier() = default;
  // Shows a message. `notificationName` is the kind of message ("Zonara
  // Launched"); `iconPath` is an image file or empty. Never blocks for the
  // service; without a service the message is dropped silently.
  void notify(const std::string& title, const std::string& message, const std::string& notificationName,
              const std::string& iconPath) {
    show(title, message, notificationName, iconPath, {}, {});
  }
  // The same with `actions` offered; `onAction` (may be empty) is called
  // with the chosen one's key. A service that shows no actions, or a message
  // closed without a choice, never calls it.
  virtual void show(const std::string& title, const std::string& message, const std::string& notificationName,
                    const std::string& iconPath, const std::vector<NotificationAction>& actions,
                    ActionHandler onAction) = 0;
};

// Calls org.freedesktop.Notifications.Notify with application name
// `appName`, the icon path as its icon, the title as summary, the message as
// body, the actions as the service's list of key and label pairs, the
// notification name in the hint "x-zonara-notification-name" (and the icon
// path in "image-path"), and the server's default expiry. The bus is not
// asked to start a service that is not running. The service's
// ActionInvoked(id, key) signal for a message shown with a handler calls
// that handler; NotificationClosed(id, reason) forgets it. Only signals from
// the owner of "org.freedesktop.Notifications" count. At most
// `kRememberedMessages` handlers are kept (the oldest are forgotten).
class FreedesktopNotifier final : public DesktopNotifier {
 public:
  static constexpr const char* kNameHint = "x-zonara-notification-name";
  static constexpr size_t kRememberedMessages = 16;

  // `bus` is borrowed and must outlive this object.
  FreedesktopNotifier(DBusConnection& bus, std::string appName);
  ~FreedesktopNotifier() override;
  FreedesktopNotifier(const FreedesktopNotifier&) = delete;
  FreedesktopNotifier& operator=(const FreedesktopNotifier&) = delete;

  void show(const std::string& title, const std::string& message, const std::string& notificationName,
            const std::string& iconPath, const std::vector<NotificationAction>& actions,
            ActionHandler onAction) override;

 private:
  DBusConnection& bus_;
  const std::string appName_;
  // Shared with the replies still on their way, which may outlive this
  // object.
  std::shared_ptr<NotificationHandlers> handlers_;
  unsigned actionSubscription_ = 0;
  unsigned closedSubscription_ = 0;
};

}  // namespace zonara
