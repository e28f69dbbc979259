// The document model over libxml2.
#include <libxml/parser.h>
#include <libxml/tree.h>

#include <cstring>
#include <mutex>

#include "wps/spi/dom.h"
#include "wps/spi/logger.h"

namespace WPS {
namespace SPI {

namespace {

// Parser options: no error or warning output of libxml2's own, pedantic
// checking. Network access and entity substitution stay off (libxml2's
// defaults without XML_PARSE_NOENT / with no DTD loading).
constexpr int kParseOptions = 0xE0;
static_assert(kParseOptions == (XML_PARSE_NOERROR | XML_PARSE_NOWARNING | XML_PARSE_PEDANTIC));

// Texts leave the model as libxml2 holds them: UTF-8, whatever the
// document's declared encoding and whatever the process's locale.
std::string fromUtf8(const xmlChar* text) {
  if (text == nullptr) return {};
  return std::string(reinterpret_cast<const char*>(text));
}

// Owns a text returned by libxml2.
struct XmlCharDeleter {
  void operator()(xmlChar* p) const { xmlFree(p); }
};
using XmlString = std::unique_ptr<xmlChar, XmlCharDeleter>;

class LibxmlDOMNode final : public DOMNode {
 public:
  explicit LibxmlDOMNode(xmlNode* node) : node_(node) {}

  std::string getNodeName() const override {
    switch (node_->type) {
      case XML_ELEMENT_NODE:
      case XML_ATTRIBUTE_NODE: {
        std::string name = fromUtf8(node_->name);
        std::string prefix = getPrefix();
        return prefix.empty() ? name : prefix + ":" + name;
      }
      case XML_TEXT_NODE:
        return "#text";
      case XML_CDATA_SECTION_NODE:
        return "#cdata-section";
      case XML_COMMENT_NODE:
        return "#comment";
      default:
        return {};
    }
  }

  std::string getNodeValue() const override {
    switch (node_->type) {
      case XML_ELEMENT_NODE:
      case XML_ATTRIBUTE_NODE:
      case XML_TEXT_NODE:
      case XML_CDATA_SECTION_NODE: {
        XmlString content(xmlNodeGetContent(node_));
        return fromUtf8(content.get());
      }
      default:
        return {};
    }
  }

  std::string getNamespaceURI() const override {
    if (!hasName() || node_->ns == nullptr) return {};
    return fromUtf8(node_->ns->href);
  }

  std::string getPrefix() const override {
    if (!hasName() || node_->ns == nullptr) return {};
    return fromUtf8(node_->ns->prefix);
  }

  std::string getLocalName() const override { return hasName() ? fromUtf8(node_->name) : std::string(); }

  std::unique_ptr<DOMNodeList> getChildNodes() const override;

  std::string getAttributeNS(const std::string& namespaceURI, const std::string& localName) const override {
    xmlAttr* attribute = findAttribute(namespaceURI, localName);
    if (attribute == nullptr) return {};
    XmlString value(xmlNodeGetContent(reinterpret_cast<xmlNode*>(attribute)));
    return fromUtf8(value.get());
  }

  std::unique_ptr<DOMNode> getAttributeNodeNS(const std::string& namespaceURI,
                                              const std::string& localName) const override {
    xmlAttr* attribute = findAttribute(namespaceURI, localName);
    if (attribute == nullptr) return nullptr;
    return std::make_unique<LibxmlDOMNode>(reinterpret_cast<xmlNode*>(attribute));
  }

 private:
  [[nodiscard]] bool hasName() const {
    return node_->type == XML_ELEMENT_NODE || node_->type == XML_ATTRIBUTE_NODE;
  }

  xmlAttr* findAttribute(const std::string& namespaceURI, const std::string& localName) const {
    if (node_->type != XML_ELEMENT_NODE) return nullptr;
    // Names are compared in UTF-8, the document's own form and the caller's.
    const std::string& name = localName;
    const std::string& ns = namespaceURI;
    for (xmlAttr* a = node_->properties; a != nullptr; a = a->next) {
      if (std::strcmp(reinterpret_cast<const char*>(a->name), name.c_str()) != 0) continue;
      const char* href = a->ns != nullptr ? reinterpret_cast<const char*>(a->ns->href) : "";
      if (ns == href) return a;
    }
    return nullptr;
  }

  xmlNode* node_;  // not owned; lives as long as its document
};

class LibxmlDOMNodeList final : public DOMNodeList {
 public:
  explicit LibxmlDOMNodeList(xmlNode* parent) {
    for (xmlNode* child = parent->children; child != nullptr; child = child->next) ++length_;
    first_ = parent->children;
    cursorIndex_ = 0;
    cursor_ = first_;
  }

  std::unique_ptr<DOMNode> getItem(unsigned long index) const override {
    if (index >= length_) return nullptr;
    // Walks from the last position: reading the list in order costs one step
    // per item.
    if (index < cursorIndex_) {
      cursorIndex_ = 0;
      cursor_ = first_;
    }
    while (cursorIndex_ < index) {
      cursor_ = cursor_->next;
      ++cursorIndex_;
    }
    return std::make_unique<LibxmlDOMNode>(cursor_);
  }

  unsigned long getLength() const override { return length_; }

 private:
  xmlNode* first_ = nullptr;
  unsigned long length_ = 0;
  mutable unsigned long cursorIndex_ = 0;
  mutable xmlNode* cursor_ = nullptr;
};

std::unique_ptr<DOMNodeList> LibxmlDOMNode::getChildNodes() const {
  // Attribute nodes hold their value as text children; libxml2 keeps them in
  // the same field.
  return std::make_unique<LibxmlDOMNodeList>(node_);
}

class LibxmlDOMDocument final : public DOMDocument {
 public:
  explicit LibxmlDOMDocument(xmlDoc* doc) : doc_(doc) {}
  ~LibxmlDOMDocument() override { xmlFreeDoc(doc_); }
  LibxmlDOMDocument(const LibxmlDOMDocument&) = delete;
  LibxmlDOMDocument& operator=(const LibxmlDOMDocument&) = delete;

  std::unique_ptr<DOMNode> getDocumentElement() const override {
    xmlNode* root = xmlDocGetRootElement(doc_);
    if (root == nullptr) return nullptr;
    return std::make_unique<LibxmlDOMNode>(root);
  }

 private:
  xmlDoc* doc_;  // owned
};

void ignoreGenericError(void*, const char*, ...) {}

// Replaces the calling thread's libxml2 generic error handler for the life of
// the object.
class QuietLibxmlErrors {
 public:
  QuietLibxmlErrors() : handler_(xmlGenericError), context_(xmlGenericErrorContext) {
    xmlSetGenericErrorFunc(nullptr, &ignoreGenericError);
  }
  ~QuietLibxmlErrors() { xmlSetGenericErrorFunc(context_, handler_); }
  QuietLibxmlErrors(const QuietLibxmlErrors&) = delete;
  QuietLibxmlErrors& operator=(const QuietLibxmlErrors&) = delete;

 private:
  xmlGenericErrorFunc handler_;
  void* context_;
};

class LibxmlSAXParser final : public SAXParser {
 public:
  LibxmlSAXParser() : logger_(Logger::getLogger("WPS.SPI.SAXParser.LibxmlSAXParser")) {}

  std::unique_ptr<DOMDocument> parse(const char* text, unsigned long length) override {
    xmlDoc* doc = nullptr;
    if (text != nullptr && length > 0 && length <= static_cast<unsigned long>(INT32_MAX)) {
      // Some libxml2 reports (encoding errors) ignore XML_PARSE_NOERROR and go
      // to the thread's generic error handler, by default stderr: silence it
      // for this parse only.
      QuietLibxmlErrors quiet;
      doc = xmlReadMemory(text, static_cast<int>(length), "", nullptr, kParseOptions);
    }
    if (doc != nullptr && (doc->intSubset != nullptr || doc->extSubset != nullptr)) {
      xmlFreeDoc(doc);
      doc = nullptr;
    }
    if (doc == nullptr) {
      logger_.error("Error parsing xml");
      return nullptr;
    }
    return std::make_unique<LibxmlDOMDocument>(doc);
  }

 private:
  Logger& logger_;
};

}  // namespace

std::unique_ptr<SAXParser> SAXParser::newInstance() {
  // libxml2's global state must be set up once before threads parse.
  static std::once_flag once;
  std::call_once(once, [] { xmlInitParser(); });
  return std::make_unique<LibxmlSAXParser>();
}

}  // namespace SPI
}  // namespace WPS
