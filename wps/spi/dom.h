// A small read-only XML document model through which the positioning library
// reads server responses, with one implementation over libxml2.
//
// Ownership: every object handed out is new and belongs to the caller. Nodes
// and node lists only refer into the document they came from: the document
// must outlive them (parsers delete nodes first, then the document).
//
// Texts: every text that leaves the model (names, values, namespace URIs) is
// UTF-8, whatever encoding the document declared and whatever the process's
// locale (programs embedding the library rarely set one, and a conversion to
// the "C" locale's ASCII turned "München" into "M?nchen"). Names given to the
// model are UTF-8 too.
//
// Thread safety: one parser, document and its nodes must be used by one thread
// at a time; distinct documents are independent.
#pragma once

#include <memory>
#include <string>

namespace WPS {
namespace SPI {

class DOMNodeList;

class DOMNode {
 public:
  virtual ~DOMNode() = default;

  // The qualified name (prefix:local) of an element or attribute; "#text" for
  // text nodes; empty for other kinds.
  [[nodiscard]] virtual std::string getNodeName() const = 0;
  // For an element, all the text it holds (its descendants' text joined); for
  // an attribute, its value; for a text or CDATA node, its text; empty for
  // every other kind of node.
  [[nodiscard]] virtual std::string getNodeValue() const = 0;
  // The namespace URI of an element or attribute; empty when it has none.
  [[nodiscard]] virtual std::string getNamespaceURI() const = 0;
  // The namespace prefix; empty when none.
  [[nodiscard]] virtual std::string getPrefix() const = 0;
  // The local name of an element or attribute; empty for other kinds.
  [[nodiscard]] virtual std::string getLocalName() const = 0;
  // The direct children, in document order (elements, texts, comments...).
  [[nodiscard]] virtual std::unique_ptr<DOMNodeList> getChildNodes() const = 0;
  // The value of the attribute `localName` in `namespaceURI` (an empty
  // `namespaceURI` means an attribute without namespace); empty when absent.
  [[nodiscard]] virtual std::string getAttributeNS(const std::string& namespaceURI,
                                                   const std::string& localName) const = 0;
  // The attribute node, or null when absent.
  [[nodiscard]] virtual std::unique_ptr<DOMNode> getAttributeNodeNS(const std::string& namespaceURI,
                                                                    const std::string& localName) const = 0;
};

class DOMNodeList {
 public:
  virtual ~DOMNodeList() = default;
  // The node at `index`, or null when `index` >= getLength().
  [[nodiscard]] virtual std::unique_ptr<DOMNode> getItem(unsigned long index) const = 0;
  [[nodiscard]] virtual unsigned long getLength() const = 0;
};

class DOMDocument {
 public:
  // Frees the whole document.
  virtual ~DOMDocument() = default;
  // The root element; null only for a document without one.
  [[nodiscard]] virtual std::unique_ptr<DOMNode> getDocumentElement() const = 0;
};

class SAXParser {
 public:
  virtual ~SAXParser() = default;
  // Parses `length` bytes of `text` (UTF-8 unless the text declares another
  // encoding). Returns the document, or null when the text is not well-formed
  // XML, is empty, or carries a document type declaration (the protocol has
  // none; refusing it rules out entity-expansion attacks). A failure is logged
  // "Error parsing xml" on category "WPS.SPI.SAXParser.LibxmlSAXParser".
  [[nodiscard]] virtual std::unique_ptr<DOMDocument> parse(const char* text, unsigned long length) = 0;

  // The libxml2 parser.
  [[nodiscard]] static std::unique_ptr<SAXParser> newInstance();
};

}  // namespace SPI
}  // namespace WPS
