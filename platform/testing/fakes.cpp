#include "platform/testing/fakes.h"

#include "platform/run_loop.h"

namespace zonara::testing {

void RecordingDesktopNotifier::notify(const std::string& title, const std::string& message,
                                      const std::string& notificationName, const std::string& iconPath) {
  std::string icon = iconPath.substr(iconPath.rfind('/') + 1);
  shown.push_back(title + "|" + message + "|" + notificationName + "|" + icon);
}

void InProcessDistributedNotificationCenter::post(const DistributedNotification& notification) {
  posted.push_back(notification.name);
  RunLoop& loop = RunLoop::current();
  pending_.emplace_back(&loop, loop.performAfterDelay(Clock::Duration(0), [this, notification] { deliver(notification); }));
}

InProcessDistributedNotificationCenter::~InProcessDistributedNotificationCenter() {
  for (const auto& [loop, id] : pending_) loop->cancelTimer(id);
}

DistributedNotificationCenter::ObserverId InProcessDistributedNotificationCenter::addObserver(const std::string& name,
                                                                                                Observer observer) {
  observers_[++lastId_] = {name, std::move(observer)};
  return lastId_;
}

void InProcessDistributedNotificationCenter::deliver(const DistributedNotification& notification) {
  auto snapshot = observers_;
  for (const auto& [id, entry] : snapshot) {
    if (entry.first == notification.name && observers_.count(id)) entry.second(notification);
  }
}

}  // namespace zonara::testing
