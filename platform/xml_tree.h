// A parsed XML document as a plain tree of elements (libxml2 underneath).
//
// Meant for the small answers of web services: the whole document is copied
// into the tree, so nothing of the parser outlives `parseXml`. The network is
// never touched (no external entities or DTDs are loaded).
//
// Thread safety: parsing may run on any thread; a tree is a value.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zonara {

struct XmlElement {
  std::string name;
  // The text of the element and all its descendants, concatenated.
  std::string text;
  // The element children, in document order (text and comments left out).
  std::vector<XmlElement> children;

  // The last element child named `name`, or null.
  [[nodiscard]] const XmlElement* lastChild(std::string_view childName) const;
};

// The document's root element; nullopt when `data` is not well-formed XML.
[[nodiscard]] std::optional<XmlElement> parseXml(std::string_view data);

}  // namespace zonara
