#include "timezone/boundary_data.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "platform/xdg.h"
#include "timezone/testing/built_boundary_file.h"
#include "wps/spi/testing/temp_dir.h"

namespace zonara::timezone {
namespace {

namespace fs = std::filesystem;
using zonara::testing::TempDir;

const std::string kFile = "zonara/timezone-boundaries.dat";

// ---- The order of the places looked at.

struct CandidatesCase {
  const char* what;
  BoundaryDataSearch search;
  std::vector<std::string> expected;
};

TEST(BoundaryDataSearchTest, LooksInTheDocumentedOrder) {
  const std::vector<CandidatesCase> cases = {
      {"ZONARA_TZ_DATA alone wins over everything",
       {"/data/mine.dat", "/home/u/.local/share", {"/a", "/b"}, "/usr", "/opt/z/bin/zonara"},
       {"/data/mine.dat"}},
      {"the XDG data home, the XDG data folders in order, the prefix, then up from the program",
       {"", "/xdg/home", {"/first", "/second"}, "/prefix", "/src/build/bin/zonara"},
       {"/xdg/home/" + kFile, "/first/" + kFile, "/second/" + kFile, "/prefix/share/" + kFile,
        "/src/build/share/" + kFile, "/src/share/" + kFile, "/share/" + kFile}},
  };
  for (const CandidatesCase& c : cases) {
    EXPECT_EQ(c.search.candidates(), c.expected) << c.what;
  }
}

TEST(XdgDataFoldersTest, RelativeAndEmptyEntriesAreLeftOut) {
  EXPECT_EQ(absoluteFolders("::relative:/ok:/also/ok/:"), (std::vector<std::string>{"/ok", "/also/ok/"}));
  EXPECT_EQ(absoluteFolders(""), std::vector<std::string>{});
}

TEST(BoundaryDataSearchTest, AProgramInsideAnInstalledBundleFindsThePrefix) {
  BoundaryDataSearch search;
  search.dataDirs = {"/nowhere"};
  search.executablePath = "/opt/z/lib/zonara/PreferencePanes/Zonara.prefPane/Contents/MacOS/zonara";
  const std::vector<std::string> candidates = search.candidates();
  EXPECT_NE(std::find(candidates.begin(), candidates.end(), "/opt/z/share/" + kFile), candidates.end());
}

// ---- Real files.

class BoundaryDataFilesTest : public ::testing::Test {
 protected:
  // Writes `bytes` at <dir>/zonara/timezone-boundaries.dat (dir under the
  // scratch folder); returns the file's path.
  std::string place(const std::string& dir, const std::string& bytes) {
    const std::string folder = tmp_.file(dir) + "/zonara";
    fs::create_directories(folder);
    const std::string path = folder + "/timezone-boundaries.dat";
    std::ofstream(path, std::ios::binary) << bytes;
    return path;
  }
  BoundaryDataSearch searchIn(const std::vector<std::string>& dirs) {
    BoundaryDataSearch search;
    search.dataHome = tmp_.file("no-home");
    for (const std::string& dir : dirs) search.dataDirs.push_back(tmp_.file(dir));
    return search;
  }
  TempDir tmp_{"boundary-data-"};
};

TEST_F(BoundaryDataFilesTest, TheFirstExistingFileInXdgOrderIsFound) {
  place("second", "x");
  const std::string third = place("third", "x");
  const std::string second = tmp_.file("second") + "/" + kFile;
  EXPECT_EQ(findBoundaryData(searchIn({"first", "second", "third"})), second);
  EXPECT_EQ(findBoundaryData(searchIn({"first", "third", "second"})), third);
  // A folder where the file should be is not a file.
  fs::create_directories(tmp_.file("dir-instead") + "/" + kFile);
  EXPECT_EQ(findBoundaryData(searchIn({"dir-instead", "third"})), third);
}

TEST_F(BoundaryDataFilesTest, NothingFoundIsAClearError) {
  BoundaryDataSearch search = searchIn({"first", "second"});
  EXPECT_EQ(findBoundaryData(search), "");
  std::string error;
  BoundaryData data = openBoundaryData(search, &error);
  EXPECT_EQ(data.index, nullptr);
  EXPECT_NE(error.find("no time-zone boundary data"), std::string::npos) << error;
  EXPECT_NE(error.find("ZONARA_TZ_DATA"), std::string::npos) << error;
}

TEST_F(BoundaryDataFilesTest, AnExplicitFileThatIsMissingOrBadIsNotReplacedByAnother) {
  // A perfectly good place exists, but the user named another file.
  place("first", "whatever");
  struct Case {
    const char* what;
    std::string path;
    std::string inError;
  } cases[] = {
      {"missing", tmp_.file("missing.dat"), "ZONARA_TZ_DATA"},
      {"a folder", tmp_.path(), "ZONARA_TZ_DATA"},
      {"not boundary data", place("bad", "this is not a boundary file\n"), tmp_.file("bad")},
      {"empty", place("empty", ""), tmp_.file("empty")},
  };
  for (const Case& c : cases) {
    BoundaryDataSearch search = searchIn({"first"});
    search.explicitPath = c.path;
    std::string error;
    BoundaryData data = openBoundaryData(search, &error);
    EXPECT_EQ(data.index, nullptr) << c.what;
    EXPECT_NE(error.find(c.inError), std::string::npos) << c.what << ": " << error;
  }
}

TEST_F(BoundaryDataFilesTest, BadFilesAreNamedWhenNoneOpens) {
  const std::string bad = place("bad", std::string(4096, '\xff'));
  std::string error;
  BoundaryData data = openBoundaryData(searchIn({"bad", "none"}), &error);
  EXPECT_EQ(data.index, nullptr);
  EXPECT_NE(error.find(bad), std::string::npos) << error;
}

TEST_F(BoundaryDataFilesTest, ABadFileEarlierInTheSearchIsPassedOver) {
  ZONARA_NEED_BOUNDARY_DATA(built);
  place("bad", "corrupt");
  fs::create_directories(tmp_.file("good") + "/zonara");
  fs::copy_file(built, tmp_.file("good") + "/" + kFile);
  std::string error;
  BoundaryData data = openBoundaryData(searchIn({"bad", "good"}), &error);
  ASSERT_NE(data.index, nullptr) << error;
  EXPECT_EQ(data.path, tmp_.file("good") + "/" + kFile);
  EXPECT_FALSE(data.index->release().empty());

  BoundaryDataSearch named = searchIn({"bad"});
  named.explicitPath = built;
  data = openBoundaryData(named, &error);
  ASSERT_NE(data.index, nullptr) << error;
  EXPECT_EQ(data.path, built);
}

}  // namespace
}  // namespace zonara::timezone
