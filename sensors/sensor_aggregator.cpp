#include "sensors/sensor_aggregator.h"

#include "platform/system_log.h"
#include "platform/zonara_names.h"

namespace zonara {

using namespace std::chrono_literals;

SensorAggregator::SensorAggregator(NotificationCenter& center) : center_(center) {}

SensorAggregator::~SensorAggregator() {
  *alive_ = false;
  willSleep();
}

void SensorAggregator::setStatusSource(TelluroStatusSource* source) {
  source_ = source;
  lastTelluroStatus_ = source_ ? source_->telluroStatus() : TelluroStatus{};
}

void SensorAggregator::triggerNotification() {
  std::shared_ptr<bool> alive = alive_;
  RunLoop::performOnMainThread(
      [this, alive] {
        if (*alive) _triggerNotification();
      },
      false);
}

void SensorAggregator::_triggerNotification() {
  if (timer_) RunLoop::main().cancelTimer(timer_);
  timer_ = RunLoop::main().addTimer(4000ms, false, [this] { sendNotification(); });
}

void SensorAggregator::sendNotification() {
  if (timer_) RunLoop::main().cancelTimer(timer_);
  timer_ = 0;
  const TelluroStatus status = source_ ? source_->telluroStatus() : TelluroStatus{};
  const bool changed = source_ && !source_->statusIsEqualToStatus(lastTelluroStatus_);
  SystemLog("aggregator found telluroChanged = %i", changed ? 1 : 0);
  lastTelluroStatus_ = status;
  center_.post(kSensorNotification, this);
}

void SensorAggregator::willSleep() {
  if (timer_) RunLoop::main().cancelTimer(timer_);
  timer_ = 0;
}

}  // namespace zonara
