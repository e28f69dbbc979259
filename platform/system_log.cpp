#include "platform/system_log.h"

#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include <errno.h>

#include "platform/mutex.h"

namespace zonara {
namespace {

Mutex& SinkMutex() {
  static Mutex mu;
  return mu;
}

SystemLogSink& Sink() {
  static SystemLogSink sink;
  return sink;
}

int SyslogPriority(LogPriority p) {
  switch (p) {
    case LogPriority::Error: return LOG_ERR;
    case LogPriority::Warning: return LOG_WARNING;
    case LogPriority::Notice: return LOG_NOTICE;
    case LogPriority::Info: return LOG_INFO;
    case LogPriority::Debug: return LOG_DEBUG;
  }
  return LOG_NOTICE;
}

// Standard error gets every message too, unless it is the journal's own
// stream (systemd then sets JOURNAL_STREAM to its device and inode), where
// the syslog copy already lands. Under a terminal, a test or a script, the
// messages are thus visible without a system logger.
bool StderrWanted() {
  static const bool wanted = [] {
    struct stat st {};
    if (fstat(STDERR_FILENO, &st) != 0) return false;
    const char* journal = std::getenv("JOURNAL_STREAM");
    if (!journal || !*journal) return true;
    unsigned long long device = 0, inode = 0;
    if (std::sscanf(journal, "%llu:%llu", &device, &inode) != 2) return true;
    return !(device == static_cast<unsigned long long>(st.st_dev) && inode == static_cast<unsigned long long>(st.st_ino));
  }();
  return wanted;
}

void Emit(LogPriority priority, const char* format, va_list args) {
  char buffer[2048];
  std::vsnprintf(buffer, sizeof buffer, format, args);
  {
    MutexLock lock(SinkMutex());
    if (Sink()) {
      Sink()(priority, buffer);
      return;
    }
  }
  // openlog is not needed: syslog uses program_invocation_short_name as ident.
  syslog(SyslogPriority(priority), "%s", buffer);
  if (StderrWanted()) {
    std::fprintf(stderr, "%s: %s\n", program_invocation_short_name, buffer);
  }
}

}  // namespace

void SystemLog(const char* format, ...) {
  va_list args;
  va_start(args, format);
  Emit(LogPriority::Notice, format, args);
  va_end(args);
}

void SystemLogAt(LogPriority priority, const char* format, ...) {
  va_list args;
  va_start(args, format);
  Emit(priority, format, args);
  va_end(args);
}

void SetSystemLogSinkForTesting(SystemLogSink sink) {
  MutexLock lock(SinkMutex());
  Sink() = std::move(sink);
}

}  // namespace zonara
