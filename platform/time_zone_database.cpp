#include "platform/time_zone_database.h"

#include <date/tz.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <fstream>

namespace zonara {
namespace {

const date::time_zone* locate(const std::string& name) {
  if (name.empty()) return nullptr;
  try {
    return date::locate_zone(name);
  } catch (const std::exception&) {
    return nullptr;
  }
}

bool excluded(const std::string& name) {
  return name == "localtime" || name == "posixrules" || name == "Factory" || name.rfind("posix/", 0) == 0 ||
         name.rfind("right/", 0) == 0;
}

}  // namespace

std::vector<std::string> DateTzDatabase::knownTimeZoneNames() {
  std::vector<std::string> names;
  try {
    const auto& db = date::get_tzdb();
    for (const auto& zone : db.zones) {
      if (!excluded(zone.name())) names.push_back(zone.name());
    }
  } catch (const std::exception&) {
    return {};
  }
  std::sort(names.begin(), names.end());
  names.erase(std::unique(names.begin(), names.end()), names.end());
  return names;
}

std::optional<std::string> DateTzDatabase::zoneName(const std::string& name) {
  if (excluded(name)) return std::nullopt;
  const date::time_zone* zone = locate(name);
  if (!zone) return std::nullopt;
  return zone->name();
}

std::optional<int32_t> DateTzDatabase::offsetAt(const std::string& name, Clock::WallTime when) {
  const date::time_zone* zone = locate(name);
  if (!zone) return std::nullopt;
  try {
    return static_cast<int32_t>(zone->get_info(when).offset.count());
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

std::optional<std::string> DateTzDatabase::abbreviationAt(const std::string& name, Clock::WallTime when) {
  const date::time_zone* zone = locate(name);
  if (!zone) return std::nullopt;
  try {
    return zone->get_info(when).abbrev;
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

std::string DateTzDatabase::systemTimeZoneName() {
  char target[PATH_MAX];
  ssize_t n = readlink(localtimePath_.c_str(), target, sizeof target - 1);
  if (n > 0) {
    target[n] = '\0';
    std::string path = target;
    const std::string marker = "zoneinfo/";
    auto pos = path.rfind(marker);
    if (pos == std::string::npos) return "";
    std::string name = path.substr(pos + marker.size());
    return zoneName(name).value_or("");
  }
  // Not a link: a file holding the zone's name (as /etc/timezone does), but
  // not a compiled zone file.
  std::ifstream in(localtimePath_, std::ios::binary);
  std::string line;
  if (!in || !std::getline(in, line) || line.rfind("TZif", 0) == 0) return "";
  while (!line.empty() && (line.back() == ' ' || line.back() == '\r')) line.pop_back();
  return zoneName(line).value_or("");
}

}  // namespace zonara
