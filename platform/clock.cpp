#include "platform/clock.h"

#include <atomic>
#include <cerrno>
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
