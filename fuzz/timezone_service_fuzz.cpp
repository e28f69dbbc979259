// Fuzz target: arbitrary bytes as the time-zone web service's reply. The
// client reads them as its XML answer, exactly as after a real request, and
// the identifier it takes from them is compared with zone names as the
// matcher compares them (case and diacritics ignored, any bytes allowed).
//
// Checked beyond "no crash, no leak": an answer comes only from a document
// with a "timezone" record.
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>
#include <vector>

#include "platform/http_fetcher.h"
#include "platform/system_log.h"
#include "timezone/geonames_client.h"
#include "timezone/zone_matcher.h"

namespace {

// Hands every request the fuzzer's bytes.
class ReplyFetcher final : public zonara::HttpFetcher {
 public:
  explicit ReplyFetcher(std::string reply) : reply_(std::move(reply)) {}
  std::optional<std::string> fetch(const std::string&, std::chrono::milliseconds) override { return reply_; }

 private:
  std::string reply_;
};

void quietLogs() {
  static const bool quiet = [] {
    zonara::SetSystemLogSinkForTesting([](zonara::LogPriority, const std::string&) {});
    return true;
  }();
  (void)quiet;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  quietLogs();
  const std::string reply(reinterpret_cast<const char*>(data), size);
  ReplyFetcher fetcher(reply);
  zonara::GeoNamesClient::Config config;
  config.serviceURL = "http://tz.invalid";
  config.attempts = 1;
  config.pauseBetweenAttempts = std::chrono::seconds(0);
  const zonara::GeoNamesClient client(fetcher, config);

  const std::optional<zonara::ZoneAnswer> answer = client.lookUp(13.4, 52.5);
  if (answer && reply.find("timezone") == std::string::npos) std::abort();
  if (answer && answer->identifier) {
    const std::string& id = *answer->identifier;
    volatile bool sink = zonara::containsIgnoringCaseAndDiacritics("Europe/Zürich", id) ^
                         zonara::containsIgnoringCaseAndDiacritics(id, "zurich") ^
                         zonara::zoneForAbbreviation(id).has_value();
    (void)sink;
  }
  return 0;
}

std::vector<unsigned char> timezoneServiceFuzzSeed() {
  const std::string seed =
      "<geonames><timezone tzversion=\"tzdata2024a\"><countryCode>CH</countryCode><countryName>Switzerland"
      "</countryName><lat>47.37</lat><lng>8.54</lng><timezoneId>Europe/Zurich</timezoneId><dstOffset>2.0"
      "</dstOffset><gmtOffset>1.0</gmtOffset><rawOffset>1.0</rawOffset><time>2026-11-24 21:00</time>"
      "</timezone></geonames>";
  return {seed.begin(), seed.end()};
}
