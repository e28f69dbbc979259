#include "wps/spi/simulated_clock.h"

namespace WPS {
namespace SPI {

SimulatedClock::SimulatedClock(Time start, bool autoAdvance)
    : startMs_(int64_t{start.seconds} * 1000 + start.milliseconds), nowMs_(startMs_), autoAdvance_(autoAdvance) {}

SimulatedClock::SimulatedClock(std::chrono::sys_time<std::chrono::milliseconds> start, bool autoAdvance)
    : startMs_(start.time_since_epoch().count()), nowMs_(startMs_), autoAdvance_(autoAdvance) {}

Time SimulatedClock::now() {
  StdMutexLock lock(mu_);
  return Time(static_cast<int32_t>(nowMs_ / 1000), static_cast<int32_t>(nowMs_ % 1000));
}

int64_t SimulatedClock::monotonicMilliseconds() {
  StdMutexLock lock(mu_);
  return nowMs_ - startMs_;
}

void SimulatedClock::sleepMilliseconds(int64_t milliseconds) {
  if (milliseconds <= 0) return;
  if (autoAdvance_) {
    {
      StdMutexLock lock(mu_);
      slept_ += milliseconds;
    }
    advance(milliseconds);
    return;
  }
  StdMutexLock lock(mu_);
  slept_ += milliseconds;
  const int64_t deadline = nowMs_ + milliseconds;
  ++sleepers_;
  cv_.notify_all();
  while (nowMs_ < deadline) cv_.wait(mu_);
  --sleepers_;
}

void SimulatedClock::advance(int64_t milliseconds) {
  if (milliseconds <= 0) return;
  {
    StdMutexLock lock(mu_);
    nowMs_ += milliseconds;
    cv_.notify_all();
  }
  Clock::notifyMoved();
}

std::chrono::milliseconds SimulatedClock::elapsed() {
  StdMutexLock lock(mu_);
  return std::chrono::milliseconds(nowMs_ - startMs_);
}

int SimulatedClock::sleepers() {
  StdMutexLock lock(mu_);
  return sleepers_;
}

int64_t SimulatedClock::totalSlept() {
  StdMutexLock lock(mu_);
  return slept_;
}

}  // namespace SPI
}  // namespace WPS
