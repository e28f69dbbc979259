#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <set>

#include "wps/spi/file.h"
#include "wps/spi/log_capture.h"
#include "wps/spi/testing/temp_dir.h"

namespace WPS::SPI {
namespace {

class UnixFileTest : public ::testing::Test {
 protected:

  std::string writeFile(const std::string& name, const std::string& content) {
    std::string path = dir_ + "/" + name;
    std::ofstream(path, std::ios::binary) << content;
    return path;
  }

  zonara::testing::TempDir tmp_{"file"};
  const std::string dir_ = tmp_.path();
};

TEST_F(UnixFileTest, WritesReadsAndSizes) {
  auto f = File::newInstance();
  const std::string path = dir_ + "/data.bin";
  ASSERT_EQ(f->open(path, File::WRITE | File::CREATE | File::TRUNCATE), 0);
  std::string payload(10000, 'x');
  payload[5000] = '\0';
  ASSERT_EQ(f->write(payload.data(), payload.size()), 0);
  EXPECT_EQ(f->close(), 0);
  EXPECT_EQ(File::size(path), 10000);

  ASSERT_EQ(f->open(path, File::READ), 0);
  EXPECT_EQ(f->size(), 10000);
  std::string back(payload.size(), '?');
  size_t got = 0;
  while (got < back.size()) {
    ssize_t n = f->read(back.data() + got, back.size() - got);
    ASSERT_GT(n, 0);
    got += static_cast<size_t>(n);
  }
  EXPECT_EQ(back, payload);
  EXPECT_EQ(f->read(back.data(), 1), 0);  // end of file

  ASSERT_EQ(f->open(path, File::WRITE | File::APPEND), 0);
  ASSERT_EQ(f->write("end", 3), 0);
  f->close();
  EXPECT_EQ(File::size(path), 10003);
  const int64_t modified = File::modificationTime(path);
  EXPECT_GT(modified, 1600000000);

  // A rename replaces the file at the new name.
  const std::string other = dir_ + "/other";
  {
    auto o = File::newInstance();
    ASSERT_EQ(o->open(other, File::WRITE | File::CREATE), 0);
    ASSERT_EQ(o->write("x", 1), 0);
    ASSERT_EQ(o->close(), 0);
  }
  EXPECT_EQ(File::rename(path, other), 0);
  EXPECT_FALSE(File::exists(path));
  EXPECT_EQ(File::size(other), 10003);
  EXPECT_EQ(File::modificationTime(other), modified);
  EXPECT_EQ(File::remove(other), 0);
  EXPECT_FALSE(File::exists(other));
}

TEST_F(UnixFileTest, FailuresLogPathErrnoAndText) {
  LogCapture capture("WPS.SPI.IO.UnixFile");
  auto f = File::newInstance();
  const std::string missing = dir_ + "/missing";
  EXPECT_EQ(f->open(missing, File::READ), ENOENT);
  EXPECT_EQ(File::remove(missing), ENOENT);
  EXPECT_EQ(File::size(missing), -1);
  EXPECT_EQ(File::rename(missing, dir_ + "/elsewhere"), ENOENT);
  EXPECT_EQ(File::modificationTime(missing), -1);  // not logged
  EXPECT_EQ(File::modificationTime(dir_), -1);     // a folder: not logged

  // Creating a file where nobody may write (sysfs refuses even root).
  std::string unwritable;
  if (geteuid() == 0) {
    unwritable = "/sys/zonara-test-file";
  } else {
    const std::string ro = dir_ + "/ro";
    mkdir(ro.c_str(), 0555);
    unwritable = ro + "/file";
  }
  EXPECT_EQ(f->open(unwritable, File::WRITE | File::CREATE), EACCES);

  const std::vector<std::string> expected = {
      "open(" + missing + ") failed 2: No such file or directory",
      "unlink(" + missing + ") failed 2: No such file or directory",
      "stat(" + missing + ") failed 2: No such file or directory",
      "rename(" + missing + ") failed 2: No such file or directory",
      "open(" + unwritable + ") failed 13: Permission denied",
  };
  EXPECT_EQ(capture.messages(), expected);
  for (const auto& e : capture.entries()) EXPECT_EQ(e.level, Logger::ERROR);
}

TEST_F(UnixFileTest, MapsAnyOffsetAndLength) {
  std::string content;
  for (int i = 0; i < 3 * 4096 + 100; ++i) content.push_back(static_cast<char>(i * 7 % 251));
  const std::string path = writeFile("map.bin", content);
  auto f = File::newInstance();
  ASSERT_EQ(f->open(path, File::READ), 0);
  const struct {
    size_t offset, length;
  } cases[] = {{0, content.size()}, {1, 10}, {4095, 2}, {4096, 4096}, {5000, content.size() - 5000}, {content.size() - 1, 1}};
  for (const auto& c : cases) {
    std::unique_ptr<MemoryBuffer> buffer = f->map(c.offset, c.length);
    ASSERT_NE(buffer, nullptr) << c.offset;
    EXPECT_EQ(buffer->size(), c.length);
    const unsigned char* p = buffer->acquire(0, c.length);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(0, memcmp(p, content.data() + c.offset, c.length)) << c.offset;
    buffer->release(p);
    // Ranges leaving the view are refused rather than pointing past it.
    EXPECT_EQ(buffer->acquire(c.length, 1), nullptr);
    EXPECT_EQ(buffer->acquire(1, c.length), nullptr);
    EXPECT_EQ(buffer->acquire(SIZE_MAX, 2), nullptr);
    EXPECT_NE(buffer->acquire(c.length, 0), nullptr);
  }
}

TEST_F(UnixFileTest, MappingPastTheEndFailsWithEINVAL) {
  LogCapture capture("WPS.SPI.IO.UnixFile");
  const std::string path = writeFile("short.bin", std::string(100, 'a'));
  auto f = File::newInstance();
  ASSERT_EQ(f->open(path, File::READ), 0);
  EXPECT_EQ(f->map(50, 51), nullptr);
  EXPECT_EQ(f->map(101, 1), nullptr);
  EXPECT_EQ(f->map(0, 0), nullptr);
  EXPECT_NE(f->map(50, 50), nullptr);
  const std::vector<std::string> expected = {
      "mmap(" + path + ", 50, 51) failed 22: Invalid argument",
      "mmap(" + path + ", 101, 1) failed 22: Invalid argument",
      "mmap(" + path + ", 0, 0) failed 22: Invalid argument",
  };
  EXPECT_EQ(capture.messages(), expected);
}

TEST_F(UnixFileTest, MappingOutlivesTheFile) {
  const std::string path = writeFile("keep.bin", "hello world");
  std::unique_ptr<MemoryBuffer> buffer;
  {
    auto f = File::newInstance();
    ASSERT_EQ(f->open(path, File::READ), 0);
    buffer = f->map(6, 5);
  }
  ASSERT_NE(buffer, nullptr);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(buffer->acquire(0, 5)), 5), "world");
}

TEST_F(UnixFileTest, DirectoriesListCreateAndReportFailures) {
  LogCapture capture("WPS.SPI.IO.UnixDirectory");
  ASSERT_EQ(Directory::create(dir_ + "/a/b/c"), 0);
  EXPECT_TRUE(Directory::isDirectory(dir_ + "/a/b/c"));
  writeFile("a/one.dat", "1");
  writeFile("a/two.dat", "2");
  auto d = Directory::newInstance();
  ASSERT_EQ(d->open(dir_ + "/a"), 0);
  std::set<std::string> names;
  std::string name;
  while (d->next(name)) names.insert(name);
  EXPECT_EQ(names, (std::set<std::string>{"b", "one.dat", "two.dat"}));
  EXPECT_EQ(d->close(), 0);
  EXPECT_FALSE(d->next(name));
  EXPECT_FALSE(Directory::isDirectory(dir_ + "/a/one.dat"));

  EXPECT_EQ(d->open(dir_ + "/nope"), ENOENT);
  EXPECT_EQ(capture.messages(),
            std::vector<std::string>{"opendir(" + dir_ + "/nope) failed 2: No such file or directory"});
}

}  // namespace
}  // namespace WPS::SPI
