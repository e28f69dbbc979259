// Unicode text services (GLib underneath).
//
// Thread safety: any thread.
#pragma once

#include <optional>
#include <string>

namespace zonara {

// `text` lower-cased, decomposed and without combining marks, for comparisons
// that ignore case and diacritics ("Zürich" and "ZURICH" fold alike); nullopt
// when `text` is not valid UTF-8.
[[nodiscard]] std::optional<std::string> foldCaseAndDiacritics(const std::string& text);

// `text` percent-encoded for use as one component of a URL (everything but
// the unreserved characters is escaped: "a b&c" -> "a%20b%26c").
[[nodiscard]] std::string escapeURIComponent(const std::string& text);

}  // namespace zonara
