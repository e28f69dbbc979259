// Test doubles for the helper's platform services that cannot run for real
// in tests (a desktop, other applications, the system's time zone) or that a
// test wants to watch. Each records what it was asked to do.
//
// Thread safety: like the services they stand for, main thread only.
#pragma once

#include <gio/gio.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "platform/command_runner.h"
#include "platform/dbus.h"
#include "platform/desktop_notifier.h"
#include "platform/mutex.h"
#include "platform/run_loop.h"
#include "platform/workspace.h"

namespace zonara::testing {

// Records every command line; returns `result` without running anything.
class RecordingCommandRunner final : public CommandRunner {
 public:
  CommandResult run(const std::vector<std::string>& argv) override {
    commands.push_back(argv);
    return result;
  }
  std::vector<std::vector<std::string>> commands;
  CommandResult result{0, ""};
};

// Running applications as a test lists them. `events` records "quit PID" and
// "launch NAME", each followed by what `onEvent` returns at that moment (so a
// test can see the state of the world when it happened).
class FakeWorkspace final : public Workspace {
 public:
  std::vector<RunningApplication> launchedApplications() override { return apps; }
  bool quitApplication(pid_t pid) override {
    events.push_back("quit " + std::to_string(pid) + (onEvent ? onEvent() : ""));
    return true;
  }
  bool launchApplication(const std::string& name) override {
    events.push_back("launch " + name + (onEvent ? onEvent() : ""));
    return true;
  }
  std::vector<RunningApplication> apps;
  std::vector<std::string> events;
  std::function<std::string()> onEvent;
};

// Records "title|message|name|icon file name" for each message, and the
// keys of its actions; `choose` plays the user choosing one.
class RecordingDesktopNotifier final : public DesktopNotifier {
 public:
  void show(const std::string& title, const std::string& message, const std::string& notificationName,
            const std::string& iconPath, const std::vector<NotificationAction>& actions,
            ActionHandler onAction) override;
  // Chooses the action `key` of message `index` (of `shown`), once, as the
  // service would report it. False when that message offered no such action
  // or was answered before.
  bool choose(size_t index, const std::string& key);
  // Chooses `key` on the newest message offering it.
  bool chooseLatest(const std::string& key);

  std::vector<std::string> shown;
  std::vector<std::vector<std::string>> actionKeys;  // per message

 private:
  std::vector<ActionHandler> handlers_;  // per message; emptied when used
};

// Distributed notifications within the process: `post` records the name and
// delivers to the observers of that name on the next pass of the calling
// thread's run loop, as notifications from the bus arrive. `deliver` calls
// them at once, as if another process had posted.
class InProcessDistributedNotificationCenter final : public DistributedNotificationCenter {
 public:
  InProcessDistributedNotificationCenter() = default;
  // Cancels deliveries still pending.
  ~InProcessDistributedNotificationCenter() override;
  void post(const DistributedNotification& notification) override;
  ObserverId addObserver(const std::string& name, Observer observer) override;
  void removeObserver(ObserverId id) override { observers_.erase(id); }
  void deliver(const DistributedNotification& notification);

  [[nodiscard]] size_t observerCount() const { return observers_.size(); }
  std::vector<std::string> posted;

 private:
  std::map<ObserverId, std::pair<std::string, Observer>> observers_;
  ObserverId lastId_ = 0;
  std::vector<std::pair<RunLoop*, RunLoop::TimerId>> pending_;
};

// A bus name that is free unless `refuse` is set. Keeps the property getters
// for tests to call and records announcements as "Name=value" (changed) and
// "Name?" (invalidated).
class FakeBusNameServer final : public BusNameServer {
 public:
  using BusNameServer::start;
  bool start(const std::map<std::string, PropertyGetter>& properties,
             const std::map<std::string, MethodHandler>& methods) override {
    if (refuse) return false;
    this->properties = properties;
    this->methods = methods;
    return true;
  }
  void propertiesChanged(const std::map<std::string, std::string>& changed,
                         const std::vector<std::string>& invalidated) override {
    for (const auto& [name, value] : changed) events.push_back(name + "=" + value);
    for (const auto& name : invalidated) events.push_back(name + "?");
  }
  bool refuse = false;
  std::map<std::string, PropertyGetter> properties;
  std::map<std::string, MethodHandler> methods;
  std::vector<std::string> events;
};

// The desktop notification service (org.freedesktop.Notifications) on a
// test's bus: takes the well-known name, records every Notify call and
// answers it with a new id (1, 2, ...). Calls are answered on the thread that
// runs the bus connection's context.
//
// Tests and the demonstration press a notification's buttons through the
// method
//   org.quillon.Zonara.FakeNotifications.InvokeAction(u id, s key)
// on the same object: for notification `id` (0: the newest one that offers
// `key`) it emits the service's ActionInvoked(id, key) and then
// NotificationClosed(id, 2), as a desktop does when the user chooses an
// action, and the notification is closed; the error
// org.freedesktop.DBus.Error.InvalidArgs when no open notification offers
// `key`. From a shell:
//   gdbus call --session --dest org.freedesktop.Notifications
//     --object-path /org/freedesktop/Notifications
//     --method org.quillon.Zonara.FakeNotifications.InvokeAction 0 undo
// (one command line)
class FakeNotificationService {
 public:
  static constexpr const char* kControlInterface = "org.quillon.Zonara.FakeNotifications";

  struct Notification {
    uint32_t id = 0;
    std::string app;
    std::string icon;
    std::string summary;
    std::string body;
    std::string name;  // the hint x-zonara-notification-name, "" when absent
    std::vector<std::string> actionKeys;
    std::vector<std::string> actionLabels;
    bool closed = false;  // an action was invoked: it offers none any more
  };

  explicit FakeNotificationService(DBusConnection& bus);
  ~FakeNotificationService();
  FakeNotificationService(const FakeNotificationService&) = delete;
  FakeNotificationService& operator=(const FakeNotificationService&) = delete;

  std::vector<Notification> received;
  // Told of each notification after it is recorded (for programs that show
  // them as they come); may be empty.
  std::function<void(const Notification&)> onNotification;
  // Told of each action invoked, with the notification it belongs to; may be
  // empty.
  std::function<void(const Notification&, const std::string& key)> onAction;

  // Invokes action `key` of notification `id` (0: the newest offering it) as
  // the method above does. False when none offers it.
  bool invokeAction(uint32_t id, const std::string& key);

 private:
  DBusConnection& bus_;
  GDBusNodeInfo* node_;
  unsigned registration_ = 0;
  unsigned controlRegistration_ = 0;
};

// Calls InvokeAction(id, key) of the FakeNotificationService on the bus
// `client` is connected to. False, with the service's reason in `*why` when
// given, when it refused or did not answer within 5 s.
bool InvokeNotificationAction(DBusConnection& client, uint32_t id, const std::string& key, std::string* why = nullptr);

// A stand-in for logind on a bus (normally a private system bus): owns
// "org.freedesktop.login1", emits PrepareForSleep and answers Inhibit with a
// real file descriptor -- the write end of a pipe whose read end it keeps, so
// it can tell when every copy the client got has been closed (the inhibitor
// released). Made, used and destroyed on the thread whose context dispatches
// the bus; `inhibitors` and `held` from any thread.
class FakeLogind {
 public:
  struct Inhibitor {
    std::string what, who, why, mode;
  };

  explicit FakeLogind(DBusConnection& bus);
  ~FakeLogind();
  FakeLogind(const FakeLogind&) = delete;
  FakeLogind& operator=(const FakeLogind&) = delete;

  [[nodiscard]] bool ok() const { return owned_; }
  // PrepareForSleep(sleeping) from logind's manager object (or `path`),
  // flushed to the bus.
  bool prepareForSleep(bool sleeping, const char* path = "/org/freedesktop/login1");
  // Every Inhibit call so far, in order.
  [[nodiscard]] std::vector<Inhibitor> inhibitors() const;
  // How many of those inhibitors are still held by a client.
  [[nodiscard]] size_t held() const;

 private:
  DBusConnection& bus_;
  GDBusNodeInfo* node_;
  unsigned registration_ = 0;
  bool owned_ = false;
  mutable Mutex mu_;
  std::vector<Inhibitor> inhibitors_ ZONARA_GUARDED_BY(mu_);
  std::vector<int> readEnds_ ZONARA_GUARDED_BY(mu_);  // one per inhibitor, owned
};

// A stand-in for polkit's authority on a bus: owns "org.freedesktop.PolicyKit1"
// and answers CheckAuthorization with `authorized` and `challenge`, recording
// each question as "KIND pid=PID ACTION flags=FLAGS". Same threading as
// FakeLogind.
class FakePolkitAuthority {
 public:
  explicit FakePolkitAuthority(DBusConnection& bus);
  ~FakePolkitAuthority();
  FakePolkitAuthority(const FakePolkitAuthority&) = delete;
  FakePolkitAuthority& operator=(const FakePolkitAuthority&) = delete;

  bool authorized = false;
  bool challenge = false;
  std::vector<std::string> questions;

 private:
  DBusConnection& bus_;
  GDBusNodeInfo* node_;
  unsigned registration_ = 0;
};

// A stand-in for NetworkManager on a bus (normally a private system bus):
// owns "org.freedesktop.NetworkManager" and serves the manager's
// "ActiveConnections" and, for each connection given, an active-connection
// object with "Id", "Type", "Vpn" and "State". Same threading as FakeLogind.
class FakeNetworkManager {
 public:
  struct ActiveConnection {
    std::string id;
    std::string type;  // "vpn", "wireguard", "802-3-ethernet", ...
    bool vpn = false;
    uint32_t state = 2;  // 2: activated
  };

  FakeNetworkManager(DBusConnection& bus, std::vector<ActiveConnection> connections);
  ~FakeNetworkManager();
  FakeNetworkManager(const FakeNetworkManager&) = delete;
  FakeNetworkManager& operator=(const FakeNetworkManager&) = delete;

  [[nodiscard]] bool ok() const { return owned_; }

 private:
  DBusConnection& bus_;
  GDBusNodeInfo* node_;
  std::vector<ActiveConnection> connections_;
  std::vector<unsigned> registrations_;
  bool owned_ = false;
};

}  // namespace zonara::testing
