// The XML layer: positions, patterns, text, missing nodes and serialisation as the service client needs them.
#include <gtest/gtest.h>

#include <string>

#include "platform/xml/XmlDocument.h"
#include "tests/support/RaisedError.h"

namespace {

using platform::XmlDocument;
using platform::XmlNode;
using testing_support::RaisedErrorNumber;

TEST(XmlDocumentTest, WhiteSpaceBetweenElementsFormsNoNodesAndTextComesBackUnchanged) {
    XmlDocument doc;
    ASSERT_TRUE(doc.loadXML("<?xml version=\"1.0\"?>\r\n<a>\n  <b>Gr\xC3\xBC\xC3\x9F &amp; &lt;t&gt;</b>\n"
                            "\t<c> two <d>three</d></c>\n</a>\n"));
    const auto children = doc.documentElement().childNodes();
    ASSERT_EQ(children.length(), 2);
    EXPECT_EQ(children.item(0).nodeName(), "b");
    EXPECT_EQ(children.item(0).text(), "Gr\xC3\xBC\xC3\x9F & <t>");
    // The whole text of an element and its descendants, spaces inside kept.
    EXPECT_EQ(children.item(1).text(), " two three");
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
    EXPECT_EQ(RaisedErrorNumber([&] { (void)doc.selectNodes("//zz").item(0).childNodes(); }), 91);
    EXPECT_EQ(RaisedErrorNumber([&] { (void)XmlDocument().documentElement().nodeName(); }), 91);
}

TEST(XmlDocumentTest, TextThatIsNotWellFormedIsRefusedWithAReasonAndLeavesNoDocument) {
    for (const char* text : {"", "Service unavailable", "<html><body>Error<br></body></html>", "<a/><b/>", "<a>"}) {
        XmlDocument doc;
        ASSERT_TRUE(doc.loadXML("<old/>"));
        EXPECT_FALSE(doc.loadXML(text)) << text;
        EXPECT_FALSE(doc.parseErrorReason().empty()) << text;
        EXPECT_FALSE(doc.documentElement().exists()) << text;
    }
}

}  // namespace
