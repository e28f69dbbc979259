// The in-process notification centre: observers register for a notification
// name and are called synchronously, on the posting thread, in the order they
// were added.
//
// Thread safety: any thread may add, remove and post, and posts on several
// threads deliver at the same time. An observer may remove itself or any
// other observer (and add new ones) while a notification is being delivered.
//
// The removal promise: once `removeObserver` returns, the observer is not
// called again, from any thread. A removal therefore waits for deliveries of
// that observer in progress on other threads to end; it does not wait for a
// delivery on its own thread (an observer removing itself, or a removal from
// inside another observer's delivery), which simply is not continued for the
// removed observer. Observers added during a delivery are first called for
// the next post.
//
// Because a removal may wait for an observer to return, do not remove an
// observer while holding a lock that the observer takes, and do not let two
// observers delivering on two threads remove each other.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform/mutex.h"

namespace zonara {

struct Notification {
  std::string name;
  const void* object = nullptr;  // the poster, borrowed; may be null
  std::map<std::string, std::string> userInfo;
};

class NotificationCenter {
 public:
  using ObserverId = uint64_t;
  using Observer = std::function<void(const Notification&)>;

  NotificationCenter() = default;
  NotificationCenter(const NotificationCenter&) = delete;
  NotificationCenter& operator=(const NotificationCenter&) = delete;

  // The process's centre (never destroyed).
  [[nodiscard]] static NotificationCenter& defaultCenter();

  // Calls `observer` for every notification named `name` ("" = every name).
  // Returns an id for `removeObserver`, never 0.
  ObserverId addObserver(const std::string& name, Observer observer) ZONARA_EXCLUDES(mu_);
  // Unregisters the observer and waits for its deliveries on other threads
  // to end (see above). Returns false when the id is not registered.
  bool removeObserver(ObserverId id) ZONARA_EXCLUDES(mu_);
  void post(const Notification& notification) ZONARA_EXCLUDES(mu_);
  void post(const std::string& name, const void* object = nullptr) { post(Notification{name, object, {}}); }

 private:
  // One registered observer. `call` never changes after registration, so a
  // delivery calls it without the lock.
  struct Slot {
    explicit Slot(Observer observer) : call(std::move(observer)) {}
    const Observer call;
    // Both guarded by the centre's `mu_`.
    bool removed = false;
    // The threads delivering to this observer now, one entry per delivery.
    std::vector<std::thread::id> deliveringOn;
  };
  struct Entry {
    ObserverId id;
    std::string name;
    std::shared_ptr<Slot> slot;
  };

  // Marks a delivery to `slot` on this thread as begun; false when the
  // observer has been removed meanwhile.
  bool beginDelivery(Slot& slot) ZONARA_EXCLUDES(mu_);
  void endDelivery(Slot& slot) ZONARA_EXCLUDES(mu_);
  [[nodiscard]] bool deliveredOnOtherThreads(const Slot& slot) const ZONARA_REQUIRES(mu_);

  mutable Mutex mu_;
  CondVar deliveryEnded_;
  std::vector<Entry> entries_ ZONARA_GUARDED_BY(mu_);
  ObserverId nextId_ ZONARA_GUARDED_BY(mu_) = 1;
};

}  // namespace zonara
