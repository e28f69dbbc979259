// The user's folders as the XDG base-directory rules give them.
//
// Only absolute values of the XDG variables count (the rules call relative
// ones invalid). The home folder is $HOME when set and not empty, else the
// account's home folder from the user database.
//
// Thread safety: any thread (the environment is read, never written).
#pragma once

#include <string>

namespace zonara {

// The home folder; "" when neither $HOME nor the user database names one.
[[nodiscard]] std::string homeFolder();
// $XDG_CONFIG_HOME, else <home>/.config.
[[nodiscard]] std::string xdgConfigHome();
// $XDG_DATA_HOME, else <home>/.local/share.
[[nodiscard]] std::string xdgDataHome();

}  // namespace zonara
