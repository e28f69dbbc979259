#include "platform/command_runner.h"

#include <gio/gio.h>

#include "platform/system_log.h"

namespace zonara {

int SubprocessCommandRunner::run(const std::vector<std::string>& argv) {
  if (argv.empty()) return -1;
  std::vector<const gchar*> args;
  for (const auto& a : argv) args.push_back(a.c_str());
  args.push_back(nullptr);
  GError* error = nullptr;
  GSubprocess* process = g_subprocess_newv(args.data(), G_SUBPROCESS_FLAGS_NONE, &error);
  if (!process) {
    SystemLogAt(LogPriority::Warning, "cannot run %s: %s", argv[0].c_str(), error->message);
    g_error_free(error);
    return -1;
  }
  int status = -1;
  if (g_subprocess_wait(process, nullptr, &error)) {
    if (g_subprocess_get_if_exited(process)) {
      status = g_subprocess_get_exit_status(process);
    } else if (g_subprocess_get_if_signaled(process)) {
      status = 128 + g_subprocess_get_term_sig(process);
    }
  } else {
    g_error_free(error);
  }
  g_object_unref(process);
  return status;
}

}  // namespace zonara
