// The simulated clock of every test, the library's and the helper's (which
// read it through the public WPS_clock_ functions): time moves only when the
// test (or a sleeping thread, in auto-advance mode) moves it, and every move
// is told to the clock's listener (the helper's run loops wake and fire the
// timers then due).
//
// Thread safety: any thread. Install with `ScopedClock` for the length of a test.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>

#include "wps/spi/concurrent.h"
#include "wps/spi/time.h"

namespace WPS {
namespace SPI {

class SimulatedClock final : public Clock {
 public:
  // Starts at wall time `start` and monotonic time 0. With `autoAdvance`, a
  // sleep moves time forward by its own length and returns at once; without,
  // a sleeping thread blocks until another thread advances time past its
  // deadline.
  explicit SimulatedClock(Time start = Time(1700000000, 0), bool autoAdvance = true);
  // Starts at the wall time `start` (whole milliseconds since the epoch).
  explicit SimulatedClock(std::chrono::sys_time<std::chrono::milliseconds> start, bool autoAdvance = true);

  Time now() override;
  int64_t monotonicMilliseconds() override;
  void sleepMilliseconds(int64_t milliseconds) override;
  [[nodiscard]] bool isSimulated() const override { return true; }

  // Moves time forward (nothing for 0 or less) and wakes sleepers whose
  // deadline has passed.
  void advance(int64_t milliseconds);
  void advance(std::chrono::milliseconds duration) { advance(int64_t{duration.count()}); }
  // Time moved since construction.
  [[nodiscard]] std::chrono::milliseconds elapsed();
  // Number of threads currently blocked in sleepMilliseconds.
  [[nodiscard]] int sleepers();
  // Total milliseconds slept through this clock.
  [[nodiscard]] int64_t totalSlept();

 private:
  StdMutex mu_;
  std::condition_variable_any cv_;
  const int64_t startMs_;
  int64_t nowMs_ WPS_GUARDED_BY(mu_);
  const bool autoAdvance_;
  int sleepers_ WPS_GUARDED_BY(mu_) = 0;
  int64_t slept_ WPS_GUARDED_BY(mu_) = 0;
};

// Installs a clock for the life of the scope and restores the one installed
// before (the real clock, or an enclosing scope's).
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
