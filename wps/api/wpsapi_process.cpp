// The public functions that set up the process rather than ask for a
// location, and the library's clock as the embedding program sees it. They
// need none of the library's components and do not take the library lock.
#include <cmath>
#include <memory>
#include <vector>

#include "wps/api/wpsapi.h"
#include "wps/spi/concurrent.h"
#include "wps/spi/logger.h"
#include "wps/spi/time.h"

namespace {

// Every sped-up clock installed; replaced ones are kept (never freed), since
// a thread may still be reading one.
struct ScaledClocks {
  WPS::SPI::StdMutex mu;
  std::vector<std::unique_ptr<WPS::SPI::ScaledClock>> clocks WPS_GUARDED_BY(mu);
};

WPS::SPI::Clock* keepClock(std::unique_ptr<WPS::SPI::ScaledClock> clock) {
  static ScaledClocks* kept = new ScaledClocks;
  WPS::SPI::StdMutexLock lock(kept->mu);
  kept->clocks.push_back(std::move(clock));
  return kept->clocks.back().get();
}

}  // namespace

extern "C" {

WPS_ReturnCode WPS_set_preferences_domain(const char* domain) {
  if (domain == nullptr) return WPS_ERROR;
  WPS::SPI::Logger::setApplicationDomain(domain);
  return WPS_OK;
}

long long WPS_clock_wall_ms(void) {
  const WPS::SPI::Time now = WPS::SPI::Clock::get().now();
  return static_cast<long long>(now.seconds) * 1000 + now.milliseconds;
}

long long WPS_clock_monotonic_ms(void) { return WPS::SPI::Clock::get().monotonicMilliseconds(); }

void WPS_clock_sleep_ms(long long milliseconds) { WPS::SPI::Clock::get().sleepMilliseconds(milliseconds); }

int WPS_clock_is_simulated(void) { return WPS::SPI::Clock::get().isSimulated() ? 1 : 0; }

long long WPS_clock_real_ms(long long milliseconds) {
  return WPS::SPI::Clock::get().realMilliseconds(milliseconds);
}

WPS_ReturnCode WPS_set_time_scale(double factor) {
  if (!std::isfinite(factor) || factor < 1.0) return WPS_ERROR;
  if (factor == 1.0) {
    WPS::SPI::Clock::set(nullptr);
    return WPS_OK;
  }
  WPS::SPI::Clock::set(keepClock(std::make_unique<WPS::SPI::ScaledClock>(factor)));
  return WPS_OK;
}

void WPS_set_clock_listener(void (*moved)(void* context), void* context) {
  WPS::SPI::Clock::setMovedListener(moved, context);
}

}  // extern "C"
