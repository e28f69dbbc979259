#include <gtest/gtest.h>

#include <clocale>
#include <string>

#include "wps/spi/dom.h"
#include "wps/spi/log_capture.h"

namespace WPS {
namespace SPI {
namespace {

std::unique_ptr<DOMDocument> parse(const std::string& text) {
  return SAXParser::newInstance()->parse(text.data(), text.size());
}

// Sets the process locale for the life of a test.
class ScopedLocale {
 public:
  explicit ScopedLocale(const char* name) : previous_(std::setlocale(LC_ALL, nullptr)) {
    ok_ = std::setlocale(LC_ALL, name) != nullptr;
  }
  ~ScopedLocale() { std::setlocale(LC_ALL, previous_.c_str()); }
  [[nodiscard]] bool ok() const { return ok_; }

 private:
  std::string previous_;
  bool ok_;
};

TEST(LibxmlDOM, ReadsNamesNamespacesValuesAndAttributes) {
  auto doc = parse(
      "<?xml version='1.0'?><p:root xmlns:p='urn:a' xmlns='urn:b' id='7' p:q='x'>"
      "<child>one<b>two</b></child><!--c--><p:other/>tail</p:root>");
  ASSERT_TRUE(doc);
  auto root = doc->getDocumentElement();
  ASSERT_TRUE(root);
  EXPECT_EQ(root->getNodeName(), "p:root");
  EXPECT_EQ(root->getLocalName(), "root");
  EXPECT_EQ(root->getPrefix(), "p");
  EXPECT_EQ(root->getNamespaceURI(), "urn:a");

  // Attributes without and with namespace.
  EXPECT_EQ(root->getAttributeNS("", "id"), "7");
  EXPECT_EQ(root->getAttributeNS("urn:a", "q"), "x");
  EXPECT_EQ(root->getAttributeNS("", "q"), "");
  EXPECT_EQ(root->getAttributeNS("urn:a", "id"), "");
  EXPECT_EQ(root->getAttributeNS("", "missing"), "");
  auto attr = root->getAttributeNodeNS("", "id");
  ASSERT_TRUE(attr);
  EXPECT_EQ(attr->getNodeValue(), "7");
  EXPECT_EQ(attr->getLocalName(), "id");
  EXPECT_FALSE(root->getAttributeNodeNS("", "nope"));

  auto children = root->getChildNodes();
  ASSERT_EQ(children->getLength(), 4u);
  auto child = children->getItem(0);
  EXPECT_EQ(child->getLocalName(), "child");
  EXPECT_EQ(child->getNamespaceURI(), "urn:b");  // default namespace
  EXPECT_EQ(child->getPrefix(), "");
  EXPECT_EQ(child->getNodeValue(), "onetwo");  // element: all text it holds

  auto comment = children->getItem(1);
  EXPECT_EQ(comment->getNodeValue(), "");  // not an element, attribute or text
  EXPECT_EQ(comment->getLocalName(), "");
  EXPECT_EQ(comment->getNamespaceURI(), "");

  EXPECT_EQ(children->getItem(2)->getNamespaceURI(), "urn:a");
  auto text = children->getItem(3);
  EXPECT_EQ(text->getNodeName(), "#text");
  EXPECT_EQ(text->getNodeValue(), "tail");
  EXPECT_FALSE(children->getItem(4));

  // Random access after sequential access still finds the right node.
  EXPECT_EQ(children->getItem(0)->getLocalName(), "child");
  EXPECT_EQ(children->getItem(2)->getLocalName(), "other");
}

TEST(LibxmlDOM, RefusesWhatIsNotAWellFormedDocument) {
  const std::string cases[] = {
      "",
      "not xml at all",
      "<a><b></a>",
      "<?xml version='1.0'?>",
      "<a>&undefined;</a>",
      // A document type declaration is never part of the protocol.
      "<?xml version='1.0'?><!DOCTYPE a [<!ENTITY e 'x'>]><a>&e;</a>",
      std::string("<a>\0</a>", 8),
  };
  for (const std::string& text : cases) {
    LogCapture log("WPS.SPI.SAXParser.LibxmlSAXParser");
    EXPECT_FALSE(parse(text)) << text;
    EXPECT_TRUE(log.contains("Error parsing xml")) << text;
  }
  EXPECT_FALSE(SAXParser::newInstance()->parse(nullptr, 10));
}

TEST(LibxmlDOM, BadInputWritesNothingToStandardError) {
  // UCS-4 detected from the first bytes, then broken: libxml2 reports such
  // encoding errors outside its parser options.
  const std::string text("\0\0\0<\0a\0>", 8);
  ::testing::internal::CaptureStderr();
  EXPECT_FALSE(parse(text));
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
}

TEST(LibxmlDOM, EntityExpansionBombIsRefusedQuickly) {
  std::string bomb = "<?xml version='1.0'?><!DOCTYPE l [<!ENTITY a 'aaaaaaaaaa'>";
  char prev = 'a';
  for (char c = 'b'; c <= 'k'; ++c) {
    bomb += std::string("<!ENTITY ") + c + " '";
    for (int i = 0; i < 10; ++i) bomb += std::string("&") + prev + ";";
    bomb += "'>";
    prev = c;
  }
  bomb += "]><l>&k;</l>";
  EXPECT_FALSE(parse(bomb));
}

TEST(LibxmlDOM, DeepAndLargeDocumentsDoNotCrash) {
  // Far deeper than libxml2's nesting limit: refused, not a stack overflow.
  std::string deep;
  for (int i = 0; i < 100000; ++i) deep += "<a>";
  for (int i = 0; i < 100000; ++i) deep += "</a>";
  EXPECT_FALSE(parse(deep));

  // Many children: every one is reachable in order.
  std::string wide = "<r>";
  for (int i = 0; i < 20000; ++i) wide += "<c>" + std::to_string(i) + "</c>";
  wide += "</r>";
  auto doc = parse(wide);
  ASSERT_TRUE(doc);
  auto list = doc->getDocumentElement()->getChildNodes();
  ASSERT_EQ(list->getLength(), 20000u);
  for (unsigned long i = 0; i < list->getLength(); i += 997) {
    EXPECT_EQ(list->getItem(i)->getNodeValue(), std::to_string(i));
  }
}

// Texts are UTF-8 in every locale, the "C" locale of a program that never
// set one included, and whatever the document's encoding.
TEST(LibxmlDOM, TextsLeaveInUtf8) {
  for (const char* localeName : {"C", "C.UTF-8"}) {
    ScopedLocale locale(localeName);
    ASSERT_TRUE(locale.ok()) << localeName;
    auto latin1 = parse("<?xml version='1.0' encoding='ISO-8859-1'?><a n='\xE9'>\xFC</a>");
    ASSERT_TRUE(latin1);
    EXPECT_EQ(latin1->getDocumentElement()->getNodeValue(), "\xC3\xBC") << localeName;
    EXPECT_EQ(latin1->getDocumentElement()->getAttributeNS("", "n"), "\xC3\xA9") << localeName;
    const std::string munich = "M\xC3\xBCnchen \xE2\x82\xAC";  // "München €"
    auto utf8 = parse("<a xmlns:p='urn:\xC3\xA9' p:st\xC3\xA4" "dt='" + munich + "'>" + munich + "</a>");
    ASSERT_TRUE(utf8);
    EXPECT_EQ(utf8->getDocumentElement()->getNodeValue(), munich) << localeName;
    EXPECT_EQ(utf8->getDocumentElement()->getAttributeNS("urn:\xC3\xA9", "st\xC3\xA4" "dt"), munich) << localeName;
  }
}

}  // namespace
}  // namespace SPI
}  // namespace WPS
