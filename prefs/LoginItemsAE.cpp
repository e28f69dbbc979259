#include "prefs/LoginItemsAE.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <vector>

#include "platform/file_system.h"
#include "platform/processes.h"
#include "platform/system_log.h"
#include "platform/xdg.h"

namespace zonara {
namespace {

constexpr OSStatus noErr = 0;
constexpr const char* kHiddenKey = "X-Zonara-Hidden";

[[noreturn]] void assertionFailed(const char* function, int line, const char* condition) {
  SystemLogAt(LogPriority::Error, "Assertion failed: (%s), function %s, file LoginItemsAE, line %d.", condition,
              function, line);
  std::fprintf(stderr, "Assertion failed: (%s), function %s, file LoginItemsAE, line %d.\n", condition, function,
               line);
  std::abort();
}

// Stops the process when a caller broke the contract; the message names this
// module, the function, the line and the condition.
#define LIAE_ASSERT(condition) \
  ((condition) ? (void)0 : assertionFailed(__func__, __LINE__, #condition))

struct DesktopEntry {
  std::string type;
  std::string exec;
  bool deleted = false;  // XDG "Hidden=true"
  bool hidden = false;   // our "X-Zonara-Hidden"
  bool valid = false;    // had a [Desktop Entry] group
};

// Undoes the escapes of a desktop-entry string value (\s \n \t \r \\).
std::string unescapeValue(const std::string& v) {
  std::string out;
  for (size_t i = 0; i < v.size(); ++i) {
    if (v[i] == '\\' && i + 1 < v.size()) {
      char c = v[++i];
      switch (c) {
        case 's': out += ' '; break;
        case 'n': out += '\n'; break;
        case 't': out += '\t'; break;
        case 'r': out += '\r'; break;
        default: out += c; break;
      }
    } else {
      out += v[i];
    }
  }
  return out;
}

std::string escapeValue(const std::string& v) {
  std::string out;
  for (char c : v) {
    if (c == '\\') {
      out += "\\\\";
    } else if (c == '\n') {
      out += "\\n";
    } else {
      out += c;
    }
  }
  return out;
}

std::string trim(const std::string& s) {
  size_t b = s.find_first_not_of(" \t\r");
  if (b == std::string::npos) return {};
  size_t e = s.find_last_not_of(" \t\r");
  return s.substr(b, e - b + 1);
}

bool parseEntry(const std::string& path, DesktopEntry& entry) {
  std::optional<std::string> text = readFile(path);
  if (!text) return false;
  std::istringstream in(*text);
  std::string line;
  bool inMain = false;
  while (std::getline(in, line)) {
    line = trim(line);
    if (line.empty() || line[0] == '#') continue;
    if (line[0] == '[') {
      inMain = line == "[Desktop Entry]";
      if (inMain) entry.valid = true;
      continue;
    }
    if (!inMain) continue;
    size_t eq = line.find('=');
    if (eq == std::string::npos) continue;
    const std::string key = trim(line.substr(0, eq));
    const std::string value = unescapeValue(trim(line.substr(eq + 1)));
    if (key == "Type") entry.type = value;
    else if (key == "Exec") entry.exec = value;
    else if (key == "Hidden") entry.deleted = value == "true";
    else if (key == kHiddenKey) entry.hidden = value == "true";
  }
  return entry.valid;
}

// The program of an Exec command line: its first argument, with the quoting
// rules of desktop entries ("..." with \" \` \$ \\ inside) and %% undone.
std::string programOf(const std::string& exec) {
  std::string out;
  size_t i = 0;
  while (i < exec.size() && (exec[i] == ' ' || exec[i] == '\t')) ++i;
  if (i < exec.size() && exec[i] == '"') {
    for (++i; i < exec.size() && exec[i] != '"'; ++i) {
      if (exec[i] == '\\' && i + 1 < exec.size()) ++i;
      out += exec[i];
    }
  } else {
    for (; i < exec.size() && exec[i] != ' ' && exec[i] != '\t'; ++i) out += exec[i];
  }
  std::string unpercent;
  for (size_t k = 0; k < out.size(); ++k) {
    if (out[k] == '%' && k + 1 < out.size() && out[k + 1] == '%') ++k;
    unpercent += out[k];
  }
  return unpercent;
}

std::string quoteProgram(const std::string& path) {
  std::string q = "\"";
  for (char c : path) {
    if (c == '"' || c == '`' || c == '$' || c == '\\') q += '\\';
    if (c == '%') q += '%';
    q += c;
  }
  return q + "\"";
}

// A program named without a folder is found on PATH, as the session would;
// "" when it is not there (no path to make a URL of).
std::string resolveProgram(const std::string& program) { return programOnPath(program).value_or(""); }

// Desktop-entry files of the folder, in file-name order.
bool listEntryFiles(const std::string& folder, std::vector<std::string>& names) {
  std::vector<std::string> all;
  if (int error = folderEntries(folder, &all); error != 0) return error == ENOENT;  // no folder: no login items
  for (const std::string& name : all) {
    if (name.size() > 8 && name.compare(name.size() - 8, 8, ".desktop") == 0) names.push_back(name);
  }
  return true;
}

struct Item {
  std::string file;
  std::string program;
  bool hidden;
};

// The login items in list order; false when the folder cannot be read.
bool loadItems(std::vector<Item>& items) {
  const std::string folder = LoginItemsFolder();
  std::vector<std::string> names;
  if (!listEntryFiles(folder, names)) return false;
  for (const std::string& name : names) {
    DesktopEntry entry;
    if (!parseEntry(folder + "/" + name, entry)) continue;
    if (entry.deleted || entry.type != "Application" || entry.exec.empty()) continue;
    items.push_back({folder + "/" + name, resolveProgram(programOf(entry.exec)), entry.hidden});
  }
  return true;
}

std::string baseName(const std::string& path) {
  size_t slash = path.find_last_of('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

}  // namespace

std::string LoginItemsFolder() { return xdgConfigHome() + "/autostart"; }

std::string FileURLFromPath(const std::string& path) {
  static const char* kHex = "0123456789ABCDEF";
  std::string url = "file://";
  for (unsigned char c : path) {
    if (std::isalnum(c) || std::strchr("/-._~!$&'()*+,;=:@", c)) {
      url += static_cast<char>(c);
    } else {
      url += '%';
      url += kHex[c >> 4];
      url += kHex[c & 15];
    }
  }
  return url;
}

std::string PathFromFileURL(const std::string& url) {
  std::string rest;
  if (url.rfind("file://localhost/", 0) == 0) {
    rest = url.substr(16);
  } else if (url.rfind("file:///", 0) == 0) {
    rest = url.substr(7);
  } else {
    return {};
  }
  std::string path;
  for (size_t i = 0; i < rest.size(); ++i) {
    if (rest[i] == '%' && i + 2 < rest.size() + 0 && std::isxdigit(static_cast<unsigned char>(rest[i + 1])) &&
        std::isxdigit(static_cast<unsigned char>(rest[i + 2]))) {
      path += static_cast<char>(std::stoi(rest.substr(i + 1, 2), nullptr, 16));
      i += 2;
    } else if (rest[i] == '?' || rest[i] == '#') {
      break;
    } else {
      path += rest[i];
    }
  }
  return path;
}

OSStatus LIAECopyLoginItems(std::unique_ptr<PrefValue::Array>* itemsPtr) {
  LIAE_ASSERT(itemsPtr != NULL);
  LIAE_ASSERT(*itemsPtr == NULL);
  OSStatus err = noErr;
  std::vector<Item> items;
  if (!loadItems(items)) {
    err = kCannotMakeListErr;
  } else {
    auto array = std::make_unique<PrefValue::Array>();
    for (const Item& item : items) {
      PrefValue::Dictionary d;
      if (!item.program.empty()) d[kLoginItemURL] = PrefValue::string(FileURLFromPath(item.program));
      d[kLoginItemHidden] = PrefValue::boolean(item.hidden);
      array->push_back(PrefValue::dictionary(std::move(d)));
    }
    *itemsPtr = std::move(array);
  }
  LIAE_ASSERT((err == noErr) == (*itemsPtr != NULL));
  return err;
}

OSStatus LIAEAddURLAtEnd(const std::string* item, bool hideIt) {
  LIAE_ASSERT(item != NULL);
  const std::string path = PathFromFileURL(*item);
  if (path.empty() || !pathExists(path)) return kFileNotFoundErr;
  FileRef ref{path};
  return LIAEAddRefAtEnd(&ref, hideIt);
}

OSStatus LIAEAddRefAtEnd(const FileRef* item, bool hideIt) {
  LIAE_ASSERT(item != NULL);
  const std::optional<std::string> resolved = resolvedPath(item->path);
  if (!resolved) return kFileNotFoundErr;
  const std::string& program = *resolved;
  const std::string folder = LoginItemsFolder();
  if (createFolders(folder) != 0) return kIOErr;

  // The entry is named after its program; a name already taken gets a number.
  // Items are listed in file-name order, so a name that would sort before an
  // existing entry follows the last one's name after a '~' (which sorts after
  // ".desktop"): the new item comes last, as asked.
  std::string stem = baseName(program);
  for (char& c : stem) {
    if (c == ' ') c = '-';
  }
  std::vector<std::string> existing;
  if (!listEntryFiles(folder, existing)) return kIOErr;
  if (!existing.empty() && stem + ".desktop" <= existing.back()) {
    stem = existing.back().substr(0, existing.back().size() - 8) + "~" + stem;
  }
  std::string file = folder + "/" + stem + ".desktop";
  for (int n = 2; pathExists(file); ++n) {
    file = folder + "/" + stem + "-" + std::to_string(n) + ".desktop";
  }

  std::ostringstream text;
  text << "[Desktop Entry]\n"
       << "Type=Application\n"
       << "Name=" << escapeValue(baseName(program)) << "\n"
       << "Exec=" << escapeValue(quoteProgram(program)) << "\n"
       << kHiddenKey << "=" << (hideIt ? "true" : "false") << "\n"
       << "X-GNOME-Autostart-enabled=true\n";
  return writeFileAtomically(file, text.str()) == 0 ? noErr : kIOErr;
}

OSStatus LIAERemove(int32_t itemIndex) {
  LIAE_ASSERT(itemIndex >= 0);
  std::vector<Item> items;
  if (!loadItems(items)) return kCannotMakeListErr;
  if (static_cast<size_t>(itemIndex) >= items.size()) return kNoSuchObjectErr;
  if (removeFile(items[static_cast<size_t>(itemIndex)].file) != 0) return kIOErr;
  return noErr;
}

}  // namespace zonara
