#include "platform/polkit.h"

#include <gio/gio.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

namespace zonara {
namespace {

// Field 22 of /proc/self/stat: the process's start time, which polkit uses
// with the pid to tell this process from a later one with the same pid.
guint64 processStartTime() {
  std::ifstream in("/proc/self/stat");
  std::string stat((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  const size_t close = stat.rfind(')');  // the command name may hold spaces
  if (close == std::string::npos) return 0;
  std::istringstream fields(stat.substr(close + 2));
  std::string field;
  for (int i = 3; i <= 22 && fields >> field; ++i) {
    if (i == 22) return std::strtoull(field.c_str(), nullptr, 10);
  }
  return 0;
}

}  // namespace

PolkitVerdict CheckPolkitAuthorization(DBusConnection& systemBus, const std::string& actionId) {
  GVariantBuilder subject;
  g_variant_builder_init(&subject, G_VARIANT_TYPE("a{sv}"));
  g_variant_builder_add(&subject, "{sv}", "pid", g_variant_new_uint32(static_cast<guint32>(getpid())));
  g_variant_builder_add(&subject, "{sv}", "start-time", g_variant_new_uint64(processStartTime()));
  g_variant_builder_add(&subject, "{sv}", "uid", g_variant_new_int32(static_cast<gint32>(getuid())));
  GVariantBuilder details;
  g_variant_builder_init(&details, G_VARIANT_TYPE("a{ss}"));
  GError* error = nullptr;
  GVariant* reply = g_dbus_connection_call_sync(
      systemBus.get(), "org.freedesktop.PolicyKit1", "/org/freedesktop/PolicyKit1/Authority",
      "org.freedesktop.PolicyKit1.Authority", "CheckAuthorization",
      g_variant_new("((sa{sv})sa{ss}us)", "unix-process", &subject, actionId.c_str(), &details,
                    0u /* no user interaction */, ""),
      G_VARIANT_TYPE("((bba{ss}))"), G_DBUS_CALL_FLAGS_NO_AUTO_START, 5000, nullptr, &error);
  PolkitVerdict verdict;
  if (!reply) {
    verdict.detail = error ? error->message : "no answer";
    if (error) g_error_free(error);
    return verdict;
  }
  gboolean authorized = FALSE, challenge = FALSE;
  g_variant_get(reply, "((bb@a{ss}))", &authorized, &challenge, nullptr);
  g_variant_unref(reply);
  verdict.answer = authorized  ? PolkitVerdict::Answer::Allowed
                   : challenge ? PolkitVerdict::Answer::NeedsPassword
                               : PolkitVerdict::Answer::Denied;
  return verdict;
}

}  // namespace zonara
