// The XML layer: positions, patterns, text, missing nodes and serialisation as the service client needs them.
#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "core/Error.h"
#include "platform/xml/XmlDocument.h"
#include "tests/support/RaisedError.h"

using platform::XmlDocument;
using platform::XmlNode;

namespace {

using testing_support::RaisedErrorNumber;

constexpr const char* kMoveTemplate = "<?xml version='1.0'?><D:move xmlns:D='DAV:'><D:target></D:target></D:move>";

TEST(XmlDocumentTest, WhiteSpaceBetweenElementsFormsNoNodes) {
    XmlDocument doc;
    ASSERT_TRUE(doc.loadXML("<?xml version=\"1.0\"?>\r\n<a>\n  <b>one</b>\n\t<c> two <d>three</d></c>\n</a>\n"));
    const auto children = doc.documentElement().childNodes();
    ASSERT_EQ(children.length(), 2);
    EXPECT_EQ(children.item(0).nodeName(), "b");
    // The whole text of an element and its descendants, spaces inside kept.
    EXPECT_EQ(children.item(1).text(), " two three");
}

TEST(XmlDocumentTest, TextBytesComeBackUnchanged) {
    XmlDocument doc;
    ASSERT_TRUE(
        doc.loadXML("<a>Gr\xC3\xBC\xC3\x9F"
                    "e &amp; &lt;tags&gt;</a>"));
    EXPECT_EQ(doc.documentElement().text(),
              "Gr\xC3\xBC\xC3\x9F"
              "e & <tags>");
}

TEST(XmlDocumentTest, PatternsMatchPrefixAndNameAsWrittenAcrossTheWholeDocument) {
    XmlDocument doc;
    ASSERT_TRUE(
        doc.loadXML("<D:multistatus xmlns:D='DAV:' xmlns:X='DAV:'>"
                    "<D:response><D:href>1</D:href></D:response>"
                    "<X:response><X:href>x</X:href></X:response>"
                    "<D:response><D:href>2</D:href><m:subject>s</m:subject></D:response>"
                    "</D:multistatus>"));
    const auto responses = doc.selectNodes("//D:response");
    ASSERT_EQ(responses.length(), 2);
    EXPECT_EQ(responses.item(1).text(), "2s");
    // A prefix bound to no namespace is matched all the same.
    EXPECT_EQ(doc.selectNodes("//m:subject").length(), 1);
    // "//" from a node still searches the whole document, in document order.
    const auto hrefs = responses.item(1).selectNodes("//D:href");
    ASSERT_EQ(hrefs.length(), 2);
    EXPECT_EQ(hrefs.item(0).text(), "1");
}

TEST(XmlDocumentTest, UsingAMissingNodeRaises91) {
    XmlDocument doc;
    ASSERT_TRUE(doc.loadXML("<a><b/></a>"));
    const XmlNode missing = doc.documentElement().childNodes().item(1);
    EXPECT_FALSE(missing.exists());
    EXPECT_EQ(RaisedErrorNumber([&] { (void)missing.text(); }), 91);
    EXPECT_EQ(RaisedErrorNumber([&] { (void)missing.childNodes(); }), 91);
    EXPECT_EQ(RaisedErrorNumber([&] { (void)doc.selectNodes("//zz").item(0).text(); }), 91);
    EXPECT_EQ(RaisedErrorNumber([&] { (void)XmlDocument().documentElement().childNodes(); }), 91);
}

TEST(XmlDocumentTest, TextThatIsNotWellFormedIsRefusedWithAReason) {
    for (const char* text :
         {"", "Service unavailable", "<html><body>Error<br></body></html>", "<a></b>", "<a/><b/>", "<a>unclosed"}) {
        XmlDocument doc;
        EXPECT_FALSE(doc.loadXML(text)) << text;
        EXPECT_FALSE(doc.parseErrorReason().empty()) << text;
        EXPECT_FALSE(doc.documentElement().exists()) << text;
    }
    XmlDocument doc;
    ASSERT_FALSE(doc.loadXML("<a>"));
    ASSERT_TRUE(doc.loadXML("<a/>"));
    EXPECT_EQ(doc.parseErrorReason(), "");
}

TEST(XmlDocumentTest, MoveDocumentIsWrittenBackWithItsDeclarationAndNoIndentation) {
    struct Case {
        std::vector<std::string> ids;
        std::string expected;
    };
    const Case cases[] = {
        {{}, kMoveTemplate},
        {{"MSG1"}, "<?xml version='1.0'?><D:move xmlns:D='DAV:'><D:target><D:href>MSG1</D:href></D:target></D:move>"},
        {{"a<b", "c&d"},
         "<?xml version='1.0'?><D:move xmlns:D='DAV:'><D:target><D:href>a&lt;b</D:href>"
         "<D:href>c&amp;d</D:href></D:target></D:move>"},
    };
    for (const Case& c : cases) {
        XmlDocument doc;
        ASSERT_TRUE(doc.loadXML(kMoveTemplate));
        XmlNode target = doc.documentElement().childNodes().item(0);
        for (const std::string& id : c.ids) {
            XmlNode href = doc.createElement("D:href");
            href.setText(id);
            target.appendChild(href);
            // The handle follows the element into the tree.
            EXPECT_EQ(href.text(), id);
        }
        EXPECT_EQ(doc.xml(), c.expected);
    }
}

}  // namespace
