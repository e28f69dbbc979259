#include "app/app_controller.h"

#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "app/notification_controller.h"
#include "app/zonara_application.h"
#include "platform/file_system.h"
#include "platform/system_log.h"
#include "platform/xdg.h"
#include "prefs/HelperPreferences.h"
#include "prefs/ZonaraPreferencesController.h"

namespace zonara {
namespace {

using namespace std::chrono_literals;

AppController* g_controller = nullptr;

const char* orNull(const std::optional<std::string>& s) { return s ? s->c_str() : "(null)"; }

bool containsIgnoringCase(const std::string& text, const char* part) {
  std::string lower = text;
  for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return lower.find(part) != std::string::npos;
}

// Why a zone did not take, for the user: polkit's refusal (timedated asks for
// a password the helper cannot give) with the way to allow it, or else what
// the command said.
std::string refusalReason(const CommandResult& result, const std::string& polkitRulePath) {
  const std::string& out = result.output;
  if (containsIgnoringCase(out, "authentication") || containsIgnoringCase(out, "authoriz") ||
      containsIgnoringCase(out, "access denied") || containsIgnoringCase(out, "polkit")) {
    const std::string rule = polkitRulePath.empty() ? "50-zonara-timezone.rules" : polkitRulePath;
    return "the system asks for an administrator password (polkit). To let Zonara set the time zone, install its "
           "rule: sudo install -m 644 " + rule + " /etc/polkit-1/rules.d/";
  }
  std::string firstLine = out.substr(0, out.find('\n'));
  if (result.status == -1) return "the set-time-zone command could not be run" + (firstLine.empty() ? "" : " (" + firstLine + ")");
  return "the set-time-zone command exited with status " + std::to_string(result.status) +
         (firstLine.empty() ? " without changing it" : ": " + firstLine);
}

// "48.85660, 2.35220 (accuracy 25 m, from the positioning server)".
std::string describePosition(const ZoneDecisionInput& input) {
  char text[160];
  std::snprintf(text, sizeof text, "%.5f, %.5f (accuracy %.0f m, from the %s)", input.latitude, input.longitude,
                input.quality.accuracyMetres, positionSourceName(input.quality.source));
  return text;
}

// "850 m", "12.3 km", "100 km or more" (the boundary data's cap); "" when
// unknown.
std::string describeDistance(const std::optional<double>& metres) {
  if (!metres) return "";
  if (*metres >= 100000) return "100 km or more";
  char text[64];
  if (*metres < 1000) {
    std::snprintf(text, sizeof text, "%.0f m", *metres);
  } else {
    std::snprintf(text, sizeof text, "%.1f km", *metres / 1000);
  }
  return text;
}

}  // namespace

const std::vector<std::string>& AppController::defaultSetTimezoneCommand() {
  static const std::vector<std::string> command = {"/usr/bin/timedatectl", "--no-ask-password", "set-timezone"};
  return command;
}

AppController* AppController::appController() { return g_controller; }
void AppController::setAppController(AppController* controller) { g_controller = controller; }

AppController::AppController(Services services)
    : services_(std::move(services)),
      history_(services_.historyPath.empty() ? DecisionHistory::defaultPath() : services_.historyPath),
      recheck_(std::make_unique<RecheckTimer>(*services_.runLoop, [this] {
        if (services_.lookAgain) services_.lookAgain();
      })) {}

AppController::~AppController() {
  for (RunLoop::TimerId id : timers_) services_.runLoop->cancelTimer(id);
  if (preferencesObserver_) services_.distributedCenter->removeObserver(preferencesObserver_);
  if (networkObserver_) services_.notificationCenter->removeObserver(networkObserver_);
  if (sensorObserver_) services_.notificationCenter->removeObserver(sensorObserver_);
  if (shutdownObserver_) services_.distributedCenter->removeObserver(shutdownObserver_);
  if (g_controller == this) g_controller = nullptr;
}

void AppController::createSupportFolders() {
  // The XDG data folder plays the part of a folder every account has; make it
  // (with its parents) when a fresh account lacks it.
  // Errors are left to the folders' later users.
  const std::string base = services_.dataHome.empty() ? xdgDataHome() : services_.dataHome;
  (void)createFolders(base);
  (void)createFolderIfAbsent(base + "/Zonara");
  (void)createFolderIfAbsent(base + "/Zonara/Telluro Cache");
}

std::unique_ptr<AppController> AppController::create(Services services) {
  std::unique_ptr<AppController> controller(new AppController(std::move(services)));
  AppController* self = controller.get();
  self->createSupportFolders();

  // "ZonaraShutdown" is observed before the name is taken: a client that sees
  // the name may post it at once (the bus handles our subscription before our
  // name request, both being sent in order on one connection). A copy that
  // cannot take the name drops the observer again and never reacts.
  // Without a session bus there is no distributed centre: the name request
  // below fails too and the helper stays inert.
  if (self->services_.distributedCenter) {
    self->shutdownObserver_ = self->services_.distributedCenter->addObserver(
        kShutdownNotification, [self](const DistributedNotification&) { self->zonaraHelperShouldShutdown(); });
  }
  std::map<std::string, BusNameServer::PropertyGetter> properties = self->statusProperties();
  properties[kDetectedTimezoneProperty] = [self] { return self->detectedTimezone().value_or(""); };
  properties[kCurrentLocationProperty] = [self] { return self->currentLocation(); };
  const bool registered = self->services_.server->start(properties, {{kUndoMethod, [self] { return self->undo(); }}});
  if (!registered) {
    if (self->shutdownObserver_) self->services_.distributedCenter->removeObserver(self->shutdownObserver_);
    self->shutdownObserver_ = 0;
    SystemLog("unable to start ZonaraHelper server");
    return nullptr;
  }

  if (self->services_.distributedCenter) {
    self->preferencesObserver_ = self->services_.distributedCenter->addObserver(
        kPreferencesChangedNotification,
        [self](const DistributedNotification& notification) { self->preferencesChanged(notification.object); });
  }
  self->sensorObserver_ = self->services_.notificationCenter->addObserver(
      kSensorNotification, [self](const Notification&) { self->telluroLocationChanged(); });
  self->networkObserver_ = self->services_.notificationCenter->addObserver(
      kNetworkChangedNotification, [self](const Notification&) { self->networkChanged(); });
  self->timers_.push_back(self->services_.runLoop->performAfterDelay(0ms, [self] { self->setupNotificationController(); }));
  self->timers_.push_back(self->services_.runLoop->performAfterDelay(500ms, [self] { self->setupSensor(); }));
  return controller;
}

void AppController::zonaraHelperShouldShutdown() {
  if (services_.application) services_.application->terminate();
}

void AppController::setupNotificationController() {
  notificationController_ = std::make_unique<NotificationController>(*this, *services_.notifier, services_.iconPath);
  notificationController_->notifyWithTitle(kApplicationName, "Launched", NotificationController::kLaunched);
}

void AppController::setupSensor() {
  sensorAggregator_ = services_.sensorAggregator ? services_.sensorAggregator() : nullptr;
  if (!sensorAggregator_) return;
  timers_.push_back(services_.runLoop->performAfterDelay(3000ms, [this] { sensorAggregator_->triggerNotification(); }));
  if (services_.preferences) recheck_->setInterval(recheckInterval(*services_.preferences));
}

void AppController::preferencesChanged(const std::string& key) {
  SystemLog("preferences changed (%s): reading them again", key.empty() ? "-" : key.c_str());
  // New preferences (another command, another service) deserve another try
  // of a zone that did not take.
  refusal_.reset();
  if (!services_.preferences) return;
  (void)services_.preferences->synchronize();
  if (services_.preferencesReloaded) services_.preferencesReloaded();
  if (!sensorAggregator_) return;  // the sensors start later, with the new values
  recheck_->setInterval(recheckInterval(*services_.preferences));
  if (key != ZonaraPreferencesController::kZonaraEnabledKey) sensorAggregator_->triggerNotification();
}

GeolocationHelper AppController::geolocationHelper() const {
  GeolocationHelper::Config config;
  if (services_.preferences) config = GeoNamesClient::configFromPreferences(*services_.preferences);
  return GeolocationHelper(*services_.fetcher, *services_.zones, config, services_.boundaries);
}

void AppController::telluroLocationChanged() {
  if (!services_.location) return;
  std::optional<double> longitude = services_.location->currentLongitude();
  std::optional<double> latitude = services_.location->currentLatitude();
  if (!longitude || !latitude) return;
  if (!isUsablePosition(*longitude, *latitude)) return;
  recheck_->lookedUp();
  const PositionQuality quality = services_.location->currentQuality().value_or(PositionQuality{});
  SystemLog("looking up the zone at %s, %s (accuracy %.0f m, from the %s)",
            GeoNamesClient::numberString(*latitude).c_str(), GeoNamesClient::numberString(*longitude).c_str(),
            quality.accuracyMetres, positionSourceName(quality.source));

  ZoneDecisionInput input{*latitude, *longitude, quality, services_.zones->systemTimeZoneName(), Clock::get().wallNow()};
  const bool screenForVpn = quality.source == PositionSource::IPAddress && services_.vpn &&
                            !(services_.preferences && trustIPLocationOverVPN(*services_.preferences));
  lookUpZone(input, screenForVpn);
}

void AppController::lookUpZone(const ZoneDecisionInput& input, bool screenForVpn) {
  // The service may take minutes to answer (ten attempts, 30 s apart): ask on
  // the worker, and decide there too (comparing clocks over a year takes a
  // moment). The helper object is made here, from the preferences as they
  // are now.
  worker_.post([this, helper = geolocationHelper(), input, screenForVpn](const std::stop_token& stop) {
    if (screenForVpn) {
      if (std::optional<std::string> vpn = services_.vpn->activeVpn()) {
        worker_.deliver([this, input, vpn = *vpn] { ipPositionIgnored(input, vpn); });
        return;
      }
    }
    Lookup lookup{input, helper.timezoneForLongitude(input.longitude, input.latitude, stop), {}, {}};
    if (stop.stop_requested()) return;
    if (services_.boundaries) {
      if (lookup.zone) lookup.decision = decideZone(input, *services_.boundaries, *services_.zones);
      std::string error;
      lookup.borderDistanceMetres = services_.boundaries->borderDistance(input.latitude, input.longitude, &error);
    }
    worker_.deliver([this, lookup] { timezoneLookedUp(lookup); });
  });
}

void AppController::ipPositionIgnored(const ZoneDecisionInput& input, const std::string& vpn) {
  SystemLog("not using the position from the IP address: a VPN carries the default route (%s); "
            "set TrustIPLocationOverVPN to use it anyway",
            vpn.c_str());
  record(HistoryEntry{input.now, input.quality, input.latitude, input.longitude, "", {}, HistoryAction::kNoChange,
                      "the position from the IP address is not used: a VPN carries the default route (" + vpn + ")"});
}

void AppController::timezoneLookedUp(const Lookup& lookup) {
  const double longitude = lookup.input.longitude, latitude = lookup.input.latitude;
  SystemLog("foundtimezone for (%s, %s) = %s", GeoNamesClient::numberString(latitude).c_str(),
            GeoNamesClient::numberString(longitude).c_str(), orNull(lookup.zone));
  locatedZone_ = lookup.zone.value_or("(null)");
  lastLookup_ = lookup;
  if (refusal_ && (refusal_->longitude != longitude || refusal_->latitude != latitude)) refusal_.reset();
  const Outcome outcome = actOn(lookup);
  HistoryEntry entry{lookup.input.now, lookup.input.quality, latitude, longitude, outcome.zone, {}, outcome.action,
                     outcome.reason};
  if (lookup.decision) entry.nearbyZones = lookup.decision->nearbyZones;
  record(std::move(entry));
  // The description depends on the position, which has just changed.
  services_.server->propertiesChanged(
      {}, {kCurrentLocationProperty, kLastPositionProperty, kZoneFoundProperty, kBorderDistanceProperty});
}

AppController::Outcome AppController::actOn(const Lookup& lookup) {
  if (!lookup.zone) return {HistoryAction::kNoChange, "", "no zone found at the position"};
  if (hold_ && hold_->untilOtherZone && hold_->zone != *lookup.zone) {
    SystemLog("%s found: the undone change to %s no longer holds", lookup.zone->c_str(), hold_->zone.c_str());
    hold_.reset();
  }
  if (lookup.decision) return decided(*lookup.zone, *lookup.decision);
  otherPossibleZone_.reset();
  return settle(*lookup.zone, "the zone at the position");
}

AppController::Outcome AppController::decided(const std::string& zone, const ZoneDecision& decision) {
  std::string nearby;
  for (const std::string& z : decision.nearbyZones) nearby += (nearby.empty() ? "" : ", ") + z;
  SystemLog("decision: %s %s (%s; zones nearby: %s)", actionName(decision.action),
            decision.zone.empty() ? "-" : decision.zone.c_str(), decision.reason.c_str(),
            nearby.empty() ? "none" : nearby.c_str());
  switch (decision.action) {
    case ZoneDecision::Action::NoChange:
      return {HistoryAction::kNoChange, zone, decision.reason};
    case ZoneDecision::Action::Keep: {
      SystemLog("near a border: keeping %s", decision.zone.c_str());
      otherPossibleZone_.reset();
      Outcome outcome = settle(decision.zone, decision.reason);
      if (outcome.action == HistoryAction::kUnchanged) outcome.action = HistoryAction::kKept;
      outcome.zone = zone;
      return outcome;
    }
    case ZoneDecision::Action::Apply:
      otherPossibleZone_ = decision.otherPossibleZone;
      return settle(zone, decision.reason);
  }
  return {HistoryAction::kNoChange, zone, decision.reason};
}

void AppController::foundTimezone(const std::optional<std::string>& name) {
  if (!name) {
    SystemLog("called foundTimezone: (null)");
    return;
  }
  (void)settle(*name, "the zone at the position");
}

AppController::Outcome AppController::settle(const std::string& name, const std::string& why) {
  SystemLog("called foundTimezone: %s", name.c_str());
  std::optional<std::string> zone = services_.zones->zoneName(name);
  SystemLog("timezone = %s", orNull(zone));
  if (zone && *zone == services_.zones->systemTimeZoneName()) {
    confirm(name);
    return {HistoryAction::kUnchanged, name, why + "; already the system's zone"};
  }
  if (refusedBefore(name)) {
    SystemLog("not setting %s again: the set-time-zone command did not apply it", name.c_str());
    return {HistoryAction::kNotApplied, name, "the set-time-zone command did not apply it before"};
  }
  if (hold_ && hold_->zone == name) {
    SystemLog("not setting %s: %s", name.c_str(), hold_->why.c_str());
    return {HistoryAction::kHeld, name, hold_->why};
  }
  if (askBeforeChange()) return ask(name, why);
  if (!changeZone(name)) return {HistoryAction::kNotApplied, name, "the set-time-zone command did not apply it"};
  return {HistoryAction::kApplied, name, why};
}

void AppController::confirm(const std::string& name) {
  // Already the system's zone: remember it without telling anyone, so the
  // user hears only of real changes.
  SystemLog("just going to set the ivar to %s", name.c_str());
  detectedTimezone_ = name;
  std::optional<std::string> readBack = detectedTimezone();
  SystemLog("reading ivar as %s", orNull(readBack));
}

bool AppController::askBeforeChange() const {
  if (!services_.preferences) return false;
  std::optional<PrefValue> value = services_.preferences->copyValue(kAskBeforeChangeKey);
  return value && value->asBool();
}

AppController::Outcome AppController::ask(const std::string& name, const std::string& why) {
  if (question_ == name) {
    SystemLog("still waiting for the answer about %s", name.c_str());
    return {HistoryAction::kAsked, name, "still waiting for the user's answer; " + why};
  }
  SystemLog("asking before changing the time zone to %s", name.c_str());
  question_ = name;
  if (notificationController_) notificationController_->askToChange(name, otherPossibleZone_);
  return {HistoryAction::kAsked, name, why};
}

void AppController::answerQuestion(const std::string& zone, bool change) {
  if (question_ != zone) {
    SystemLog("an answer about %s came after another question; ignored", zone.c_str());
    return;
  }
  question_.reset();
  if (!change) {
    SystemLog("the user keeps the time zone instead of %s", zone.c_str());
    hold_ = Hold{zone, false, "the user chose to keep the time zone instead (until the network changes)"};
    recordAnswer(HistoryAction::kDeclined, zone, "the user answered Keep");
    return;
  }
  const bool applied = changeZone(zone);
  recordAnswer(applied ? HistoryAction::kApplied : HistoryAction::kNotApplied, zone, "the user answered Change");
}

BusNameServer::MethodResult AppController::undo(std::optional<uint64_t> serial) {
  if (!lastChange_ || (serial && *serial != lastChange_->serial)) {
    SystemLog("undo: there is no change to undo");
    return {false, "there is no time-zone change to undo"};
  }
  const Change change = *lastChange_;
  if (services_.zones->zoneName(change.to) != services_.zones->systemTimeZoneName()) {
    lastChange_.reset();
    return {false, "the time zone is no longer " + change.to + ": nothing to undo"};
  }
  SystemLog("undo: changing the time zone back from %s to %s", change.to.c_str(), change.from.c_str());
  if (!applyAndAnnounce(change.from)) return {false, "could not change the time zone back to " + change.from};
  lastChange_.reset();
  question_.reset();
  hold_ = Hold{change.to, true, "the change to " + change.to + " was undone (until the network changes or another zone is found)"};
  recordAnswer(HistoryAction::kUndone, change.from, "the user undid the change to " + change.to);
  if (notificationController_) notificationController_->timezoneChangedBack(change.from);
  return {true, "Time zone changed back to " + change.from};
}

void AppController::networkChanged() {
  if (!hold_) return;
  SystemLog("network changed: %s may be applied again", hold_->zone.c_str());
  hold_.reset();
}

void AppController::record(HistoryEntry entry) {
  if (int error = history_.append(entry); error != 0) {
    SystemLogAt(LogPriority::Warning, "cannot add to the history %s: %s", history_.path().c_str(),
                std::strerror(error));
  }
  lastDecision_ = std::move(entry);
  services_.server->propertiesChanged({}, {kLastDecisionProperty, kLastDecisionReasonProperty});
}

void AppController::recordAnswer(const char* action, const std::string& zone, const std::string& reason) {
  record(HistoryEntry{Clock::get().wallNow(), std::nullopt, 0, 0, zone, {}, action, reason});
}

std::map<std::string, BusNameServer::PropertyGetter> AppController::statusProperties() {
  return {
      {kLastPositionProperty, [this] { return lastLookup_ ? describePosition(lastLookup_->input) : ""; }},
      {kZoneFoundProperty, [this] { return lastLookup_ ? lastLookup_->zone.value_or("") : ""; }},
      {kBorderDistanceProperty,
       [this] { return lastLookup_ ? describeDistance(lastLookup_->borderDistanceMetres) : ""; }},
      {kLastDecisionProperty,
       [this] { return lastDecision_ ? lastDecision_->action + (lastDecision_->zone.empty() ? "" : " " + lastDecision_->zone) : ""; }},
      {kLastDecisionReasonProperty, [this] { return lastDecision_ ? lastDecision_->reason : ""; }},
  };
}

std::vector<std::string> AppController::setTimezoneCommand() {
  if (services_.preferences) {
    if (auto value = services_.preferences->copyValue("SetTimezoneCommand");
        value && value->type() == PrefValue::Type::Array && !value->asArray().empty()) {
      std::vector<std::string> command;
      for (const PrefValue& item : value->asArray()) {
        if (!item.isString()) {
          command.clear();
          break;
        }
        command.push_back(item.asString());
      }
      if (!command.empty() && !command.front().empty()) return command;
      SystemLogAt(LogPriority::Warning, "SetTimezoneCommand is not a list of strings; using the default");
    }
  }
  return defaultSetTimezoneCommand();
}

void AppController::setDetectedTimezone(const std::string& name) { (void)changeZone(name); }

bool AppController::changeZone(const std::string& name) {
  SystemLog("setDetectedTimezone: %s", name.c_str());
  const std::string previous = services_.zones->systemTimeZoneName();
  if (!applyAndAnnounce(name)) return false;
  if (!previous.empty() && previous != name) lastChange_ = Change{previous, name, ++changes_};
  // Observers may add observers; iterate over a copy.
  std::vector<ChangeObserver> observers = changeObservers_;
  for (const ChangeObserver& observer : observers) observer();
  return true;
}

bool AppController::applyAndAnnounce(const std::string& name) {
  if (!applySystemTimezone(name)) return false;
  services_.distributedCenter->post(DistributedNotification{kClockNotification, "", {}});

  PreferencesDomain calendar(kCalendarDomain, services_.preferencesDirectory);
  std::optional<PrefValue> support = calendar.copyValue("TimeZone support enabled");
  if (support && support->asBool()) {
    const bool wasRunning = killiCalIfRunning();
    calendar.setValue("lastViewsTimeZone", PrefValue::string(name));
    calendar.synchronize();
    if (wasRunning) services_.workspace->launchApplication("iCal");
  }

  detectedTimezone_ = name;
  services_.server->propertiesChanged({{kDetectedTimezoneProperty, name}}, {});
  return true;
}

bool AppController::applySystemTimezone(const std::string& name) {
  std::vector<std::string> command = setTimezoneCommand();
  command.push_back(name);
  const CommandResult result = services_.commandRunner->run(command);
  // The command's word is not enough (a refused or stubbed command may still
  // exit 0): the zone counts as set when the system reads it back.
  const std::string systemZone = services_.zones->systemTimeZoneName();
  const std::optional<std::string> wanted = services_.zones->zoneName(name);
  if (wanted && *wanted == systemZone) {
    refusal_.reset();
    userToldOfRefusal_.clear();
    return true;
  }
  zoneNotApplied(name, result, systemZone);
  return false;
}

void AppController::zoneNotApplied(const std::string& name, const CommandResult& result,
                                   const std::string& systemZone) {
  std::string output = result.output;
  while (!output.empty() && (output.back() == '\n' || output.back() == ' ')) output.pop_back();
  SystemLogAt(LogPriority::Error,
              "the system zone is still %s after the set-time-zone command for %s (exit status %d, output: %s)",
              systemZone.empty() ? "unknown" : systemZone.c_str(), name.c_str(), result.status, output.c_str());
  std::optional<double> longitude, latitude;
  if (services_.location) {
    longitude = services_.location->currentLongitude();
    latitude = services_.location->currentLatitude();
  }
  refusal_ = Refusal{name, longitude, latitude};
  if (userToldOfRefusal_ == name || !notificationController_) return;
  userToldOfRefusal_ = name;
  notificationController_->notifyWithTitle(kApplicationName,
                                           "Could not change the time zone to " + name + ": " +
                                               refusalReason(result, services_.polkitRulePath),
                                           NotificationController::kTimezoneNotChanged);
}

bool AppController::refusedBefore(const std::string& name) const { return refusal_ && refusal_->zone == name; }

std::optional<std::string> AppController::detectedTimezone() {
  SystemLog("requesting detectedTimezone... returning %s", orNull(detectedTimezone_));
  return detectedTimezone_;
}

bool AppController::killiCalIfRunning() {
  std::optional<pid_t> pid;
  for (const RunningApplication& app : services_.workspace->launchedApplications()) {
    if (app.bundleIdentifier == kCalendarDomain) pid = app.processIdentifier;  // the last one wins
  }
  if (!pid) return false;
  services_.workspace->quitApplication(*pid);
  // Give the calendar time to quit before its preferences are rewritten.
  Clock::get().sleepFor(1000ms);
  return true;
}

std::string AppController::currentLocation() {
  if (!services_.location) return "Unknown";
  std::optional<double> longitude = services_.location->currentLongitude();
  std::optional<double> latitude = services_.location->currentLatitude();
  if (!longitude || !latitude) return "Unknown";
  // Positive (eastern) longitudes are labelled "W"; clients of this
  // property rely on that labelling, so it stays.
  const float lat = static_cast<float>(*latitude);
  const float lon = static_cast<float>(*longitude);
  char text[256];
  std::snprintf(text, sizeof text, "%s%3.4f, %s%3.4f (%s)", lat > 0 ? "N" : "S", std::fabs(lat),
                lon > 0 ? "W" : "E", std::fabs(lon), orNull(locatedZone_));
  return text;
}

void AppController::addDetectedTimezoneObserver(ChangeObserver observer) {
  changeObservers_.push_back(std::move(observer));
}

}  // namespace zonara
