#include "platform/clock.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <ctime>

#include "platform/run_loop.h"

namespace zonara {
namespace {
std::atomic<Clock*> g_installed{nullptr};
}  // namespace

Clock& Clock::get() {
  Clock* c = g_installed.load(std::memory_order_acquire);
  return c ? *c : real();
}

void Clock::set(Clock* clock) {
  g_installed.store(clock, std::memory_order_release);
  RunLoop::wakeAll();
}

Clock& Clock::real() {
  static RealClock clock;
  return clock;
}

Clock::TimePoint RealClock::now() const {
  return std::chrono::time_point_cast<Duration>(std::chrono::steady_clock::now());
}

Clock::WallTime RealClock::wallNow() const {
  return std::chrono::time_point_cast<Duration>(std::chrono::system_clock::now());
}

void RealClock::sleepFor(Duration d) {
  if (d.count() <= 0) return;
  timespec ts{static_cast<time_t>(d.count() / 1000), static_cast<long>(d.count() % 1000) * 1000000L};
  while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
  }
}

ScaledClock::ScaledClock(double factor)
    : factor_(factor >= 1.0 && std::isfinite(factor) ? factor : 1.0),
      realStart_(std::chrono::steady_clock::now()),
      start_(Clock::real().now()),
      wallStart_(Clock::real().wallNow()) {}

std::chrono::microseconds ScaledClock::scaledSinceStart() const {
  const auto real = std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - realStart_);
  return std::chrono::microseconds(static_cast<int64_t>(static_cast<double>(real.count()) * factor_));
}

Clock::TimePoint ScaledClock::now() const {
  return start_ + std::chrono::duration_cast<Duration>(scaledSinceStart());
}

Clock::WallTime ScaledClock::wallNow() const {
  return wallStart_ + std::chrono::duration_cast<Duration>(scaledSinceStart());
}

void ScaledClock::sleepFor(Duration d) {
  if (d.count() <= 0) return;
  Clock::real().sleepFor(realDuration(d));
}

Clock::Duration ScaledClock::realDuration(Duration d) const {
  if (d.count() <= 0) return Duration(0);
  const double real = std::ceil(static_cast<double>(d.count()) / factor_);
  return Duration(std::max<int64_t>(1, static_cast<int64_t>(real)));
}

std::optional<double> ScaledClock::parseFactor(const char* text) {
  if (!text || !*text) return std::nullopt;
  char* end = nullptr;
  errno = 0;
  const double value = std::strtod(text, &end);
  if (errno != 0 || *end != '\0' || !std::isfinite(value) || value < 1.0) return std::nullopt;
  return value;
}

VirtualClock::VirtualClock() : VirtualClock(Clock::real().wallNow()) {}

VirtualClock::VirtualClock(WallTime start) : wallStart_(start) {}

Clock::TimePoint VirtualClock::now() const {
  std::lock_guard<std::mutex> lock(mu_);
  return TimePoint(elapsed_);
}

Clock::WallTime VirtualClock::wallNow() const {
  std::lock_guard<std::mutex> lock(mu_);
  return wallStart_ + elapsed_;
}

void VirtualClock::advance(Duration d) {
  if (d.count() <= 0) return;
  {
    std::lock_guard<std::mutex> lock(mu_);
    elapsed_ += d;
  }
  RunLoop::wakeAll();
}

void VirtualClock::advanceTo(TimePoint t) {
  {
    std::lock_guard<std::mutex> lock(mu_);
    if (t.time_since_epoch() <= elapsed_) return;
    elapsed_ = t.time_since_epoch();
  }
  RunLoop::wakeAll();
}

Clock::Duration VirtualClock::elapsed() const {
  std::lock_guard<std::mutex> lock(mu_);
  return elapsed_;
}

}  // namespace zonara
