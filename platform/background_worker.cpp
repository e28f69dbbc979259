#include "platform/background_worker.h"

#include <algorithm>

#include "platform/run_loop.h"

namespace zonara {

using namespace std::chrono_literals;

BackgroundWorker::BackgroundWorker() : thread_([this](std::stop_token stop) { runJobs(stop); }) {}

BackgroundWorker::~BackgroundWorker() {
  *alive_ = false;
  {
    MutexLock lock(mu_);
    jobs_.clear();
  }
  thread_.request_stop();
  // The stop callback of `wake_` wakes an idle thread; the jthread joins.
}

void BackgroundWorker::post(Job job) {
  MutexLock lock(mu_);
  jobs_.push_back(std::move(job));
  wake_.notifyOne();
}

void BackgroundWorker::deliver(std::function<void()> callback) {
  RunLoop::performOnMainThread(
      [alive = alive_, callback = std::move(callback)] {
        if (*alive) callback();
      },
      false);
}

bool BackgroundWorker::busy() const {
  MutexLock lock(mu_);
  return running_ || !jobs_.empty();
}

void BackgroundWorker::runJobs(const std::stop_token& stop) {
  for (;;) {
    Job job;
    {
      MutexLock lock(mu_);
      running_ = false;
      while (jobs_.empty()) {
        if (!wake_.wait(mu_, stop)) return;
      }
      job = std::move(jobs_.front());
      jobs_.pop_front();
      running_ = true;
    }
    job(stop);
  }
}

bool BackgroundWorker::pause(Clock::Duration duration, const std::stop_token& stop) {
  constexpr Clock::Duration kSlice = 100ms;
  const Clock& clock = Clock::get();
  const Clock::TimePoint end = clock.now() + duration;
  for (;;) {
    if (stop.stop_requested()) return false;
    const Clock::Duration left = end - clock.now();
    if (left <= Clock::Duration::zero()) return true;
    clock.sleepFor(std::min(left, kSlice));
  }
}

}  // namespace zonara
