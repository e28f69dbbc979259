#include "wps/spi/logger.h"

#include <gtest/gtest.h>
#include <plist/plist.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>

#include "wps/spi/log_capture.h"
#include "wps/spi/preferences.h"
#include "wps/spi/testing/temp_dir.h"

namespace WPS::SPI {
namespace {

std::string readFile(const std::string& path) {
  std::ifstream in(path);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

// Logging is configured once per process, so every configuration case runs
// in a child process of its own.
class LoggerConfigurationTest : public ::testing::Test {
 protected:

  // Writes a log4cpp properties file sending everything to `<name>.log`.
  std::string writeConfiguration(const std::string& name) {
    const std::string path = dir_ + "/" + name + ".properties";
    std::ofstream(path) << "log4cpp.rootCategory=DEBUG, A1\n"
                           "log4cpp.category.Quiet=ERROR\n"
                           "log4cpp.appender.A1=org.apache.log4cpp.FileAppender\n"
                           "log4cpp.appender.A1.fileName=" << dir_ << "/" << name << ".log\n"
                           "log4cpp.appender.A1.layout=org.apache.log4cpp.PatternLayout\n"
                           "log4cpp.appender.A1.layout.ConversionPattern=%c|%m%n\n";
    return path;
  }

  // Stores `value` under LOG4CPP_CONFIGURATION in `domain`'s property list,
  // in XML or binary form, as a program's preferences store writes it.
  void setPreference(const std::string& domain, const std::string& value, bool binary = false) {
    std::filesystem::create_directories(dir_ + "/config");
    plist_t dict = plist_new_dict();
    plist_dict_set_item(dict, "LOG4CPP_CONFIGURATION", plist_new_string(value.c_str()));
    plist_dict_set_item(dict, "Other", plist_new_bool(1));
    char* bytes = nullptr;
    uint32_t length = 0;
    if (binary) {
      plist_to_bin(dict, &bytes, &length);
    } else {
      plist_to_xml(dict, &bytes, &length);
    }
    plist_free(dict);
    std::ofstream(dir_ + "/config/" + domain + ".plist", std::ios::binary).write(bytes, length);
    std::free(bytes);
  }

  // Runs `body` in a child with XDG_CONFIG_HOME pointing into the test folder.
  int inChild(const std::function<void()>& body) {
    pid_t pid = fork();
    if (pid == 0) {
      setenv("XDG_CONFIG_HOME", (dir_ + "/config").c_str(), 1);
      body();
      _exit(0);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

  zonara::testing::TempDir tmp_{"log"};
  const std::string dir_ = tmp_.path();
};

TEST_F(LoggerConfigurationTest, SourcesAreConsultedInOrder) {
  const std::string app = writeConfiguration("app");
  const std::string library = writeConfiguration("library");
  const std::string env = writeConfiguration("env");
  const struct {
    bool appPref, libraryPref, envVar;
    bool binary;           // the preference files are binary property lists
    const char* expected;  // which log file receives the message; null = none
  } cases[] = {
      {true, true, true, false, "app"},   {false, true, true, false, "library"}, {false, false, true, false, "env"},
      {true, false, false, false, "app"}, {false, false, false, false, nullptr}, {true, true, true, true, "app"},
      {false, true, false, true, "library"},
  };
  for (const auto& c : cases) {
    std::filesystem::remove_all(dir_ + "/config");
    for (const char* name : {"app", "library", "env"}) std::filesystem::remove(dir_ + "/" + name + ".log");
    if (c.appPref) setPreference("org.quillon.ZonaraTest", app, c.binary);
    if (c.libraryPref) setPreference(kLibraryPreferencesDomain, library, c.binary);
    EXPECT_EQ(0, inChild([&] {
      if (c.envVar) {
        setenv("LOG4CPP_CONFIGURATION", env.c_str(), 1);
      } else {
        unsetenv("LOG4CPP_CONFIGURATION");
      }
      Logger::setApplicationDomain("org.quillon.ZonaraTest");
      Logger::getLogger("WPS.Test").error("configured %d", 1);
    }));
    for (const char* name : {"app", "library", "env"}) {
      const std::string log = readFile(dir_ + "/" + name + ".log");
      if (c.expected && std::string(name) == c.expected) {
        EXPECT_EQ(log, "WPS.Test|configured 1\n") << name;
      } else {
        EXPECT_EQ(log, "") << name << " should not have been configured (binary: " << c.binary << ")";
      }
    }
  }
}

TEST_F(LoggerConfigurationTest, LongMessagesAreCutAndCategoryLevelsFilter) {
  const std::string config = writeConfiguration("cut");
  EXPECT_EQ(0, inChild([&] {
    setenv("LOG4CPP_CONFIGURATION", config.c_str(), 1);
    Logger::getLogger("WPS.Long").info("%s", std::string(2000, 'x').c_str());
    Logger& quiet = Logger::getLogger("Quiet");
    quiet.warn("dropped");
    quiet.error("kept");
    if (quiet.isEnabledFor(Logger::WARN) || !quiet.isEnabledFor(Logger::ERROR)) _exit(3);
  }));
  EXPECT_EQ(readFile(dir_ + "/cut.log"), "WPS.Long|" + std::string(1023, 'x') + "\nQuiet|kept\n");
}

TEST_F(LoggerConfigurationTest, ABrokenConfigurationIsSurvived) {
  const std::string path = dir_ + "/broken.properties";
  std::ofstream(path) << "log4cpp.rootCategory=DEBUG, NOPE\nlog4cpp.appender.NOPE=no.such.Appender\n";
  EXPECT_EQ(0, inChild([&] {
    setenv("LOG4CPP_CONFIGURATION", path.c_str(), 1);
    Logger::getLogger("WPS.Broken").error("still alive");
  }));
}

TEST(LoggerTest, LevelsAboveSevenAreNotSetAndLoggersAreShared) {
  Logger& a = Logger::getLogger("WPS.Shared");
  Logger& b = Logger::getLogger("WPS.Shared");
  EXPECT_EQ(&a, &b);
  LogCapture capture("WPS.Shared");
  a.logf(Logger::NOTICE, "notice %s", "n");
  // Above 7 is log4cpp's not-set priority, below every category threshold.
  EXPECT_FALSE(a.isEnabledFor(9));
  a.logf(9, "beyond debug");
  a.debug("debug %d", 7);
  auto entries = capture.entries();
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_EQ(entries[0].level, Logger::NOTICE);
  EXPECT_EQ(entries[0].message, "notice n");
  EXPECT_EQ(entries[1].message, "debug 7");
}

}  // namespace
}  // namespace WPS::SPI
