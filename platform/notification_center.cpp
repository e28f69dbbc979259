#include "platform/notification_center.h"

#include <algorithm>

namespace zonara {

NotificationCenter& NotificationCenter::defaultCenter() {
  static NotificationCenter* center = new NotificationCenter();
  return *center;
}

NotificationCenter::ObserverId NotificationCenter::addObserver(const std::string& name, Observer observer) {
  MutexLock lock(mu_);
  ObserverId id = nextId_++;
  entries_.push_back(Entry{id, name, std::make_shared<Slot>(std::move(observer))});
  return id;
}

bool NotificationCenter::deliveredOnOtherThreads(const Slot& slot) const {
  const std::thread::id me = std::this_thread::get_id();
  return std::any_of(slot.deliveringOn.begin(), slot.deliveringOn.end(),
                     [me](std::thread::id thread) { return thread != me; });
}

bool NotificationCenter::removeObserver(ObserverId id) {
  MutexLock lock(mu_);
  auto it = std::find_if(entries_.begin(), entries_.end(), [id](const Entry& e) { return e.id == id; });
  if (it == entries_.end()) return false;
  std::shared_ptr<Slot> slot = it->slot;
  entries_.erase(it);
  slot->removed = true;
  // A delivery on this thread (we are inside it, or inside an observer it
  // called) cannot end before we return: only the others are waited for.
  while (deliveredOnOtherThreads(*slot)) deliveryEnded_.wait(mu_);
  return true;
}

bool NotificationCenter::beginDelivery(Slot& slot) {
  MutexLock lock(mu_);
  if (slot.removed) return false;
  slot.deliveringOn.push_back(std::this_thread::get_id());
  return true;
}

void NotificationCenter::endDelivery(Slot& slot) {
  {
    MutexLock lock(mu_);
    auto it = std::find(slot.deliveringOn.begin(), slot.deliveringOn.end(), std::this_thread::get_id());
    if (it != slot.deliveringOn.end()) slot.deliveringOn.erase(it);
  }
  deliveryEnded_.notifyAll();
}

void NotificationCenter::post(const Notification& notification) {
  std::vector<std::shared_ptr<Slot>> targets;
  {
    MutexLock lock(mu_);
    for (const Entry& e : entries_) {
      if (e.name.empty() || e.name == notification.name) targets.push_back(e.slot);
    }
  }
  for (const std::shared_ptr<Slot>& slot : targets) {
    // Observers removed by an earlier observer of this delivery, or by
    // another thread since the list was taken, are skipped.
    if (!beginDelivery(*slot)) continue;
    struct EndDelivery {
      NotificationCenter& center;
      Slot& slot;
      ~EndDelivery() { center.endDelivery(slot); }
    } end{*this, *slot};
    slot->call(notification);
  }
}

}  // namespace zonara
