#include "platform/preferences_store.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <limits>
#include <sstream>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/system_log.h"
#include "platform/testing/system_log_capture.h"
#include "wps/spi/testing/temp_dir.h"

namespace zonara {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

void WriteFile(const std::string& path, const std::string& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << bytes;
}

class PreferencesStoreTest : public ::testing::Test {
 protected:
  testing::TempDir scratch_{"prefs-"};
  const std::string dir_ = scratch_.path();
  testing::SystemLogCapture logged_;
};

struct RoundTripCase {
  const char* name;
  PrefValue value;
};

std::vector<RoundTripCase> RoundTripCases() {
  return {
      {"empty string", PrefValue::string("")},
      {"markup and utf8", PrefValue::string("a <b> & \"c\" 'd' ]]> \xC3\xA9\xE2\x82\xAC\n\ttab")},
      {"true", PrefValue::boolean(true)},
      {"false", PrefValue::boolean(false)},
      {"zero", PrefValue::integer(0)},
      {"negative", PrefValue::integer(-5)},
      {"int64 max", PrefValue::integer(std::numeric_limits<int64_t>::max())},
      {"int64 min", PrefValue::integer(std::numeric_limits<int64_t>::min())},
      {"beyond 32 bits", PrefValue::integer(int64_t{1} << 40)},
      {"real tenth", PrefValue::real(0.1)},
      {"real pi", PrefValue::real(3.141592653589793)},
      {"real negative tiny", PrefValue::real(-4.9406564584124654e-324)},
      {"real huge", PrefValue::real(1.7976931348623157e308)},
      {"real integral", PrefValue::real(2.0)},
      {"empty data", PrefValue::data({})},
      {"binary data", PrefValue::data({0, 1, 0xFF, 0x80, '<', '&', 0, 0x7F})},
      {"empty array", PrefValue::array({})},
      {"mixed array",
       PrefValue::array({PrefValue::integer(1), PrefValue::string("two"), PrefValue::real(3.5),
                         PrefValue::array({PrefValue::boolean(true)})})},
      {"empty dictionary", PrefValue::dictionary({})},
      {"nested dictionary",
       PrefValue::dictionary({{"a", PrefValue::integer(1)},
                              {"inner", PrefValue::dictionary({{"list", PrefValue::array({PrefValue::data({9, 8})})},
                                                               {"", PrefValue::string("empty key")}})}})},
  };
}

TEST_F(PreferencesStoreTest, EveryValueTypeRoundTripsThroughTheFile) {
  const auto cases = RoundTripCases();
  {
    PreferencesDomain writer("org.example.RoundTrip", dir_);
    for (const auto& c : cases) writer.setValue(c.name, c.value);
    ASSERT_TRUE(writer.synchronize());
    // Stored as an XML property list, readable by people and other tools.
    EXPECT_EQ(ReadFile(writer.path()).rfind("<?xml", 0), 0u);
  }
  // A fresh object reads everything back from the file.
  PreferencesDomain reader("org.example.RoundTrip", dir_);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    auto got = reader.copyValue(c.name);
    ASSERT_TRUE(got.has_value());
    EXPECT_EQ(got->type(), c.value.type());
    EXPECT_TRUE(*got == c.value);
  }
  EXPECT_EQ(reader.keys().size(), cases.size());
  EXPECT_TRUE(logged_.empty());
}

TEST_F(PreferencesStoreTest, SerializedTextParsesBackToTheSameDictionary) {
  PrefValue::Dictionary dict;
  for (const auto& c : RoundTripCases()) dict[c.name] = c.value;
  const std::string xml = serializePropertyList(dict);
  EXPECT_THAT(xml, HasSubstr("<plist version=\"1.0\">"));
  auto parsed = parsePropertyList(xml);
  ASSERT_TRUE(parsed.has_value());
  EXPECT_TRUE(*parsed == dict);
}

TEST_F(PreferencesStoreTest, ParseRejectsTextThatIsNotADictionaryPlist) {
  for (const std::string& bad :
       {std::string(""), std::string("garbage"), std::string("<plist version=\"1.0\"><array/></plist>"),
        std::string("<?xml version=\"1.0\"?><plist><dict><key>a</key>"), std::string("\0\0\0", 3)}) {
    SCOPED_TRACE(bad);
    EXPECT_FALSE(parsePropertyList(bad).has_value());
  }
}

TEST_F(PreferencesStoreTest, AStringHoldingANulEndsAtItAndWritesBackUnchanged) {
  // libplist's usual string accessor aborts the process on such a string.
  const std::string xml = std::string("<?xml version=\"1.0\"?><plist version=\"1.0\"><dict><key>a</key>") +
                          "<array><string>x" + '\0' + "y</string></array></dict></plist>";
  auto parsed = parsePropertyList(xml);
  ASSERT_TRUE(parsed.has_value());
  const PrefValue::Dictionary expected{{"a", PrefValue::array({PrefValue::string("x")})}};
  EXPECT_TRUE(*parsed == expected);
  auto reread = parsePropertyList(serializePropertyList(*parsed));
  ASSERT_TRUE(reread.has_value());
  EXPECT_TRUE(*reread == expected);
}

TEST_F(PreferencesStoreTest, AKeyHoldingANulEndsAtIt) {
  // libplist aborts the process when asked for such a key.
  const std::string xmlKey = std::string("<?xml version=\"1.0\"?><plist version=\"1.0\"><dict><key>a") + '\0' +
                             "b</key><string>x</string></dict></plist>";
  // The same in a binary list: the key "k\0e\u0301" in UTF-16.
  const std::string binaryKey(std::string("bplist00") +
                              std::string("\xd1\x01\x02\x64\x00\x6b\x00\x00\x00\x65\x03\x01\x51\x78\x08\x0b\x14\x00\x00\x00\x00\x00\x00\x01"
                                          "\x01\x00\x00\x00\x00\x00\x00\x00\x03\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00"
                                          "\x16",
                                          49));
  for (const auto& [bytes, key] : {std::pair{xmlKey, "a"}, std::pair{binaryKey, "k"}}) {
    auto parsed = parsePropertyList(bytes);
    ASSERT_TRUE(parsed.has_value()) << key;
    const PrefValue::Dictionary expected{{key, PrefValue::string("x")}};
    EXPECT_TRUE(*parsed == expected) << key;
  }
}

TEST_F(PreferencesStoreTest, ConversionsBetweenScalarTypes) {
  struct Case {
    PrefValue value;
    bool b;
    int64_t i;
    double d;
  };
  const Case cases[] = {
      {PrefValue::string("YES"), true, 0, 0},     {PrefValue::string("true"), true, 0, 0},
      {PrefValue::string("no"), false, 0, 0},     {PrefValue::string("12"), true, 12, 12},
      {PrefValue::string("0"), false, 0, 0},      {PrefValue::boolean(true), true, 1, 1},
      {PrefValue::integer(-3), true, -3, -3},     {PrefValue::real(2.75), true, 2, 2.75},
      {PrefValue::real(0.0), false, 0, 0},        {PrefValue::data({1}), false, 0, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(serializePropertyList({{"v", c.value}}));
    EXPECT_EQ(c.value.asBool(), c.b);
    EXPECT_EQ(c.value.asInteger(), c.i);
    EXPECT_DOUBLE_EQ(c.value.asReal(), c.d);
  }
}

TEST_F(PreferencesStoreTest, SetRemoveAndKeysBeforeAndAfterSynchronize) {
  PreferencesDomain d("org.example.Keys", dir_);
  EXPECT_TRUE(d.keys().empty());
  EXPECT_FALSE(d.copyValue("a").has_value());
  d.setValue("a", PrefValue::integer(1));
  d.setValue("b", PrefValue::integer(2));
  EXPECT_EQ(d.copyValue("a")->asInteger(), 1);  // pending values are visible at once
  ASSERT_TRUE(d.synchronize());
  d.removeValue("a");
  EXPECT_FALSE(d.copyValue("a").has_value());
  EXPECT_THAT(d.keys(), ElementsAre("b"));
  ASSERT_TRUE(d.synchronize());

  PreferencesDomain other("org.example.Keys", dir_);
  EXPECT_THAT(other.keys(), ElementsAre("b"));
  EXPECT_FALSE(other.copyValue("a").has_value());
}

TEST_F(PreferencesStoreTest, MissingFileReadsEmptyAndSynchronizeWithoutChangesCreatesNothing) {
  const std::string sub = dir_ + "/nothing";
  PreferencesDomain d("org.example.Missing", sub);
  EXPECT_TRUE(d.keys().empty());
  EXPECT_TRUE(d.synchronize());
  EXPECT_FALSE(fs::exists(sub));
  EXPECT_TRUE(logged_.empty());
}

TEST_F(PreferencesStoreTest, MissingFoldersAreCreated) {
  const std::string sub = dir_ + "/a/b/c";
  PreferencesDomain d("org.example.Folder", sub);
  d.setValue("k", PrefValue::string("v"));
  ASSERT_TRUE(d.synchronize());
  EXPECT_TRUE(fs::exists(sub + "/org.example.Folder.plist"));
  EXPECT_EQ(d.path(), sub + "/org.example.Folder.plist");
}

TEST_F(PreferencesStoreTest, XdgConfigHomeIsRespected) {
  const char* oldXdg = std::getenv("XDG_CONFIG_HOME");
  const std::string savedXdg = oldXdg ? oldXdg : "";
  const char* oldHome = std::getenv("HOME");
  const std::string savedHome = oldHome ? oldHome : "";

  setenv("XDG_CONFIG_HOME", (dir_ + "/xdg").c_str(), 1);
  {
    PreferencesDomain d("org.example.Xdg");
    EXPECT_EQ(d.path(), dir_ + "/xdg/org.example.Xdg.plist");
    d.setValue("k", PrefValue::boolean(true));
    ASSERT_TRUE(d.synchronize());
    EXPECT_TRUE(fs::exists(dir_ + "/xdg/org.example.Xdg.plist"));
  }
  // Unset, empty or relative: $HOME/.config.
  setenv("HOME", (dir_ + "/home").c_str(), 1);
  for (const char* value : {static_cast<const char*>(nullptr), "", "relative/dir"}) {
    if (value) {
      setenv("XDG_CONFIG_HOME", value, 1);
    } else {
      unsetenv("XDG_CONFIG_HOME");
    }
    EXPECT_EQ(PreferencesDomain::defaultDirectory(), dir_ + "/home/.config");
  }

  if (oldXdg) {
    setenv("XDG_CONFIG_HOME", savedXdg.c_str(), 1);
  } else {
    unsetenv("XDG_CONFIG_HOME");
  }
  if (oldHome) {
    setenv("HOME", savedHome.c_str(), 1);
  } else {
    unsetenv("HOME");
  }
}

TEST_F(PreferencesStoreTest, CorruptFileReadsEmptyLogsOnceAndIsKeptWhenAValueIsSet) {
  const std::string garbage = "<?xml version=\"1.0\"?><plist><dict><key>half";
  PreferencesDomain d("org.example.Corrupt", dir_);
  WriteFile(d.path(), garbage);

  EXPECT_TRUE(d.keys().empty());
  EXPECT_FALSE(d.copyValue("half").has_value());
  // Reading and synchronizing without changes leave it untouched.
  EXPECT_TRUE(d.synchronize());
  EXPECT_TRUE(d.synchronize());
  // Removing a key changes nothing visible and must not clobber it either.
  d.removeValue("anything");
  EXPECT_TRUE(d.synchronize());
  EXPECT_EQ(ReadFile(d.path()), garbage);
  EXPECT_FALSE(fs::exists(d.path() + ".corrupt"));
  ASSERT_EQ(logged_.size(), 1u);
  EXPECT_THAT(logged_.last(), HasSubstr(d.path()));

  d.setValue("fresh", PrefValue::integer(7));
  ASSERT_TRUE(d.synchronize());
  EXPECT_EQ(ReadFile(d.path() + ".corrupt"), garbage);
  PreferencesDomain again("org.example.Corrupt", dir_);
  EXPECT_THAT(again.keys(), ElementsAre("fresh"));
  EXPECT_EQ(again.copyValue("fresh")->asInteger(), 7);
}

TEST_F(PreferencesStoreTest, FileThatIsNotADictionaryCountsAsCorrupt) {
  PreferencesDomain d("org.example.Array", dir_);
  const std::string text = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><array><integer>1</integer></array></plist>\n";
  WriteFile(d.path(), text);
  EXPECT_TRUE(d.keys().empty());
  EXPECT_EQ(logged_.size(), 1u);
  d.setValue("x", PrefValue::string("y"));
  ASSERT_TRUE(d.synchronize());
  EXPECT_EQ(ReadFile(d.path() + ".corrupt"), text);
}

TEST_F(PreferencesStoreTest, FailedWriteKeepsChangesPending) {
  // A regular file where the folder should be makes the write fail, even as root.
  const std::string blocker = dir_ + "/blocker";
  WriteFile(blocker, "not a folder");
  PreferencesDomain d("org.example.Blocked", blocker + "/inner");
  d.setValue("k", PrefValue::integer(1));
  EXPECT_FALSE(d.synchronize());
  EXPECT_EQ(d.copyValue("k")->asInteger(), 1);
  EXPECT_FALSE(logged_.empty());
  fs::remove(blocker);
  EXPECT_TRUE(d.synchronize());
  PreferencesDomain other("org.example.Blocked", blocker + "/inner");
  EXPECT_EQ(other.copyValue("k")->asInteger(), 1);
}

TEST_F(PreferencesStoreTest, NoTemporaryFilesAreLeftBehind) {
  PreferencesDomain d("org.example.Tidy", dir_);
  for (int i = 0; i < 5; ++i) {
    d.setValue("k" + std::to_string(i), PrefValue::integer(i));
    ASSERT_TRUE(d.synchronize());
  }
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(dir_)) names.push_back(entry.path().filename().string());
  std::sort(names.begin(), names.end());
  EXPECT_THAT(names, ElementsAre("org.example.Tidy.plist", "org.example.Tidy.plist.lock"));
}

TEST_F(PreferencesStoreTest, ThreadsWithTheirOwnObjectsForOneDomainLoseNothing) {
  // Separate objects in one process must exclude each other too (a
  // per-process lock such as fcntl's would not).
  constexpr int kThreads = 4;
  constexpr int kWrites = 25;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([this, t] {
      PreferencesDomain d("org.example.Threads", dir_);
      for (int i = 0; i < kWrites; ++i) {
        d.setValue("t" + std::to_string(t) + "-" + std::to_string(i), PrefValue::integer(i));
        EXPECT_TRUE(d.synchronize());
      }
    });
  }
  // Meanwhile one shared object is used from two more threads.
  PreferencesDomain shared("org.example.Threads", dir_);
  for (int t = 0; t < 2; ++t) {
    threads.emplace_back([&shared, t] {
      for (int i = 0; i < kWrites; ++i) {
        shared.setValue("s" + std::to_string(t) + "-" + std::to_string(i), PrefValue::boolean(true));
        EXPECT_TRUE(shared.synchronize());
        (void)shared.keys();
      }
    });
  }
  for (auto& th : threads) th.join();
  PreferencesDomain check("org.example.Threads", dir_);
  EXPECT_EQ(check.keys().size(), static_cast<size_t>((kThreads + 2) * kWrites));
}

// Runs `body` in a child process and returns its exit status.
template <typename F>
pid_t Spawn(F body) {
  pid_t pid = fork();
  if (pid == 0) {
    SetSystemLogSinkForTesting([](LogPriority, const std::string&) {});
    _exit(body() ? 0 : 1);
  }
  return pid;
}

int WaitFor(pid_t pid) {
  int status = 0;
  if (waitpid(pid, &status, 0) != pid) return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

TEST_F(PreferencesStoreTest, ConcurrentProcessesWritingDifferentKeysLoseNothing) {
  constexpr int kProcesses = 3;
  constexpr int kWrites = 40;
  const std::string dir = dir_;
  std::vector<pid_t> children;
  for (int p = 0; p < kProcesses; ++p) {
    children.push_back(Spawn([p, dir] {
      PreferencesDomain d("org.example.Shared", dir);
      for (int i = 0; i < kWrites; ++i) {
        d.setValue("p" + std::to_string(p) + "-" + std::to_string(i), PrefValue::integer(p * 1000 + i));
        if (!d.synchronize()) return false;
      }
      return true;
    }));
  }
  for (pid_t child : children) EXPECT_EQ(WaitFor(child), 0);

  PreferencesDomain d("org.example.Shared", dir_);
  EXPECT_EQ(d.keys().size(), static_cast<size_t>(kProcesses * kWrites));
  for (int p = 0; p < kProcesses; ++p) {
    for (int i = 0; i < kWrites; ++i) {
      auto v = d.copyValue("p" + std::to_string(p) + "-" + std::to_string(i));
      ASSERT_TRUE(v.has_value()) << p << " " << i;
      EXPECT_EQ(v->asInteger(), p * 1000 + i);
    }
  }
}

TEST_F(PreferencesStoreTest, AnotherProcessesWriteIsSeenAfterSynchronize) {
  PreferencesDomain mine("org.example.Visible", dir_);
  mine.setValue("mine", PrefValue::string("here"));
  ASSERT_TRUE(mine.synchronize());

  const std::string dir = dir_;
  pid_t child = Spawn([dir] {
    PreferencesDomain theirs("org.example.Visible", dir);
    theirs.setValue("theirs", PrefValue::string("there"));
    theirs.removeValue("mine");
    return theirs.synchronize();
  });
  ASSERT_EQ(WaitFor(child), 0);

  // A pending change of ours survives the merge with theirs.
  mine.setValue("pending", PrefValue::integer(3));
  ASSERT_TRUE(mine.synchronize());
  EXPECT_EQ(mine.copyValue("theirs")->asString(), "there");
  EXPECT_FALSE(mine.copyValue("mine").has_value());
  EXPECT_THAT(mine.keys(), ElementsAre("pending", "theirs"));
}

}  // namespace
}  // namespace zonara
