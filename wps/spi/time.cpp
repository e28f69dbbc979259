#include "wps/spi/time.h"

#include <sys/time.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cerrno>
#include <cmath>

#include "wps/spi/concurrent.h"

namespace WPS {
namespace SPI {
namespace {

int64_t wallMilliseconds() {
  struct timeval tv;
  gettimeofday(&tv, nullptr);
  return int64_t{tv.tv_sec} * 1000 + tv.tv_usec / 1000;
}

Time fromMilliseconds(int64_t ms) { return Time(static_cast<int32_t>(ms / 1000), static_cast<int32_t>(ms % 1000)); }

class RealClock final : public Clock {
 public:
  Time now() override { return fromMilliseconds(wallMilliseconds()); }

  int64_t monotonicMilliseconds() override {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return int64_t{ts.tv_sec} * 1000 + ts.tv_nsec / 1000000;
  }

  void sleepMilliseconds(int64_t milliseconds) override {
    if (milliseconds <= 0) return;
    struct timespec ts;
    ts.tv_sec = static_cast<time_t>(milliseconds / 1000);
    ts.tv_nsec = static_cast<long>((milliseconds % 1000) * 1000000);
    while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
    }
  }
};

std::atomic<Clock*> g_clock{nullptr};

struct Listener {
  StdMutex mu;
  Clock::MovedListener function WPS_GUARDED_BY(mu) = nullptr;
  void* context WPS_GUARDED_BY(mu) = nullptr;
};

Listener& listener() {
  static Listener* instance = new Listener;  // never destroyed: clocks may move during exit
  return *instance;
}

}  // namespace

Clock& Clock::real() {
  static RealClock clock;
  return clock;
}

Clock& Clock::get() {
  Clock* c = g_clock.load(std::memory_order_acquire);
  return c ? *c : real();
}

void Clock::set(Clock* clock) {
  g_clock.store(clock, std::memory_order_release);
  notifyMoved();
}

void Clock::setMovedListener(MovedListener function, void* context) {
  Listener& l = listener();
  StdMutexLock lock(l.mu);
  l.function = function;
  l.context = context;
}

void Clock::notifyMoved() {
  Listener& l = listener();
  MovedListener function = nullptr;
  void* context = nullptr;
  {
    StdMutexLock lock(l.mu);
    function = l.function;
    context = l.context;
  }
  if (function != nullptr) function(context);
}

ScaledClock::ScaledClock(double factor)
    : factor_(factor >= 1.0 && std::isfinite(factor) ? factor : 1.0),
      realStart_(std::chrono::steady_clock::now()),
      monotonicStart_(Clock::real().monotonicMilliseconds()),
      wallStart_(wallMilliseconds()) {}

int64_t ScaledClock::scaledSinceStart() const {
  // Counted in microseconds, so the scaled time moves in steps finer than a
  // millisecond of its own.
  const auto real = std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - realStart_);
  return static_cast<int64_t>(static_cast<double>(real.count()) * factor_) / 1000;
}

Time ScaledClock::now() { return fromMilliseconds(wallStart_ + scaledSinceStart()); }

int64_t ScaledClock::monotonicMilliseconds() { return monotonicStart_ + scaledSinceStart(); }

void ScaledClock::sleepMilliseconds(int64_t milliseconds) {
  if (milliseconds > 0) Clock::real().sleepMilliseconds(realMilliseconds(milliseconds));
}

int64_t ScaledClock::realMilliseconds(int64_t milliseconds) const {
  if (milliseconds <= 0) return 0;
  return std::max<int64_t>(1, static_cast<int64_t>(std::ceil(static_cast<double>(milliseconds) / factor_)));
}

Time Time::now() { return Clock::get().now(); }

std::string Time::strftime(const char* format, const Time& time) {
  time_t t = time.seconds;
  struct tm tm;
  if (localtime_r(&t, &tm) == nullptr) return {};
  char buffer[256];
  size_t n = ::strftime(buffer, sizeof buffer, format, &tm);
  return std::string(buffer, n);
}

}  // namespace SPI
}  // namespace WPS
