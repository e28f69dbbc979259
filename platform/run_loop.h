// A run loop per thread over GLib's main contexts.
//
// The main thread's run loop drives GLib's global default context, so D-Bus
// signals, method calls and property reads delivered by GDBus run on it. Any
// other thread gets a context of its own that becomes the thread-default
// context for the life of that thread's `RunLoop`.
//
// Timers live in the run loop of the thread that added them and fire only
// while that run loop runs (inside `run`, `runUntil`, `runUntilNoTimers` or
// `runOnce`); a timer added to a thread that never runs its loop never fires.
// Timer times are read from the `Clock`, so with a simulated clock timers
// fire when simulated time reaches them.
//
// Thread safety: `current()` and `main()` may be called from any thread.
// `addTimer`, `performAfterDelay`, `cancelTimer`, `timerCount`, `stop` and
// `performOnMainThread` may be called from any thread; the run functions only
// on the loop's own thread. Callbacks run on the loop's own thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "platform/clock.h"
#include "platform/mutex.h"

typedef struct _GMainContext GMainContext;
typedef struct _GSource GSource;

namespace zonara {

class RunLoop {
 public:
  using TimerId = uint64_t;
  using Duration = Clock::Duration;
  using Callback = std::function<void()>;

  ~RunLoop();
  RunLoop(const RunLoop&) = delete;
  RunLoop& operator=(const RunLoop&) = delete;

  // The calling thread's run loop, made on first use and destroyed when the
  // thread ends (the main thread's lives until exit).
  [[nodiscard]] static RunLoop& current();
  // The main thread's run loop.
  [[nodiscard]] static RunLoop& main();
  [[nodiscard]] static bool isMainThread();

  // Schedules `callback` after `interval` (and every `interval` after that
  // when `repeats`). Returns the timer's id, never 0. A repeating timer that
  // falls behind skips the missed firings. Intervals below zero count as zero.
  [[nodiscard]] TimerId addTimer(Duration interval, bool repeats, Callback callback);
  // A one-shot timer; the id may be ignored.
  TimerId performAfterDelay(Duration delay, Callback callback);
  // Cancels a pending timer. Returns false when the id is unknown (already
  // fired one-shot, cancelled, or never existed). A timer may cancel itself.
  bool cancelTimer(TimerId id);
  [[nodiscard]] size_t timerCount() const;
  // Monotonic time at which the next timer is due, if any.
  [[nodiscard]] std::optional<Clock::TimePoint> nextTimerDue() const;

  // Runs `callback` on the main thread's run loop. Called on the main thread
  // it runs at once. Otherwise it is queued; with `wait` the caller blocks
  // until the callback has run (the main loop must be running for that).
  static void performOnMainThread(Callback callback, bool wait);

  // Processes events and timers until `stop` is called. Nested runs are
  // allowed; `stop` ends the innermost one.
  void run();
  // Ends the innermost `run` (or `runUntil`) of this loop. Any thread.
  void stop();
  // Runs until `done()` is true or `stop` is called, checking after every
  // event and at least every 10 ms of real time. With a real clock at most `realLimit` of wall time is spent; with
  // a virtual clock virtual time is not advanced (other parties advance it)
  // and the same real limit applies. Returns `done()`.
  bool runUntil(const std::function<bool()>& done,
                std::chrono::milliseconds realLimit = std::chrono::seconds(5));
  // Runs until no timers are left or `stop` is called. With a simulated clock
  // (one whose sleeps move it), whenever no event is ready the clock jumps to
  // the next timer's time, so
  // repeating timers would run forever: `virtualLimit` bounds the virtual time
  // spent. Returns true when no timers are left.
  bool runUntilNoTimers(Duration virtualLimit = std::chrono::hours(24));
  // Dispatches whatever is ready now without blocking. Returns true when
  // something was dispatched.
  bool runOnce();

  // Wakes every run loop (told by the clock after its time moved).
  static void wakeAll();

  [[nodiscard]] GMainContext* context() const { return context_; }

 private:
  struct Timer {
    Clock::TimePoint due;
    Duration interval;
    bool repeats;
    std::shared_ptr<Callback> callback;
  };
  struct TimerSource;

  explicit RunLoop(bool isMain);
  void wake();
  std::shared_ptr<bool> pushStopFlag();
  void popStopFlag();
  [[nodiscard]] bool stopped(const std::shared_ptr<bool>& flag) const;
  bool dispatchDueTimers();
  [[nodiscard]] int pollTimeoutMs() const;
  static int prepare(GSource* source, int* timeout);
  static int check(GSource* source);
  static int dispatch(GSource* source, int (*)(void*), void*);

  GMainContext* context_ = nullptr;  // owned reference
  GSource* timerSource_ = nullptr;   // owned reference
  bool pushedThreadDefault_ = false;
  mutable Mutex mu_;
  std::map<TimerId, Timer> timers_ ZONARA_GUARDED_BY(mu_);
  TimerId nextId_ ZONARA_GUARDED_BY(mu_) = 1;
  // Innermost last; the flags themselves are read and written under mu_ too.
  std::vector<std::shared_ptr<bool>> stopFlags_ ZONARA_GUARDED_BY(mu_);
};

}  // namespace zonara
