// Wall-clock time for the positioning library, and the clock it reads.
//
// Thread safety: `Time` and `Timer` are plain values. Every `Clock` function
// may be called from any thread; a clock installed with `set()` must outlive
// every use (tests install one for the duration of a test).
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace WPS {
namespace SPI {

// A moment as whole seconds and milliseconds since the Unix epoch. A seconds
// value of 0 means "unset" to the protocol and cache code.
struct Time {
  int32_t seconds = 0;
  int32_t milliseconds = 0;

  Time() = default;
  Time(int32_t s, int32_t ms) : seconds(s), milliseconds(ms) {}

  // The current time of the installed clock (millisecond resolution).
  [[nodiscard]] static Time now();

  // Formats `time` (local time zone) with strftime(3). An empty string is
  // returned when the result does not fit 256 bytes.
  [[nodiscard]] static std::string strftime(const char* format, const Time& time);

  [[nodiscard]] bool isSet() const { return seconds != 0; }

  // Milliseconds from `earlier` to this time: Δseconds × 1000 + Δmilliseconds.
  [[nodiscard]] int64_t millisecondsSince(const Time& earlier) const {
    return (int64_t{seconds} - earlier.seconds) * 1000 + (int64_t{milliseconds} - earlier.milliseconds);
  }

  friend bool operator==(const Time& a, const Time& b) {
    return a.seconds == b.seconds && a.milliseconds == b.milliseconds;
  }
};

// Milliseconds from b to a.
[[nodiscard]] inline int64_t operator-(const Time& a, const Time& b) { return a.millisecondsSince(b); }

// Measures elapsed time. `tick()` reads the clock and returns the milliseconds
// since the previous tick (or construction).
class Timer {
 public:
  Timer() : last_(Time::now()) {}
  int64_t tick() {
    Time t = Time::now();
    int64_t elapsed = t - last_;
    last_ = t;
    return elapsed;
  }
  // Milliseconds since the last tick, without resetting.
  [[nodiscard]] int64_t elapsed() const { return Time::now() - last_; }

 private:
  Time last_;
};

// The source of time and sleep for the library, and through the public
// WPS_clock_ functions for the program that embeds it: one clock for both. The
// default reads gettimeofday(2) and CLOCK_MONOTONIC and sleeps with
// nanosleep(2); `ScaledClock` runs real time faster; tests install a
// `SimulatedClock` (simulated_clock.h) with `ScopedClock`.
class Clock {
 public:
  virtual ~Clock() = default;
  // The wall time.
  [[nodiscard]] virtual Time now() = 0;
  // Milliseconds since an arbitrary origin, never going back (timers and
  // delays count on this one).
  [[nodiscard]] virtual int64_t monotonicMilliseconds() = 0;
  // Blocks the calling thread for `milliseconds` of this clock's time
  // (nothing for 0 or less).
  virtual void sleepMilliseconds(int64_t milliseconds) = 0;
  // True for clocks whose time moves only when told to: a program's timers
  // then wait to be told of a move (see setMovedListener) instead of waiting
  // out a real time-out.
  [[nodiscard]] virtual bool isSimulated() const { return false; }
  // How many real milliseconds pass while `milliseconds` of this clock's time
  // pass: what a timer waits in real time. Never 0 for a positive argument.
  [[nodiscard]] virtual int64_t realMilliseconds(int64_t milliseconds) const { return milliseconds; }

  // The installed clock (the real one unless another was installed).
  [[nodiscard]] static Clock& get();
  // Installs `clock` (borrowed; it must outlive every use); nullptr restores
  // the real clock. Tells the listener.
  static void set(Clock* clock);
  // The real clock.
  [[nodiscard]] static Clock& real();

  // A function told, on the thread that made the change, whenever another
  // clock is installed or a simulated clock's time moves; `context` is passed
  // back. nullptr: nobody is told. Any thread.
  using MovedListener = void (*)(void* context);
  static void setMovedListener(MovedListener listener, void* context);
  // Tells the listener (clocks call it after their time moved).
  static void notifyMoved();
};

// Real time sped up by a constant factor (>= 1; anything else counts as 1),
// counted from construction: the wall and monotonic times advance `factor`
// times as fast as the real ones, and a sleep of d blocks for d / factor.
// Programs install one when their environment asks for shorter delays (tests
// and demonstrations), so every timer, pause and scan period is shortened
// alike.
class ScaledClock final : public Clock {
 public:
  explicit ScaledClock(double factor);
  [[nodiscard]] Time now() override;
  [[nodiscard]] int64_t monotonicMilliseconds() override;
  void sleepMilliseconds(int64_t milliseconds) override;
  [[nodiscard]] int64_t realMilliseconds(int64_t milliseconds) const override;
  [[nodiscard]] double factor() const { return factor_; }

 private:
  // Scaled milliseconds since construction.
  [[nodiscard]] int64_t scaledSinceStart() const;
  const double factor_;
  const std::chrono::steady_clock::time_point realStart_;
  const int64_t monotonicStart_;  // the real monotonic time at construction, in ms
  const int64_t wallStart_;       // the real wall time at construction, in ms
};

}  // namespace SPI
}  // namespace WPS
