#include "platform/testing/network_namespace.h"

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <cstdlib>

namespace zonara::testing {
namespace {

bool writeProcFile(const char* path, const std::string& text) {
  const int fd = ::open(path, O_WRONLY | O_CLOEXEC);
  if (fd < 0) return false;
  const bool ok = ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  ::close(fd);
  return ok;
}

}  // namespace

bool enterNetworkNamespace() {
  const uid_t uid = ::getuid();
  const gid_t gid = ::getgid();
  if (::unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0) return false;
  (void)writeProcFile("/proc/self/setgroups", "deny");
  if (!writeProcFile("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1") ||
      !writeProcFile("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1")) {
    return false;
  }
  // The loopback interface starts down in a fresh namespace.
  return runIp("link set lo up");
}

bool runIp(const std::string& arguments) {
  return std::system(("ip " + arguments + " >/dev/null 2>&1").c_str()) == 0;
}

}  // namespace zonara::testing
