// Looks for the position again when a set time has passed without a
// look-up: a train that keeps one Wi-Fi network while crossing a border
// gives no network change to react to.
//
// Each look-up (`lookedUp`) restarts the countdown; when it runs out the
// timer logs it, asks for a fresh look-up and counts down again (so a look-up
// that finds nothing is repeated after another interval, not at once).
//
// Thread safety: main thread only (the timer runs on the given run loop,
// with the process's Clock).
#pragma once

#include <chrono>
#include <functional>

#include "platform/clock.h"
#include "platform/run_loop.h"

namespace zonara {

class RecheckTimer {
 public:
  // `runLoop` is borrowed and must outlive the timer. Off until
  // `setInterval` gives it a positive interval.
  RecheckTimer(RunLoop& runLoop, std::function<void()> lookAgain);
  // Cancels the countdown.
  ~RecheckTimer();
  RecheckTimer(const RecheckTimer&) = delete;
  RecheckTimer& operator=(const RecheckTimer&) = delete;

  // A new interval counts from the last look-up (or from now when there was
  // none yet); zero or less stops the countdown.
  void setInterval(std::chrono::minutes interval);
  // A look-up happened now: the countdown starts again.
  void lookedUp();

  [[nodiscard]] std::chrono::minutes interval() const { return interval_; }

 private:
  void arm();
  void fire();
  void cancel();

  RunLoop& runLoop_;
  std::function<void()> lookAgain_;
  std::chrono::minutes interval_{0};
  Clock::TimePoint lastLookup_;
  RunLoop::TimerId timer_ = 0;
};

}  // namespace zonara
