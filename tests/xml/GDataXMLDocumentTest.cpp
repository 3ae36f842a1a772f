// Parsing, the document's string cache, serialisation and XPath.

#include "LogCapture.h"
#include "xml/GDataXMLNode.h"

#include <gtest/gtest.h>
#include <libxml/xmlerror.h>

using namespace Qt::StringLiterals;

namespace {

std::shared_ptr<GDataXMLDocument> parse(const QByteArray &xml)
{
    FvError error;
    auto doc = GDataXMLDocument::initWithData(xml, 0, &error);
    EXPECT_TRUE(doc) << error.toString().toStdString() << " for " << xml.constData();
    return doc;
}

} // namespace

TEST(GDataXMLDocument, ReadsRepliesAndRejectsMalformedText)
{
    auto doc = parse("<XML>\n  <LOGIN RESULT=\"s-1\"/>\n  <LOGIN/><N>a &amp; <![CDATA[<b>]]></N>\n</XML>");
    ASSERT_TRUE(doc);
    auto root = doc->rootElement();
    EXPECT_EQ(root->name(), u"XML"_s);
    EXPECT_EQ(root->childCount(), 3); // blank text between elements is not kept
    const auto logins = root->elementsForName(u"LOGIN"_s);
    ASSERT_EQ(logins.size(), 2);
    EXPECT_EQ(logins[0]->attributeForName(u"RESULT"_s)->stringValue(), u"s-1"_s);
    EXPECT_EQ(logins[1]->attributeForName(u"RESULT"_s), nullptr);
    EXPECT_EQ(root->childAtIndex(2)->stringValue(), u"a & <b>"_s);
    EXPECT_EQ(root->childAtIndex(2)->childAtIndex(0)->kind(), GDataXMLTextKind); // CDATA merged into text
    EXPECT_EQ(root->childAtIndex(3), nullptr);

    const QList<QByteArray> malformed = {
        "", "-3", "<XML>", "<a></b>", "<a b='1' b='2'/>", "<a/><b/>", "\xff\xfe<\x00", "<a>&undefined;</a>"};
    for (const QByteArray &input : malformed) {
        FvError error;
        EXPECT_EQ(GDataXMLDocument::initWithData(input, 0, &error), nullptr) << input.toHex().constData();
        EXPECT_EQ(error.code, -1);
        EXPECT_EQ(error.domain, GDataXMLErrorDomain());
    }
    EXPECT_EQ(GDataXMLElement::initWithXMLString(u"<open>"_s, nullptr), nullptr);
}

namespace {
int g_threadHandlerCalls = 0;
void countingHandler(void *, xmlErrorPtr)
{
    ++g_threadHandlerCalls;
}
} // namespace

// A reply whose bytes do not convert from its declared encoding: libxml2 reports that outside the
// parser context, on the thread's handlers (by default printed on stderr). The parse still fails
// with the layer's error, prints nothing, leaves the thread's own handler in place and uncalled,
// and keeps no copy of the error in the thread's state.
TEST(GDataXMLDocument, UnconvertibleEncodingFailsQuietlyAndLeavesTheThreadsHandlerAlone)
{
    xmlSetStructuredErrorFunc(nullptr, countingHandler);
    g_threadHandlerCalls = 0;
    ::testing::internal::CaptureStderr();
    FvError error;
    const auto doc = GDataXMLDocument::initWithData(
        "<?xml version=\"1.0\" encoding=\"EUC-JP\"?><XML>\x8e\xff</XML>", 0, &error);
    const std::string printed = ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(doc, nullptr);
    EXPECT_EQ(error.code, -1);
    EXPECT_EQ(error.domain, GDataXMLErrorDomain());
    EXPECT_EQ(printed, "");
    EXPECT_EQ(xmlStructuredError, &countingHandler);
    EXPECT_EQ(g_threadHandlerCalls, 0);
    EXPECT_EQ(xmlGetLastError(), nullptr);
    xmlSetStructuredErrorFunc(nullptr, nullptr);
}

TEST(GDataXMLDocument, StringCacheSharesEqualStringsWithinOneDocument)
{
    auto doc = parse(R"(<r><i k="same"/><i k="same"/></r>)");
    const auto items = doc->rootElement()->elementsForName(u"i"_s);
    EXPECT_TRUE(items[0]->name().isSharedWith(items[1]->name()));
    EXPECT_TRUE(items[0]->attributeForName(u"k"_s)->stringValue().isSharedWith(
        items[1]->attributeForName(u"k"_s)->stringValue()));
    auto other = parse(R"(<r><i/></r>)");
    EXPECT_FALSE(other->rootElement()->childAtIndex(0)->name().isSharedWith(items[0]->name()));
}

TEST(GDataXMLDocument, SerialisesWithDeclarationAndChosenEncoding)
{
    auto root = GDataXMLNode::elementWithName(u"r"_s, u"caf\u00e9 <&>"_s);
    auto doc = GDataXMLDocument::initWithRootElement(root);
    root->setStringValue(u"changed"_s); // the document holds a copy
    const QByteArray data = doc->XMLData();
    EXPECT_TRUE(data.startsWith("<?xml version=\"1.0\"?>")) << data.constData();
    EXPECT_EQ(parse(data)->rootElement()->stringValue(), u"caf\u00e9 <&>"_s);

    doc->setCharacterEncoding(u"ISO-8859-1"_s);
    const QByteArray latin = doc->XMLData();
    EXPECT_TRUE(latin.contains("encoding=\"ISO-8859-1\"") && latin.contains("caf\xe9")) << latin.constData();
    EXPECT_EQ(parse(latin)->rootElement()->stringValue(), u"caf\u00e9 <&>"_s);

    LogCapture log;
    doc->setCharacterEncoding(u"no-such-encoding"_s);
    EXPECT_TRUE(doc->XMLData().isEmpty());
    EXPECT_TRUE(log.contains(u"Cannot serialise the document"_s));
}

TEST(GDataXMLDocument, XPathUsesRootAndGivenNamespacesAndReportsFailures)
{
    auto doc =
        parse(R"(<feed xmlns="urn:atom" xmlns:g="urn:g"><entry g:id="1"/><entry g:id="2"/><g:x/></feed>)");
    FvError error;
    EXPECT_EQ(doc->nodesForXPath(u"/_def_ns:feed/_def_ns:entry"_s, &error).size(), 2);
    auto ids = doc->nodesForXPath(u"//_def_ns:entry/@g:id"_s, &error);
    ASSERT_EQ(ids.size(), 2);
    EXPECT_EQ(ids[1]->stringValue(), u"2"_s);
    // Given prefixes win over the root's; relative paths start at the node.
    auto root = doc->rootElement();
    EXPECT_EQ(root->nodesForXPath(u"g:entry"_s, {{u"g"_s, u"urn:atom"_s}}, &error).size(), 2);
    // Namespace nodes come back as owned copies that outlive the evaluation.
    auto namespaces = root->nodesForXPath(u"namespace::g"_s, &error);
    ASSERT_EQ(namespaces.size(), 1);
    EXPECT_EQ(namespaces[0]->stringValue(), u"urn:g"_s);

    LogCapture log;
    root->nodesForXPath(u"*"_s, {{u""_s, u"urn:atom"_s}}, &error);
    EXPECT_TRUE(log.contains(u"GDataXMLNode XPath namespace  issue"_s));
    error = {};
    EXPECT_TRUE(doc->nodesForXPath(u"//*[unclosed"_s, &error).isEmpty());
    EXPECT_EQ(error.code, -1);
    EXPECT_TRUE(namespaces[0]->nodesForXPath(u"*"_s, &error).isEmpty());
    EXPECT_EQ(error.userInfo.value(u"error"_s).toString(), u"invalid node"_s);
}

TEST(GDataXMLDocument, XPathOnATreeOutsideADocumentLeavesTheTreeAsItWas)
{
    auto root = GDataXMLNode::elementWithName(u"r"_s);
    root->addChild(GDataXMLNode::elementWithName(u"c"_s, u"one"_s));
    root->addChild(GDataXMLNode::elementWithName(u"c"_s, u"two"_s));
    auto inner = std::static_pointer_cast<GDataXMLElement>(root->childAtIndex(1));
    const QString before = root->XMLString();
    FvError error;
    auto found = inner->nodesForXPath(u"/r/c"_s, &error); // the whole tree is lent, not just inner
    ASSERT_EQ(found.size(), 2);
    EXPECT_EQ(root->XMLNode()->doc, nullptr);
    EXPECT_EQ(inner->XMLNode()->parent, root->XMLNode());
    EXPECT_EQ(root->XMLString(), before);
    root.reset(); // results keep the tree alive
    inner.reset();
    EXPECT_EQ(found[1]->stringValue(), u"two"_s);

    std::shared_ptr<GDataXMLNode> attribute;
    {
        auto doc = parse(R"(<XML><ITEM NAME="n"/></XML>)");
        attribute = doc->rootElement()->elementsForName(u"ITEM"_s).value(0)->attributeForName(u"NAME"_s);
    }
    EXPECT_EQ(attribute->stringValue(), u"n"_s); // so do wrappers of a dropped document
}
