// The public functions that set up the process rather than ask for a
// location. They need none of the library's components and do not take the
// library lock.
#include <memory>
#include <vector>

#include "wps/api/wpsapi.h"
#include "wps/spi/concurrent.h"
#include "wps/spi/logger.h"
#include "wps/spi/time.h"

namespace {

// The embedding program's clock as the library's.
class ProgramClock final : public WPS::SPI::Clock {
 public:
  explicit ProgramClock(const WPS_Clock& clock) : clock_(clock) {}

  WPS::SPI::Time now() override {
    const long long ms = clock_.now_ms(clock_.context);
    return WPS::SPI::Time(static_cast<int32_t>(ms / 1000), static_cast<int32_t>(ms % 1000));
  }
  void sleepMilliseconds(int64_t milliseconds) override {
    if (milliseconds > 0) clock_.sleep_ms(clock_.context, milliseconds);
  }

 private:
  const WPS_Clock clock_;
};

// Every program clock installed; replaced ones are kept (never freed), since
// a thread of the library may still be reading one.
struct InstalledClocks {
  WPS::SPI::StdMutex mu;
  std::vector<std::unique_ptr<ProgramClock>> clocks WPS_GUARDED_BY(mu);
};

WPS::SPI::Clock* keepClock(std::unique_ptr<ProgramClock> clock) {
  static InstalledClocks* installed = new InstalledClocks;
  WPS::SPI::StdMutexLock lock(installed->mu);
  installed->clocks.push_back(std::move(clock));
  return installed->clocks.back().get();
}

}  // namespace

extern "C" {

WPS_ReturnCode WPS_set_preferences_domain(const char* domain) {
  if (domain == nullptr) return WPS_ERROR;
  WPS::SPI::Logger::setApplicationDomain(domain);
  return WPS_OK;
}

WPS_ReturnCode WPS_set_clock(const WPS_Clock* clock) {
  if (clock == nullptr) {
    WPS::SPI::Clock::set(nullptr);
    return WPS_OK;
  }
  if (clock->now_ms == nullptr || clock->sleep_ms == nullptr) return WPS_ERROR;
  WPS::SPI::Clock::set(keepClock(std::make_unique<ProgramClock>(*clock)));
  return WPS_OK;
}

}  // extern "C"
