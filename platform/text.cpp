#include "platform/text.h"

#include <glib.h>

#include <memory>

namespace zonara {
namespace {

using OwnedGText = std::unique_ptr<gchar, decltype(&g_free)>;

}  // namespace

std::optional<std::string> foldCaseAndDiacritics(const std::string& text) {
  if (!g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr)) return std::nullopt;
  OwnedGText decomposed(g_utf8_normalize(text.data(), static_cast<gssize>(text.size()), G_NORMALIZE_NFD), &g_free);
  if (!decomposed) return std::nullopt;
  std::string stripped;
  for (const gchar* p = decomposed.get(); *p; p = g_utf8_next_char(p)) {
    gunichar c = g_utf8_get_char(p);
    if (g_unichar_combining_class(c) != 0) continue;
    char buf[6];
    stripped.append(buf, g_unichar_to_utf8(c, buf));
  }
  OwnedGText folded(g_utf8_casefold(stripped.c_str(), -1), &g_free);
  return std::string(folded.get());
}

std::string escapeURIComponent(const std::string& text) {
  OwnedGText escaped(g_uri_escape_string(text.c_str(), nullptr, FALSE), &g_free);
  return escaped ? std::string(escaped.get()) : std::string();
}

}  // namespace zonara
