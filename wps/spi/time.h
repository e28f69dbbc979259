// Wall-clock time for the positioning library, and the clock it reads.
//
// Thread safety: `Time` and `Timer` are plain values. `Clock::get()` and
// `Clock::set()` may be called from any thread; a clock installed with `set()`
// must outlive every use (tests install one for the duration of a test).
#pragma once

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

// The source of time and sleep for the library. The default reads
// gettimeofday(2) and sleeps with nanosleep(2); tests install a simulated clock.
class Clock {
 public:
  virtual ~Clock() = default;
  [[nodiscard]] virtual Time now() = 0;
  // Blocks the calling thread for `milliseconds` of this clock's time.
  virtual void sleepMilliseconds(int64_t milliseconds) = 0;

  // The installed clock (the real one unless a test installed another).
  [[nodiscard]] static Clock& get();
  // Installs `clock` (borrowed); nullptr restores the real clock.
  static void set(Clock* clock);
  // The real clock.
  [[nodiscard]] static Clock& real();
};

}  // namespace SPI
}  // namespace WPS
