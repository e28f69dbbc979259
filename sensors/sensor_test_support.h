// Doubles shared by the location-sensing tests.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "platform/clock.h"
#include "platform/http_fetcher.h"
#include "platform/mutex.h"
#include "platform/reachability.h"
#include "platform/run_loop.h"
#include "sensors/telluro_helper.h"
#include "wps/spi/simulated_clock.h"

namespace zonara::testing {

// The positioning library as a script: `locate` answers location requests
// (default: WPS_ERROR); every call is recorded. The script and the records
// are behind a lock (the sensor calls in on its own threads): tests set and
// read them through the accessors.
class FakeLocationLibrary final : public LocationLibrary {
 public:
  using Script = std::function<WPS_ReturnCode(double*, double*)>;

  WPS_ReturnCode registerUser(const WPS_SimpleAuthentication& registrar,
                              const WPS_SimpleAuthentication& user) override {
    MutexLock lock(mu_);
    registrations_.push_back(std::string(registrar.username) + "@" + registrar.realm + " " + user.username + "@" +
                             user.realm);
    return registerResult_;
  }
  WPS_ReturnCode tiling(const std::string& folder, unsigned long perSession, unsigned long total) override {
    MutexLock lock(mu_);
    tilings_.push_back(folder + " " + std::to_string(perSession) + " " + std::to_string(total));
    return tilingResult_;
  }
  WPS_ReturnCode location(const WPS_SimpleAuthentication& authentication, double* longitude, double* latitude,
                          PositionQuality* quality) override {
    Script script;
    {
      MutexLock lock(mu_);
      users_.push_back(std::string(authentication.username) + "@" + authentication.realm);
      lookupTimes_.push_back(Clock::get().now());
      script = locate_;
      *quality = answerQuality_;
    }
    return script ? script(longitude, latitude) : WPS_ERROR;
  }
  WPS_ReturnCode ipLocation(double* longitude, double* latitude) override {
    Script script;
    {
      MutexLock lock(mu_);
      ++ipLookups_;
      script = locateIp_;
    }
    return script ? script(longitude, latitude) : WPS_ERROR;
  }
  bool usesAccounts() override {
    MutexLock lock(mu_);
    return accounts_;
  }

  // The script. `locate` answers location, `locateIp` answers ipLocation
  // (each outside the lock; unset: WPS_ERROR).
  void setLocate(Script script) {
    MutexLock lock(mu_);
    locate_ = std::move(script);
  }
  void setLocateIp(Script script) {
    MutexLock lock(mu_);
    locateIp_ = std::move(script);
  }
  void setRegisterResult(WPS_ReturnCode result) {
    MutexLock lock(mu_);
    registerResult_ = result;
  }
  void setTilingResult(WPS_ReturnCode result) {
    MutexLock lock(mu_);
    tilingResult_ = result;
  }
  // The quality of every `locate` answer.
  void setAnswerQuality(PositionQuality quality) {
    MutexLock lock(mu_);
    answerQuality_ = quality;
  }
  // false: a server without accounts and tiles.
  void setAccounts(bool accounts) {
    MutexLock lock(mu_);
    accounts_ = accounts;
  }

  // The records (copies): "registrar@realm user@realm" per registration,
  // "folder perSession total" per tiling, "user@realm" and the time per
  // location lookup, the number of ipLocation calls.
  [[nodiscard]] std::vector<std::string> registrations() const {
    MutexLock lock(mu_);
    return registrations_;
  }
  [[nodiscard]] std::vector<std::string> tilings() const {
    MutexLock lock(mu_);
    return tilings_;
  }
  [[nodiscard]] std::vector<std::string> users() const {
    MutexLock lock(mu_);
    return users_;
  }
  [[nodiscard]] std::vector<Clock::TimePoint> lookupTimes() const {
    MutexLock lock(mu_);
    return lookupTimes_;
  }
  [[nodiscard]] size_t lookupCount() const {
    MutexLock lock(mu_);
    return users_.size();
  }
  [[nodiscard]] int ipLookups() const {
    MutexLock lock(mu_);
    return ipLookups_;
  }
  // Forgets the lookups recorded so far (users, their times, ipLocation calls).
  void clearLookups() {
    MutexLock lock(mu_);
    users_.clear();
    lookupTimes_.clear();
    ipLookups_ = 0;
  }

 private:
  mutable Mutex mu_;
  WPS_ReturnCode registerResult_ ZONARA_GUARDED_BY(mu_) = WPS_OK;
  WPS_ReturnCode tilingResult_ ZONARA_GUARDED_BY(mu_) = WPS_OK;
  Script locate_ ZONARA_GUARDED_BY(mu_);
  Script locateIp_ ZONARA_GUARDED_BY(mu_);
  PositionQuality answerQuality_ ZONARA_GUARDED_BY(mu_){30, PositionSource::PositioningServer};
  bool accounts_ ZONARA_GUARDED_BY(mu_) = true;
  int ipLookups_ ZONARA_GUARDED_BY(mu_) = 0;
  std::vector<std::string> registrations_ ZONARA_GUARDED_BY(mu_);
  std::vector<std::string> tilings_ ZONARA_GUARDED_BY(mu_);
  std::vector<std::string> users_ ZONARA_GUARDED_BY(mu_);
  std::vector<Clock::TimePoint> lookupTimes_ ZONARA_GUARDED_BY(mu_);
};

// A gate that lookups wait at until a test opens it.
class Gate {
 public:
  void wait() {
    MutexLock lock(mu_);
    while (!open_) cv_.wait(mu_);
  }
  void open() {
    MutexLock lock(mu_);
    open_ = true;
    cv_.notifyAll();
  }

 private:
  Mutex mu_;
  CondVar cv_;
  bool open_ ZONARA_GUARDED_BY(mu_) = false;
};

// Ends the test program with `message` unless dismissed (destroyed) within
// `limit` of real time: for steps that a deadlock would block for good, so
// that the test fails at once and says why instead of hanging.
class Watchdog {
 public:
  Watchdog(std::chrono::milliseconds limit, std::string message)
      : thread_([this, limit, message = std::move(message)] {
          {
            MutexLock lock(mu_);
            if (cv_.waitFor(mu_, limit, [this]() ZONARA_REQUIRES(mu_) { return dismissed_; })) return;
          }
          std::fprintf(stderr, "%s\n", message.c_str());
          std::fflush(stderr);
          std::abort();
        }) {}
  ~Watchdog() {
    {
      MutexLock lock(mu_);
      dismissed_ = true;
    }
    cv_.notifyAll();
    thread_.join();
  }
  Watchdog(const Watchdog&) = delete;
  Watchdog& operator=(const Watchdog&) = delete;

 private:
  Mutex mu_;
  CondVar cv_;
  bool dismissed_ ZONARA_GUARDED_BY(mu_) = false;
  std::thread thread_;  // last: starts once the rest exists
};

// Reachability as a test sets it; `fails` makes the check itself fail.
class FakeReachability final : public Reachability {
 public:
  bool checkReachabilityByName(const std::string& host, uint32_t* out) override {
    ++checks;
    {
      MutexLock lock(mu_);
      lastHost_ = host;
    }
    if (fails) return false;
    *out = flags;
    return true;
  }
  // The host of the last check ("" before any).
  [[nodiscard]] std::string lastHost() const {
    MutexLock lock(mu_);
    return lastHost_;
  }
  std::atomic<bool> fails{false};
  std::atomic<uint32_t> flags{kReachable};
  std::atomic<int> checks{0};

 private:
  mutable Mutex mu_;
  std::string lastHost_ ZONARA_GUARDED_BY(mu_);
};

// Pages as a test scripts them; records each request's URL, time-out and
// time (behind a lock: the sensor fetches on its own threads).
class FakeFetcher final : public HttpFetcher {
 public:
  using Script = std::function<std::optional<std::string>(size_t)>;

  std::optional<std::string> fetch(const std::string& url, std::chrono::milliseconds timeout) override {
    Script answer;
    size_t attempt = 0;
    {
      MutexLock lock(mu_);
      urls_.push_back(url);
      timeouts_.push_back(timeout);
      times_.push_back(Clock::get().now());
      if (!script_) return body_;
      answer = script_;
      attempt = urls_.size();
    }
    return answer(attempt);
  }

  // The page every request gets (nullopt: the fetch fails).
  void setBody(std::optional<std::string> body) {
    MutexLock lock(mu_);
    body_ = std::move(body);
  }
  // When set, answers instead of the body (outside the lock), given the
  // request's number counted from 1.
  void setScript(Script script) {
    MutexLock lock(mu_);
    script_ = std::move(script);
  }

  // The records (copies), one entry per request.
  [[nodiscard]] std::vector<std::string> urls() const {
    MutexLock lock(mu_);
    return urls_;
  }
  [[nodiscard]] std::vector<std::chrono::milliseconds> timeouts() const {
    MutexLock lock(mu_);
    return timeouts_;
  }
  [[nodiscard]] std::vector<Clock::TimePoint> times() const {
    MutexLock lock(mu_);
    return times_;
  }
  [[nodiscard]] size_t fetchCount() const {
    MutexLock lock(mu_);
    return urls_.size();
  }
  // Forgets the requests recorded so far.
  void clearRequests() {
    MutexLock lock(mu_);
    urls_.clear();
    timeouts_.clear();
    times_.clear();
  }

 private:
  mutable Mutex mu_;
  std::optional<std::string> body_ ZONARA_GUARDED_BY(mu_);
  Script script_ ZONARA_GUARDED_BY(mu_);
  std::vector<std::string> urls_ ZONARA_GUARDED_BY(mu_);
  std::vector<std::chrono::milliseconds> timeouts_ ZONARA_GUARDED_BY(mu_);
  std::vector<Clock::TimePoint> times_ ZONARA_GUARDED_BY(mu_);
};

// Moves virtual time forward in steps of `step`, letting the main run loop
// fire what became due after each step.
inline void advanceMainLoop(WPS::SPI::SimulatedClock& clock, std::chrono::milliseconds total,
                            std::chrono::milliseconds step = std::chrono::milliseconds(100)) {
  for (auto done = std::chrono::milliseconds(0); done < total; done += step) {
    clock.advance(step);
    while (RunLoop::main().runOnce()) {
    }
  }
}

// Runs the main loop (without moving virtual time) until `done` or 5 s.
inline bool pumpUntil(const std::function<bool()>& done) {
  return RunLoop::main().runUntil(done, std::chrono::seconds(5));
}

}  // namespace zonara::testing
