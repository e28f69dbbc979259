// Runs the fuzz target over files, for compilers without libFuzzer: every
// argument is a file, or a directory whose files are all fed (not recursive).
// Exits 0 when every input was fed without a crash.
#include <dirent.h>
#include <sys/stat.h>

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

bool feedFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    std::fprintf(stderr, "cannot read %s\n", path.c_str());
    return false;
  }
  std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  size_t fed = 0;
  bool ok = true;
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    if (!arg.empty() && arg[0] == '-') continue;  // libFuzzer-style flags are ignored
    struct stat st {};
    if (stat(arg.c_str(), &st) != 0) {
      std::fprintf(stderr, "no such input %s\n", arg.c_str());
      ok = false;
      continue;
    }
    if (!S_ISDIR(st.st_mode)) {
      ok = feedFile(arg) && ok;
      ++fed;
      continue;
    }
    DIR* dir = opendir(arg.c_str());
    if (dir == nullptr) {
      ok = false;
      continue;
    }
    while (dirent* entry = readdir(dir)) {
      std::string name = entry->d_name;
      if (name == "." || name == "..") continue;
      ok = feedFile(arg + "/" + name) && ok;
      ++fed;
    }
    closedir(dir);
  }
  std::printf("fed %zu inputs\n", fed);
  return ok ? 0 : 1;
}
