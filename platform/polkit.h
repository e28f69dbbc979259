// Asking polkit whether this process's user may set the system time zone
// (timedated's action "org.freedesktop.timedate1.set-timezone") without being
// asked for a password: CheckAuthorization on the system bus, for this
// process, without allowing user interaction.
//
// Thread safety: any thread; blocks the caller for the D-Bus call (at most a
// few seconds).
#pragma once

#include <string>

#include "platform/dbus.h"

namespace zonara {

struct PolkitVerdict {
  enum class Answer {
    Allowed,        // authorized now, no prompt
    NeedsPassword,  // authorized only after authentication (a prompt)
    Denied,         // not authorized at all
    Unknown,        // no polkit to ask (or it did not answer); see `detail`
  };
  Answer answer = Answer::Unknown;
  std::string detail;  // why it is Unknown
};

inline constexpr const char* kSetTimezoneAction = "org.freedesktop.timedate1.set-timezone";

// `systemBus` is borrowed for the call.
[[nodiscard]] PolkitVerdict CheckPolkitAuthorization(DBusConnection& systemBus, const std::string& actionId);

}  // namespace zonara
