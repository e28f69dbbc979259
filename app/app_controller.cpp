#include "app/app_controller.h"

#include <cctype>
#include <cmath>
#include <cstdio>

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

}  // namespace

const std::vector<std::string>& AppController::defaultSetTimezoneCommand() {
  static const std::vector<std::string> command = {"/usr/bin/timedatectl", "--no-ask-password", "set-timezone"};
  return command;
}

AppController* AppController::appController() { return g_controller; }
void AppController::setAppController(AppController* controller) { g_controller = controller; }

AppController::AppController(Services services)
    : services_(std::move(services)), recheck_(std::make_unique<RecheckTimer>(*services_.runLoop, [this] {
        if (services_.lookAgain) services_.lookAgain();
      })) {}

AppController::~AppController() {
  for (RunLoop::TimerId id : timers_) services_.runLoop->cancelTimer(id);
  if (preferencesObserver_) services_.distributedCenter->removeObserver(preferencesObserver_);
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
  const bool registered = self->services_.server->start({
      {"DetectedTimezone", [self] { return self->detectedTimezone().value_or(""); }},
      {"CurrentLocation", [self] { return self->currentLocation(); }},
  });
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
        worker_.deliver([this, vpn = *vpn] { ipPositionIgnored(vpn); });
        return;
      }
    }
    std::optional<std::string> zone = helper.timezoneForLongitude(input.longitude, input.latitude, stop);
    if (stop.stop_requested()) return;
    std::optional<ZoneDecision> decision;
    if (zone && services_.boundaries) decision = decideZone(input, *services_.boundaries, *services_.zones);
    worker_.deliver([this, input, zone, decision] { timezoneLookedUp(input.longitude, input.latitude, zone, decision); });
  });
}

void AppController::ipPositionIgnored(const std::string& vpn) {
  SystemLog("not using the position from the IP address: a VPN carries the default route (%s); "
            "set TrustIPLocationOverVPN to use it anyway",
            vpn.c_str());
}

void AppController::timezoneLookedUp(double longitude, double latitude, const std::optional<std::string>& zone,
                                     const std::optional<ZoneDecision>& decision) {
  SystemLog("foundtimezone for (%s, %s) = %s", GeoNamesClient::numberString(latitude).c_str(),
            GeoNamesClient::numberString(longitude).c_str(), orNull(zone));
  locatedZone_ = zone.value_or("(null)");
  if (refusal_ && (refusal_->longitude != longitude || refusal_->latitude != latitude)) refusal_.reset();
  if (zone && decision) {
    decided(*zone, *decision);
  } else if (zone) {
    otherPossibleZone_.reset();
    foundTimezone(zone);
  }
  // The description depends on the position, which has just changed.
  services_.server->propertiesChanged({}, {"CurrentLocation"});
}

void AppController::decided(const std::string& zone, const ZoneDecision& decision) {
  std::string nearby;
  for (const std::string& z : decision.nearbyZones) nearby += (nearby.empty() ? "" : ", ") + z;
  SystemLog("decision: %s %s (%s; zones nearby: %s)", actionName(decision.action),
            decision.zone.empty() ? "-" : decision.zone.c_str(), decision.reason.c_str(),
            nearby.empty() ? "none" : nearby.c_str());
  switch (decision.action) {
    case ZoneDecision::Action::NoChange:
      return;
    case ZoneDecision::Action::Keep:
      SystemLog("near a border: keeping %s", decision.zone.c_str());
      otherPossibleZone_.reset();
      foundTimezone(decision.zone);
      return;
    case ZoneDecision::Action::Apply:
      otherPossibleZone_ = decision.otherPossibleZone;
      foundTimezone(zone);
      return;
  }
}

void AppController::foundTimezone(const std::optional<std::string>& name) {
  SystemLog("called foundTimezone: %s", orNull(name));
  if (!name) return;
  std::optional<std::string> zone = services_.zones->zoneName(*name);
  SystemLog("timezone = %s", orNull(zone));
  if (!zone || *zone != services_.zones->systemTimeZoneName()) {
    if (refusedBefore(*name)) {
      SystemLog("not setting %s again: the set-time-zone command did not apply it", name->c_str());
      return;
    }
    setDetectedTimezone(*name);
    return;
  }
  // Already the system's zone: remember it without telling anyone, so the
  // user hears only of real changes.
  SystemLog("just going to set the ivar to %s", name->c_str());
  detectedTimezone_ = *name;
  std::optional<std::string> readBack = detectedTimezone();
  SystemLog("reading ivar as %s", orNull(readBack));
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

void AppController::setDetectedTimezone(const std::string& name) {
  SystemLog("setDetectedTimezone: %s", name.c_str());
  if (!applySystemTimezone(name)) return;

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
  services_.server->propertiesChanged({{"DetectedTimezone", name}}, {});
  // Observers may add observers; iterate over a copy.
  std::vector<ChangeObserver> observers = changeObservers_;
  for (const ChangeObserver& observer : observers) observer();
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
