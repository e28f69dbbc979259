#include "platform/system_log.h"

#include <syslog.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <mutex>

#include <errno.h>

namespace zonara {
namespace {

std::mutex& SinkMutex() {
  static std::mutex mu;
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

void Emit(LogPriority priority, const char* format, va_list args) {
  char buffer[2048];
  std::vsnprintf(buffer, sizeof buffer, format, args);
  {
    std::lock_guard<std::mutex> lock(SinkMutex());
    if (Sink()) {
      Sink()(priority, buffer);
      return;
    }
  }
  // openlog is not needed: syslog uses program_invocation_short_name as ident.
  syslog(SyslogPriority(priority), "%s", buffer);
  if (isatty(STDERR_FILENO)) {
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
  std::lock_guard<std::mutex> lock(SinkMutex());
  Sink() = std::move(sink);
}

}  // namespace zonara
