#include "platform/file_system.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "wps/spi/testing/temp_dir.h"

namespace zonara {
namespace {

void put(const std::string& path, const std::string& content, mode_t mode = 0644) {
  ASSERT_EQ(writeFileAtomically(path, content, mode), 0) << path;
}

TEST(FileSystemTest, KindsOfPath) {
  testing::TempDir scratch("files-");
  put(scratch.file("plain"), "text");
  put(scratch.file("tool"), "#!/bin/sh\n", 0755);
  put(scratch.file("secret"), "x", 0000);
  ASSERT_EQ(createFolderIfAbsent(scratch.file("folder")), 0);
  ASSERT_EQ(symlink(scratch.file("nowhere").c_str(), scratch.file("dangling").c_str()), 0);
  ASSERT_EQ(symlink(scratch.file("plain").c_str(), scratch.file("link").c_str()), 0);
  const bool root = geteuid() == 0;  // root reads and writes whatever the mode says

  struct Case {
    const char* name;
    bool exists, folder, regular, readable, executable;
  };
  const Case cases[] = {
      {"plain", true, false, true, true, false},
      {"tool", true, false, true, true, true},
      {"secret", true, false, true, root, false},
      {"folder", true, true, false, true, false},
      {"dangling", false, false, false, false, false},
      {"link", true, false, true, true, false},
      {"missing", false, false, false, false, false},
  };
  for (const Case& c : cases) {
    const std::string path = scratch.file(c.name);
    EXPECT_EQ(pathExists(path), c.exists) << c.name;
    EXPECT_EQ(isFolder(path), c.folder) << c.name;
    EXPECT_EQ(isRegularFile(path), c.regular) << c.name;
    EXPECT_EQ(isReadable(path), c.readable) << c.name;
    EXPECT_EQ(isExecutableFile(path), c.executable) << c.name;
  }
  // A dangling link is something at the path: no folder is made over it.
  EXPECT_EQ(createFolderIfAbsent(scratch.file("dangling")), 0);
  EXPECT_FALSE(isFolder(scratch.file("dangling")));
}

TEST(FileSystemTest, FoldersAndTheirEntries) {
  testing::TempDir scratch("files-");
  EXPECT_EQ(createFolders(scratch.file("a/b/c")), 0);
  EXPECT_TRUE(isFolder(scratch.file("a/b/c")));
  EXPECT_EQ(createFolders(scratch.file("a/b/c")), 0);  // already there
  put(scratch.file("a/file"), "");
  EXPECT_EQ(createFolders(scratch.file("a/file/d")), ENOTDIR);
  EXPECT_EQ(createFolderIfAbsent(scratch.file("x/y")), ENOENT);  // no parent

  put(scratch.file("a/zeta"), "");
  put(scratch.file("a/alpha"), "");
  std::vector<std::string> names;
  EXPECT_EQ(folderEntries(scratch.file("a"), &names), 0);
  EXPECT_EQ(names, (std::vector<std::string>{"alpha", "b", "file", "zeta"}));
  std::vector<std::string> none;
  EXPECT_EQ(folderEntries(scratch.file("missing"), &none), ENOENT);
  EXPECT_TRUE(none.empty());
}

TEST(FileSystemTest, AtomicWritesReplaceTheWholeFile) {
  testing::TempDir scratch("files-");
  const std::string path = scratch.file("data");
  put(path, "first version, longer than the second");
  put(path, "second");
  EXPECT_EQ(readFile(path), "second");
  EXPECT_FALSE(pathExists(path + ".tmp"));

  // Larger than one pipe or page buffer: written whole.
  std::string big(5 * 1024 * 1024 + 3, '\0');
  for (size_t i = 0; i < big.size(); ++i) big[i] = char(i * 7919 % 251);
  put(path, big, 0600);
  EXPECT_EQ(readFile(path), big);
  struct stat st{};
  ASSERT_EQ(stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);

  EXPECT_EQ(writeFileAtomically(scratch.file("no/such/folder/data"), "x"), ENOENT);
  EXPECT_EQ(readFile(scratch.file("missing")), std::nullopt);
  EXPECT_EQ(removeFile(path), 0);
  EXPECT_EQ(removeFile(path), ENOENT);
}

TEST(FileSystemTest, MappedFileShowsTheContentItWasOpenedWith) {
  testing::TempDir scratch("files-");
  const std::string path = scratch.file("mapped");
  put(path, "mapped content");
  std::string error;
  std::unique_ptr<MappedFile> mapped = MappedFile::open(path, &error);
  ASSERT_NE(mapped, nullptr) << error;
  ASSERT_EQ(mapped->size(), 14u);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(mapped->data()), mapped->size()), "mapped content");

  // Replacing the file (as an update does) leaves the mapping alone.
  put(path, "a newer content of another size");
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(mapped->data()), mapped->size()), "mapped content");

  put(scratch.file("empty"), "");
  std::unique_ptr<MappedFile> empty = MappedFile::open(scratch.file("empty"), &error);
  ASSERT_NE(empty, nullptr) << error;
  EXPECT_EQ(empty->size(), 0u);
}

TEST(FileSystemTest, MappedFileRefusals) {
  testing::TempDir scratch("files-");
  ASSERT_EQ(createFolderIfAbsent(scratch.file("folder")), 0);
  struct Case {
    std::string path;
    const char* reason;
  };
  const Case cases[] = {
      {scratch.file("missing"), "No such file"},
      {scratch.file("folder"), "not a regular file"},
      {"/dev/null", "not a regular file"},
  };
  for (const Case& c : cases) {
    std::string error;
    EXPECT_EQ(MappedFile::open(c.path, &error), nullptr) << c.path;
    EXPECT_EQ(error.rfind(c.path + ": ", 0), 0u) << error;
    EXPECT_NE(error.find(c.reason), std::string::npos) << error;
  }
  EXPECT_EQ(MappedFile::open(scratch.file("missing"), nullptr), nullptr);  // no reason asked for
}

}  // namespace
}  // namespace zonara
