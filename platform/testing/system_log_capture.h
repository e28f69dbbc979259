// Captures the helper's system log (SystemLog, SystemLogAt) for tests.
//
// While a `SystemLogCapture` lives, every system-log line is kept by it
// instead of going to syslog and standard error; the destructor restores
// normal logging. One capture at a time: a second one replaces the first
// until it goes. Lines may arrive from any thread; every member is
// thread-safe.
#pragma once

#include <algorithm>
#include <mutex>
#include <string>
#include <vector>

#include "platform/system_log.h"

namespace zonara::testing {

class SystemLogCapture {
 public:
  SystemLogCapture() {
    SetSystemLogSinkForTesting([this](LogPriority, const std::string& line) {
      std::lock_guard<std::mutex> lock(mu_);
      lines_.push_back(line);
    });
  }
  ~SystemLogCapture() { SetSystemLogSinkForTesting(nullptr); }
  SystemLogCapture(const SystemLogCapture&) = delete;
  SystemLogCapture& operator=(const SystemLogCapture&) = delete;

  // The lines so far, oldest first.
  [[nodiscard]] std::vector<std::string> lines() const {
    std::lock_guard<std::mutex> lock(mu_);
    return lines_;
  }
  [[nodiscard]] size_t size() const {
    std::lock_guard<std::mutex> lock(mu_);
    return lines_.size();
  }
  [[nodiscard]] bool empty() const { return size() == 0; }
  // The last line ("" when none).
  [[nodiscard]] std::string last() const {
    std::lock_guard<std::mutex> lock(mu_);
    return lines_.empty() ? std::string() : lines_.back();
  }
  // Whether a line equals `line` exactly.
  [[nodiscard]] bool has(const std::string& line) const {
    std::lock_guard<std::mutex> lock(mu_);
    return std::find(lines_.begin(), lines_.end(), line) != lines_.end();
  }
  // Lines holding `fragment`.
  [[nodiscard]] size_t count(const std::string& fragment) const {
    std::lock_guard<std::mutex> lock(mu_);
    return static_cast<size_t>(std::count_if(lines_.begin(), lines_.end(), [&](const std::string& line) {
      return line.find(fragment) != std::string::npos;
    }));
  }
  [[nodiscard]] bool contains(const std::string& fragment) const { return count(fragment) > 0; }
  void clear() {
    std::lock_guard<std::mutex> lock(mu_);
    lines_.clear();
  }

 private:
  mutable std::mutex mu_;
  std::vector<std::string> lines_;
};

}  // namespace zonara::testing
