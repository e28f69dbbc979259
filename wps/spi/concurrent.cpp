#include "wps/spi/concurrent.h"

#include <errno.h>
#include <time.h>

#include <cstring>

#include "wps/spi/time.h"

namespace WPS {
namespace SPI {
namespace {

Logger& mutexLogger() { return Logger::getLogger("WPS.SPI.Concurrent.PthreadMutex"); }
Logger& rwlockLogger() { return Logger::getLogger("WPS.SPI.Concurrent.PthreadRWLock"); }
Logger& condLogger() { return Logger::getLogger("WPS.SPI.Concurrent.PthreadCond"); }

void logInitFailure(Logger& logger, const char* format, int code) {
  char text[256];
  logger.error(format, strerror_r(code, text, sizeof text), code);
}

// Runs a pthread call and logs its failure through _log_error.
int checked(Logger& logger, const char* operation, int code) {
  if (code != 0) _log_error(logger, operation, code);
  return code;
}

}  // namespace

std::unique_ptr<Mutex> Mutex::newInstance() { return std::make_unique<PthreadMutex>(); }

PthreadMutex::PthreadMutex() {
  int rc = pthread_mutex_init(&mutex_, nullptr);
  if (rc != 0) {
    logInitFailure(mutexLogger(), "pthread_mutex_init failed: %s (%d)", rc);
    return;
  }
  valid_ = true;
}

PthreadMutex::~PthreadMutex() {
  if (valid_) checked(mutexLogger(), "pthread_mutex_destroy", pthread_mutex_destroy(&mutex_));
}

int PthreadMutex::lock() {
  if (!valid_) return EINVAL;
  return checked(mutexLogger(), "pthread_mutex_lock", pthread_mutex_lock(&mutex_));
}

int PthreadMutex::trylock() {
  if (!valid_) return EINVAL;
  return checked(mutexLogger(), "pthread_mutex_trylock", pthread_mutex_trylock(&mutex_));
}

int PthreadMutex::unlock() {
  if (!valid_) return EINVAL;
  return checked(mutexLogger(), "pthread_mutex_unlock", pthread_mutex_unlock(&mutex_));
}

PthreadRWLock::PthreadRWLock() {
  int rc = pthread_rwlock_init(&lock_, nullptr);
  if (rc != 0) {
    logInitFailure(rwlockLogger(), "pthread_rwlock_init failed: %s (%d)", rc);
    return;
  }
  valid_ = true;
}

PthreadRWLock::~PthreadRWLock() {
  if (valid_) checked(rwlockLogger(), "pthread_rwlock_destroy", pthread_rwlock_destroy(&lock_));
}

// The operation names below are the established texts of this library's logs
// and are matched by existing log filters; keep their spelling.
int PthreadRWLock::rdlock() {
  if (!valid_) return EINVAL;
  return checked(rwlockLogger(), "pthrad_rwlock_rdlock", pthread_rwlock_rdlock(&lock_));
}

int PthreadRWLock::rwlock() {
  if (!valid_) return EINVAL;
  return checked(rwlockLogger(), "pthrad_rwlock_wrlock", pthread_rwlock_wrlock(&lock_));
}

int PthreadRWLock::unlock() {
  if (!valid_) return EINVAL;
  return checked(rwlockLogger(), "pthrad_rwlock_unlock", pthread_rwlock_unlock(&lock_));
}

PthreadCond::PthreadCond() {
  pthread_condattr_t attr;
  pthread_condattr_init(&attr);
  pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
  int rc = pthread_cond_init(&cond_, &attr);
  pthread_condattr_destroy(&attr);
  if (rc != 0) {
    logInitFailure(condLogger(), "pthread_cond_init failed: %s (%d)", rc);
    return;
  }
  valid_ = true;
}

PthreadCond::~PthreadCond() {
  if (valid_) checked(condLogger(), "pthread_cond_destroy", pthread_cond_destroy(&cond_));
}

int PthreadCond::wait(PthreadMutex& mutex) {
  if (!valid_ || !mutex.valid_) return EINVAL;
  return checked(condLogger(), "pthread_cond_wait", pthread_cond_wait(&cond_, &mutex.mutex_));
}

int PthreadCond::waitFor(PthreadMutex& mutex, int64_t milliseconds) {
  if (!valid_ || !mutex.valid_) return EINVAL;
  struct timespec deadline;
  clock_gettime(CLOCK_MONOTONIC, &deadline);
  if (milliseconds < 0) milliseconds = 0;
  deadline.tv_sec += static_cast<time_t>(milliseconds / 1000);
  deadline.tv_nsec += static_cast<long>((milliseconds % 1000) * 1000000);
  if (deadline.tv_nsec >= 1000000000) {
    deadline.tv_sec += 1;
    deadline.tv_nsec -= 1000000000;
  }
  int rc = pthread_cond_timedwait(&cond_, &mutex.mutex_, &deadline);
  if (rc == ETIMEDOUT) return rc;  // an expected outcome, not a failure
  return checked(condLogger(), "pthread_cond_wait", rc);
}

int PthreadCond::signal() {
  if (!valid_) return EINVAL;
  return checked(condLogger(), "pthread_cond_signal", pthread_cond_signal(&cond_));
}

int PthreadCond::broadcast() {
  if (!valid_) return EINVAL;
  return checked(condLogger(), "pthread_cond_broadcast", pthread_cond_broadcast(&cond_));
}

void Thread::msleep(int64_t milliseconds) { Clock::get().sleepMilliseconds(milliseconds); }

}  // namespace SPI
}  // namespace WPS
