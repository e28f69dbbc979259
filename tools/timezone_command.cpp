#include "tools/timezone_command.h"

#include <cmath>
#include <cstdlib>
#include <map>
#include <memory>
#include <optional>
#include <sstream>

#include "platform/http_fetcher.h"
#include "platform/preferences_store.h"
#include "platform/time_zone_database.h"
#include "platform/zonara_names.h"
#include "timezone/boundary_data.h"
#include "timezone/geolocation_helper.h"

namespace zonara {
namespace {

using namespace std::chrono_literals;

constexpr int kUsageError = 2;

struct Point {
  double latitude = 0;
  double longitude = 0;
};

bool parseDegrees(const std::string& text, double limit, double* out) {
  char* end = nullptr;
  const double value = std::strtod(text.c_str(), &end);
  if (text.empty() || *end != '\0' || !std::isfinite(value) || std::fabs(value) > limit) return false;
  *out = value;
  return true;
}

// The point, or nullopt with the problem in `problem`.
std::optional<Point> parsePoint(const std::string& latitude, const std::string& longitude, std::string* problem) {
  Point p;
  if (!parseDegrees(latitude, 90, &p.latitude)) {
    *problem = "LATITUDE must be a number of degrees from -90 to 90, not '" + latitude + "'";
    return std::nullopt;
  }
  if (!parseDegrees(longitude, 180, &p.longitude)) {
    *problem = "LONGITUDE must be a number of degrees from -180 to 180, not '" + longitude + "'";
    return std::nullopt;
  }
  return p;
}

std::optional<Point> parseLine(const std::string& line, std::string* problem) {
  std::istringstream words(line);
  std::string latitude, longitude, extra;
  if (!(words >> latitude >> longitude) || (words >> extra)) {
    *problem = "expected LATITUDE LONGITUDE, not '" + line + "'";
    return std::nullopt;
  }
  return parsePoint(latitude, longitude, problem);
}

// Answers points the way the helper would: from the boundary data, or from
// the configured service (one attempt each, no pause).
class PointAnswers {
 public:
  explicit PointAnswers(bool border) : border_(border) {
    PreferencesDomain prefs(kPreferencesDomain);
    GeolocationHelper::Config config = GeoNamesClient::configFromPreferences(prefs);
    config.attempts = 1;
    config.pauseBetweenAttempts = 0s;
    serviceURL_ = config.serviceURL;
    helper_ = std::make_unique<GeolocationHelper>(fetcher_, zones_, config);
  }

  // Opens the boundary data when the answers need it; false with the reason.
  bool open(std::string* error) {
    if (!border_ && helper_->usesService()) return true;
    data_ = timezone::openBoundaryData(timezone::BoundaryDataSearch::forThisProcess(), error);
    return data_.index != nullptr;
  }

  // The answer line for `p`; nullopt when no zone is chosen there (`error`
  // set when that is a failure rather than the answer).
  std::optional<std::string> answer(const Point& p, std::string* error) {
    error->clear();
    if (!isUsablePosition(p.longitude, p.latitude)) return std::nullopt;
    if (!border_ && helper_->usesService()) {
      std::optional<std::string> zone = helper_->timezoneForLongitude(p.longitude, p.latitude);
      if (!zone) *error = "no zone from the time-zone service at " + serviceURL_;
      return zone;
    }
    std::optional<std::vector<std::string>> zones = data_.index->zonesAt(p.latitude, p.longitude, error);
    if (!zones) return std::nullopt;
    std::optional<std::string> zone = helper_->knownZoneForBoundaryZones(
        *zones, p.longitude, [this](const std::string& name) { return matched(name); });
    if (!zone) {
      *error = "no zone of this system matches the boundary data's zone there";
      return std::nullopt;
    }
    if (!border_) return zone;
    std::optional<double> metres = data_.index->borderDistance(p.latitude, p.longitude, error);
    if (!metres) return std::nullopt;
    char distance[32];
    std::snprintf(distance, sizeof distance, " %.0f", *metres);
    return *zone + distance;
  }

 private:
  // Matching walks every known zone; a run answers many points of few zones.
  std::optional<std::string> matched(const std::string& name) {
    auto it = matches_.find(name);
    if (it == matches_.end()) it = matches_.emplace(name, helper_->matcher().zoneForIdentifier(name)).first;
    return it->second;
  }

  const bool border_;
  std::string serviceURL_;
  CurlHttpFetcher fetcher_;
  DateTzDatabase zones_;
  std::unique_ptr<GeolocationHelper> helper_;
  timezone::BoundaryData data_;
  std::map<std::string, std::optional<std::string>> matches_;
};

int usageError(std::FILE* err, const std::string& problem) {
  std::fprintf(err, "zonara: %s\nRun 'zonara --help' for the commands.\n", problem.c_str());
  return kUsageError;
}

int answerOne(PointAnswers& answers, const Point& p, std::FILE* out, std::FILE* err) {
  std::string error;
  std::optional<std::string> answer = answers.answer(p, &error);
  if (!answer) {
    if (!error.empty()) std::fprintf(err, "zonara: %s\n", error.c_str());
    return 1;
  }
  std::fprintf(out, "%s\n", answer->c_str());
  return 0;
}

int answerLines(PointAnswers& answers, std::FILE* in, std::FILE* out, std::FILE* err) {
  int status = 0;
  char* buffer = nullptr;
  size_t capacity = 0;
  long number = 0;
  ssize_t length;
  while ((length = ::getline(&buffer, &capacity, in)) >= 0) {
    ++number;
    std::string line(buffer, static_cast<size_t>(length));
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.pop_back();
    std::string problem;
    std::optional<Point> p = parseLine(line, &problem);
    if (!p) {
      std::fflush(out);
      status = usageError(err, "line " + std::to_string(number) + ": " + problem);
      break;
    }
    std::optional<std::string> answer = answers.answer(*p, &problem);
    if (!answer) {
      status = 1;
      if (!problem.empty()) std::fprintf(err, "zonara: line %ld: %s\n", number, problem.c_str());
    }
    std::fprintf(out, "%s\n", answer ? answer->c_str() : "-");
  }
  std::free(buffer);
  return status;
}

}  // namespace

int runTimezoneCommand(const std::vector<std::string>& arguments, std::FILE* in, std::FILE* out, std::FILE* err) {
  std::vector<std::string> args = arguments;
  const bool border = !args.empty() && args.front() == "--border";
  if (border) args.erase(args.begin());
  const bool batch = args.size() == 1 && args.front() == "-";
  if (!batch && args.size() != 2) {
    return usageError(err, "timezone takes [--border] LATITUDE LONGITUDE, or [--border] - to read points from "
                           "standard input");
  }
  std::optional<Point> point;
  if (!batch) {
    std::string problem;
    point = parsePoint(args[0], args[1], &problem);
    if (!point) return usageError(err, problem);
  }
  PointAnswers answers(border);
  std::string error;
  if (!answers.open(&error)) {
    std::fprintf(err, "zonara: %s\n", error.c_str());
    return 1;
  }
  return batch ? answerLines(answers, in, out, err) : answerOne(answers, *point, out, err);
}

}  // namespace zonara
