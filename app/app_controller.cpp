#include "app/app_controller.h"

#include <cmath>
#include <cstdio>

#include "app/notification_controller.h"
#include "app/zonara_application.h"
#include "platform/file_system.h"
#include "platform/system_log.h"
#include "platform/xdg.h"

namespace zonara {
namespace {

using namespace std::chrono_literals;

AppController* g_controller = nullptr;

const char* orNull(const std::optional<std::string>& s) { return s ? s->c_str() : "(null)"; }

}  // namespace

const std::vector<std::string>& AppController::defaultSetTimezoneCommand() {
  static const std::vector<std::string> command = {"/usr/bin/timedatectl", "--no-ask-password", "set-timezone"};
  return command;
}

AppController* AppController::appController() { return g_controller; }
void AppController::setAppController(AppController* controller) { g_controller = controller; }

AppController::AppController(Services services) : services_(std::move(services)) {}

AppController::~AppController() {
  for (RunLoop::TimerId id : timers_) services_.runLoop->cancelTimer(id);
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

  std::optional<std::string> zone = geolocationHelper().timezoneForLongitude(*longitude, *latitude);
  SystemLog("foundtimezone for (%s, %s) = %s", GeoNamesClient::numberString(*latitude).c_str(),
            GeoNamesClient::numberString(*longitude).c_str(), orNull(zone));
  if (zone) foundTimezone(zone);
  // The description depends on the position, which has just changed; clients
  // read it again when they want it (it costs a look-up).
  services_.server->propertiesChanged({}, {"CurrentLocation"});
}

void AppController::foundTimezone(const std::optional<std::string>& name) {
  SystemLog("called foundTimezone: %s", orNull(name));
  if (!name) return;
  std::optional<std::string> zone = services_.zones->zoneName(*name);
  SystemLog("timezone = %s", orNull(zone));
  if (!zone || *zone != services_.zones->systemTimeZoneName()) {
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

  // The command's outcome is not examined: a failure shows in the system log
  // of the tool itself, and the rest goes ahead as if it had worked.
  std::vector<std::string> command = setTimezoneCommand();
  command.push_back(name);
  (void)services_.commandRunner->run(command);

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
  std::optional<std::string> zone = geolocationHelper().timezoneForLongitude(*longitude, *latitude);
  // Positive (eastern) longitudes are labelled "W"; clients of this
  // property rely on that labelling, so it stays.
  const float lat = static_cast<float>(*latitude);
  const float lon = static_cast<float>(*longitude);
  char text[256];
  std::snprintf(text, sizeof text, "%s%3.4f, %s%3.4f (%s)", lat > 0 ? "N" : "S", std::fabs(lat),
                lon > 0 ? "W" : "E", std::fabs(lon), orNull(zone));
  return text;
}

void AppController::addDetectedTimezoneObserver(ChangeObserver observer) {
  changeObservers_.push_back(std::move(observer));
}

}  // namespace zonara
