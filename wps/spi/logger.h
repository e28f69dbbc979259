// Per-category logging for the positioning library, over log4cpp.
//
// Categories have dotted names ("WPS.API.RESTClient"). Levels are the syslog
// numbers 0 (emergency) to 7 (debug); `error` logs at 3. A level above 7 maps to
// log4cpp's not-set priority.
//
// Configuration happens once per process, on the first `getInstance`: the key
// "LOG4CPP_CONFIGURATION" is looked up in the running program's preferences
// domain (see `setApplicationDomain`), then in the library's own domain
// `kLibraryPreferencesDomain`, then in the environment. A non-empty path
// configures log4cpp with its property configurator; otherwise log4cpp keeps its
// defaults and no file is read.
//
// Thread safety: every function here may be called from any thread. Loggers
// are never destroyed; references stay valid for the life of the process.
#pragma once

#include <cstdarg>
#include <string>

namespace WPS {
namespace SPI {

// The positioning library's own preferences domain.
inline constexpr const char* kLibraryPreferencesDomain = "example.telluro.wps";

class Logger {
 public:
  using Level = int;
  static constexpr Level EMERG = 0;
  static constexpr Level ALERT = 1;
  static constexpr Level CRIT = 2;
  static constexpr Level ERROR = 3;
  static constexpr Level WARN = 4;
  static constexpr Level NOTICE = 5;
  static constexpr Level INFO = 6;
  static constexpr Level DEBUG = 7;

  // Messages are formatted into a buffer of this size; longer ones are cut to
  // kMessageBufferSize - 1 characters.
  static constexpr size_t kMessageBufferSize = 1024;

  virtual ~Logger() = default;

  [[nodiscard]] virtual bool isEnabledFor(Level level) const = 0;
  // Emits `text` at `level` without formatting.
  virtual void log(Level level, const char* text) = 0;

  void error(const char* format, ...) __attribute__((format(printf, 2, 3)));
  void warn(const char* format, ...) __attribute__((format(printf, 2, 3)));
  void info(const char* format, ...) __attribute__((format(printf, 2, 3)));
  void debug(const char* format, ...) __attribute__((format(printf, 2, 3)));
  // Formats and logs at any level (only when enabled for it).
  void logf(Level level, const char* format, ...) __attribute__((format(printf, 3, 4)));
  void vlogf(Level level, const char* format, va_list args) __attribute__((format(printf, 3, 0)));

  // Names the running program's preferences domain, consulted first for the
  // logging configuration. Call before the first logger is made (a program does
  // it at the top of main). Without a call the executable's file name is used.
  static void setApplicationDomain(const std::string& domain);
  [[nodiscard]] static std::string applicationDomain();

  // The configuration file path the one-time configuration would use now
  // (empty when none is set). Exposed for diagnostics and tests.
  [[nodiscard]] static std::string findConfigurationPath();

  // The logger of a category, made on first request.
  [[nodiscard]] static Logger& getLogger(const char* name);

  class Impl {
   public:
    [[nodiscard]] static Logger* getInstance(const char* name);
  };
};

// Logs "<operation> failed: <strerror(code)> (<code>)" for a failed system
// call. EBUSY (16) and EINVAL (22) are expected in normal operation (a busy
// try-lock, joining a finished thread) and are logged at debug level; every
// other code at error level.
void _log_error(Logger& logger, const char* operation, int code);

}  // namespace SPI
}  // namespace WPS
