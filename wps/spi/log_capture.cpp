#include "wps/spi/concurrent.h"
#include "wps/spi/log_capture.h"

#include <log4cpp/AppenderSkeleton.hh>
#include <log4cpp/Category.hh>
#include <log4cpp/LoggingEvent.hh>

namespace WPS {
namespace SPI {

class LogCapture::Sink {
 public:
  void add(Entry e) {
    StdMutexLock lock(mu);
    entries.push_back(std::move(e));
  }
  mutable StdMutex mu;
  std::vector<Entry> entries WPS_GUARDED_BY(mu);
};

namespace {

class CaptureAppender final : public log4cpp::AppenderSkeleton {
 public:
  CaptureAppender(const std::string& name, std::shared_ptr<LogCapture::Sink> sink)
      : AppenderSkeleton(name), sink_(std::move(sink)) {}
  void close() override {}
  bool requiresLayout() const override { return false; }
  void setLayout(log4cpp::Layout* layout) override { delete layout; }

 protected:
  void _append(const log4cpp::LoggingEvent& event) override {
    int level = event.priority >= 800 ? 8 : event.priority / 100;
    sink_->add({level, event.message});
  }

 private:
  std::shared_ptr<LogCapture::Sink> sink_;
};

}  // namespace

LogCapture::LogCapture(const std::string& category) : category_(category), sink_(std::make_shared<Sink>()) {
  (void)Logger::getLogger(category.c_str());  // runs the one-time configuration first
  log4cpp::Category& cat = log4cpp::Category::getInstance(category);
  previousPriority_ = cat.getPriority();
  cat.setPriority(log4cpp::Priority::DEBUG);
  auto* appender = new CaptureAppender("capture:" + category, sink_);
  cat.addAppender(appender);  // the category owns it
  appender_ = appender;
}

LogCapture::~LogCapture() {
  log4cpp::Category& cat = log4cpp::Category::getInstance(category_);
  cat.removeAppender(static_cast<CaptureAppender*>(appender_));
  cat.setPriority(previousPriority_);
}

std::vector<LogCapture::Entry> LogCapture::entries() const {
  StdMutexLock lock(sink_->mu);
  return sink_->entries;
}

std::vector<std::string> LogCapture::messages() const {
  std::vector<std::string> out;
  for (const Entry& e : entries()) out.push_back(e.message);
  return out;
}

bool LogCapture::contains(const std::string& text) const {
  for (const Entry& e : entries()) {
    if (e.message == text) return true;
  }
  return false;
}

bool LogCapture::containsFragment(const std::string& fragment) const {
  for (const Entry& e : entries()) {
    if (e.message.find(fragment) != std::string::npos) return true;
  }
  return false;
}

void LogCapture::clear() {
  StdMutexLock lock(sink_->mu);
  sink_->entries.clear();
}

}  // namespace SPI
}  // namespace WPS
