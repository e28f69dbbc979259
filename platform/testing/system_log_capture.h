// Captures the helper's system log (SystemLog, SystemLogAt) for tests.
//
// While a `SystemLogCapture` lives, every system-log line is kept by it
// instead of going to syslog and standard error; the destructor restores
// normal logging. One capture at a time: a second one replaces the first
// until it goes. Lines may arrive from any thread; every member is
// thread-safe.
#pragma once

#include <algorithm>
#include <string>
#include <vector>

#include "platform/mutex.h"
#include "platform/system_log.h"

namespace zonara::testing {

class SystemLogCapture {
 public:
  SystemLogCapture() {
    SetSystemLogSinkForTesting([this](LogPriority, const std::string& line) {
      MutexLock lock(mu_);
      lines_.push_back(line);
    });
  }
  ~SystemLogCapture() { SetSystemLogSinkForTesting(nullptr); }
  SystemLogCapture(const SystemLogCapture&) = delete;
  SystemLogCapture& operator=(const SystemLogCapture&) = delete;

  // The lines so far, oldest first.
  [[nodiscard]] std::vector<std::string> lines() const {
    MutexLock lock(mu_);
    return lines_;
  }
  [[nodiscard]] size_t size() const {
    MutexLock lock(mu_);
    return lines_.size();
  }
  [[nodiscard]] bool empty() const { return size() == 0; }
  // The last line ("" when none).
  [[nodiscard]] std::string last() const {
    MutexLock lock(mu_);
    return lines_.empty() ? std::string() : lines_.back();
  }
  // Whether a line equals `line` exactly.
  [[nodiscard]] bool has(const std::string& line) const {
    MutexLock lock(mu_);
    return std::find(lines_.begin(), lines_.end(), line) != lines_.end();
  }
  // Lines holding `fragment`.
  [[nodiscard]] size_t count(const std::string& fragment) const {
    MutexLock lock(mu_);
    return static_cast<size_t>(std::count_if(lines_.begin(), lines_.end(), [&](const std::string& line) {
      return line.find(fragment) != std::string::npos;
    }));
  }
  [[nodiscard]] bool contains(const std::string& fragment) const { return count(fragment) > 0; }
  void clear() {
    MutexLock lock(mu_);
    lines_.clear();
  }

 private:
  mutable Mutex mu_;
  std::vector<std::string> lines_ ZONARA_GUARDED_BY(mu_);
};

}  // namespace zonara::testing
