// The system log: syslog(3) under the program's name (journald keeps it), and
// standard error as well unless standard error is the journal's stream
// (JOURNAL_STREAM names it), so terminals, scripts and tests see every line
// and the journal gets each line once.
//
// Thread safety: any thread.
#pragma once

#include <functional>
#include <string>

namespace zonara {

enum class LogPriority { Error, Warning, Notice, Info, Debug };

// Logs a formatted message (printf rules) at Notice priority.
void SystemLog(const char* format, ...) __attribute__((format(printf, 1, 2)));
void SystemLogAt(LogPriority priority, const char* format, ...) __attribute__((format(printf, 2, 3)));

// Tests capture messages by installing a sink; while one is installed nothing
// goes to syslog or standard error. nullptr restores normal logging.
using SystemLogSink = std::function<void(LogPriority, const std::string&)>;
void SetSystemLogSinkForTesting(SystemLogSink sink);

}  // namespace zonara
