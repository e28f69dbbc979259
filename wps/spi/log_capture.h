// Captures what a logger category writes, for tests.
//
// Attaches an appender to the named log4cpp category (and sets its priority to
// debug so every level is seen) for the life of the object, then restores the
// category. Thread safety: messages may arrive from any thread.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "wps/spi/logger.h"

namespace WPS {
namespace SPI {

class LogCapture {
 public:
  struct Entry {
    Logger::Level level;
    std::string message;
  };

  explicit LogCapture(const std::string& category);
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  [[nodiscard]] std::vector<Entry> entries() const;
  [[nodiscard]] std::vector<std::string> messages() const;
  // True when some message equals `text` exactly.
  [[nodiscard]] bool contains(const std::string& text) const;
  // True when some message contains `fragment`.
  [[nodiscard]] bool containsFragment(const std::string& fragment) const;
  void clear();

  class Sink;

 private:
  std::string category_;
  int previousPriority_;
  std::shared_ptr<Sink> sink_;
  void* appender_;  // owned by log4cpp once attached
};

}  // namespace SPI
}  // namespace WPS
