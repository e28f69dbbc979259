#include "platform/notification_center.h"

#include <algorithm>

namespace zonara {

NotificationCenter& NotificationCenter::defaultCenter() {
  static NotificationCenter* center = new NotificationCenter();
  return *center;
}

NotificationCenter::ObserverId NotificationCenter::addObserver(const std::string& name, Observer observer) {
  std::lock_guard<std::mutex> lock(mu_);
  ObserverId id = nextId_++;
  entries_.push_back(Entry{id, name, std::make_shared<Observer>(std::move(observer))});
  return id;
}

bool NotificationCenter::removeObserver(ObserverId id) {
  std::lock_guard<std::mutex> lock(mu_);
  auto it = std::find_if(entries_.begin(), entries_.end(), [id](const Entry& e) { return e.id == id; });
  if (it == entries_.end()) return false;
  entries_.erase(it);
  return true;
}

void NotificationCenter::post(const Notification& notification) {
  std::vector<std::pair<ObserverId, std::shared_ptr<Observer>>> targets;
  {
    std::lock_guard<std::mutex> lock(mu_);
    for (const Entry& e : entries_) {
      if (e.name.empty() || e.name == notification.name) targets.emplace_back(e.id, e.observer);
    }
  }
  for (const auto& [id, observer] : targets) {
    {
      // Skip observers removed by an earlier observer of this delivery.
      std::lock_guard<std::mutex> lock(mu_);
      bool present = std::any_of(entries_.begin(), entries_.end(), [id = id](const Entry& e) { return e.id == id; });
      if (!present) continue;
    }
    (*observer)(notification);
  }
}

}  // namespace zonara
