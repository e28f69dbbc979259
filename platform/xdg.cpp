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

}  // namespace zonara
