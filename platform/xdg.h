// The user's folders as the XDG base-directory rules give them.
//
// Only absolute values of the XDG variables count (the rules call relative
// ones invalid). The home folder is $HOME when set and not empty, else the
// account's home folder from the user database.
//
// Thread safety: any thread (the environment is read, never written).
#pragma once

#include <string>
#include <vector>

namespace zonara {

// The home folder; "" when neither $HOME nor the user database names one.
[[nodiscard]] std::string homeFolder();
// $XDG_CONFIG_HOME, else <home>/.config.
[[nodiscard]] std::string xdgConfigHome();
// $XDG_DATA_HOME, else <home>/.local/share.
[[nodiscard]] std::string xdgDataHome();
// $XDG_STATE_HOME, else <home>/.local/state.
[[nodiscard]] std::string xdgStateHome();
// The absolute folders of $XDG_DATA_DIRS (colon-separated), in order; when it
// names none, /usr/local/share and /usr/share.
[[nodiscard]] std::vector<std::string> xdgDataDirs();
// The absolute folders of a colon-separated list, in order (relative and
// empty entries are left out).
[[nodiscard]] std::vector<std::string> absoluteFolders(const std::string& list);

}  // namespace zonara
