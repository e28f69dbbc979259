// Locks, condition variables and sleeping for the positioning library: thin
// wrappers over POSIX threads. Failures are returned as the pthread error code
// (0 = success) and logged through `_log_error`.
//
// Thread safety: all objects here are meant to be shared between threads; a
// lock must be unlocked by the thread that locked it.
#pragma once

#include <pthread.h>

#include <cstdint>
#include <memory>
#include <mutex>

#include "wps/spi/logger.h"
#include "wps/spi/thread_annotations.h"

namespace WPS {
namespace SPI {

class WPS_LOCKABLE Mutex {
 public:
  virtual ~Mutex() = default;
  // A new process-private, non-recursive mutex.
  [[nodiscard]] static std::unique_ptr<Mutex> newInstance();

  virtual int lock() WPS_ACQUIRE() = 0;
  // Returns 0 when the lock was taken, 16 (EBUSY) when another holder has it.
  [[nodiscard]] virtual int trylock() WPS_TRY_ACQUIRE(0) = 0;
  virtual int unlock() WPS_RELEASE() = 0;
  // As trylock, in the form the thread-safety analysis follows: true when the
  // lock was taken; otherwise false with trylock's code in `error`.
  [[nodiscard]] bool tryLock(int& error) WPS_TRY_ACQUIRE(true) WPS_NO_THREAD_SAFETY_ANALYSIS {
    error = trylock();
    return error == 0;
  }
  int acquire() WPS_ACQUIRE() { return lock(); }
  int release() WPS_RELEASE() { return unlock(); }
};

class PthreadCond;

class WPS_LOCKABLE PthreadMutex final : public Mutex {
 public:
  PthreadMutex();
  ~PthreadMutex() override;
  PthreadMutex(const PthreadMutex&) = delete;
  PthreadMutex& operator=(const PthreadMutex&) = delete;

  int lock() override WPS_ACQUIRE();
  [[nodiscard]] int trylock() override WPS_TRY_ACQUIRE(0);
  int unlock() override WPS_RELEASE();

 private:
  friend class PthreadCond;
  pthread_mutex_t mutex_;
  bool valid_ = false;
};

// Holds a mutex for the life of the scope.
class WPS_SCOPED_LOCKABLE MutexLock {
 public:
  explicit MutexLock(Mutex& m) WPS_ACQUIRE(m) : m_(m) { m_.lock(); }
  ~MutexLock() WPS_RELEASE() { m_.unlock(); }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

 private:
  Mutex& m_;
};

// A std::mutex the thread-safety analysis follows (libstdc++'s std::mutex
// carries no annotations). It is Lockable, so std::condition_variable_any
// waits on it directly: `cv.wait(mu)` with `mu` held.
class WPS_LOCKABLE StdMutex {
 public:
  StdMutex() = default;
  StdMutex(const StdMutex&) = delete;
  StdMutex& operator=(const StdMutex&) = delete;

  void lock() WPS_ACQUIRE() { mu_.lock(); }
  void unlock() WPS_RELEASE() { mu_.unlock(); }
  [[nodiscard]] bool try_lock() WPS_TRY_ACQUIRE(true) { return mu_.try_lock(); }

 private:
  std::mutex mu_;
};

// Holds a StdMutex for the life of the scope.
class WPS_SCOPED_LOCKABLE StdMutexLock {
 public:
  explicit StdMutexLock(StdMutex& m) WPS_ACQUIRE(m) : m_(m) { m_.lock(); }
  ~StdMutexLock() WPS_RELEASE() { m_.unlock(); }
  StdMutexLock(const StdMutexLock&) = delete;
  StdMutexLock& operator=(const StdMutexLock&) = delete;

 private:
  StdMutex& m_;
};

// Read-write lock: many readers or one writer.
class WPS_LOCKABLE PthreadRWLock {
 public:
  PthreadRWLock();
  ~PthreadRWLock();
  PthreadRWLock(const PthreadRWLock&) = delete;
  PthreadRWLock& operator=(const PthreadRWLock&) = delete;

  int rdlock() WPS_ACQUIRE_SHARED();
  // Exclusive (write) lock.
  int rwlock() WPS_ACQUIRE();
  int unlock() WPS_RELEASE();

 private:
  pthread_rwlock_t lock_;
  bool valid_ = false;
};

class PthreadCond {
 public:
  PthreadCond();
  ~PthreadCond();
  PthreadCond(const PthreadCond&) = delete;
  PthreadCond& operator=(const PthreadCond&) = delete;

  // Atomically releases `mutex` (held by the caller) and waits for a signal;
  // the mutex is held again on return. Spurious wake-ups are possible, so
  // callers wait in a loop over their condition.
  int wait(PthreadMutex& mutex) WPS_REQUIRES(mutex);
  // As `wait`, giving up after `milliseconds` of real time; returns 110
  // (ETIMEDOUT) then.
  int waitFor(PthreadMutex& mutex, int64_t milliseconds) WPS_REQUIRES(mutex);
  // Wakes one waiter.
  int signal();
  // Wakes every waiter.
  int broadcast();

 private:
  pthread_cond_t cond_;
  bool valid_ = false;
};

class Thread {
 public:
  // Sleeps for `milliseconds` of the installed clock's time (see Clock).
  static void msleep(int64_t milliseconds);
};

}  // namespace SPI
}  // namespace WPS
