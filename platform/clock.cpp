#include "platform/clock.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>

#include "wps/api/wpsapi.h"

namespace zonara {

const Clock& Clock::get() {
  static const Clock clock;
  return clock;
}

Clock::TimePoint Clock::now() const { return TimePoint(Duration(WPS_clock_monotonic_ms())); }

Clock::WallTime Clock::wallNow() const { return WallTime(Duration(WPS_clock_wall_ms())); }

void Clock::sleepFor(Duration d) const { WPS_clock_sleep_ms(d.count()); }

bool Clock::isVirtual() const { return WPS_clock_is_simulated() != 0; }

Clock::Duration Clock::realDuration(Duration d) const { return Duration(WPS_clock_real_ms(d.count())); }

std::optional<double> Clock::parseFactor(const char* text) {
  if (!text || !*text) return std::nullopt;
  char* end = nullptr;
  errno = 0;
  const double value = std::strtod(text, &end);
  if (errno != 0 || *end != '\0' || !std::isfinite(value) || value < 1.0) return std::nullopt;
  return value;
}

}  // namespace zonara
