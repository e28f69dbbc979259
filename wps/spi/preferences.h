// Settings the positioning library reads from preferences domains.
//
// A domain is one property-list file, $XDG_CONFIG_HOME/<domain>.plist
// (default ~/.config/<domain>.plist), in XML or binary form: the files the
// programs that embed the library keep their preferences in. The library only
// reads them; it never writes one.
//
// Nothing here logs: the logging configuration itself is read this way, before
// any logger exists.
//
// Thread safety: any thread; every call reads the file afresh.
#pragma once

#include <optional>
#include <string>

namespace WPS {
namespace SPI {

// The file of `domain`: "<folder>/<domain>.plist", where the folder is
// $XDG_CONFIG_HOME when it is set to an absolute path, otherwise
// ~/.config ($HOME, or the account's home folder when $HOME is unset or
// empty). Empty when neither gives a folder.
[[nodiscard]] std::string preferencesFile(const std::string& domain);

// The text stored under `key` in the top-level dictionary of `domain`'s file.
// nullopt when the domain is empty, the file is missing, unreadable or not a
// property list with a dictionary at its top, or the value is not a text.
// A text holding a NUL character ends at it.
[[nodiscard]] std::optional<std::string> readStringPreference(const std::string& domain, const char* key);

// A setting of the library: the text under `key` in the running program's
// domain (Logger::applicationDomain()), else in the library's own
// (kLibraryPreferencesDomain); empty when neither holds one.
[[nodiscard]] std::string readLibraryPreference(const char* key);

// Whether `host` is named in `list`, host names separated by commas or blanks
// ("*" names every host); compared without regard to case.
[[nodiscard]] bool hostListed(const std::string& host, const std::string& list);

}  // namespace SPI
}  // namespace WPS
