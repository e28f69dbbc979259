// The helper's source of time: a monotonic clock for timers and delays, the
// wall-clock date for calendar work, and sleeping. Every delay the helper
// takes (timers, pauses between attempts, waits for another program) goes
// through the installed clock, so tests can substitute `VirtualClock` and run
// minutes of the helper's life in no real time.
//
// Thread safety: every function may be called from any thread. A clock
// installed with `Clock::set` is borrowed and must outlive every use.
#pragma once

#include <chrono>
#include <cstdint>
#include <mutex>
#include <optional>

namespace zonara {

class Clock {
 public:
  using Duration = std::chrono::milliseconds;
  // Monotonic time since an arbitrary origin.
  using TimePoint = std::chrono::time_point<std::chrono::steady_clock, Duration>;
  using WallTime = std::chrono::time_point<std::chrono::system_clock, Duration>;

  virtual ~Clock() = default;

  [[nodiscard]] virtual TimePoint now() const = 0;
  // The calendar date and time (UTC based, as the system clock).
  [[nodiscard]] virtual WallTime wallNow() const = 0;
  // Blocks the calling thread for `d` of this clock's time (no-op for d <= 0).
  virtual void sleepFor(Duration d) = 0;
  // True for clocks whose time moves only when told to; run loops then wait
  // for a wake-up instead of a real time-out.
  [[nodiscard]] virtual bool isVirtual() const { return false; }
  // How much real time passes while `d` of this clock's time passes: what a
  // run loop waits for in poll() before its next timer is due. Clocks that
  // keep real time return `d`; a sped-up clock returns less (never 0 for a
  // positive `d`, so a loop never spins).
  [[nodiscard]] virtual Duration realDuration(Duration d) const { return d; }

  // The installed clock: the real one unless a test installed another.
  [[nodiscard]] static Clock& get();
  // Installs `clock` (borrowed); nullptr restores the real clock.
  static void set(Clock* clock);
  [[nodiscard]] static Clock& real();
};

// Steady clock, system clock and nanosleep.
class RealClock final : public Clock {
 public:
  [[nodiscard]] TimePoint now() const override;
  [[nodiscard]] WallTime wallNow() const override;
  void sleepFor(Duration d) override;
};

// Real time sped up by a constant factor (>= 1), counted from construction:
// `now()` and `wallNow()` advance `factor` times as fast as the real clocks,
// and `sleepFor(d)` blocks for d / factor. The helper installs one when its
// environment asks for shorter delays (tests and the demonstration), so the
// same code runs with every timer and pause shortened alike.
class ScaledClock final : public Clock {
 public:
  explicit ScaledClock(double factor);
  [[nodiscard]] TimePoint now() const override;
  [[nodiscard]] WallTime wallNow() const override;
  void sleepFor(Duration d) override;
  [[nodiscard]] Duration realDuration(Duration d) const override;
  [[nodiscard]] double factor() const { return factor_; }

  // The factor in `text` (a decimal number >= 1), or nullopt for anything
  // else (empty, not a number, below 1, not finite).
  [[nodiscard]] static std::optional<double> parseFactor(const char* text);

 private:
  [[nodiscard]] std::chrono::microseconds scaledSinceStart() const;
  const double factor_;
  const std::chrono::steady_clock::time_point realStart_;
  const TimePoint start_;
  const WallTime wallStart_;
};

// Time that moves only through `advance`, `advanceTo` and `sleepFor` (which
// advances instead of blocking). Every change wakes all run loops so their
// timers due at the new time fire. Starts at monotonic zero and at the wall
// time given (default: the real wall time at construction).
class VirtualClock final : public Clock {
 public:
  VirtualClock();
  explicit VirtualClock(WallTime start);

  [[nodiscard]] TimePoint now() const override;
  [[nodiscard]] WallTime wallNow() const override;
  void sleepFor(Duration d) override { advance(d); }
  [[nodiscard]] bool isVirtual() const override { return true; }

  void advance(Duration d);
  // Moves to `t` when it lies in the future; otherwise nothing happens.
  void advanceTo(TimePoint t);
  // Total virtual time elapsed since construction.
  [[nodiscard]] Duration elapsed() const;

 private:
  mutable std::mutex mu_;
  Duration elapsed_{0};
  WallTime wallStart_;
};

// Installs a clock for the lifetime of the guard (tests).
class ScopedClock {
 public:
  explicit ScopedClock(Clock& clock) { Clock::set(&clock); }
  ~ScopedClock() { Clock::set(nullptr); }
  ScopedClock(const ScopedClock&) = delete;
  ScopedClock& operator=(const ScopedClock&) = delete;
};

}  // namespace zonara
