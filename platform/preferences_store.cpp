#include "platform/preferences_store.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <plist/plist.h>

#include <cstdlib>
#include <cstring>
#include <utility>

#include "platform/system_log.h"
#include "platform/xdg.h"

namespace zonara {

// ---------------------------------------------------------------------------
// PrefValue

PrefValue PrefValue::string(std::string s) {
  PrefValue v;
  v.type_ = Type::String;
  v.string_ = std::move(s);
  return v;
}

PrefValue PrefValue::boolean(bool b) {
  PrefValue v;
  v.type_ = Type::Boolean;
  v.bool_ = b;
  return v;
}

PrefValue PrefValue::integer(int64_t i) {
  PrefValue v;
  v.type_ = Type::Integer;
  v.int_ = i;
  return v;
}

PrefValue PrefValue::real(double d) {
  PrefValue v;
  v.type_ = Type::Real;
  v.real_ = d;
  return v;
}

PrefValue PrefValue::data(std::vector<uint8_t> bytes) {
  PrefValue v;
  v.type_ = Type::Data;
  v.data_ = std::move(bytes);
  return v;
}

PrefValue PrefValue::array(Array items) {
  PrefValue v;
  v.type_ = Type::Array;
  v.array_ = std::move(items);
  return v;
}

PrefValue PrefValue::dictionary(Dictionary entries) {
  PrefValue v;
  v.type_ = Type::Dictionary;
  v.dict_ = std::move(entries);
  return v;
}

bool PrefValue::asBool() const {
  switch (type_) {
    case Type::Boolean: return bool_;
    case Type::Integer: return int_ != 0;
    case Type::Real: return real_ != 0;
    case Type::String:
      // Like user defaults: "YES"/"true" (any case) or a non-zero number.
      if (strcasecmp(string_.c_str(), "yes") == 0 || strcasecmp(string_.c_str(), "true") == 0) return true;
      return std::strtol(string_.c_str(), nullptr, 10) != 0;
    default: return false;
  }
}

int64_t PrefValue::asInteger() const {
  switch (type_) {
    case Type::Boolean: return bool_ ? 1 : 0;
    case Type::Integer: return int_;
    case Type::Real: return static_cast<int64_t>(real_);
    case Type::String: return std::strtoll(string_.c_str(), nullptr, 10);
    default: return 0;
  }
}

double PrefValue::asReal() const {
  switch (type_) {
    case Type::Boolean: return bool_ ? 1.0 : 0.0;
    case Type::Integer: return static_cast<double>(int_);
    case Type::Real: return real_;
    case Type::String: return std::strtod(string_.c_str(), nullptr);
    default: return 0;
  }
}

bool operator==(const PrefValue& a, const PrefValue& b) {
  if (a.type_ != b.type_) return false;
  switch (a.type_) {
    case PrefValue::Type::String: return a.string_ == b.string_;
    case PrefValue::Type::Boolean: return a.bool_ == b.bool_;
    case PrefValue::Type::Integer: return a.int_ == b.int_;
    case PrefValue::Type::Real: return a.real_ == b.real_;
    case PrefValue::Type::Data: return a.data_ == b.data_;
    case PrefValue::Type::Array: return a.array_ == b.array_;
    case PrefValue::Type::Dictionary: return a.dict_ == b.dict_;
  }
  return false;
}

// ---------------------------------------------------------------------------
// Conversion to and from libplist nodes

namespace {

struct PlistDeleter {
  void operator()(plist_t p) const { plist_free(p); }
};
using PlistPtr = std::unique_ptr<void, PlistDeleter>;

struct MallocDeleter {
  void operator()(void* p) const { free(p); }
};
template <typename T>
using MallocPtr = std::unique_ptr<T, MallocDeleter>;

// Returns a new node owned by the caller.
plist_t ToNode(const PrefValue& v) {
  switch (v.type()) {
    case PrefValue::Type::String: return plist_new_string(v.asString().c_str());
    case PrefValue::Type::Boolean: return plist_new_bool(v.asBool() ? 1 : 0);
    // libplist stores integers as 64 bits and writes values created from a
    // negative number back as negative, so the cast round-trips.
    case PrefValue::Type::Integer: return plist_new_uint(static_cast<uint64_t>(v.asInteger()));
    case PrefValue::Type::Real: return plist_new_real(v.asReal());
    case PrefValue::Type::Data:
      return plist_new_data(reinterpret_cast<const char*>(v.asData().data()), v.asData().size());
    case PrefValue::Type::Array: {
      plist_t a = plist_new_array();
      for (const PrefValue& item : v.asArray()) plist_array_append_item(a, ToNode(item));
      return a;
    }
    case PrefValue::Type::Dictionary: {
      plist_t d = plist_new_dict();
      for (const auto& [key, item] : v.asDictionary()) plist_dict_set_item(d, key.c_str(), ToNode(item));
      return d;
    }
  }
  return plist_new_string("");
}

// Converts a node; dates, UIDs and other types without a counterpart give
// nullopt and are left out of their container.
std::optional<PrefValue> FromNode(plist_t node) {
  switch (plist_get_node_type(node)) {
    case PLIST_STRING: {
      // Not plist_get_string_val: it aborts the process on a string holding
      // a NUL character, which any file can contain. Such a string is kept
      // up to its first NUL, which is all a written file could hold.
      uint64_t length = 0;
      const char* s = plist_get_string_ptr(node, &length);
      if (!s) return PrefValue::string("");
      const std::string text(s, length);
      return PrefValue::string(text.substr(0, text.find('\0')));
    }
    case PLIST_BOOLEAN: {
      uint8_t b = 0;
      plist_get_bool_val(node, &b);
      return PrefValue::boolean(b != 0);
    }
    case PLIST_UINT: {
      uint64_t u = 0;
      plist_get_uint_val(node, &u);
      return PrefValue::integer(static_cast<int64_t>(u));
    }
    case PLIST_REAL: {
      double d = 0;
      plist_get_real_val(node, &d);
      return PrefValue::real(d);
    }
    case PLIST_DATA: {
      char* bytes = nullptr;
      uint64_t length = 0;
      plist_get_data_val(node, &bytes, &length);
      MallocPtr<char> owned(bytes);
      const auto* p = reinterpret_cast<const uint8_t*>(bytes);
      return PrefValue::data(p ? std::vector<uint8_t>(p, p + length) : std::vector<uint8_t>());
    }
    case PLIST_ARRAY: {
      PrefValue::Array items;
      const uint32_t n = plist_array_get_size(node);
      for (uint32_t i = 0; i < n; ++i) {
        if (auto item = FromNode(plist_array_get_item(node, i))) items.push_back(std::move(*item));
      }
      return PrefValue::array(std::move(items));
    }
    case PLIST_DICT: {
      PrefValue::Dictionary entries;
      plist_dict_iter iter = nullptr;
      plist_dict_new_iter(node, &iter);
      MallocPtr<void> ownedIter(iter);
      for (;;) {
        char* key = nullptr;
        plist_t item = nullptr;
        plist_dict_next_item(node, iter, &key, &item);
        MallocPtr<char> ownedKey(key);
        if (!item) break;
        if (auto value = FromNode(item)) entries.emplace(key ? key : "", std::move(*value));
      }
      return PrefValue::dictionary(std::move(entries));
    }
    default: return std::nullopt;
  }
}

// Closes a descriptor when it goes out of scope.
class Fd {
 public:
  explicit Fd(int fd = -1) : fd_(fd) {}
  ~Fd() { reset(); }
  Fd(Fd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  [[nodiscard]] int get() const { return fd_; }
  [[nodiscard]] bool valid() const { return fd_ >= 0; }
  void reset() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
  }

 private:
  int fd_;
};

// Result of reading a domain file.
enum class ReadStatus { Ok, Missing, Corrupt, Unreadable };

struct ReadResult {
  ReadStatus status = ReadStatus::Missing;
  PrefValue::Dictionary dict;
  int error = 0;  // errno for Unreadable
};

ReadResult ReadDomainFile(const std::string& path) {
  ReadResult result;
  Fd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd.valid()) {
    result.error = errno;
    result.status = errno == ENOENT ? ReadStatus::Missing : ReadStatus::Unreadable;
    return result;
  }
  std::string bytes;
  char buffer[16384];
  for (;;) {
    ssize_t n = ::read(fd.get(), buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      result.error = errno;
      result.status = ReadStatus::Unreadable;
      return result;
    }
    if (n == 0) break;
    bytes.append(buffer, static_cast<size_t>(n));
  }
  if (bytes.empty()) {
    // An empty file holds nothing to lose: an empty domain.
    result.status = ReadStatus::Ok;
    return result;
  }
  auto dict = parsePropertyList(bytes);
  if (!dict) {
    result.status = ReadStatus::Corrupt;
    return result;
  }
  result.status = ReadStatus::Ok;
  result.dict = std::move(*dict);
  return result;
}

// Creates `dir` and its missing parents (mode 0700, as for the XDG folders).
bool MakeDirectories(const std::string& dir) {
  if (dir.empty()) return true;
  struct stat st;
  if (::stat(dir.c_str(), &st) == 0) return S_ISDIR(st.st_mode);
  const auto slash = dir.find_last_of('/');
  if (slash != std::string::npos && slash > 0 && !MakeDirectories(dir.substr(0, slash))) return false;
  return ::mkdir(dir.c_str(), 0700) == 0 || errno == EEXIST;
}

bool WriteAll(int fd, const std::string& bytes) {
  size_t done = 0;
  while (done < bytes.size()) {
    ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

std::string DirectoryOf(const std::string& path) {
  const auto slash = path.find_last_of('/');
  if (slash == std::string::npos) return ".";
  if (slash == 0) return "/";
  return path.substr(0, slash);
}

// Read-merge-write happens under an advisory lock on a companion file, so
// that concurrent writers (other processes, or other objects for the same
// domain) each see the others' keys. The lock file is never removed:
// removing it would let two writers lock different files. The lock is held
// until the descriptor returned closes; an invalid one (logged) when the
// lock cannot be taken.
Fd LockDomain(const std::string& name, const std::string& path) {
  const std::string lockPath = path + ".lock";
  Fd lockFd(::open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
  if (!lockFd.valid()) {
    SystemLogAt(LogPriority::Error, "preferences %s: cannot open %s: %s", name.c_str(), lockPath.c_str(),
                std::strerror(errno));
    return lockFd;
  }
  while (::flock(lockFd.get(), LOCK_EX) != 0) {
    if (errno != EINTR) {
      SystemLogAt(LogPriority::Error, "preferences %s: cannot lock %s: %s", name.c_str(), lockPath.c_str(),
                  std::strerror(errno));
      return Fd();
    }
  }
  return lockFd;
}

// The file's values with the pending changes applied; `*anySet` tells
// whether a change sets a value (rather than only removing keys).
PrefValue::Dictionary Merged(const PrefValue::Dictionary& file,
                             const std::map<std::string, std::optional<PrefValue>>& pending, bool* anySet) {
  PrefValue::Dictionary merged = file;
  for (const auto& [key, value] : pending) {
    if (value) {
      merged[key] = *value;
      *anySet = true;
    } else {
      merged.erase(key);
    }
  }
  return merged;
}

// Writes `bytes` to a new file beside the domain file (with the domain
// file's permissions when it exists) and syncs it; its path, or nullopt
// (logged, nothing left behind) when it cannot be written.
std::optional<std::string> WriteTemporary(const std::string& name, const std::string& path,
                                          const std::string& bytes) {
  std::string tempPath = path + ".XXXXXX";
  Fd tempFd(::mkostemp(tempPath.data(), O_CLOEXEC));
  if (!tempFd.valid()) {
    SystemLogAt(LogPriority::Error, "preferences %s: cannot create a temporary file in %s: %s", name.c_str(),
                DirectoryOf(path).c_str(), std::strerror(errno));
    return std::nullopt;
  }
  struct stat st;
  if (::stat(path.c_str(), &st) == 0) (void)::fchmod(tempFd.get(), st.st_mode & 07777);
  if (!WriteAll(tempFd.get(), bytes) || ::fsync(tempFd.get()) != 0) {
    const int err = errno;
    ::unlink(tempPath.c_str());
    SystemLogAt(LogPriority::Error, "preferences %s: cannot write %s: %s", name.c_str(), tempPath.c_str(),
                std::strerror(err));
    return std::nullopt;
  }
  return tempPath;
}

// Keeps what could not be read beside the new file. A hard link keeps the
// domain file in place until the rename that replaces it atomically.
void KeepUnreadableFile(const std::string& name, const std::string& path) {
  const std::string keptPath = path + ".corrupt";
  ::unlink(keptPath.c_str());
  if (::link(path.c_str(), keptPath.c_str()) != 0) (void)::rename(path.c_str(), keptPath.c_str());
  SystemLogAt(LogPriority::Warning, "preferences %s: unreadable file kept as %s", name.c_str(), keptPath.c_str());
}

// Renames the written file over the domain file and makes the rename
// durable; false (logged, the written file removed) when it fails.
bool ReplaceDomainFile(const std::string& name, const std::string& path, const std::string& tempPath) {
  if (::rename(tempPath.c_str(), path.c_str()) != 0) {
    const int err = errno;
    ::unlink(tempPath.c_str());
    SystemLogAt(LogPriority::Error, "preferences %s: cannot replace %s: %s", name.c_str(), path.c_str(),
                std::strerror(err));
    return false;
  }
  Fd dirFd(::open(DirectoryOf(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (dirFd.valid()) (void)::fsync(dirFd.get());
  return true;
}

}  // namespace

std::optional<PrefValue::Dictionary> parsePropertyList(const std::string& bytes) {
  if (bytes.empty() || bytes.size() > UINT32_MAX) return std::nullopt;
  plist_t first = nullptr;
  // Accepts the XML form we write and also binary property lists.
  plist_from_memory(bytes.data(), static_cast<uint32_t>(bytes.size()), &first);
  PlistPtr ownedFirst(first);
  if (!first || plist_get_node_type(first) != PLIST_DICT) return std::nullopt;
  // libplist aborts the process when asked for a dictionary key holding a NUL
  // character (a raw NUL byte in XML, U+0000 in a binary list's UTF-16 key),
  // and has no call that tells such a key apart. Its XML writer cuts every
  // key at its first NUL, so the tree walked is the one read back from that.
  char* xml = nullptr;
  uint32_t length = 0;
  plist_to_xml(first, &xml, &length);
  MallocPtr<char> ownedXml(xml);
  plist_t root = nullptr;
  if (xml) plist_from_xml(xml, length, &root);
  PlistPtr owned(root);
  if (!root || plist_get_node_type(root) != PLIST_DICT) return std::nullopt;
  auto value = FromNode(root);
  if (!value) return std::nullopt;
  return value->asDictionary();
}

std::string serializePropertyList(const PrefValue::Dictionary& dict) {
  PlistPtr root(ToNode(PrefValue::dictionary(dict)));
  char* xml = nullptr;
  uint32_t length = 0;
  plist_to_xml(root.get(), &xml, &length);
  MallocPtr<char> owned(xml);
  return xml ? std::string(xml, length) : std::string();
}

// ---------------------------------------------------------------------------
// PreferencesDomain

std::string PreferencesDomain::defaultDirectory() {
  return xdgConfigHome();
}

namespace {
std::string DomainPath(const std::string& name, const std::string& directory) {
  std::string dir = directory.empty() ? PreferencesDomain::defaultDirectory() : directory;
  while (dir.size() > 1 && dir.back() == '/') dir.pop_back();
  return dir + "/" + name + ".plist";
}
}  // namespace

PreferencesDomain::PreferencesDomain(std::string name, std::string directory)
    : name_(std::move(name)), path_(DomainPath(name_, directory)) {}

PreferencesDomain::~PreferencesDomain() = default;

void PreferencesDomain::loadLocked() {
  ReadResult r = ReadDomainFile(path_);
  loaded_ = true;
  switch (r.status) {
    case ReadStatus::Ok:
    case ReadStatus::Missing:
      fromFile_ = std::move(r.dict);
      fileCorrupt_ = false;
      reportedCorrupt_ = false;
      return;
    case ReadStatus::Unreadable:
    case ReadStatus::Corrupt:
      fromFile_.clear();
      fileCorrupt_ = true;
      if (!reportedCorrupt_) {
        reportedCorrupt_ = true;
        if (r.status == ReadStatus::Unreadable) {
          SystemLogAt(LogPriority::Warning, "preferences %s: cannot read %s: %s; using no values", name_.c_str(),
                      path_.c_str(), std::strerror(r.error));
        } else {
          SystemLogAt(LogPriority::Warning, "preferences %s: %s is not a valid property list; using no values",
                      name_.c_str(), path_.c_str());
        }
      }
      return;
  }
}

std::optional<PrefValue> PreferencesDomain::copyValue(const std::string& key) {
  MutexLock lock(mu_);
  if (!loaded_) loadLocked();
  if (auto it = pending_.find(key); it != pending_.end()) return it->second;
  if (auto it = fromFile_.find(key); it != fromFile_.end()) return it->second;
  return std::nullopt;
}

void PreferencesDomain::setValue(const std::string& key, const PrefValue& value) {
  MutexLock lock(mu_);
  pending_[key] = value;
}

void PreferencesDomain::removeValue(const std::string& key) {
  MutexLock lock(mu_);
  pending_[key] = std::nullopt;
}

std::vector<std::string> PreferencesDomain::keys() {
  MutexLock lock(mu_);
  if (!loaded_) loadLocked();
  std::map<std::string, bool> visible;
  for (const auto& [key, value] : fromFile_) visible[key] = true;
  for (const auto& [key, value] : pending_) visible[key] = value.has_value();
  std::vector<std::string> result;
  for (const auto& [key, present] : visible) {
    if (present) result.push_back(key);
  }
  return result;
}

bool PreferencesDomain::synchronize() {
  MutexLock lock(mu_);
  bool ok = true;
  if (!pending_.empty()) ok = writeLocked();
  if (ok) loadLocked();
  return ok;
}

bool PreferencesDomain::writeLocked() {
  const std::string dir = DirectoryOf(path_);
  if (!MakeDirectories(dir)) {
    SystemLogAt(LogPriority::Error, "preferences %s: cannot create %s: %s", name_.c_str(), dir.c_str(),
                std::strerror(errno));
    return false;
  }
  const Fd lock = LockDomain(name_, path_);
  if (!lock.valid()) return false;

  const ReadResult current = ReadDomainFile(path_);
  const bool corrupt = current.status == ReadStatus::Corrupt || current.status == ReadStatus::Unreadable;
  bool anySet = false;
  const PrefValue::Dictionary merged = Merged(current.dict, pending_, &anySet);
  if (corrupt && !anySet) {
    // Removing keys from a file we cannot read changes nothing we can see;
    // the file stays as it is until a value is set.
    pending_.clear();
    return true;
  }
  if (!corrupt && current.status == ReadStatus::Ok && merged == current.dict) {
    // Nothing would change (the values are already there): leave the file alone.
    pending_.clear();
    return true;
  }

  const std::optional<std::string> tempPath = WriteTemporary(name_, path_, serializePropertyList(merged));
  if (!tempPath) return false;
  if (corrupt) KeepUnreadableFile(name_, path_);
  if (!ReplaceDomainFile(name_, path_, *tempPath)) return false;
  pending_.clear();
  return true;
}

}  // namespace zonara
