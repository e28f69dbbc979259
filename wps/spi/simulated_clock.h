// A clock for tests: time moves only when the test (or a sleeping thread, in
// auto-advance mode) moves it.
//
// Thread safety: any thread. Install with `ScopedClock` for the length of a test.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>

#include "wps/spi/concurrent.h"
#include "wps/spi/time.h"

namespace WPS {
namespace SPI {

class SimulatedClock final : public Clock {
 public:
  // Starts at `start`. With `autoAdvance`, a sleep moves time forward by its
  // own length and returns at once (single-threaded code under test); without,
  // a sleeping thread blocks until another thread advances time past its
  // deadline.
  explicit SimulatedClock(Time start = Time(1700000000, 0), bool autoAdvance = true);

  Time now() override;
  void sleepMilliseconds(int64_t milliseconds) override;

  // Moves time forward and wakes sleepers whose deadline has passed.
  void advance(int64_t milliseconds);
  // Number of threads currently blocked in sleepMilliseconds.
  [[nodiscard]] int sleepers();
  // Total milliseconds slept through this clock.
  [[nodiscard]] int64_t totalSlept();

 private:
  StdMutex mu_;
  std::condition_variable_any cv_;
  int64_t nowMs_ WPS_GUARDED_BY(mu_);
  const bool autoAdvance_;
  int sleepers_ WPS_GUARDED_BY(mu_) = 0;
  int64_t slept_ WPS_GUARDED_BY(mu_) = 0;
};

// Installs a clock for the life of the scope and restores the previous one.
class ScopedClock {
 public:
  explicit ScopedClock(Clock& clock) : previous_(&Clock::get()) { Clock::set(&clock); }
  ~ScopedClock() { Clock::set(previous_ == &Clock::real() ? nullptr : previous_); }
  ScopedClock(const ScopedClock&) = delete;
  ScopedClock& operator=(const ScopedClock&) = delete;

 private:
  Clock* previous_;
};

}  // namespace SPI
}  // namespace WPS
