#include "prefs/LoginItemsAE.h"

#include "wps/spi/testing/temp_dir.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <fstream>

namespace zonara {
namespace {

class LoginItemsTest : public ::testing::Test {
 protected:
  void SetUp() override { setenv("XDG_CONFIG_HOME", (dir_ + "/config").c_str(), 1); }

  std::string makeProgram(const std::string& name) {
    const std::string path = dir_ + "/" + name;
    std::ofstream(path) << "#!/bin/sh\n";
    chmod(path.c_str(), 0755);
    return path;
  }

  void writeEntry(const std::string& file, const std::string& body) {
    mkdir((dir_ + "/config").c_str(), 0755);
    mkdir((dir_ + "/config/autostart").c_str(), 0755);
    std::ofstream(dir_ + "/config/autostart/" + file) << body;
  }

  // The (URL, Hidden) pairs of the current login items ("" for an item
  // without a URL).
  std::vector<std::pair<std::string, bool>> items() {
    std::unique_ptr<PrefValue::Array> array;
    EXPECT_EQ(LIAECopyLoginItems(&array), 0);
    std::vector<std::pair<std::string, bool>> out;
    if (!array) return out;
    for (const PrefValue& v : *array) {
      auto url = v.asDictionary().find(kLoginItemURL);
      out.emplace_back(url == v.asDictionary().end() ? "" : url->second.asString(),
                       v.asDictionary().at(kLoginItemHidden).asBool());
    }
    return out;
  }

  zonara::testing::TempDir tmp_{"login"};
  const std::string dir_ = tmp_.path();
};

TEST_F(LoginItemsTest, NoFolderMeansNoItems) { EXPECT_TRUE(items().empty()); }

TEST_F(LoginItemsTest, AddListAndRemoveByIndex) {
  const std::string a = makeProgram("a-helper");
  const std::string b = makeProgram("b helper %1");
  FileRef ref{a};
  ASSERT_EQ(LIAEAddRefAtEnd(&ref, false), 0);
  const std::string url = FileURLFromPath(b);
  EXPECT_EQ(url, "file://" + dir_ + "/b%20helper%20%251");
  ASSERT_EQ(LIAEAddURLAtEnd(&url, true), 0);

  using Items = std::vector<std::pair<std::string, bool>>;
  EXPECT_EQ(items(), (Items{{FileURLFromPath(a), false}, {url, true}}));
  EXPECT_EQ(PathFromFileURL(items()[1].first), b);

  EXPECT_EQ(LIAERemove(2), kNoSuchObjectErr);
  ASSERT_EQ(LIAERemove(0), 0);
  EXPECT_EQ(items(), (Items{{url, true}}));
  ASSERT_EQ(LIAERemove(0), 0);
  EXPECT_TRUE(items().empty());
}

TEST_F(LoginItemsTest, UnusableURLsAreFileNotFound) {
  const std::vector<std::string> urls = {"file://" + dir_ + "/missing", "http://example.invalid/prog", "", "/bin/sh"};
  for (const std::string& u : urls) EXPECT_EQ(LIAEAddURLAtEnd(&u, false), kFileNotFoundErr) << u;
  FileRef missing{dir_ + "/missing"};
  EXPECT_EQ(LIAEAddRefAtEnd(&missing, false), kFileNotFoundErr);
  EXPECT_TRUE(items().empty());
}

TEST_F(LoginItemsTest, AddingTheSameProgramTwiceMakesTwoEntries) {
  FileRef ref{makeProgram("twice")};
  ASSERT_EQ(LIAEAddRefAtEnd(&ref, false), 0);
  ASSERT_EQ(LIAEAddRefAtEnd(&ref, true), 0);
  EXPECT_EQ(items().size(), 2u);
}

TEST_F(LoginItemsTest, ReadsForeignEntriesAsTheSessionWould) {
  setenv("PATH", "/usr/bin:/bin", 1);  // a bare program name is found on PATH
  const std::string gone = dir_ + "/no-longer-installed";
  writeEntry("1-gone.desktop", "[Desktop Entry]\nType=Application\nExec=" + gone + " --flag\n");
  writeEntry("2-quoted.desktop",
             "# comment\n[Desktop Entry]\nType=Application\nExec=\"/opt/My App/run\\\\$x\" %U\nX-Zonara-Hidden=true\n");
  writeEntry("3-path.desktop", "[Desktop Entry]\nType=Application\nExec=sh -c true\n");
  writeEntry("4-deleted.desktop", "[Desktop Entry]\nType=Application\nExec=/bin/true\nHidden=true\n");
  writeEntry("5-link.desktop", "[Desktop Entry]\nType=Link\nURL=http://x\n");
  writeEntry("6-junk.desktop", "not a desktop entry\n");
  writeEntry("7-other-group.desktop", "[Desktop Action x]\nExec=/bin/false\n[Desktop Entry]\nType=Application\nExec=/bin/true\n");
  writeEntry("8-not-on-path.desktop", "[Desktop Entry]\nType=Application\nExec=no-such-program-anywhere --x\n");
  writeEntry("notes.txt", "[Desktop Entry]\nType=Application\nExec=/bin/true\n");

  using Items = std::vector<std::pair<std::string, bool>>;
  // A program that is not on PATH has no path, so no URL (never "file://name").
  EXPECT_EQ(items(), (Items{{FileURLFromPath(gone), false},
                            {"file:///opt/My%20App/run$x", true},
                            {FileURLFromPath("/usr/bin/sh"), false},
                            {"file:///bin/true", false},
                            {"", false}}));
  // Index 1 is the second listed item; the skipped files do not count.
  ASSERT_EQ(LIAERemove(1), 0);
  EXPECT_EQ(items().size(), 4u);
}

// Items are listed in file-name order; a new one still comes last, whatever
// its program is called.
TEST_F(LoginItemsTest, ANewItemComesAfterTheExistingOnes) {
  writeEntry("zz-other.desktop", "[Desktop Entry]\nType=Application\nExec=/bin/true\n");
  FileRef first{makeProgram("a-helper")};
  FileRef second{makeProgram("b-helper")};
  FileRef last{makeProgram("zzz-helper")};
  for (const FileRef* ref : {&first, &second, &first, &last}) ASSERT_EQ(LIAEAddRefAtEnd(ref, false), 0);
  using Items = std::vector<std::pair<std::string, bool>>;
  EXPECT_EQ(items(), (Items{{"file:///bin/true", false},
                            {FileURLFromPath(first.path), false},
                            {FileURLFromPath(second.path), false},
                            {FileURLFromPath(first.path), false},
                            {FileURLFromPath(last.path), false}}));
}

TEST_F(LoginItemsTest, AFolderThatCannotBeReadCannotMakeAList) {
  mkdir((dir_ + "/config").c_str(), 0755);
  std::ofstream(dir_ + "/config/autostart") << "a file where the folder should be";
  std::unique_ptr<PrefValue::Array> array;
  EXPECT_EQ(LIAECopyLoginItems(&array), kCannotMakeListErr);
  EXPECT_EQ(array, nullptr);
  EXPECT_EQ(LIAERemove(0), kCannotMakeListErr);
}

TEST_F(LoginItemsTest, MisuseStopsWithAnAssertionNamingTheModule) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(LIAERemove(-1),
               "Assertion failed: \\(itemIndex >= 0\\), function LIAERemove, file LoginItemsAE, line [0-9]+");
  EXPECT_DEATH(LIAECopyLoginItems(nullptr), "\\(itemsPtr != NULL\\), function LIAECopyLoginItems");
  EXPECT_DEATH(
      {
        auto full = std::make_unique<PrefValue::Array>();
        LIAECopyLoginItems(&full);
      },
      "\\(\\*itemsPtr == NULL\\)");
  EXPECT_DEATH(LIAEAddRefAtEnd(nullptr, false), "\\(item != NULL\\), function LIAEAddRefAtEnd");
  EXPECT_DEATH(LIAEAddURLAtEnd(nullptr, false), "\\(item != NULL\\), function LIAEAddURLAtEnd");
}

}  // namespace
}  // namespace zonara
