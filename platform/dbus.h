// The helper's presence on the D-Bus session bus: a connection, the
// distributed notification centre and the well-known-name server.
//
// Distributed notifications travel as one broadcast signal,
//   interface "org.quillon.Zonara.DistributedNotificationCenter",
//   path "/org/quillon/Zonara/DistributedNotificationCenter",
//   signal Notification(s name, s object, a{sv} userInfo),
// and observers match on the name (the first argument). User-info values are
// sent as strings.
//
// The server owns a well-known name (requested without queueing, so a name
// held by another process is a failure) and exports read-only string
// properties on the object "/" under the interface of the same name, with
// org.freedesktop.DBus.Properties.PropertiesChanged for changes, and methods
// without arguments that answer one string (a refusal is the error
// "<name>.Failed" with the text as its message).
//
// Thread safety: the objects here belong to the thread that made them
// (normally the main thread); signal and property callbacks run on that
// thread's run loop.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

typedef struct _GDBusConnection GDBusConnection;

namespace zonara {

// A private connection to a message bus.
class DBusConnection {
 public:
  ~DBusConnection();
  DBusConnection(const DBusConnection&) = delete;
  DBusConnection& operator=(const DBusConnection&) = delete;

  // Connects to the session bus named by the environment
  // (DBUS_SESSION_BUS_ADDRESS). Returns nullptr and fills `error` on failure.
  [[nodiscard]] static std::unique_ptr<DBusConnection> openSession(std::string* error);
  // Connects to the bus at `address`.
  [[nodiscard]] static std::unique_ptr<DBusConnection> openAddress(const std::string& address,
                                                                   std::string* error);

  [[nodiscard]] GDBusConnection* get() const { return connection_; }
  [[nodiscard]] std::string uniqueName() const;

  // Whether a client owns the well-known `name` (the bus's NameHasOwner);
  // false also when the bus does not answer within 5 s. Blocks.
  [[nodiscard]] bool nameHasOwner(const std::string& name) const;
  // A string property of the object "/" served under the well-known
  // `busName`, read through the interface of the same name (as
  // DBusNameServer exports it). nullopt, with the bus's reason in `*why`
  // when given, when there is no answer within `timeout` or the value is not
  // a string. Never starts a service. Blocks.
  [[nodiscard]] std::optional<std::string> stringProperty(const std::string& busName, const std::string& property,
                                                          std::chrono::milliseconds timeout,
                                                          std::string* why = nullptr) const;
  // Calls `method` (no arguments, one string answered) on the object "/"
  // served under the well-known `busName`, through the interface of the same
  // name. The answer, or nullopt with the reason in `*why` when given (a
  // refusal's own text, without the error's name). Never starts a service.
  // Blocks up to `timeout`.
  [[nodiscard]] std::optional<std::string> callStringMethod(const std::string& busName, const std::string& method,
                                                            std::chrono::milliseconds timeout,
                                                            std::string* why = nullptr) const;

 private:
  explicit DBusConnection(GDBusConnection* connection) : connection_(connection) {}
  GDBusConnection* connection_;  // owned reference
};

struct DistributedNotification {
  std::string name;
  std::string object;
  std::map<std::string, std::string> userInfo;
};

// Notifications between processes of the user's session.
class DistributedNotificationCenter {
 public:
  using ObserverId = uint64_t;
  using Observer = std::function<void(const DistributedNotification&)>;

  virtual ~DistributedNotificationCenter() = default;
  // Broadcasts a notification; failures are logged and otherwise ignored.
  virtual void post(const DistributedNotification& notification) = 0;
  // Calls `observer` on the calling thread's run loop for every notification
  // named `name`, from any process (this one included). Returns 0 on failure.
  virtual ObserverId addObserver(const std::string& name, Observer observer) = 0;
  virtual void removeObserver(ObserverId id) = 0;
};

class DBusDistributedNotificationCenter final : public DistributedNotificationCenter {
 public:
  static constexpr const char* kInterface = "org.quillon.Zonara.DistributedNotificationCenter";
  static constexpr const char* kPath = "/org/quillon/Zonara/DistributedNotificationCenter";
  static constexpr const char* kSignal = "Notification";

  // `bus` is borrowed and must outlive this object.
  explicit DBusDistributedNotificationCenter(DBusConnection& bus) : bus_(bus) {}
  ~DBusDistributedNotificationCenter() override;

  void post(const DistributedNotification& notification) override;
  ObserverId addObserver(const std::string& name, Observer observer) override;
  void removeObserver(ObserverId id) override;

 private:
  DBusConnection& bus_;
  // Subscription ids; GDBus owns each observer and frees it once the
  // subscription is gone and no delivery is pending.
  std::set<ObserverId> subscriptions_;
};

// A well-known bus name with an object of read-only string properties and
// methods without arguments.
class BusNameServer {
 public:
  using PropertyGetter = std::function<std::string()>;
  // What a method answers: its text, and whether it did what was asked
  // (false: the caller gets an error whose message is the text).
  struct MethodResult {
    bool ok = true;
    std::string text;
  };
  using MethodHandler = std::function<MethodResult()>;

  virtual ~BusNameServer() = default;
  // Takes the name and exports the properties (name -> getter, called on the
  // owning thread whenever a client reads) and the methods (name -> handler,
  // called on the owning thread for each call). Returns false when the name
  // is owned by someone else or the bus fails; nothing is exported then.
  [[nodiscard]] virtual bool start(const std::map<std::string, PropertyGetter>& properties,
                                   const std::map<std::string, MethodHandler>& methods) = 0;
  [[nodiscard]] bool start(const std::map<std::string, PropertyGetter>& properties) { return start(properties, {}); }
  // Announces new values (`changed`) and properties whose value must be read
  // again (`invalidated`). Does nothing before a successful `start`.
  virtual void propertiesChanged(const std::map<std::string, std::string>& changed,
                                 const std::vector<std::string>& invalidated) = 0;
};

class DBusNameServer final : public BusNameServer {
 public:
  // `bus` is borrowed. `name` is both the well-known name and the interface
  // name of the object at "/".
  DBusNameServer(DBusConnection& bus, std::string name);
  ~DBusNameServer() override;

  using BusNameServer::start;
  [[nodiscard]] bool start(const std::map<std::string, PropertyGetter>& properties,
                           const std::map<std::string, MethodHandler>& methods) override;
  void propertiesChanged(const std::map<std::string, std::string>& changed,
                         const std::vector<std::string>& invalidated) override;

 private:
  struct Exported;
  DBusConnection& bus_;
  const std::string name_;
  std::unique_ptr<Exported> exported_;
};

}  // namespace zonara
