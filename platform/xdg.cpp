#include "platform/xdg.h"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>

namespace zonara {
namespace {

// The variable's value when it is an absolute path, else "".
std::string absoluteVariable(const char* name) {
  const char* value = std::getenv(name);
  return value && value[0] == '/' ? value : "";
}

}  // namespace

std::string homeFolder() {
  if (const char* home = std::getenv("HOME"); home && home[0]) return home;
  struct passwd pw;
  struct passwd* found = nullptr;
  char buffer[4096];
  if (getpwuid_r(getuid(), &pw, buffer, sizeof buffer, &found) == 0 && found && found->pw_dir) return found->pw_dir;
  return "";
}

std::string xdgConfigHome() {
  std::string folder = absoluteVariable("XDG_CONFIG_HOME");
  return folder.empty() ? homeFolder() + "/.config" : folder;
}

std::string xdgDataHome() {
  std::string folder = absoluteVariable("XDG_DATA_HOME");
  return folder.empty() ? homeFolder() + "/.local/share" : folder;
}

std::string xdgStateHome() {
  std::string folder = absoluteVariable("XDG_STATE_HOME");
  return folder.empty() ? homeFolder() + "/.local/state" : folder;
}

std::vector<std::string> absoluteFolders(const std::string& list) {
  std::vector<std::string> folders;
  size_t start = 0;
  while (start <= list.size()) {
    size_t end = list.find(':', start);
    if (end == std::string::npos) end = list.size();
    if (end > start && list[start] == '/') folders.push_back(list.substr(start, end - start));
    start = end + 1;
  }
  return folders;
}

std::vector<std::string> xdgDataDirs() {
  const char* value = std::getenv("XDG_DATA_DIRS");
  std::vector<std::string> folders = absoluteFolders(value ? value : "");
  if (folders.empty()) folders = {"/usr/local/share", "/usr/share"};
  return folders;
}

}  // namespace zonara
