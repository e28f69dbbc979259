// Fuzz target: arbitrary bytes as the JSON geolocation service's answer and
// error document, and as a Retry-After header value.
//
// Checked beyond "no crash, no leak": an accepted answer is a place on Earth
// with a finite, non-negative accuracy; a refusal says why; a back-off period
// is never negative.
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>
#include <vector>

#include "wps/api/remote/geolocation_api.h"
#include "wps/spi/time.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string body(reinterpret_cast<const char*>(data), size);

  std::string problem;
  const std::optional<WPS::API::GeolocationAnswer> answer = WPS::API::parseGeolocationAnswer(body, problem);
  if (answer) {
    const bool onEarth = std::isfinite(answer->latitude) && std::isfinite(answer->longitude) &&
                         std::fabs(answer->latitude) <= 90 && std::fabs(answer->longitude) <= 180;
    if (!onEarth || !std::isfinite(answer->accuracy) || answer->accuracy < 0) std::abort();
  } else if (problem.empty()) {
    std::abort();
  }

  for (int status : {400, 403, 404, 429, 500, 503}) {
    volatile size_t sink = WPS::API::classifyGeolocationError(status, body).reason.size();
    (void)sink;
  }

  // Header values are one short line; the body's first 64 bytes stand in.
  const std::string retryAfter = body.substr(0, 64);
  const std::optional<int64_t> period = WPS::API::parseRetryAfter(retryAfter, WPS::SPI::Time(1795000000, 0));
  if (period && *period < 0) std::abort();
  return 0;
}

std::vector<unsigned char> geolocationAnswerFuzzSeed() {
  const std::string seed = R"({"location": {"lat": 51.0, "lng": -0.1}, "accuracy": 1200.4})";
  return {seed.begin(), seed.end()};
}
