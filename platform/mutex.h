// A mutex that Clang's thread-safety analysis understands (std::mutex of
// libstdc++ carries no annotations), its scoped lock, and a condition
// variable to wait on it.
//
// Thread safety: as std::mutex; a MutexLock belongs to the thread that made it.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <stop_token>
#include <utility>

#include "platform/thread_annotations.h"

namespace zonara {

class ZONARA_LOCKABLE Mutex {
 public:
  Mutex() = default;
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  void lock() ZONARA_ACQUIRE() { mu_.lock(); }
  void unlock() ZONARA_RELEASE() { mu_.unlock(); }
  [[nodiscard]] bool try_lock() ZONARA_TRY_ACQUIRE(true) { return mu_.try_lock(); }

 private:
  std::mutex mu_;
};

// Holds `mu` from construction to destruction.
class ZONARA_SCOPED_LOCKABLE MutexLock {
 public:
  explicit MutexLock(Mutex& mu) ZONARA_ACQUIRE(mu) : mu_(mu) { mu_.lock(); }
  ~MutexLock() ZONARA_RELEASE() { mu_.unlock(); }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

 private:
  Mutex& mu_;
};

// A condition variable over a `Mutex` the caller holds. The waits release
// the mutex while blocked and hold it again when they return, as
// std::condition_variable's do.
class CondVar {
 public:
  void wait(Mutex& mu) ZONARA_REQUIRES(mu) { cv_.wait(mu); }
  template <typename Predicate>
  void wait(Mutex& mu, Predicate done) ZONARA_REQUIRES(mu) {
    while (!done()) cv_.wait(mu);
  }
  // Waits for a notification (or a spurious wake-up), as `wait(mu)` does;
  // false instead, at once or while waiting, once `stop` is requested.
  bool wait(Mutex& mu, const std::stop_token& stop) ZONARA_REQUIRES(mu) {
    bool woken = false;
    return cv_.wait(mu, stop, [&woken] { return std::exchange(woken, true); });
  }
  // False when `timeout` passed first (in real time; tests with a simulated
  // clock do not use this).
  template <typename Rep, typename Period, typename Predicate>
  bool waitFor(Mutex& mu, std::chrono::duration<Rep, Period> timeout, Predicate done) ZONARA_REQUIRES(mu) {
    return cv_.wait_for(mu, timeout, std::move(done));
  }
  void notifyOne() { cv_.notify_one(); }
  void notifyAll() { cv_.notify_all(); }

 private:
  std::condition_variable_any cv_;
};

}  // namespace zonara
