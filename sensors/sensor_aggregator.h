// The one place from which location sensing tells the application that the
// location may have changed: bursts of triggers collapse into one local
// notification "TelluroSensorNotification", posted 4.0 s after the last
// trigger (each trigger restarts the quiet period).
//
// Thread safety: `triggerNotification` from any thread (it is funnelled to
// the main thread); everything else on the main thread.
#pragma once

#include <memory>
#include <optional>

#include "platform/notification_center.h"
#include "platform/run_loop.h"
#include "sensors/location_source.h"
#include "sensors/telluro_sensor.h"

namespace zonara {

class SensorAggregator final : public LocationTrigger {
 public:

  // `center` is borrowed. The status source is set with `setStatusSource`
  // (the positioning sensor needs the aggregator first).
  explicit SensorAggregator(NotificationCenter& center);
  // Cancels a pending notification. Main thread.
  ~SensorAggregator() override;
  SensorAggregator(const SensorAggregator&) = delete;
  SensorAggregator& operator=(const SensorAggregator&) = delete;

  // Borrowed; takes its status as the last one seen.
  void setStatusSource(TelluroStatusSource* source);

  void triggerNotification() override;
  // Restarts the 4.0 s quiet period. Main thread.
  void _triggerNotification();
  // Posts the notification (the timer's action).
  void sendNotification();
  // Cancels a pending notification.
  void willSleep();

  [[nodiscard]] bool pending() const { return timer_ != 0; }

 private:
  NotificationCenter& center_;
  TelluroStatusSource* source_ = nullptr;
  RunLoop::TimerId timer_ = 0;
  TelluroStatus lastTelluroStatus_;
  // Shared with work queued for the main thread, which checks it first.
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace zonara
