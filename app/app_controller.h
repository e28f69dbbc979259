// The helper's central controller: sets up the support folders, the bus
// name "org.quillon.ZonaraHelper" and the observers at start, and turns each
// location trigger into a system time-zone change.
//
// Start-up (`create`): makes "$XDG_DATA_HOME/Zonara" and its "Telluro Cache"
// folder when absent, takes the bus name (failure: "unable to start
// ZonaraHelper server" is logged and no controller is made, leaving an inert
// process), observes the distributed notification "ZonaraShutdown" (ends the
// application) and the local notification "TelluroSensorNotification"
// (`telluroLocationChanged`), and schedules `setupNotificationController` for
// the first run-loop pass and `setupSensor` 0.5 s later.
//
// Applying a zone: the set-time-zone command runs, then the system's zone is
// read again. Only when it became the new zone is the change stored,
// announced (clock notification, "Timezone changed to: ...") and passed to the
// observers. Otherwise the command's exit status and output are logged, the
// user is told once why (for example that polkit asks for a password, and how
// to install the rule that allows it), and the command is not run again for
// that zone until the position or the preferences change or another zone is
// found.
//
// Undo and asking first: after a change the user may undo it (the
// notification's "Undo" action, or the bus method "Undo" that `zonara undo`
// calls); the previous zone is set again and the undone zone is not applied
// again until the network changes (the local notification
// "ZonaraNetworkChanged") or a look-up finds another zone. With the
// preference "AskBeforeChange" on, a zone that would be applied is offered
// instead ("Change time zone to ZONE?", actions "Change" and "Keep"); only
// "Change" applies it, and "Keep" holds the system's zone against that zone
// until the network changes.
//
// Every decision, and every answer of the user, is appended to the history
// (app/decision_history.h); the last position, the zone found there, its
// distance to the nearest border and the last decision are served as bus
// properties for `zonara status`.
//
// Thread safety: main thread only. The time-zone look-ups (up to ten
// requests, 30 s apart) run one after another on a worker thread and their
// outcomes come back to the main thread in order; `CurrentLocation` answers
// at once from the last position and the zone last found. The set-time-zone
// command and the calendar's 1 s wait still run on the main thread.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/background_worker.h"
#include "platform/command_runner.h"
#include "platform/dbus.h"
#include "platform/desktop_notifier.h"
#include "platform/http_fetcher.h"
#include "platform/notification_center.h"
#include "platform/preferences_store.h"
#include "platform/run_loop.h"
#include "platform/time_zone_database.h"
#include "platform/vpn_detector.h"
#include "platform/workspace.h"
#include "platform/zonara_names.h"
#include "app/decision_history.h"
#include "app/recheck_timer.h"
#include "app/zone_decision.h"
#include "sensors/location_source.h"
#include "timezone/geolocation_helper.h"

namespace zonara {

class NotificationController;
class ZonaraApplication;

class AppController {
 public:
  static constexpr const char* kClockNotification = "com.apple.MenuBarClock.ClockNotification";
  static constexpr const char* kCalendarDomain = "com.apple.iCal";
  // Preference: offer a change instead of making it (default false).
  static constexpr const char* kAskBeforeChangeKey = "AskBeforeChange";

  // What the controller works with. Everything is borrowed and must outlive
  // the controller; `location` may be null (no position known yet).
  struct Services {
    ZonaraApplication* application = nullptr;
    RunLoop* runLoop = nullptr;
    NotificationCenter* notificationCenter = nullptr;
    DistributedNotificationCenter* distributedCenter = nullptr;
    BusNameServer* server = nullptr;
    CommandRunner* commandRunner = nullptr;
    Workspace* workspace = nullptr;
    DesktopNotifier* notifier = nullptr;
    TimeZoneDatabase* zones = nullptr;
    HttpFetcher* fetcher = nullptr;
    // The time-zone boundary data; null when none was found (then zones come
    // only from a configured time-zone service).
    const timezone::BoundaryIndex* boundaries = nullptr;
    // The helper's own preferences domain ("org.quillon.ZonaraHelper").
    PreferencesDomain* preferences = nullptr;
    // Folder of other applications' preference domains ("" = the XDG one).
    std::string preferencesDirectory;
    // The XDG data folder that holds "Zonara" ("" = $XDG_DATA_HOME, else
    // ~/.local/share).
    std::string dataHome;
    // The history file ("" = DecisionHistory::defaultPath()).
    std::string historyPath;
    // Image shown with user notifications; may be empty.
    std::string iconPath;
    // The installed polkit rule that lets the user set the zone without a
    // password, named when telling the user how to allow it; may be empty.
    std::string polkitRulePath;
    LocationSource* location = nullptr;
    // Makes the sensor aggregator when `setupSensor` runs; null, or returning
    // null, leaves the helper without one.
    std::function<LocationTrigger*()> sensorAggregator;
    // Tells whether a VPN carries the default route (positions from the IP
    // address are then not used); null: never asked. Called on the worker.
    VpnDetector* vpn = nullptr;
    // Starts a fresh position look-up (the re-check); may be empty.
    std::function<void()> lookAgain;
    // Told after the preferences were read again, so location sensing can
    // take its settings anew; may be empty.
    std::function<void()> preferencesReloaded;
  };

  // The default command that sets the system zone; the zone's name is
  // appended as the last argument.
  static const std::vector<std::string>& defaultSetTimezoneCommand();

  // Starts the controller (see above). nullptr when the bus name cannot be
  // taken.
  [[nodiscard]] static std::unique_ptr<AppController> create(Services services);
  // The process's controller, once main has made one (else null).
  [[nodiscard]] static AppController* appController();
  static void setAppController(AppController* controller);

  ~AppController();
  AppController(const AppController&) = delete;
  AppController& operator=(const AppController&) = delete;

  // Asks the application to end.
  void zonaraHelperShouldShutdown();
  // Makes the notification controller and announces the start to the user.
  void setupNotificationController();
  // Obtains the sensor aggregator and asks it for a first check 3.0 s later;
  // starts the re-check countdown ("RecheckMinutes").
  void setupSensor();
  // "ZonaraPreferencesChanged": reads the preferences again, lets location
  // sensing take its settings anew, restarts the re-check countdown with
  // "RecheckMinutes", forgets a zone that did not take, and decides again on
  // the current position (except for a change of "ZonaraEnabled" alone).
  void preferencesChanged(const std::string& key);

  // Looks up the zone at the current position on the worker; with boundary
  // data the position's accuracy then decides what is done (`decideZone`:
  // near a border with another clock the system's zone may be kept; a
  // position worse than 100 km changes nothing). The outcome is applied on
  // the main thread (`foundTimezone`) and "CurrentLocation" is announced as
  // changed. A position from the IP address is not used while a VPN carries
  // the default route, unless "TrustIPLocationOverVPN" is true (logged
  // "not using the position from the IP address: ..."). Each call restarts
  // the re-check countdown.
  void telluroLocationChanged();
  // Whether a look-up is queued or running (tests).
  [[nodiscard]] bool lookupInProgress() const { return worker_.busy(); }
  // Applies `name` when it differs from the system's zone (or asks first,
  // or holds the system's zone against an undone or declined zone);
  // otherwise only remembers it (without a change notification). nullopt
  // does nothing.
  void foundTimezone(const std::optional<std::string>& name);
  // Sets the system zone with the configured command; when the system's zone
  // became `name`: posts the clock notification, brings the calendar over
  // when its time-zone support is on, stores the name and tells the change
  // observers (see above for a zone that did not take).
  void setDetectedTimezone(const std::string& name);
  // The zone last applied or confirmed (nullopt at start). Logs the read.
  [[nodiscard]] std::optional<std::string> detectedTimezone();
  // "N48.8566, E2.3522 (Europe/Paris)" style description (see the .cpp) of
  // the current position with the zone last found, or "Unknown" without a
  // position. Does not look anything up.
  [[nodiscard]] std::string currentLocation();
  // Quits the running calendar application, if any, and waits 1 s for it.
  // True when one was found.
  bool killiCalIfRunning();

  // Sets the zone that was the system's before the last change again, when
  // that change is still in effect and, given `serial`, is the change
  // `serial` names (`lastChangeSerial`). The answer says what happened, for
  // the user; not ok when there was nothing to undo or the zone could not be
  // set.
  [[nodiscard]] BusNameServer::MethodResult undo(std::optional<uint64_t> serial = std::nullopt);
  // Identifies the last change for `undo` (0 when there is none to undo).
  [[nodiscard]] uint64_t lastChangeSerial() const { return lastChange_ ? lastChange_->serial : 0; }
  // The user's answer to "Change time zone to ZONE?": `change` applies the
  // zone; otherwise the system's zone is held against it until the network
  // changes. An answer to an earlier question than the last one is ignored.
  void answerQuestion(const std::string& zone, bool change);
  // The computer joined a network: an undone or declined zone may be
  // applied again.
  void networkChanged();

  // Called after every `setDetectedTimezone` (not for confirmations).
  using ChangeObserver = std::function<void()>;
  void addDetectedTimezoneObserver(ChangeObserver observer);

  // The set-time-zone command: the preference "SetTimezoneCommand" (an array
  // of strings, program first) or the default.
  [[nodiscard]] std::vector<std::string> setTimezoneCommand();

  // Another zone the computer may be in, with another clock, found near the
  // border when the zone was last applied (named in the change notification);
  // nullopt when none was.
  [[nodiscard]] const std::optional<std::string>& otherPossibleZone() const { return otherPossibleZone_; }

  [[nodiscard]] NotificationController* notificationController() const { return notificationController_.get(); }
  [[nodiscard]] LocationTrigger* sensorAggregator() const { return sensorAggregator_; }

 private:
  explicit AppController(Services services);
  [[nodiscard]] GeolocationHelper geolocationHelper() const;
  void createSupportFolders();
  // What a look-up found (made on the worker).
  struct Lookup {
    ZoneDecisionInput input;
    std::optional<std::string> zone;
    std::optional<ZoneDecision> decision;
    std::optional<double> borderDistanceMetres;
  };
  // What was done about a zone, and why (a history line's last fields).
  struct Outcome {
    const char* action;
    std::string zone;
    std::string reason;
  };
  // The look-up and decision on the worker (see `telluroLocationChanged`);
  // `screenForVpn`: first ask whether a VPN carries the default route.
  void lookUpZone(const ZoneDecisionInput& input, bool screenForVpn);
  void ipPositionIgnored(const ZoneDecisionInput& input, const std::string& vpn);
  void timezoneLookedUp(const Lookup& lookup);
  [[nodiscard]] Outcome actOn(const Lookup& lookup);
  // Acts on the decision for the zone `zone` looked up at the position.
  [[nodiscard]] Outcome decided(const std::string& zone, const ZoneDecision& decision);
  // Applies, asks, holds or confirms a zone found (see `foundTimezone`).
  [[nodiscard]] Outcome settle(const std::string& name, const std::string& why);
  void confirm(const std::string& name);
  [[nodiscard]] bool askBeforeChange() const;
  [[nodiscard]] Outcome ask(const std::string& name, const std::string& why);
  // `setDetectedTimezone`; true when the zone took.
  bool changeZone(const std::string& name);
  // Sets the zone and, when it took, tells the clocks, the calendar and the
  // bus (not the change observers).
  bool applyAndAnnounce(const std::string& name);
  // Runs the set-time-zone command; true when the system's zone is `name`
  // afterwards.
  bool applySystemTimezone(const std::string& name);
  // Appends to the history and makes it the last decision.
  void record(HistoryEntry entry);
  void recordAnswer(const char* action, const std::string& zone, const std::string& reason);
  [[nodiscard]] std::map<std::string, BusNameServer::PropertyGetter> statusProperties();
  void zoneNotApplied(const std::string& name, const CommandResult& result, const std::string& systemZone);
  [[nodiscard]] bool refusedBefore(const std::string& name) const;

  Services services_;
  std::unique_ptr<NotificationController> notificationController_;
  std::optional<std::string> detectedTimezone_;
  LocationTrigger* sensorAggregator_ = nullptr;  // not owned
  std::vector<ChangeObserver> changeObservers_;
  DistributedNotificationCenter::ObserverId shutdownObserver_ = 0;
  NotificationCenter::ObserverId sensorObserver_ = 0;
  DistributedNotificationCenter::ObserverId preferencesObserver_ = 0;
  std::vector<RunLoop::TimerId> timers_;
  // The zone last found by a look-up ("(null)" when none was), for
  // "CurrentLocation".
  std::optional<std::string> locatedZone_;
  std::optional<std::string> otherPossibleZone_;
  // A zone the set-time-zone command did not apply, and the position it was
  // found for: not tried again until one of them changes.
  struct Refusal {
    std::string zone;
    std::optional<double> longitude, latitude;
  };
  std::optional<Refusal> refusal_;
  std::string userToldOfRefusal_;  // the zone the user last heard could not be set
  NotificationCenter::ObserverId networkObserver_ = 0;
  DecisionHistory history_;
  // The last look-up and decision, for `zonara status`.
  std::optional<Lookup> lastLookup_;
  std::optional<HistoryEntry> lastDecision_;
  // The last change made, until it is undone.
  struct Change {
    std::string from, to;
    uint64_t serial = 0;
  };
  std::optional<Change> lastChange_;
  uint64_t changes_ = 0;
  // A zone not applied again: undone (until the network changes or another
  // zone is found) or declined (until the network changes).
  struct Hold {
    std::string zone;
    bool untilOtherZone = false;
    std::string why;
  };
  std::optional<Hold> hold_;
  std::optional<std::string> question_;  // the zone the user is asked about
  std::unique_ptr<RecheckTimer> recheck_;
  // Last: stopped first, while what its jobs deliver to still exists.
  BackgroundWorker worker_;
};

}  // namespace zonara
