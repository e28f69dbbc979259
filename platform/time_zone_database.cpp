#include "platform/time_zone_database.h"

#include <date/tz.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <filesystem>
#include <iterator>
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
    if (std::optional<std::string> name = zoneNameOfPath(target)) return *name;
    // A link to a file elsewhere: told by its contents, below.
  }
  std::ifstream in(localtimePath_, std::ios::binary);
  std::string contents((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  if (!in && contents.empty()) return "";
  // A compiled zone file copied into place: the zone whose file has the same
  // bytes.
  if (contents.rfind("TZif", 0) == 0) return zoneWithContents(contents).value_or("");
  // Else a file holding the zone's name (as /etc/timezone does).
  std::string line = contents.substr(0, contents.find('\n'));
  while (!line.empty() && (line.back() == ' ' || line.back() == '\r')) line.pop_back();
  return zoneName(line).value_or("");
}

std::optional<std::string> DateTzDatabase::zoneNameOfPath(const std::string& path) {
  const std::string marker = "zoneinfo/";
  const size_t pos = path.rfind(marker);
  if (pos == std::string::npos) return std::nullopt;
  std::string name = path.substr(pos + marker.size());
  // The POSIX-time and leap-second trees hold the same zones under the same
  // names.
  for (const char* tree : {"posix/", "right/"}) {
    if (name.rfind(tree, 0) == 0) name.erase(0, std::char_traits<char>::length(tree));
  }
  return zoneName(name);
}

std::optional<std::string> DateTzDatabase::zoneWithContents(const std::string& contents) {
  namespace fs = std::filesystem;
  // Zones are files, their other names mostly links to them: a zone file is
  // preferred over a link with the same bytes ("Australia/Sydney", not
  // "Australia/ACT").
  std::optional<std::string> linked;
  for (const std::string& known : knownTimeZoneNames()) {
    const fs::path file = fs::path(zoneinfoFolder_) / known;
    std::error_code ec;
    if (fs::file_size(file, ec) != contents.size() || ec) continue;
    std::ifstream in(file, std::ios::binary);
    std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (bytes != contents) continue;
    if (!fs::is_symlink(file, ec)) return zoneName(known);
    if (!linked) linked = zoneName(known);
  }
  return linked;
}

}  // namespace zonara
