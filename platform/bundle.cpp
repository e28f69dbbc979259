#include "platform/bundle.h"

#include "platform/file_system.h"

namespace zonara {

std::unique_ptr<Bundle> Bundle::bundleWithPath(const std::string& path) {
  std::optional<std::string> resolved = resolvedPath(path);
  if (!resolved || !isFolder(*resolved)) return nullptr;
  std::optional<std::string> text = readFile(*resolved + "/Contents/Info.plist");
  if (!text) return nullptr;
  std::optional<PrefValue::Dictionary> info = parsePropertyList(*text);
  if (!info) return nullptr;
  return std::unique_ptr<Bundle>(new Bundle(std::move(*resolved), std::move(*info)));
}

std::string Bundle::bundleIdentifier() const {
  auto it = info_.find("CFBundleIdentifier");
  if (it == info_.end() || !it->second.isString()) return "";
  return it->second.asString();
}

std::string Bundle::pathForResource(const std::string& name, const std::string& type) const {
  std::string path = path_ + "/Contents/Resources/" + name;
  if (!type.empty()) path += "." + type;
  return pathExists(path) ? path : "";
}

std::string Bundle::executablePath() const {
  auto it = info_.find("CFBundleExecutable");
  if (it == info_.end() || !it->second.isString() || it->second.asString().empty()) return "";
  const std::string path = path_ + "/Contents/MacOS/" + it->second.asString();
  return isExecutableFile(path) ? path : "";
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
