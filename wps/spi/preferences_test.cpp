#include "wps/spi/preferences.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <string>

#include "wps/spi/testing/temp_dir.h"

namespace WPS::SPI {
namespace {

// Points XDG_CONFIG_HOME and HOME at chosen values for one test and puts the
// old values back.
class ScopedEnvironment {
 public:
  ScopedEnvironment(const char* name, const std::string& value) : name_(name) {
    if (const char* old = std::getenv(name)) old_ = old;
    setenv(name, value.c_str(), 1);
  }
  ~ScopedEnvironment() {
    if (old_) {
      setenv(name_, old_->c_str(), 1);
    } else {
      unsetenv(name_);
    }
  }
  ScopedEnvironment(const ScopedEnvironment&) = delete;
  ScopedEnvironment& operator=(const ScopedEnvironment&) = delete;

 private:
  const char* name_;
  std::optional<std::string> old_;
};

constexpr const char* kXml =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<plist version=\"1.0\"><dict>"
    "<key>Path</key><string>/etc/log.properties</string>"
    "<key>Count</key><integer>3</integer>"
    "</dict></plist>\n";

TEST(PreferencesTest, ReadsTextsAndRefusesEverythingElse) {
  zonara::testing::TempDir tmp("prefs");
  ScopedEnvironment xdg("XDG_CONFIG_HOME", tmp.path());
  const struct {
    const char* name;
    std::optional<std::string> contents;  // nullopt: no file
    const char* key;
    std::optional<std::string> expected;
  } cases[] = {
      {"text", kXml, "Path", "/etc/log.properties"},
      {"integer", kXml, "Count", std::nullopt},
      {"absent key", kXml, "Missing", std::nullopt},
      {"no file", std::nullopt, "Path", std::nullopt},
      {"empty file", "", "Path", std::nullopt},
      {"cut short", std::string(kXml).substr(0, 90), "Path", std::nullopt},
      {"not a dictionary",
       "<?xml version=\"1.0\"?><plist version=\"1.0\"><array><string>Path</string></array></plist>", "Path",
       std::nullopt},
      {"garbage", "\x01\x02not a property list", "Path", std::nullopt},
      // libplist's usual accessor aborts the process on this text.
      {"NUL in the text",
       std::string("<?xml version=\"1.0\"?><plist version=\"1.0\"><dict><key>Path</key><string>/etc/a") + '\0' +
           "b</string></dict></plist>",
       "Path", "/etc/a"},
  };
  for (const auto& c : cases) {
    const std::string domain = std::string("example.") + std::to_string(&c - cases);
    if (c.contents) std::ofstream(tmp.file(domain + ".plist"), std::ios::binary) << *c.contents;
    EXPECT_EQ(readStringPreference(domain, c.key), c.expected) << c.name;
  }
  EXPECT_EQ(readStringPreference("", "Path"), std::nullopt);
}

TEST(PreferencesTest, TheFolderIsXdgConfigHomeWhenAbsoluteOtherwiseHomeDotConfig) {
  {
    ScopedEnvironment xdg("XDG_CONFIG_HOME", "/cfg");
    EXPECT_EQ(preferencesFile("a.b"), "/cfg/a.b.plist");
  }
  ScopedEnvironment home("HOME", "/home/someone");
  for (const char* value : {"", "relative/cfg"}) {
    ScopedEnvironment xdg("XDG_CONFIG_HOME", value);
    EXPECT_EQ(preferencesFile("a.b"), "/home/someone/.config/a.b.plist") << value;
  }
}

}  // namespace
}  // namespace WPS::SPI
