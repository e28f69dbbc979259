// The user's login items: programs started when the user logs in.
//
// On Linux the login items are the XDG autostart entries of the user,
// "$XDG_CONFIG_HOME/autostart/*.desktop" (default ~/.config/autostart), listed
// in file-name order. Each item is handed out as a dictionary with two entries:
//   "URL"    (string)  the file URL of the entry's program (its Exec command;
//                      a bare name as found on PATH; absent when it is not
//                      found there),
//   "Hidden" (boolean) the program is to be started without showing a window.
// XDG's own "Hidden" key means "this entry is deleted", so the item's hidden
// flag is stored as "X-Zonara-Hidden"; entries with "Hidden=true", entries whose
// Type is not "Application" and files that are not readable desktop entries
// are not login items and are not listed.
//
// Every function returns a status: 0 for success, otherwise a negative error
// number: -43 (file not found) for a URL that is not a reachable file, -4960
// when the list cannot be made, -1728 (no such object) for an index past the
// end, -36 (I/O error) when an entry cannot be written or removed. Misuse by the
// caller (a null out argument, a negative index) is a programming error and
// stops the process with an assertion naming this module, the function, the
// line and the condition.
//
// This takes the place of a desktop's login-items service reached by
// inter-process events: the three operations (copy, add at end, remove by
// index) and the item fields are the same; there is no event sender, because
// the store is a folder of files the user owns.
//
// Thread safety: the functions may be called from any thread; concurrent
// changes to the same folder from several threads or processes are not
// coordinated (the last writer of a file wins), as with any desktop's settings.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "platform/preferences_store.h"

namespace zonara {

using OSStatus = int32_t;

inline constexpr OSStatus kFileNotFoundErr = -43;
inline constexpr OSStatus kIOErr = -36;
inline constexpr OSStatus kNoSuchObjectErr = -1728;
inline constexpr OSStatus kCannotMakeListErr = -4960;

// Keys of a login-item dictionary.
inline constexpr const char* kLoginItemURL = "URL";
inline constexpr const char* kLoginItemHidden = "Hidden";

// A reference to an existing file (its absolute path).
struct FileRef {
  std::string path;
};

// Hands out, through `itemsPtr`, a new array of the login-item dictionaries
// in list order. `itemsPtr` must not be null and must hold null on entry; on
// failure it holds null on return.
OSStatus LIAECopyLoginItems(std::unique_ptr<PrefValue::Array>* itemsPtr);

// Appends a login item for the file named by the file URL `*item`
// ("file:///usr/bin/zonara-helper", percent-encoding allowed). A URL that is not
// a file URL of an existing file gives -43.
OSStatus LIAEAddURLAtEnd(const std::string* item, bool hideIt);

// Appends a login item for an existing file (its real path, links resolved),
// listed after every existing item. A reference to a file that does not
// exist gives -43.
OSStatus LIAEAddRefAtEnd(const FileRef* item, bool hideIt);

// Removes the login item at `itemIndex` (zero-based, as in the array of
// LIAECopyLoginItems); its desktop entry file is deleted.
OSStatus LIAERemove(int32_t itemIndex);

// The folder of autostart entries ($XDG_CONFIG_HOME/autostart).
[[nodiscard]] std::string LoginItemsFolder();

// File URL <-> path conversions used for login items.
[[nodiscard]] std::string FileURLFromPath(const std::string& path);
// The path of a "file://" URL (percent-decoded), or "" for any other URL.
[[nodiscard]] std::string PathFromFileURL(const std::string& url);

}  // namespace zonara
