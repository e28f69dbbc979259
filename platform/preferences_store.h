// Preferences domains: one property-list file per domain at
// $XDG_CONFIG_HOME/<domain>.plist (default ~/.config/<domain>.plist), in XML
// form, read and written with libplist.
//
// A `PreferencesDomain` holds the values last read from its file plus the
// changes made since. `synchronize()` writes the pending changes out -- merged
// into the file's current contents under an advisory lock, so two processes
// writing different keys lose nothing -- atomically by temp file and rename,
// and then re-reads the file so another process's writes become visible.
//
// A missing file reads as an empty domain. An unreadable or corrupt file is
// reported once to the system log and read as empty; it is left untouched
// until a value is set, and then kept beside the new file as
// "<domain>.plist.corrupt" so nothing is silently lost (an older .corrupt
// file is replaced). An empty file reads as an empty domain, not as corrupt.
//
// Files: the advisory lock is flock(2) on "<domain>.plist.lock" beside the
// domain file; it is created on the first write and never removed. Missing
// folders are created (mode 0700). A new domain file gets mode 0600; a
// replaced one keeps its mode. Binary property lists are read as well, but
// always written back as XML.
//
// Limits: values libplist reads but `PrefValue` cannot hold (dates, UIDs) are
// left out when a file is read, and so are not written back by the next
// write; strings cannot contain NUL characters (a string read with one ends
// at it); integers above INT64_MAX read back modulo 2^64.
//
// Thread safety: a `PreferencesDomain` may be used from any thread; each
// operation is atomic with respect to the others.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>
#include "platform/mutex.h"

namespace zonara {

// A property-list value.
class PrefValue {
 public:
  enum class Type { String, Boolean, Integer, Real, Data, Array, Dictionary };
  using Array = std::vector<PrefValue>;
  using Dictionary = std::map<std::string, PrefValue>;

  PrefValue() : type_(Type::String) {}
  static PrefValue string(std::string s);
  static PrefValue boolean(bool b);
  static PrefValue integer(int64_t i);
  static PrefValue real(double d);
  static PrefValue data(std::vector<uint8_t> bytes);
  static PrefValue array(Array items);
  static PrefValue dictionary(Dictionary entries);

  [[nodiscard]] Type type() const { return type_; }
  [[nodiscard]] bool isString() const { return type_ == Type::String; }
  // Accessors return the stored value; asking for another type than stored
  // gives the type's empty value (see the conversions for numbers).
  [[nodiscard]] const std::string& asString() const { return string_; }
  // Booleans, integers and reals convert among themselves; a string "YES",
  // "true" or a non-zero number converts to true, as user defaults do.
  [[nodiscard]] bool asBool() const;
  [[nodiscard]] int64_t asInteger() const;
  [[nodiscard]] double asReal() const;
  [[nodiscard]] const std::vector<uint8_t>& asData() const { return data_; }
  [[nodiscard]] const Array& asArray() const { return array_; }
  [[nodiscard]] const Dictionary& asDictionary() const { return dict_; }

  friend bool operator==(const PrefValue& a, const PrefValue& b);

 private:
  Type type_;
  std::string string_;
  bool bool_ = false;
  int64_t int_ = 0;
  double real_ = 0;
  std::vector<uint8_t> data_;
  Array array_;
  Dictionary dict_;
};

// Reads and writes a whole property list (a dictionary at the top) as XML.
// `parsePropertyList` returns nullopt for text that is not a dictionary plist.
[[nodiscard]] std::optional<PrefValue::Dictionary> parsePropertyList(const std::string& bytes);
[[nodiscard]] std::string serializePropertyList(const PrefValue::Dictionary& dict);

class PreferencesDomain {
 public:
  // The domain `name` in the folder `directory` ("" = the XDG configuration
  // folder: $XDG_CONFIG_HOME, else $HOME/.config).
  explicit PreferencesDomain(std::string name, std::string directory = "");
  ~PreferencesDomain();
  PreferencesDomain(const PreferencesDomain&) = delete;
  PreferencesDomain& operator=(const PreferencesDomain&) = delete;

  [[nodiscard]] const std::string& name() const { return name_; }
  // Full path of the domain's file.
  [[nodiscard]] const std::string& path() const { return path_; }

  // A copy of the value of `key` (pending changes first, then the file as last
  // read), or nullopt when absent.
  [[nodiscard]] std::optional<PrefValue> copyValue(const std::string& key);
  // Sets `key` in memory; written by the next `synchronize`.
  void setValue(const std::string& key, const PrefValue& value);
  // Removes `key` in memory; written by the next `synchronize`.
  void removeValue(const std::string& key);
  // All keys currently visible (file as last read plus pending changes).
  [[nodiscard]] std::vector<std::string> keys();

  // Writes pending changes (if any) and re-reads the file. Returns false when
  // the file could not be written (the reason goes to the system log); the
  // changes then stay pending. Changes that leave the file's contents as they
  // are (and removals while the file is corrupt) do not rewrite it.
  bool synchronize();

  // The XDG configuration folder used when none is given.
  [[nodiscard]] static std::string defaultDirectory();

 private:
  void loadLocked() ZONARA_REQUIRES(mu_);
  [[nodiscard]] bool writeLocked() ZONARA_REQUIRES(mu_);

  Mutex mu_;
  const std::string name_;
  const std::string path_;
  bool loaded_ ZONARA_GUARDED_BY(mu_) = false;
  bool fileCorrupt_ ZONARA_GUARDED_BY(mu_) = false;
  bool reportedCorrupt_ ZONARA_GUARDED_BY(mu_) = false;
  PrefValue::Dictionary fromFile_ ZONARA_GUARDED_BY(mu_);
  // Pending changes: a value to set, or nullopt to remove.
  std::map<std::string, std::optional<PrefValue>> pending_ ZONARA_GUARDED_BY(mu_);
};

}  // namespace zonara
