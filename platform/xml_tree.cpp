#include "platform/xml_tree.h"

#include <libxml/parser.h>
#include <libxml/tree.h>

#include <memory>

namespace zonara {
namespace {

struct XmlDocDeleter {
  void operator()(xmlDoc* doc) const { xmlFreeDoc(doc); }
};

XmlElement copyElement(xmlNode* node) {
  XmlElement element;
  element.name = reinterpret_cast<const char*>(node->name);
  if (xmlChar* content = xmlNodeGetContent(node)) {
    element.text = reinterpret_cast<const char*>(content);
    xmlFree(content);
  }
  for (xmlNode* child = node->children; child; child = child->next) {
    if (child->type == XML_ELEMENT_NODE) element.children.push_back(copyElement(child));
  }
  return element;
}

}  // namespace

const XmlElement* XmlElement::lastChild(std::string_view childName) const {
  const XmlElement* found = nullptr;
  for (const XmlElement& child : children) {
    if (child.name == childName) found = &child;
  }
  return found;
}

std::optional<XmlElement> parseXml(std::string_view data) {
  std::unique_ptr<xmlDoc, XmlDocDeleter> doc(
      xmlReadMemory(data.data(), static_cast<int>(data.size()), nullptr, nullptr,
                    XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING));
  if (!doc) return std::nullopt;
  xmlNode* root = xmlDocGetRootElement(doc.get());
  if (!root) return std::nullopt;
  return copyElement(root);
}

}  // namespace zonara
