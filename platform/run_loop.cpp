#include "platform/run_loop.h"

#include <glib.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <set>

#include "wps/api/wpsapi.h"

namespace zonara {
namespace {

Mutex& registryMutex() {
  static Mutex mu;
  return mu;
}

std::set<RunLoop*>& registry() {
  static std::set<RunLoop*> loops;
  return loops;
}

RunLoop* g_mainLoop = nullptr;  // never destroyed

thread_local std::unique_ptr<RunLoop> t_loop;

}  // namespace

struct RunLoop::TimerSource {
  GSource base;
  RunLoop* loop;
};

bool RunLoop::isMainThread() { return getpid() == static_cast<pid_t>(syscall(SYS_gettid)); }

RunLoop& RunLoop::current() {
  if (isMainThread()) return main();
  if (!t_loop) t_loop.reset(new RunLoop(false));
  return *t_loop;
}

RunLoop& RunLoop::main() {
  static std::once_flag once;
  std::call_once(once, [] { g_mainLoop = new RunLoop(true); });
  return *g_mainLoop;
}

RunLoop::RunLoop(bool isMain) {
  if (isMain) {
    context_ = g_main_context_ref(g_main_context_default());
  } else {
    context_ = g_main_context_new();
    g_main_context_push_thread_default(context_);
    pushedThreadDefault_ = true;
  }
  static GSourceFuncs timerFuncs = {&RunLoop::prepare, &RunLoop::check, &RunLoop::dispatch, nullptr, nullptr, nullptr};
  timerSource_ = g_source_new(&timerFuncs, sizeof(TimerSource));
  reinterpret_cast<TimerSource*>(timerSource_)->loop = this;
  g_source_set_can_recurse(timerSource_, TRUE);
  g_source_set_name(timerSource_, "zonara-run-loop-timers");
  g_source_attach(timerSource_, context_);
  // Every move of a simulated clock, and every change of clock, wakes the
  // loops so the timers then due fire.
  WPS_set_clock_listener([](void*) { RunLoop::wakeAll(); }, nullptr);
  MutexLock lock(registryMutex());
  registry().insert(this);
}

RunLoop::~RunLoop() {
  {
    MutexLock lock(registryMutex());
    registry().erase(this);
  }
  g_source_destroy(timerSource_);
  g_source_unref(timerSource_);
  if (pushedThreadDefault_) {
    // Let sources still attached (idle callbacks and the like) go first.
    while (g_main_context_iteration(context_, FALSE)) {
    }
    g_main_context_pop_thread_default(context_);
  }
  g_main_context_unref(context_);
}

void RunLoop::wakeAll() {
  MutexLock lock(registryMutex());
  for (RunLoop* loop : registry()) loop->wake();
}

void RunLoop::wake() { g_main_context_wakeup(context_); }

RunLoop::TimerId RunLoop::addTimer(Duration interval, bool repeats, Callback callback) {
  if (interval.count() < 0) interval = Duration(0);
  // A repeating timer needs some interval, or it would fire forever at once.
  if (repeats && interval.count() == 0) interval = Duration(1);
  TimerId id;
  {
    MutexLock lock(mu_);
    id = nextId_++;
    timers_.emplace(id, Timer{Clock::get().now() + interval, interval, repeats,
                              std::make_shared<Callback>(std::move(callback))});
  }
  wake();
  return id;
}

RunLoop::TimerId RunLoop::performAfterDelay(Duration delay, Callback callback) {
  return addTimer(delay, false, std::move(callback));
}

bool RunLoop::cancelTimer(TimerId id) {
  MutexLock lock(mu_);
  return timers_.erase(id) > 0;
}

size_t RunLoop::timerCount() const {
  MutexLock lock(mu_);
  return timers_.size();
}

std::optional<Clock::TimePoint> RunLoop::nextTimerDue() const {
  MutexLock lock(mu_);
  std::optional<Clock::TimePoint> next;
  for (const auto& [id, timer] : timers_) {
    if (!next || timer.due < *next) next = timer.due;
  }
  return next;
}

int RunLoop::pollTimeoutMs() const {
  const Clock& clock = Clock::get();
  auto next = nextTimerDue();
  if (!next) return -1;
  auto now = clock.now();
  if (*next <= now) return 0;
  // A virtual clock wakes the loop when it moves; no real time-out applies.
  if (clock.isVirtual()) return -1;
  auto remaining = clock.realDuration(*next - now).count();
  return remaining > INT32_MAX ? INT32_MAX : static_cast<int>(remaining);
}

int RunLoop::prepare(GSource* source, int* timeout) {
  auto* loop = reinterpret_cast<TimerSource*>(source)->loop;
  *timeout = loop->pollTimeoutMs();
  return *timeout == 0;
}

int RunLoop::check(GSource* source) {
  auto* loop = reinterpret_cast<TimerSource*>(source)->loop;
  return loop->pollTimeoutMs() == 0;
}

int RunLoop::dispatch(GSource* source, int (*)(void*), void*) {
  reinterpret_cast<TimerSource*>(source)->loop->dispatchDueTimers();
  return G_SOURCE_CONTINUE;
}

bool RunLoop::dispatchDueTimers() {
  const auto now = Clock::get().now();
  // Only timers due at entry fire in this pass, once each, in order of their
  // due time; callbacks may add or cancel timers freely.
  std::vector<std::pair<Clock::TimePoint, TimerId>> due;
  {
    MutexLock lock(mu_);
    for (const auto& [id, timer] : timers_) {
      if (timer.due <= now) due.emplace_back(timer.due, id);
    }
  }
  std::sort(due.begin(), due.end());
  for (const auto& [when, id] : due) {
    std::shared_ptr<Callback> callback;
    {
      MutexLock lock(mu_);
      auto it = timers_.find(id);
      if (it == timers_.end()) continue;  // cancelled by an earlier callback
      callback = it->second.callback;
      if (it->second.repeats) {
        Timer& t = it->second;
        t.due += t.interval;
        if (t.due <= now) {
          // Fell behind: skip the missed firings.
          auto behind = (now - t.due) / t.interval + 1;
          t.due += t.interval * behind;
        }
      } else {
        timers_.erase(it);
      }
    }
    (*callback)();
  }
  return !due.empty();
}

std::shared_ptr<bool> RunLoop::pushStopFlag() {
  auto flag = std::make_shared<bool>(false);
  MutexLock lock(mu_);
  stopFlags_.push_back(flag);
  return flag;
}

void RunLoop::popStopFlag() {
  MutexLock lock(mu_);
  stopFlags_.pop_back();
}

bool RunLoop::stopped(const std::shared_ptr<bool>& flag) const {
  MutexLock lock(mu_);
  return *flag;
}

void RunLoop::stop() {
  {
    MutexLock lock(mu_);
    if (!stopFlags_.empty()) *stopFlags_.back() = true;
  }
  wake();
}

void RunLoop::run() {
  auto flag = pushStopFlag();
  while (!stopped(flag)) g_main_context_iteration(context_, TRUE);
  popStopFlag();
}

bool RunLoop::runUntil(const std::function<bool()>& done, std::chrono::milliseconds realLimit) {
  auto flag = pushStopFlag();
  bool timedOut = false;
  GSource* limit = g_timeout_source_new(static_cast<guint>(realLimit.count()));
  g_source_set_callback(
      limit,
      [](gpointer data) -> gboolean {
        *static_cast<bool*>(data) = true;
        return G_SOURCE_REMOVE;
      },
      &timedOut, nullptr);
  g_source_attach(limit, context_);
  // `done` may turn true through another thread without any event here.
  GSource* tick = g_timeout_source_new(10);
  g_source_set_callback(tick, [](gpointer) -> gboolean { return G_SOURCE_CONTINUE; }, nullptr, nullptr);
  g_source_attach(tick, context_);
  bool result = done();
  while (!result && !timedOut && !stopped(flag)) {
    g_main_context_iteration(context_, TRUE);
    result = done();
  }
  g_source_destroy(limit);
  g_source_unref(limit);
  g_source_destroy(tick);
  g_source_unref(tick);
  popStopFlag();
  return result;
}

bool RunLoop::runUntilNoTimers(Duration virtualLimit) {
  auto flag = pushStopFlag();
  const auto start = Clock::get().now();
  while (!stopped(flag)) {
    auto next = nextTimerDue();
    if (!next) break;
    if (g_main_context_iteration(context_, FALSE)) continue;
    const Clock& clock = Clock::get();
    if (clock.isVirtual()) {
      if (*next - start > virtualLimit) break;
      // A simulated clock moves forward by the sleep, to the timer's time.
      clock.sleepFor(*next - clock.now());
    } else {
      g_main_context_iteration(context_, TRUE);
    }
  }
  popStopFlag();
  return timerCount() == 0;
}

bool RunLoop::runOnce() {
  bool any = false;
  while (g_main_context_iteration(context_, FALSE)) any = true;
  return any;
}

void RunLoop::performOnMainThread(Callback callback, bool wait) {
  if (isMainThread()) {
    callback();
    return;
  }
  struct Job {
    Callback callback;
    bool wait = false;
    Mutex mu;
    CondVar cv;
    bool done ZONARA_GUARDED_BY(mu) = false;
  };
  auto job = std::make_shared<Job>();
  job->callback = std::move(callback);
  job->wait = wait;
  GSource* idle = g_idle_source_new();
  g_source_set_callback(
      idle,
      [](gpointer data) -> gboolean {
        auto& j = *static_cast<std::shared_ptr<Job>*>(data);
        j->callback();
        MutexLock lock(j->mu);
        j->done = true;
        j->cv.notifyAll();
        return G_SOURCE_REMOVE;
      },
      new std::shared_ptr<Job>(job), [](gpointer data) { delete static_cast<std::shared_ptr<Job>*>(data); });
  g_source_attach(idle, main().context());
  g_source_unref(idle);
  if (wait) {
    MutexLock lock(job->mu);
    while (!job->done) job->cv.wait(job->mu);
  }
}

}  // namespace zonara
