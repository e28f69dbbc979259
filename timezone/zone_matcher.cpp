#include "timezone/zone_matcher.h"

#include <date/date.h>

#include <map>

#include "platform/clock.h"
#include "platform/text.h"

namespace zonara {

std::optional<std::string> KnownZoneMatcher::match(const ZoneAnswer& answer) const {
  if (answer.identifier) {
    if (auto zone = zoneForIdentifier(*answer.identifier)) return zone;
  }
  return zoneForGMTOffset(answer.gmtOffset, answer.dstOffset);
}

std::optional<std::string> KnownZoneMatcher::zoneForIdentifier(const std::string& identifier) const {
  const auto now = Clock::get().wallNow();
  for (const std::string& known : zones_.knownTimeZoneNames()) {
    auto name = zones_.zoneName(known);
    if (!name || name->empty() || *name == "posixrules") continue;
    const std::string abbreviation = zones_.abbreviationAt(*name, now).value_or("");
    if (containsIgnoringCaseAndDiacritics(*name, identifier) ||
        containsIgnoringCaseAndDiacritics(abbreviation, identifier)) {
      return name;
    }
  }
  return std::nullopt;
}

std::optional<std::string> KnownZoneMatcher::zoneForGMTOffset(int32_t gmtOffset, int32_t dstOffset) const {
  const auto now = Clock::get().wallNow();
  // 1 January and 1 July of this year, at midnight of the local zone.
  std::string local = zones_.systemTimeZoneName();
  if (local.empty()) local = "UTC";
  const auto today = date::year_month_day(date::floor<date::days>(now));
  auto localMidnight = [&](date::month m) {
    Clock::WallTime utcMidnight(date::sys_days(today.year() / m / 1).time_since_epoch());
    return utcMidnight - std::chrono::seconds(zones_.offsetAt(local, utcMidnight).value_or(0));
  };
  const auto january = localMidnight(date::January);
  const auto july = localMidnight(date::July);
  auto hasOffsets = [&](const std::string& zone) {
    return zones_.offsetAt(zone, january) == gmtOffset && zones_.offsetAt(zone, july) == dstOffset;
  };

  for (const std::string& known : zones_.knownTimeZoneNames()) {
    auto name = zones_.zoneName(known);
    if (!name || !hasOffsets(*name)) continue;
    auto abbreviation = zones_.abbreviationAt(*name, now);
    if (!abbreviation) return std::nullopt;
    auto representative = zoneForAbbreviation(*abbreviation);
    if (!representative) return std::nullopt;
    // The table's zone stands for its abbreviation in one region only (CST
    // is also China's): it is used only when it has the offsets asked for.
    if (hasOffsets(*representative)) return representative;
    return name;
  }
  return std::nullopt;
}

bool containsIgnoringCaseAndDiacritics(const std::string& text, const std::string& part) {
  if (part.empty()) return false;
  auto t = foldCaseAndDiacritics(text);
  auto p = foldCaseAndDiacritics(part);
  if (!t || !p) return text.find(part) != std::string::npos;
  return !p->empty() && t->find(*p) != std::string::npos;
}

std::optional<std::string> zoneForAbbreviation(const std::string& abbreviation) {
  static const std::map<std::string, std::string> table = {
      {"ADT", "America/Halifax"},       {"AST", "America/Halifax"},
      {"AKDT", "America/Juneau"},       {"AKST", "America/Juneau"},
      {"ART", "America/Argentina/Buenos_Aires"},
      {"BDT", "Asia/Dhaka"},            {"BRST", "America/Sao_Paulo"},
      {"BRT", "America/Sao_Paulo"},     {"BST", "Europe/London"},
      {"CAT", "Africa/Harare"},         {"CDT", "America/Chicago"},
      {"CST", "America/Chicago"},       {"CEST", "Europe/Paris"},
      {"CET", "Europe/Paris"},          {"CLST", "America/Santiago"},
      {"CLT", "America/Santiago"},      {"COT", "America/Bogota"},
      {"EAT", "Africa/Addis_Ababa"},    {"EDT", "America/New_York"},
      {"EST", "America/New_York"},      {"EEST", "Europe/Istanbul"},
      {"EET", "Europe/Istanbul"},       {"GMT", "GMT"},
      {"GST", "Asia/Dubai"},            {"HKT", "Asia/Hong_Kong"},
      {"HST", "Pacific/Honolulu"},      {"ICT", "Asia/Bangkok"},
      {"IRST", "Asia/Tehran"},          {"IST", "Asia/Kolkata"},
      {"JST", "Asia/Tokyo"},            {"KST", "Asia/Seoul"},
      {"MDT", "America/Denver"},        {"MST", "America/Denver"},
      {"MSD", "Europe/Moscow"},         {"MSK", "Europe/Moscow"},
      {"NZDT", "Pacific/Auckland"},     {"NZST", "Pacific/Auckland"},
      {"PDT", "America/Los_Angeles"},   {"PST", "America/Los_Angeles"},
      {"PET", "America/Lima"},          {"PHT", "Asia/Manila"},
      {"PKT", "Asia/Karachi"},          {"SGT", "Asia/Singapore"},
      {"UTC", "UTC"},                   {"WAT", "Africa/Lagos"},
      {"WEST", "Europe/Lisbon"},        {"WET", "Europe/Lisbon"},
      {"WIT", "Asia/Jakarta"},
  };
  auto it = table.find(abbreviation);
  if (it == table.end()) return std::nullopt;
  return it->second;
}

}  // namespace zonara
