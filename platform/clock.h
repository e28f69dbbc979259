// The helper's view of the one clock it shares with the positioning library:
// a monotonic time for timers and delays, the wall-clock date for calendar
// work, and sleeping. The clock itself is the library's, read through its
// public WPS_clock_ functions, so a sped-up clock (ZONARA_TIME_SCALE, see
// WPS_set_time_scale) or a test's simulated clock (the library's
// SimulatedClock, installed with its ScopedClock) keeps the time of both.
// Every delay the helper takes (timers, pauses between attempts, waits for
// another program) goes through here, so tests run minutes of the helper's
// life in no real time.
//
// Thread safety: every function may be called from any thread.
#pragma once

#include <chrono>
#include <optional>

namespace zonara {

class Clock {
 public:
  using Duration = std::chrono::milliseconds;
  // Monotonic time since an arbitrary origin.
  using TimePoint = std::chrono::time_point<std::chrono::steady_clock, Duration>;
  using WallTime = std::chrono::time_point<std::chrono::system_clock, Duration>;

  [[nodiscard]] TimePoint now() const;
  // The calendar date and time (UTC based, as the system clock).
  [[nodiscard]] WallTime wallNow() const;
  // Blocks the calling thread for `d` of the clock's time (no-op for d <= 0).
  // On a simulated clock that does not block, the sleep moves time forward.
  void sleepFor(Duration d) const;
  // True for a simulated clock, whose time moves only when told to: run loops
  // then wait for a wake-up (every move wakes them) instead of a real time-out.
  [[nodiscard]] bool isVirtual() const;
  // How much real time passes while `d` of the clock's time passes: what a
  // run loop waits for in poll() before its next timer is due (never 0 for a
  // positive `d`, so a loop never spins).
  [[nodiscard]] Duration realDuration(Duration d) const;

  // The clock.
  [[nodiscard]] static const Clock& get();
  // The speed-up factor in `text` (a decimal number >= 1, as
  // WPS_set_time_scale takes), or nullopt for anything else (empty, not a
  // number, below 1, not finite).
  [[nodiscard]] static std::optional<double> parseFactor(const char* text);
};

}  // namespace zonara
