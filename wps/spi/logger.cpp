#include "wps/spi/logger.h"

#include <errno.h>
#include <log4cpp/Category.hh>
#include <log4cpp/Priority.hh>
#include <log4cpp/PropertyConfigurator.hh>
#include <syslog.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>

#include "wps/spi/concurrent.h"
#include "wps/spi/preferences.h"

namespace WPS {
namespace SPI {
namespace {

constexpr const char* kConfigurationKey = "LOG4CPP_CONFIGURATION";

log4cpp::Priority::Value priorityFor(Logger::Level level) {
  if (level < 0) level = 0;
  if (level > 7) return log4cpp::Priority::NOTSET;
  return static_cast<log4cpp::Priority::Value>(level * 100);
}

class Log4CppLogger final : public Logger {
 public:
  explicit Log4CppLogger(log4cpp::Category& category) : category_(category) {}

  bool isEnabledFor(Level level) const override {
    return category_.isPriorityEnabled(priorityFor(level));
  }

  void log(Level level, const char* text) override { category_.log(priorityFor(level), text); }

 private:
  log4cpp::Category& category_;
};

StdMutex& domainMutex() {
  static StdMutex mu;
  return mu;
}

// Guarded by domainMutex().
std::string& domainName() {
  static std::string name;
  return name;
}

std::string lookUpPreference(const std::string& domain) {
  return readStringPreference(domain, kConfigurationKey).value_or(std::string());
}

void configureOnce() {
  const std::string path = Logger::findConfigurationPath();
  if (path.empty()) return;
  try {
    log4cpp::PropertyConfigurator::configure(path);
  } catch (const std::exception& e) {
    // No logger can report this: the configuration is what failed.
    syslog(LOG_ERR, "logging configuration %s failed: %s", path.c_str(), e.what());
  }
}

struct Registry {
  StdMutex mu;
  std::map<std::string, std::unique_ptr<Log4CppLogger>> loggers WPS_GUARDED_BY(mu);
};

Registry& registry() {
  static Registry* r = new Registry;  // never destroyed: loggers outlive static destructors
  return *r;
}

}  // namespace

void Logger::setApplicationDomain(const std::string& domain) {
  StdMutexLock lock(domainMutex());
  domainName() = domain;
}

std::string Logger::applicationDomain() {
  StdMutexLock lock(domainMutex());
  if (!domainName().empty()) return domainName();
  return program_invocation_short_name ? program_invocation_short_name : "";
}

std::string Logger::findConfigurationPath() {
  std::string path = lookUpPreference(applicationDomain());
  if (path.empty()) path = lookUpPreference(kLibraryPreferencesDomain);
  if (path.empty()) {
    const char* env = std::getenv(kConfigurationKey);
    if (env) path = env;
  }
  return path;
}

Logger* Logger::Impl::getInstance(const char* name) {
  static std::once_flag once;
  std::call_once(once, configureOnce);
  Registry& r = registry();
  StdMutexLock lock(r.mu);
  std::unique_ptr<Log4CppLogger>& slot = r.loggers[name ? name : ""];
  if (!slot) slot = std::make_unique<Log4CppLogger>(log4cpp::Category::getInstance(name ? name : ""));
  return slot.get();
}

Logger& Logger::getLogger(const char* name) { return *Impl::getInstance(name); }

void Logger::vlogf(Level level, const char* format, va_list args) {
  if (!isEnabledFor(level)) return;
  char buffer[kMessageBufferSize];
  std::vsnprintf(buffer, sizeof buffer, format, args);
  log(level, buffer);
}

void Logger::logf(Level level, const char* format, ...) {
  va_list args;
  va_start(args, format);
  vlogf(level, format, args);
  va_end(args);
}

#define WPS_DEFINE_LEVEL_FUNCTION(fn, level) \
  void Logger::fn(const char* format, ...) { \
    va_list args;                            \
    va_start(args, format);                  \
    vlogf(level, format, args);              \
    va_end(args);                            \
  }

WPS_DEFINE_LEVEL_FUNCTION(error, ERROR)
WPS_DEFINE_LEVEL_FUNCTION(warn, WARN)
WPS_DEFINE_LEVEL_FUNCTION(info, INFO)
WPS_DEFINE_LEVEL_FUNCTION(debug, DEBUG)
#undef WPS_DEFINE_LEVEL_FUNCTION

void _log_error(Logger& logger, const char* operation, int code) {
  const Logger::Level level = (code == EBUSY || code == EINVAL) ? Logger::DEBUG : Logger::ERROR;
  char text[256];
  const char* message = strerror_r(code, text, sizeof text);
  logger.logf(level, "%s failed: %s (%d)", operation, message, code);
}

}  // namespace SPI
}  // namespace WPS
