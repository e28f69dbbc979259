// Doubles shared by the location-sensing tests.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
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
// (default: WPS_ERROR); every call is recorded.
class FakeLocationLibrary final : public LocationLibrary {
 public:
  WPS_ReturnCode registerUser(const WPS_SimpleAuthentication& registrar,
                              const WPS_SimpleAuthentication& user) override {
    std::lock_guard<std::mutex> lock(mu);
    registrations.push_back(std::string(registrar.username) + "@" + registrar.realm + " " + user.username + "@" +
                            user.realm);
    return registerResult;
  }
  WPS_ReturnCode tiling(const std::string& folder, unsigned long perSession, unsigned long total) override {
    std::lock_guard<std::mutex> lock(mu);
    tilings.push_back(folder + " " + std::to_string(perSession) + " " + std::to_string(total));
    return tilingResult;
  }
  WPS_ReturnCode location(const WPS_SimpleAuthentication& authentication, double* longitude, double* latitude,
                          PositionQuality* quality) override {
    std::function<WPS_ReturnCode(double*, double*)> script;
    {
      std::lock_guard<std::mutex> lock(mu);
      users.push_back(std::string(authentication.username) + "@" + authentication.realm);
      lookupTimes.push_back(Clock::get().now());
      script = locate;
      *quality = answerQuality;
    }
    return script ? script(longitude, latitude) : WPS_ERROR;
  }
  WPS_ReturnCode ipLocation(double* longitude, double* latitude) override {
    std::function<WPS_ReturnCode(double*, double*)> script;
    {
      std::lock_guard<std::mutex> lock(mu);
      ++ipLookups;
      script = locateIp;
    }
    return script ? script(longitude, latitude) : WPS_ERROR;
  }
  bool usesAccounts() override { return accounts; }
  [[nodiscard]] size_t lookupCount() {
    std::lock_guard<std::mutex> lock(mu);
    return users.size();
  }

  std::mutex mu;
  WPS_ReturnCode registerResult = WPS_OK;
  WPS_ReturnCode tilingResult = WPS_OK;
  std::function<WPS_ReturnCode(double*, double*)> locate;
  std::function<WPS_ReturnCode(double*, double*)> locateIp;  // answers ipLocation (default: WPS_ERROR)
  PositionQuality answerQuality{30, PositionSource::PositioningServer};  // of every `locate` answer
  bool accounts = true;  // false: a server without accounts and tiles
  int ipLookups = 0;
  std::vector<std::string> registrations;
  std::vector<std::string> tilings;
  std::vector<std::string> users;
  std::vector<Clock::TimePoint> lookupTimes;
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
    lastHost = host;
    if (fails) return false;
    *out = flags;
    return true;
  }
  std::atomic<bool> fails{false};
  std::atomic<uint32_t> flags{kReachable};
  std::atomic<int> checks{0};
  std::string lastHost;
};

// Pages as a test scripts them; records each request's URL and time-out.
class FakeFetcher final : public HttpFetcher {
 public:
  std::optional<std::string> fetch(const std::string& url, std::chrono::milliseconds timeout) override {
    std::function<std::optional<std::string>(size_t)> answer;
    size_t attempt = 0;
    {
      std::lock_guard<std::mutex> lock(mu);
      urls.push_back(url);
      timeouts.push_back(timeout);
      times.push_back(Clock::get().now());
      if (!script) return body;
      answer = script;
      attempt = urls.size();
    }
    return answer(attempt);
  }
  [[nodiscard]] size_t fetchCount() {
    std::lock_guard<std::mutex> lock(mu);
    return urls.size();
  }
  std::mutex mu;
  std::optional<std::string> body;
  // When set, answers instead of `body` (outside the lock), given the
  // request's number counted from 1.
  std::function<std::optional<std::string>(size_t)> script;
  std::vector<std::string> urls;
  std::vector<std::chrono::milliseconds> timeouts;
  std::vector<Clock::TimePoint> times;
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
