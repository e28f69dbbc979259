#include "app/recheck_timer.h"

#include "platform/system_log.h"

namespace zonara {

RecheckTimer::RecheckTimer(RunLoop& runLoop, std::function<void()> lookAgain)
    : runLoop_(runLoop), lookAgain_(std::move(lookAgain)), lastLookup_(Clock::get().now()) {}

RecheckTimer::~RecheckTimer() { cancel(); }

void RecheckTimer::setInterval(std::chrono::minutes interval) {
  interval_ = interval.count() > 0 ? interval : std::chrono::minutes(0);
  arm();
}

void RecheckTimer::lookedUp() {
  lastLookup_ = Clock::get().now();
  arm();
}

void RecheckTimer::cancel() {
  if (timer_ != 0) runLoop_.cancelTimer(timer_);
  timer_ = 0;
}

void RecheckTimer::arm() {
  cancel();
  if (interval_.count() == 0) return;
  const Clock::TimePoint due = lastLookup_ + interval_;
  const Clock::TimePoint now = Clock::get().now();
  timer_ = runLoop_.performAfterDelay(due > now ? due - now : Clock::Duration::zero(), [this] { fire(); });
}

void RecheckTimer::fire() {
  timer_ = 0;
  SystemLog("no look-up for %lld min (RecheckMinutes): looking for the position again",
            static_cast<long long>(interval_.count()));
  lastLookup_ = Clock::get().now();
  arm();
  lookAgain_();
}

}  // namespace zonara
