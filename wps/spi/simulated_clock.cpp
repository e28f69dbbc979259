#include "wps/spi/simulated_clock.h"

namespace WPS {
namespace SPI {

SimulatedClock::SimulatedClock(Time start, bool autoAdvance)
    : nowMs_(int64_t{start.seconds} * 1000 + start.milliseconds), autoAdvance_(autoAdvance) {}

Time SimulatedClock::now() {
  std::lock_guard<std::mutex> lock(mu_);
  return Time(static_cast<int32_t>(nowMs_ / 1000), static_cast<int32_t>(nowMs_ % 1000));
}

void SimulatedClock::sleepMilliseconds(int64_t milliseconds) {
  std::unique_lock<std::mutex> lock(mu_);
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
  cv_.wait(lock, [&] { return nowMs_ >= deadline; });
  --sleepers_;
}

void SimulatedClock::advance(int64_t milliseconds) {
  std::lock_guard<std::mutex> lock(mu_);
  nowMs_ += milliseconds;
  cv_.notify_all();
}

int SimulatedClock::sleepers() {
  std::lock_guard<std::mutex> lock(mu_);
  return sleepers_;
}

int64_t SimulatedClock::totalSlept() {
  std::lock_guard<std::mutex> lock(mu_);
  return slept_;
}

}  // namespace SPI
}  // namespace WPS
