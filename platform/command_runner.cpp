#include "platform/command_runner.h"

#include <gio/gio.h>

#include <memory>

#include "platform/system_log.h"

namespace zonara {
namespace {

constexpr size_t kMaxOutput = 64 * 1024;

struct ObjectUnref {
  void operator()(gpointer object) const { g_object_unref(object); }
};

// Reads the merged output until the program closes it, keeping the first
// kMaxOutput bytes (the rest is read and dropped so the program never blocks).
std::string readAll(GInputStream* stream) {
  std::string output;
  char buffer[4096];
  for (;;) {
    const gssize n = g_input_stream_read(stream, buffer, sizeof buffer, nullptr, nullptr);
    if (n <= 0) break;
    if (output.size() < kMaxOutput) output.append(buffer, std::min(static_cast<size_t>(n), kMaxOutput - output.size()));
  }
  return output;
}

}  // namespace

CommandResult SubprocessCommandRunner::run(const std::vector<std::string>& argv) {
  CommandResult result;
  if (argv.empty()) {
    result.output = "no program given";
    return result;
  }
  std::vector<const gchar*> args;
  for (const auto& a : argv) args.push_back(a.c_str());
  args.push_back(nullptr);
  GError* error = nullptr;
  std::unique_ptr<GSubprocess, ObjectUnref> process(g_subprocess_newv(
      args.data(), GSubprocessFlags(G_SUBPROCESS_FLAGS_STDOUT_PIPE | G_SUBPROCESS_FLAGS_STDERR_MERGE), &error));
  if (!process) {
    result.output = error->message;
    SystemLogAt(LogPriority::Warning, "cannot run %s: %s", argv[0].c_str(), error->message);
    g_error_free(error);
    return result;
  }
  result.output = readAll(g_subprocess_get_stdout_pipe(process.get()));
  if (g_subprocess_wait(process.get(), nullptr, &error)) {
    if (g_subprocess_get_if_exited(process.get())) {
      result.status = g_subprocess_get_exit_status(process.get());
    } else if (g_subprocess_get_if_signaled(process.get())) {
      result.status = 128 + g_subprocess_get_term_sig(process.get());
    }
  } else {
    g_error_free(error);
  }
  return result;
}

}  // namespace zonara
