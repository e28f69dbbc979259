#include "wps/spi/simulated_clock.h"

namespace WPS {
namespace SPI {

SimulatedClock::SimulatedClock(Time start, bool autoAdvance)
    : nowMs_(int64_t{start.seconds} * 1000 + start.milliseconds), autoAdvance_(autoAdvance) {}

Time SimulatedClock::now() {
  StdMutexLock lock(mu_);
  return Time(static_cast<int32_t>(nowMs_ / 1000), static_cast<int32_t>(nowMs_ % 1000));
}

void SimulatedClock::sleepMilliseconds(int64_t milliseconds) {
  StdMutexLock lock(mu_);
  if (milliseconds <= 0) return;
  slept_ += milliseconds;
  if (autoAdvance_) {
    nowMs_ += milliseconds;
    cv_.notify_all();
    return;
  }
  const int64_t deadline = nowMs_ + milliseconds;
  ++sleepers_;
  cv_.notify_all();
  while (nowMs_ < deadline) cv_.wait(mu_);
  --sleepers_;
}

void SimulatedClock::advance(int64_t milliseconds) {
  StdMutexLock lock(mu_);
  nowMs_ += milliseconds;
  cv_.notify_all();
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
