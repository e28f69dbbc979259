#include "sensors/telluro_sensor.h"

#include <cmath>
#include <cstdlib>
#include <functional>

#include "platform/run_loop.h"
#include "platform/system_log.h"

namespace zonara {
namespace {

using namespace std::chrono_literals;

std::string numberText(std::optional<double> value) {
  if (!value) return "(null)";
  char text[64];
  std::snprintf(text, sizeof text, "%.15g", *value);
  return text;
}

}  // namespace

TelluroSensor::TelluroSensor(TelluroHelper& helper, Reachability& reachability, HttpFetcher& fetcher,
                             LocationTrigger& trigger, Config config)
    : helper_(helper), reachability_(reachability), fetcher_(fetcher), trigger_(trigger), config_(std::move(config)) {
  ready_ = true;
  refreshLocation();
}

TelluroSensor::~TelluroSensor() {
  shuttingDown_ = true;
  ready_ = true;  // ends the connectivity wait; the give-up thread sees shuttingDown_
  // Lookups still running may hand work to the main thread and wait for it:
  // keep the main loop turning while they end.
  for (;;) {
    bool busy = helper_.lookupsRunning();
    {
      MutexLock lock(mu_);
      for (const Worker& w : workers_) busy = busy || !*w.done;
    }
    if (!busy) break;
    if (RunLoop::isMainThread()) RunLoop::main().runOnce();
    std::this_thread::sleep_for(1ms);
  }
  reapThreads(true);
  helper_.waitForLookups();
  MutexLock lock(mu_);
  for (RunLoop::TimerId id : pendingChecks_) RunLoop::main().cancelTimer(id);
}

TelluroHelper::Callback TelluroSensor::callbackTo(
    void (TelluroSensor::*method)(const std::optional<TelluroLocation>&)) {
  return [this, method](const std::optional<TelluroLocation>& location) {
    if (!shuttingDown_) (this->*method)(location);
  };
}

std::optional<double> TelluroSensor::currentLongitude() const {
  MutexLock lock(mu_);
  return currentLongitude_;
}

std::optional<double> TelluroSensor::currentLatitude() const {
  MutexLock lock(mu_);
  return currentLatitude_;
}

void TelluroSensor::setPosition(std::optional<double> longitude, std::optional<double> latitude) {
  MutexLock lock(mu_);
  currentLongitude_ = longitude;
  currentLatitude_ = latitude;
  currentQuality_.reset();
}

void TelluroSensor::setPosition(const TelluroLocation& location) {
  MutexLock lock(mu_);
  currentLongitude_ = location.longitude;
  currentLatitude_ = location.latitude;
  currentQuality_ = location.quality;
}

std::optional<PositionQuality> TelluroSensor::currentQuality() const {
  MutexLock lock(mu_);
  return currentQuality_;
}

void TelluroSensor::performLocationCheck() {
  // The previous check must end first: look again every 0.1 s, from a timer
  // of the main run loop so that the main thread goes on meanwhile.
  if (!ready_) {
    MutexLock lock(mu_);
    const std::shared_ptr<RunLoop::TimerId> id = std::make_shared<RunLoop::TimerId>(0);
    *id = RunLoop::main().addTimer(100ms, false, [this, id] {
      {
        MutexLock lock(mu_);
        std::erase(pendingChecks_, *id);
      }
      performLocationCheck();
    });
    pendingChecks_.push_back(*id);
    return;
  }
  ready_ = false;
  helper_.reportCurrentLocationQuickly(callbackTo(&TelluroSensor::finishQuickLocationCheck));
}

void TelluroSensor::finishQuickLocationCheck(const std::optional<TelluroLocation>& location) {
  if (location) {
    setPosition(*location);
    trigger_.triggerNotification();
    ready_ = true;
    return;
  }
  // Wait for the service to become reachable, giving up after 10 s.
  // The give-up time counts from now, however late its thread starts.
  const Clock::TimePoint giveUpAt = Clock::get().now() + 10000ms;
  MutexLock lock(mu_);
  reapThreads(false);
  std::function<void()> bodies[] = {[this] { waitForConnectivity(); }, [this, giveUpAt] { createTimer(giveUpAt); }};
  for (std::function<void()>& body : bodies) {
    auto done = std::make_shared<std::atomic<bool>>(false);
    workers_.push_back(Worker{std::thread([body = std::move(body), done] {
                                body();
                                *done = true;
                              }),
                              done});
  }
}

// Joins finished workers (all of them with `all`). Callers hold mu_, but for
// the destructor, when no other thread adds workers any more.
void TelluroSensor::reapThreads(bool all) {
  for (auto it = workers_.begin(); it != workers_.end();) {
    if (all || *it->done) {
      if (it->thread.joinable()) it->thread.join();
      it = workers_.erase(it);
    } else {
      ++it;
    }
  }
}

bool TelluroSensor::isConnected(uint32_t flags) {
  return flags != 0 && (flags & (Reachability::kTransientConnection | Reachability::kConnectionRequired |
                                 Reachability::kInterventionRequired)) == 0;
}

void TelluroSensor::waitForConnectivity() {
  while (!ready_) {
    uint32_t flags = 0;
    if (!reachability_.checkReachabilityByName(config().reachabilityHost, &flags)) {
      Clock::get().sleepFor(500ms);
      continue;
    }
    if (isConnected(flags)) {
      Clock::get().sleepFor(200ms);
      if (!shuttingDown_) fetchLocation();
      ready_ = true;
    }
    // Not connected: ask again at once until connectivity comes or the
    // give-up timer ends the wait.
  }
}

void TelluroSensor::createTimer(Clock::TimePoint giveUpAt) {
  RunLoop& loop = RunLoop::current();
  RunLoop::TimerId timer = 0;
  RunLoop::TimerId watch = 0;
  timer = loop.addTimer(giveUpAt - Clock::get().now(), false, [this, &timer] {
    // timeoutOccured: give up the wait without a lookup.
    timer = 0;
    ready_ = true;
  });
  watch = loop.addTimer(200ms, true, [this, &loop, &timer, &watch] {
    // readyWatch: once the check has ended, both timers go.
    if (!ready_) return;
    loop.cancelTimer(watch);
    if (timer) loop.cancelTimer(timer);
    timer = 0;
  });
  (void)loop.runUntil([&] { return loop.timerCount() == 0 || shuttingDown_; }, std::chrono::hours(24));
  loop.cancelTimer(watch);
  if (timer) loop.cancelTimer(timer);
}

void TelluroSensor::fetchLocation() {
  // Started on the connectivity-wait thread, whose run loop never runs: the
  // 7.0 s time-out does not fire and the lookup alone delivers.
  helper_.reportCurrentLocation(callbackTo(&TelluroSensor::finishFetch));
}

void TelluroSensor::finishFetch(const std::optional<TelluroLocation>& location) {
  RunLoop::performOnMainThread([this, location] { triggerSensor(location); }, true);
}

void TelluroSensor::triggerSensor(const std::optional<TelluroLocation>& location) {
  if (location) {
    setPosition(*location);
    SystemLog("setting current longitude to %s, latitude to %s (from the %s, accuracy %.0f m)",
              numberText(location->longitude).c_str(), numberText(location->latitude).c_str(),
              positionSourceName(location->quality.source), location->quality.accuracyMetres);
    trigger_.triggerNotification();
    return;
  }
  setPosition(std::nullopt, std::nullopt);
  startIPLocationCheck();
}

void TelluroSensor::refreshLocation() {
  // Only primes the resolver; the answer does not matter.
  uint32_t flags = 0;
  (void)reachability_.checkReachabilityByName(config().reachabilityHost, &flags);
  helper_.reportCurrentLocation(callbackTo(&TelluroSensor::finishRefresh));
}

void TelluroSensor::finishRefresh(const std::optional<TelluroLocation>& location) {
  if (location) {
    setPosition(*location);
    return;
  }
  startIPLocationCheck();
}

void TelluroSensor::startIPLocationCheck() {
  // The page may take minutes (ten attempts, 30 s apart): on the worker, with
  // the outcome handed to the main thread. The position it gives triggers
  // the aggregator even when the silent refresh asked for it: by the time the
  // page answers, the start-up's first check has usually gone by without a
  // position, and the position would otherwise lie unused until the network
  // changes. Within the quiet period the two triggers make one notification.
  worker_.post([this](const std::stop_token& stop) {
    std::optional<TelluroLocation> location = performIPLocationCheck(stop);
    if (!location || shuttingDown_) return;
    worker_.deliver([this, location] {
      if (!shuttingDown_) triggerSensor(location);
    });
  });
}

std::optional<TelluroLocation> TelluroSensor::performIPLocationCheck(const std::stop_token& stop) {
  SystemLog("performing ip location");
  std::optional<TelluroLocation> location;
  const std::string ipLocationURL = config().ipLocationURL;
  if (!ipLocationURL.empty()) {
    std::optional<std::string> body;
    std::string base = ipLocationURL;
    while (!base.empty() && base.back() == '/') base.pop_back();
    const std::string url = base + kIPLocationPath;
    for (int attempt = 0; attempt < 10 && !body && !stop.stop_requested(); ++attempt) {
      body = fetcher_.fetch(url, 10000ms);
      if (!body && !BackgroundWorker::pause(30000ms, stop)) break;
    }
    if (body) location = scrapeIPLocationPage(*body);
  } else {
    // Without a page the positioning server is asked once; it keeps its own
    // back-off when it refuses.
    location = helper_.ipLocation();
  }
  return location;
}

std::optional<TelluroLocation> TelluroSensor::scrapeIPLocationPage(const std::string& page) {
  size_t at = page.find("Latitude/Longitude");
  if (at == std::string::npos) return std::nullopt;
  at = page.find("class=output", at);
  if (at == std::string::npos) return std::nullopt;
  at = page.find('>', at);
  if (at == std::string::npos) return std::nullopt;
  const char* start = page.c_str() + at + 1;
  char* end = nullptr;
  const double latitude = std::strtod(start, &end);
  if (end == start) return std::nullopt;
  const char* next = end;
  while (*next == ' ' || *next == '\t' || *next == '\n' || *next == '\r') ++next;
  if (*next == '/') ++next;
  const double longitude = std::strtod(next, &end);
  if (end == next) return std::nullopt;
  // strtod reads "nan", "inf" and any magnitude: none of them is a place.
  if (!std::isfinite(latitude) || !std::isfinite(longitude) || std::fabs(latitude) > 90 ||
      std::fabs(longitude) > 180) {
    SystemLogAt(LogPriority::Warning, "IP-location page gives no place on Earth: %g / %g", latitude, longitude);
    return std::nullopt;
  }
  return TelluroLocation{longitude, latitude, {kUnstatedIPAccuracyMetres, PositionSource::IPAddress}};
}

TelluroStatus TelluroSensor::telluroStatus() const {
  MutexLock lock(mu_);
  return TelluroStatus{currentLongitude_, currentLatitude_};
}

bool TelluroSensor::statusIsEqualToStatus(const TelluroStatus& other) const {
  const TelluroStatus mine = telluroStatus();
  if (!other.currentLongitude && !mine.currentLongitude) return true;
  if (!other.currentLongitude || !mine.currentLongitude) return false;
  const float distance = TelluroHelper::calculateDistanceFrom(
      static_cast<float>(*mine.currentLongitude), static_cast<float>(mine.currentLatitude.value_or(NAN)),
      static_cast<float>(*other.currentLongitude), static_cast<float>(other.currentLatitude.value_or(NAN)));
  return distance < 0.01f;  // NaN compares unequal
}

TelluroSensor::Config TelluroSensor::config() const {
  MutexLock lock(mu_);
  return config_;
}

void TelluroSensor::setConfig(Config config) {
  MutexLock lock(mu_);
  config_ = std::move(config);
}

void TelluroSensor::willSleep() {
  MutexLock lock(mu_);
  sleepDate_ = Clock::get().wallNow();
}

void TelluroSensor::didWake() {
  std::optional<Clock::WallTime> slept;
  {
    MutexLock lock(mu_);
    slept = sleepDate_;
    sleepDate_.reset();
  }
  if (!slept) return;
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(Clock::get().wallNow() - *slept).count();
  if (seconds / 60 > 2) {
    SystemLog("clearing Telluro currentLongitutde/currentLatitude because it's been more than 2 minutes since sleep occured");
    setPosition(std::nullopt, std::nullopt);
    // The computer may have travelled meanwhile: look where it is now.
    performLocationCheck();
  }
}

}  // namespace zonara
