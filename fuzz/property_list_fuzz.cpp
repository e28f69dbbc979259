// Fuzz target: arbitrary bytes as a property-list file (XML or binary), read
// by the helper's preferences store, by the helper's account-file readers
// (user name, learned-places realm) and by the positioning library's
// preference reader -- the last two from a real file in a private folder.
//
// Checked beyond "no crash, no leak": what the store reads it can write back
// and read again, unchanged -- the store rewrites a domain's file from what it
// read whenever a value is set, so a value that does not survive the trip
// would be lost or turn the file corrupt.
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include "platform/preferences_store.h"
#include "platform/system_log.h"
#include "sensors/telluro_helper.h"
#include "wps/spi/preferences.h"

namespace {

constexpr char kDomain[] = "org.zonara.fuzz";

// A private configuration folder holding the domain's file: made on first
// use, removed when the program ends.
class ConfigFolder {
 public:
  ConfigFolder() {
    char folder[] = "/tmp/zonara-plist-fuzz-XXXXXX";
    if (!mkdtemp(folder)) std::abort();
    folder_ = folder;
    setenv("XDG_CONFIG_HOME", folder, 1);
    // A corrupt account file is reported on every read: not wanted here.
    zonara::SetSystemLogSinkForTesting([](zonara::LogPriority, const std::string&) {});
  }
  ~ConfigFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(folder_, ignored);
  }
  ConfigFolder(const ConfigFolder&) = delete;
  ConfigFolder& operator=(const ConfigFolder&) = delete;

  [[nodiscard]] std::string domainFile() const { return folder_ + "/" + kDomain + ".plist"; }

 private:
  std::string folder_;
};

const std::string& domainFile() {
  static const ConfigFolder folder;
  static const std::string path = folder.domainFile();
  return path;
}

// Whether two values hold the same; unlike PrefValue's ==, a NaN real equals
// another NaN (the store keeps NaN as NaN, which == can never confirm).
bool same(const zonara::PrefValue& a, const zonara::PrefValue& b) {
  using Type = zonara::PrefValue::Type;
  if (a.type() != b.type()) return false;
  switch (a.type()) {
    case Type::Real:
      return (std::isnan(a.asReal()) && std::isnan(b.asReal())) || a == b;
    case Type::Array:
      return std::equal(a.asArray().begin(), a.asArray().end(), b.asArray().begin(), b.asArray().end(), same);
    case Type::Dictionary:
      return std::equal(a.asDictionary().begin(), a.asDictionary().end(), b.asDictionary().begin(),
                        b.asDictionary().end(),
                        [](const auto& x, const auto& y) { return x.first == y.first && same(x.second, y.second); });
    default:
      return a == b;
  }
}

void writeFile(const std::string& path, const std::string& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  if (!out) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string bytes(reinterpret_cast<const char*>(data), size);

  if (const auto read = zonara::parsePropertyList(bytes)) {
    const std::string written = zonara::serializePropertyList(*read);
    const auto reread = zonara::parsePropertyList(written);
    if (!reread || !same(zonara::PrefValue::dictionary(*reread), zonara::PrefValue::dictionary(*read))) std::abort();
  }

  writeFile(domainFile(), bytes);
  for (const char* key : {"LoggingConfiguration", "ServerURL", "", "a"}) {
    volatile size_t sink = WPS::SPI::readStringPreference(kDomain, key).value_or("").size();
    (void)sink;
  }
  volatile size_t sink = zonara::GetTelluroUsername(domainFile()).value_or("").size() +
                         zonara::LearnedPlacesRealm(domainFile(), false).size();
  (void)sink;
  return 0;
}

std::vector<unsigned char> propertyListFuzzSeed() {
  const std::string seed =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n<dict>\n"
      "\t<key>TimezoneServiceURL</key>\n\t<string>http://api.geonames.org</string>\n"
      "\t<key>CheckInterval</key>\n\t<integer>3600</integer>\n</dict>\n</plist>\n";
  return {seed.begin(), seed.end()};
}
