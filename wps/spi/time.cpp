#include "wps/spi/time.h"

#include <sys/time.h>
#include <time.h>

#include <atomic>
#include <cerrno>

namespace WPS {
namespace SPI {
namespace {

class RealClock final : public Clock {
 public:
  Time now() override {
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    return Time(static_cast<int32_t>(tv.tv_sec), static_cast<int32_t>(tv.tv_usec / 1000));
  }

  void sleepMilliseconds(int64_t milliseconds) override {
    if (milliseconds <= 0) return;
    struct timespec ts;
    ts.tv_sec = static_cast<time_t>(milliseconds / 1000);
    ts.tv_nsec = static_cast<long>((milliseconds % 1000) * 1000000);
    while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
    }
  }
};

std::atomic<Clock*> g_clock{nullptr};

}  // namespace

Clock& Clock::real() {
  static RealClock clock;
  return clock;
}

Clock& Clock::get() {
  Clock* c = g_clock.load(std::memory_order_acquire);
  return c ? *c : real();
}

void Clock::set(Clock* clock) { g_clock.store(clock, std::memory_order_release); }

Time Time::now() { return Clock::get().now(); }

std::string Time::strftime(const char* format, const Time& time) {
  time_t t = time.seconds;
  struct tm tm;
  if (localtime_r(&t, &tm) == nullptr) return {};
  char buffer[256];
  size_t n = ::strftime(buffer, sizeof buffer, format, &tm);
  return std::string(buffer, n);
}

}  // namespace SPI
}  // namespace WPS
