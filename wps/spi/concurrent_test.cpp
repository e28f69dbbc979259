#include "wps/spi/concurrent.h"

#include <gtest/gtest.h>

#include <atomic>
#include <deque>
#include <thread>
#include <vector>

#include "wps/spi/log_capture.h"

namespace WPS::SPI {
namespace {

// A bounded queue built only from the wrappers: a lost wake-up or a broken
// mutex shows up as a hang (caught by the CTest time-out) or a wrong sum.
class BoundedQueue {
 public:
  void put(int v) {
    mu_.lock();
    while (items_.size() >= 2) notFull_.wait(mu_);
    items_.push_back(v);
    notEmpty_.signal();
    mu_.unlock();
  }
  int take() {
    mu_.lock();
    while (items_.empty()) notEmpty_.wait(mu_);
    int v = items_.front();
    items_.pop_front();
    notFull_.signal();
    mu_.unlock();
    return v;
  }

 private:
  PthreadMutex mu_;
  PthreadCond notEmpty_;
  PthreadCond notFull_;
  std::deque<int> items_;
};

TEST(ConcurrentTest, ProducersAndConsumersLoseNothing) {
  BoundedQueue q;
  constexpr int kPerProducer = 5000;
  std::atomic<long> sum{0};
  std::vector<std::thread> threads;
  for (int p = 0; p < 2; ++p) {
    threads.emplace_back([&] {
      for (int i = 1; i <= kPerProducer; ++i) q.put(i);
    });
  }
  for (int c = 0; c < 2; ++c) {
    threads.emplace_back([&] {
      for (int i = 0; i < kPerProducer; ++i) sum += q.take();
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(sum.load(), 2L * kPerProducer * (kPerProducer + 1) / 2);
}

TEST(ConcurrentTest, MutexCountsUnderContention) {
  std::unique_ptr<Mutex> mu = Mutex::newInstance();
  long counter = 0;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 20000; ++i) {
        MutexLock lock(*mu);
        ++counter;
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(counter, 80000);
}

// A thread's body: tries `mu` and gives it back when taken; `rc` gets
// trylock's code. (The analysis cannot follow a lock taken on a condition the
// test checks afterwards.)
void trylockAndRelease(PthreadMutex* mu, int* rc) WPS_NO_THREAD_SAFETY_ANALYSIS {
  *rc = mu->trylock();
  if (*rc == 0) mu->unlock();
}

TEST(ConcurrentTest, TrylockReportsBusyFromAnotherThread) {
  PthreadMutex mu;
  EXPECT_EQ(mu.acquire(), 0);
  int busy = -1;
  std::thread(trylockAndRelease, &mu, &busy).join();
  EXPECT_EQ(busy, 16);
  EXPECT_EQ(mu.release(), 0);
  int free = -1;
  std::thread(trylockAndRelease, &mu, &free).join();
  EXPECT_EQ(free, 0);
}

TEST(ConcurrentTest, ReadersShareAndWritersExclude) {
  PthreadRWLock lock;
  EXPECT_EQ(lock.rdlock(), 0);
  // A second reader gets in while the first holds the lock.
  std::atomic<bool> secondReader{false};
  std::thread([&] {
    lock.rdlock();
    secondReader = true;
    lock.unlock();
  }).join();
  EXPECT_TRUE(secondReader);
  // A writer waits until the reader leaves.
  std::atomic<bool> wrote{false};
  std::thread writer([&] {
    lock.rwlock();
    wrote = true;
    lock.unlock();
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(30));
  EXPECT_FALSE(wrote);
  lock.unlock();
  writer.join();
  EXPECT_TRUE(wrote);
}

TEST(ConcurrentTest, TimedWaitEndsWithTimeOut) {
  PthreadMutex mu;
  PthreadCond cond;
  mu.lock();
  EXPECT_EQ(cond.waitFor(mu, 20), ETIMEDOUT);
  mu.unlock();
}

TEST(ConcurrentTest, FailuresAreLoggedWithTheOperationNameAndBusyIsQuiet) {
  LogCapture capture("WPS.SPI.Concurrent.PthreadRWLock");
  _log_error(Logger::getLogger("WPS.SPI.Concurrent.PthreadRWLock"), "pthrad_rwlock_unlock", EPERM);
  _log_error(Logger::getLogger("WPS.SPI.Concurrent.PthreadRWLock"), "pthrad_rwlock_rdlock", EBUSY);
  _log_error(Logger::getLogger("WPS.SPI.Concurrent.PthreadRWLock"), "pthrad_rwlock_wrlock", EINVAL);
  auto entries = capture.entries();
  ASSERT_EQ(entries.size(), 3u);
  EXPECT_EQ(entries[0].message, "pthrad_rwlock_unlock failed: Operation not permitted (1)");
  EXPECT_EQ(entries[0].level, Logger::ERROR);
  EXPECT_EQ(entries[1].message, "pthrad_rwlock_rdlock failed: Device or resource busy (16)");
  EXPECT_GT(entries[1].level, Logger::ERROR);
  EXPECT_GT(entries[2].level, Logger::ERROR);
}

TEST(ConcurrentTest, BusyTrylockIsLoggedBelowErrorLevel) {
  LogCapture capture("WPS.SPI.Concurrent.PthreadMutex");
  PthreadMutex mu;
  mu.lock();
  std::thread([&] { (void)mu.trylock(); }).join();
  mu.unlock();
  auto entries = capture.entries();
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_EQ(entries[0].message, "pthread_mutex_trylock failed: Device or resource busy (16)");
  EXPECT_EQ(entries[0].level, Logger::DEBUG);
}

}  // namespace
}  // namespace WPS::SPI
