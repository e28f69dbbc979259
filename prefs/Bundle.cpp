#include "prefs/Bundle.h"

#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <fstream>
#include <sstream>

namespace zonara {

std::unique_ptr<Bundle> Bundle::bundleWithPath(const std::string& path) {
  if (path.empty()) return nullptr;
  char resolved[PATH_MAX];
  if (realpath(path.c_str(), resolved) == nullptr) return nullptr;
  struct stat st;
  if (stat(resolved, &st) != 0 || !S_ISDIR(st.st_mode)) return nullptr;
  std::ifstream in(std::string(resolved) + "/Contents/Info.plist", std::ios::binary);
  if (!in) return nullptr;
  std::stringstream text;
  text << in.rdbuf();
  std::optional<PrefValue::Dictionary> info = parsePropertyList(text.str());
  if (!info) return nullptr;
  return std::unique_ptr<Bundle>(new Bundle(resolved, std::move(*info)));
}

std::string Bundle::bundleIdentifier() const {
  auto it = info_.find("CFBundleIdentifier");
  if (it == info_.end() || !it->second.isString()) return "";
  return it->second.asString();
}

std::string Bundle::pathForResource(const std::string& name, const std::string& type) const {
  std::string path = path_ + "/Contents/Resources/" + name;
  if (!type.empty()) path += "." + type;
  return access(path.c_str(), F_OK) == 0 ? path : "";
}

std::string Bundle::executablePath() const {
  auto it = info_.find("CFBundleExecutable");
  if (it == info_.end() || !it->second.isString() || it->second.asString().empty()) return "";
  const std::string path = path_ + "/Contents/MacOS/" + it->second.asString();
  struct stat st;
  if (stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode) || access(path.c_str(), X_OK) != 0) return "";
  return path;
}

std::string Bundle::bundlePathForExecutable(const std::string& executable) {
  const std::string suffix = "/Contents/MacOS";
  const size_t slash = executable.rfind('/');
  if (slash == std::string::npos || slash < suffix.size()) return "";
  const std::string dir = executable.substr(0, slash);
  if (dir.compare(dir.size() - suffix.size(), suffix.size(), suffix) != 0) return "";
  const std::string bundle = dir.substr(0, dir.size() - suffix.size());
  return bundle.empty() ? "" : bundle;
}

std::string Bundle::pathExtension(const std::string& path) {
  std::string p = path;
  while (p.size() > 1 && p.back() == '/') p.pop_back();
  const size_t slash = p.rfind('/');
  const std::string last = slash == std::string::npos ? p : p.substr(slash + 1);
  const size_t dot = last.rfind('.');
  if (dot == std::string::npos || dot == 0) return "";
  return last.substr(dot + 1);
}

}  // namespace zonara
