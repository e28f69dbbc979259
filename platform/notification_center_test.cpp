#include "platform/notification_center.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <future>
#include <mutex>
#include <thread>

namespace zonara {
namespace {

TEST(NotificationCenterTest, DeliversByNameInOrderWithObjectAndInfo) {
  NotificationCenter center;
  std::vector<std::string> seen;
  int poster = 0;
  center.addObserver("A", [&](const Notification& n) {
    EXPECT_EQ(n.object, &poster);
    seen.push_back("A1:" + n.userInfo.at("k"));
  });
  center.addObserver("B", [&](const Notification&) { seen.push_back("B"); });
  center.addObserver("", [&](const Notification& n) { seen.push_back("any:" + n.name); });
  center.addObserver("A", [&](const Notification&) { seen.push_back("A2"); });
  center.post(Notification{"A", &poster, {{"k", "v"}}});
  EXPECT_EQ(seen, (std::vector<std::string>{"A1:v", "any:A", "A2"}));
}

TEST(NotificationCenterTest, RemovalDuringDeliveryIsSafe) {
  NotificationCenter center;
  std::vector<std::string> seen;
  NotificationCenter::ObserverId self = 0, later = 0;
  self = center.addObserver("N", [&](const Notification&) {
    seen.push_back("self");
    EXPECT_TRUE(center.removeObserver(self));   // removes itself
    EXPECT_TRUE(center.removeObserver(later));  // and one not yet called
    center.addObserver("N", [&](const Notification&) { seen.push_back("added"); });
  });
  center.addObserver("N", [&](const Notification&) { seen.push_back("kept"); });
  later = center.addObserver("N", [&](const Notification&) { seen.push_back("removed"); });
  center.post("N");
  EXPECT_EQ(seen, (std::vector<std::string>{"self", "kept"}));
  seen.clear();
  center.post("N");
  EXPECT_EQ(seen, (std::vector<std::string>{"kept", "added"}));
  EXPECT_FALSE(center.removeObserver(self));
}

// An observer that, once called, stays inside its delivery until released.
class BlockingObserver {
 public:
  void operator()() {
    std::unique_lock<std::mutex> lock(mu_);
    running_ = true;
    changed_.notify_all();
    changed_.wait(lock, [this] { return released_; });
    running_ = false;
  }
  void waitUntilRunning() {
    std::unique_lock<std::mutex> lock(mu_);
    changed_.wait(lock, [this] { return running_; });
  }
  void release() {
    std::lock_guard<std::mutex> lock(mu_);
    released_ = true;
    changed_.notify_all();
  }
  [[nodiscard]] bool running() {
    std::lock_guard<std::mutex> lock(mu_);
    return running_;
  }

 private:
  std::mutex mu_;
  std::condition_variable changed_;
  bool running_ = false;
  bool released_ = false;
};

TEST(NotificationCenterTest, RemovalFromAnotherThreadWaitsForTheDeliveryInProgress) {
  NotificationCenter center;
  BlockingObserver blocking;
  const NotificationCenter::ObserverId id = center.addObserver("N", [&](const Notification&) { blocking(); });
  std::thread poster([&] { center.post("N"); });
  blocking.waitUntilRunning();

  // The removal may not return while the observer still runs: whatever it
  // returns, the observer must have ended by then.
  std::future<bool> stillRunningAtReturn = std::async(std::launch::async, [&] {
    EXPECT_TRUE(center.removeObserver(id));
    return blocking.running();
  });
  // A removal that returns at once does so well within this; one that waits
  // keeps waiting until the observer is released below.
  (void)stillRunningAtReturn.wait_for(std::chrono::milliseconds(300));
  blocking.release();
  EXPECT_FALSE(stillRunningAtReturn.get());
  poster.join();
}

TEST(NotificationCenterTest, PostsOnManyThreadsNeverReachAnObserverAfterItsRemoval) {
  NotificationCenter center;
  std::atomic<bool> removalReturned{false};
  std::atomic<int> calls{0};
  std::atomic<int> callsEndingAfterRemoval{0};
  const NotificationCenter::ObserverId id = center.addObserver("N", [&](const Notification&) {
    calls.fetch_add(1);
    std::this_thread::yield();
    if (removalReturned.load()) callsEndingAfterRemoval.fetch_add(1);
  });
  std::atomic<bool> stop{false};
  std::vector<std::thread> posters;
  for (int i = 0; i < 4; ++i) {
    posters.emplace_back([&] {
      while (!stop.load()) center.post("N");
    });
  }
  while (calls.load() < 1000) std::this_thread::yield();
  EXPECT_TRUE(center.removeObserver(id));
  removalReturned.store(true);
  const int callsAtRemoval = calls.load();
  for (int i = 0; i < 1000; ++i) center.post("N");
  stop.store(true);
  for (std::thread& t : posters) t.join();
  EXPECT_EQ(callsEndingAfterRemoval.load(), 0);
  EXPECT_EQ(calls.load(), callsAtRemoval);
}

}  // namespace
}  // namespace zonara
