// The in-process notification centre: observers register for a notification
// name and are called synchronously, on the posting thread, in the order they
// were added.
//
// Thread safety: any thread may add, remove and post. An observer may remove
// itself or any other observer (and add new ones) while a notification is
// being delivered: removed observers are not called afterwards, observers
// added during a delivery are first called for the next post.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

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
  ObserverId addObserver(const std::string& name, Observer observer);
  // Returns false when the id is not registered.
  bool removeObserver(ObserverId id);
  void post(const Notification& notification);
  void post(const std::string& name, const void* object = nullptr) { post(Notification{name, object, {}}); }

 private:
  struct Entry {
    ObserverId id;
    std::string name;
    std::shared_ptr<Observer> observer;
  };
  std::mutex mu_;
  std::vector<Entry> entries_;
  ObserverId nextId_ = 1;
};

}  // namespace zonara
