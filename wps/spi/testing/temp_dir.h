// A private scratch folder for one test, removed with everything in it when
// the object goes. Made under $ZONARA_TEST_TMPDIR (set by CTest for each test
// program) or the system's temporary folder.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstdlib>
#include <filesystem>
#include <string>

namespace zonara::testing {

class TempDir {
 public:
  explicit TempDir(const std::string& prefix = "test") {
    const char* base = std::getenv("ZONARA_TEST_TMPDIR");
    std::string tmpl = (base ? std::string(base) : std::filesystem::temp_directory_path().string()) + "/" + prefix +
                       "XXXXXX";
    if (mkdtemp(tmpl.data()) == nullptr) ADD_FAILURE() << "mkdtemp failed for " << tmpl;
    path_ = tmpl;
  }
  ~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  [[nodiscard]] const std::string& path() const { return path_; }
  // The path of `name` inside the folder.
  [[nodiscard]] std::string file(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

}  // namespace zonara::testing
