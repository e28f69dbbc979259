// Work kept off the main thread: network requests with their pauses and
// retries run here, so the main run loop keeps answering D-Bus, signals and
// network changes meanwhile.
//
// Jobs run one after another on a thread of the worker's own, in the order
// they were posted. A job hands its outcome to the main thread with
// `deliver`, which queues it on the main run loop without waiting; outcomes
// therefore reach the main thread in the order the jobs produced them.
//
// Stopping: the destructor asks the running job to stop (its stop token), drops
// the jobs not yet started and every delivery not yet run, and waits for the
// running job to return. Jobs pause with `pause`, which returns early once stop
// is asked for; a blocking call inside a job (an HTTP request) must be ended by
// its owner first (see CurlHttpFetcher::abortTransfers).
//
// Thread safety: construct, `post` and destroy on the main thread; `deliver`
// from the worker's jobs; `busy` from any thread.
#pragma once

#include <deque>
#include <functional>
#include <memory>
#include <stop_token>
#include <thread>

#include "platform/clock.h"
#include "platform/mutex.h"

namespace zonara {

class BackgroundWorker {
 public:
  using Job = std::function<void(const std::stop_token&)>;

  BackgroundWorker();
  ~BackgroundWorker();
  BackgroundWorker(const BackgroundWorker&) = delete;
  BackgroundWorker& operator=(const BackgroundWorker&) = delete;

  // Queues `job` behind the ones already posted.
  void post(Job job);
  // Runs `callback` on the main thread's run loop later, unless the worker is
  // destroyed before it gets there.
  void deliver(std::function<void()> callback);
  // Whether a job is queued or running (tests, shutdown).
  [[nodiscard]] bool busy() const;

  // Sleeps `duration` on the installed clock in short slices; false (early)
  // once `stop` is requested.
  [[nodiscard]] static bool pause(Clock::Duration duration, const std::stop_token& stop);

 private:
  void runJobs(const std::stop_token& stop);

  mutable Mutex mu_;
  CondVar wake_;
  std::deque<Job> jobs_ ZONARA_GUARDED_BY(mu_);
  bool running_ ZONARA_GUARDED_BY(mu_) = false;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);  // read and cleared on the main thread
  std::jthread thread_;  // last: starts after, and is joined before, the rest goes
};

}  // namespace zonara
