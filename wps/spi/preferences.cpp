#include "wps/spi/preferences.h"

#include <plist/plist.h>
#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>
#include <sstream>

#include "wps/spi/logger.h"

namespace WPS {
namespace SPI {
namespace {

struct PlistFree {
  void operator()(plist_t node) const { plist_free(node); }
};
using PlistPtr = std::unique_ptr<void, PlistFree>;

std::optional<std::string> readWholeFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  if (in.bad()) return std::nullopt;
  return bytes;
}

// $HOME, or the home folder of the user's account when it is unset or empty.
std::string homeFolder() {
  const char* home = std::getenv("HOME");
  if (home != nullptr && home[0] != '\0') return home;
  struct passwd pw;
  struct passwd* found = nullptr;
  char buffer[4096];
  if (getpwuid_r(getuid(), &pw, buffer, sizeof buffer, &found) == 0 && found && found->pw_dir) return found->pw_dir;
  return {};
}

}  // namespace

std::string preferencesFile(const std::string& domain) {
  const char* xdg = std::getenv("XDG_CONFIG_HOME");
  std::string folder;
  if (xdg != nullptr && xdg[0] == '/') {
    folder = xdg;
  } else if (const std::string home = homeFolder(); !home.empty()) {
    folder = home + "/.config";
  } else {
    return {};
  }
  return folder + "/" + domain + ".plist";
}

std::optional<std::string> readStringPreference(const std::string& domain, const char* key) {
  if (domain.empty() || key == nullptr) return std::nullopt;
  const std::string path = preferencesFile(domain);
  if (path.empty()) return std::nullopt;
  const std::optional<std::string> bytes = readWholeFile(path);
  if (!bytes || bytes->empty()) return std::nullopt;
  plist_t root = nullptr;
  plist_from_memory(bytes->data(), static_cast<uint32_t>(bytes->size()), &root);
  PlistPtr owned(root);
  if (root == nullptr || plist_get_node_type(root) != PLIST_DICT) return std::nullopt;
  plist_t value = plist_dict_get_item(root, key);
  if (value == nullptr || plist_get_node_type(value) != PLIST_STRING) return std::nullopt;
  // Not plist_get_string_val: it aborts the process on a string holding a
  // NUL character, which any file can contain. The text ends at the first NUL.
  uint64_t length = 0;
  const char* text = plist_get_string_ptr(value, &length);
  if (text == nullptr) return std::nullopt;
  const std::string whole(text, length);
  return whole.substr(0, whole.find('\0'));
}

std::string readLibraryPreference(const char* key) {
  std::optional<std::string> text = readStringPreference(Logger::applicationDomain(), key);
  if (!text) text = readStringPreference(kLibraryPreferencesDomain, key);
  return text.value_or(std::string());
}

bool hostListed(const std::string& host, const std::string& list) {
  auto lower = [](std::string text) {
    for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
  };
  std::string names = list;
  std::replace(names.begin(), names.end(), ',', ' ');
  std::istringstream in(names);
  const std::string wanted = lower(host);
  std::string name;
  while (in >> name) {
    if (name == "*" || (!wanted.empty() && lower(name) == wanted)) return true;
  }
  return false;
}

}  // namespace SPI
}  // namespace WPS
