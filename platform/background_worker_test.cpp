#include "platform/background_worker.h"

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/run_loop.h"
#include "wps/spi/simulated_clock.h"

using namespace std::chrono_literals;

namespace zonara {
namespace {

class BackgroundWorkerTest : public ::testing::Test {
 protected:
  WPS::SPI::SimulatedClock clock_;
  WPS::SPI::ScopedClock installed_{clock_};
  RunLoop& main_ = RunLoop::main();
};

// Jobs run off the main thread, one after another in the order posted; what
// they deliver runs on the main thread in the order it was delivered.
TEST_F(BackgroundWorkerTest, JobsRunInOrderAndDeliverToTheMainThreadInOrder) {
  BackgroundWorker worker;
  const std::thread::id mainThread = std::this_thread::get_id();
  std::vector<std::string> delivered;
  std::atomic<bool> offMainThread{true};
  for (const char* name : {"first", "second", "third"}) {
    worker.post([&, name = std::string(name)](const std::stop_token&) {
      if (std::this_thread::get_id() == mainThread) offMainThread = false;
      worker.deliver([&, name] {
        EXPECT_EQ(std::this_thread::get_id(), mainThread);
        delivered.push_back(name);
      });
    });
  }
  // Busy until the last job has returned, which may be after its delivery ran.
  ASSERT_TRUE(main_.runUntil([&] { return delivered.size() == 3 && !worker.busy(); }));
  EXPECT_TRUE(offMainThread);
  EXPECT_EQ(delivered, (std::vector<std::string>{"first", "second", "third"}));
}

// Pauses take the installed clock's time; asking for stop ends one early.
TEST_F(BackgroundWorkerTest, PauseTakesVirtualTimeAndEndsWhenStopIsAskedFor) {
  std::stop_source source;
  const Clock::TimePoint start = Clock::get().now();
  EXPECT_TRUE(BackgroundWorker::pause(30s, source.get_token()));
  EXPECT_EQ(Clock::get().now() - start, 30s);
  source.request_stop();
  EXPECT_FALSE(BackgroundWorker::pause(30s, source.get_token()));
  EXPECT_EQ(Clock::get().now() - start, 30s);
}

// Destroying the worker while a job pauses and another waits: the pause ends,
// the waiting job never runs and nothing delivered afterwards reaches the
// main thread.
TEST_F(BackgroundWorkerTest, DestructionStopsTheRunningJobAndDropsTheRest) {
  std::mutex mu;
  std::condition_variable cv;
  bool pausing = false;
  std::optional<bool> pauseCompleted;
  bool secondRan = false;
  bool deliveryRan = false;
  {
    BackgroundWorker worker;
    worker.post([&](const std::stop_token& stop) {
      {
        std::lock_guard<std::mutex> lock(mu);
        pausing = true;
      }
      cv.notify_all();
      // Real time would be needed to get past this without the stop:
      // virtual time moves only while this job sleeps, in 0.1 s slices.
      const bool completed = BackgroundWorker::pause(std::chrono::hours(24 * 365), stop);
      worker.deliver([&] { deliveryRan = true; });
      std::lock_guard<std::mutex> lock(mu);
      pauseCompleted = completed;
    });
    worker.post([&](const std::stop_token&) { secondRan = true; });
    std::unique_lock<std::mutex> lock(mu);
    ASSERT_TRUE(cv.wait_for(lock, 5s, [&] { return pausing; }));
  }
  while (main_.runOnce()) {
  }
  EXPECT_EQ(pauseCompleted, std::optional<bool>(false));
  EXPECT_FALSE(secondRan);
  EXPECT_FALSE(deliveryRan);
}

}  // namespace
}  // namespace zonara
