// Parsing, the document's string cache, serialisation and XPath.

#include "LogCapture.h"
#include "xml/GDataXMLNode.h"

#include <gtest/gtest.h>

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

TEST(GDataXMLDocument, ReadsAReplyByNameAttributeAndText)
{
    auto doc =
        parse(R"(<XML><LOGIN RESULT="s-1" ID="a@b"/><LOGIN RESULT="s-2"/><NOTE>hi &amp; bye</NOTE></XML>)");
    ASSERT_TRUE(doc);
    auto root = doc->rootElement();
    ASSERT_TRUE(root);
    EXPECT_EQ(root->name(), u"XML"_s);
    EXPECT_EQ(root->kind(), GDataXMLElementKind);
    EXPECT_EQ(root->childCount(), 3);

    const auto logins = root->elementsForName(u"LOGIN"_s);
    ASSERT_EQ(logins.size(), 2);
    EXPECT_EQ(logins[0]->attributeForName(u"RESULT"_s)->stringValue(), u"s-1"_s);
    EXPECT_EQ(logins[1]->attributeForName(u"RESULT"_s)->stringValue(), u"s-2"_s);
    EXPECT_EQ(logins[0]->attributeForName(u"ID"_s)->kind(), GDataXMLAttributeKind);
    EXPECT_EQ(logins[1]->attributeForName(u"ID"_s), nullptr);
    EXPECT_TRUE(root->elementsForName(u"MISSING"_s).isEmpty());

    auto note = root->childAtIndex(2);
    ASSERT_TRUE(note);
    EXPECT_EQ(note->stringValue(), u"hi & bye"_s);
    EXPECT_EQ(note->childAtIndex(0)->kind(), GDataXMLTextKind);
    EXPECT_EQ(root->childAtIndex(3), nullptr);
    EXPECT_EQ(root->childAtIndex(-1), nullptr);
}

TEST(GDataXMLDocument, MalformedTextGivesNoDocumentAndCodeMinusOne)
{
    const QList<QByteArray> inputs = {"",
                                      "-3",
                                      "<XML>",
                                      "<a></b>",
                                      "<a b='1' b='2'/>",
                                      "<a/><b/>",
                                      "   ",
                                      "\xff\xfe<\x00",
                                      "<a>&undefined;</a>",
                                      "<!DOCTYPE a [<!ENTITY"};
    for (const QByteArray &input : inputs) {
        FvError error;
        EXPECT_EQ(GDataXMLDocument::initWithData(input, 0, &error), nullptr) << input.toHex().constData();
        EXPECT_EQ(error.code, -1);
        EXPECT_EQ(error.domain, GDataXMLErrorDomain());
    }
    FvError error;
    EXPECT_EQ(GDataXMLElement::initWithXMLString(u"<open>"_s, &error), nullptr);
    EXPECT_EQ(error.code, -1);
    // A null error pointer is allowed.
    EXPECT_EQ(GDataXMLDocument::initWithXMLString(u"<"_s, 0, nullptr), nullptr);
}

TEST(GDataXMLDocument, BlankTextIsDroppedAndCDataBecomesText)
{
    auto doc = parse("<a>\n  <b>x</b>\n\t <c><![CDATA[<y> & z]]></c>\n</a>");
    ASSERT_TRUE(doc);
    auto root = doc->rootElement();
    ASSERT_EQ(root->childCount(), 2);
    auto c = root->elementsForName(u"c"_s).value(0);
    ASSERT_TRUE(c);
    ASSERT_EQ(c->childCount(), 1);
    EXPECT_EQ(c->childAtIndex(0)->kind(), GDataXMLTextKind);
    EXPECT_EQ(c->stringValue(), u"<y> & z"_s);
    // Text with content beside blanks is kept whole.
    EXPECT_EQ(parse("<a> x </a>")->rootElement()->stringValue(), u" x "_s);
}

TEST(GDataXMLDocument, StringCacheSharesEqualStringsWithinOneDocument)
{
    auto doc = parse(R"(<r><i k="same"/><i k="same"/></r>)");
    ASSERT_TRUE(doc);
    ASSERT_NE(doc->XMLDocument()->_private, nullptr);
    const auto items = doc->rootElement()->children();
    const QString first = items[0]->name();
    const QString second = items[1]->name();
    EXPECT_TRUE(first.isSharedWith(second));
    const QString v1 =
        std::static_pointer_cast<GDataXMLElement>(items[0])->attributeForName(u"k"_s)->stringValue();
    const QString v2 =
        std::static_pointer_cast<GDataXMLElement>(items[1])->attributeForName(u"k"_s)->stringValue();
    EXPECT_TRUE(v1.isSharedWith(v2));
    // Another document has its own cache.
    auto other = parse(R"(<r><i k="same"/></r>)");
    EXPECT_FALSE(other->rootElement()->childAtIndex(0)->name().isSharedWith(first));
}

TEST(GDataXMLDocument, SerialisesWithDeclarationVersionAndEncoding)
{
    auto root = GDataXMLNode::elementWithName(u"r"_s, u"caf\u00e9 <&>"_s);
    root->addAttribute(GDataXMLNode::attributeWithName(u"q"_s, u"\"quoted\""_s));
    auto doc = GDataXMLDocument::initWithRootElement(root);
    ASSERT_TRUE(doc);
    // The document holds a copy: later edits of the element do not reach it.
    root->setStringValue(u"changed"_s);

    const QByteArray data = doc->XMLData();
    EXPECT_TRUE(data.startsWith("<?xml version=\"1.0\"?>")) << data.constData();
    auto reparsed = parse(data);
    ASSERT_TRUE(reparsed);
    EXPECT_EQ(reparsed->rootElement()->stringValue(), u"caf\u00e9 <&>"_s);
    EXPECT_EQ(reparsed->rootElement()->attributeForName(u"q"_s)->stringValue(), u"\"quoted\""_s);

    doc->setCharacterEncoding(u"ISO-8859-1"_s);
    doc->setVersion(u"1.0"_s);
    const QByteArray latin = doc->XMLData();
    EXPECT_TRUE(latin.contains("encoding=\"ISO-8859-1\"")) << latin.constData();
    EXPECT_TRUE(latin.contains("caf\xe9")) << latin.constData();
    EXPECT_EQ(parse(latin)->rootElement()->stringValue(), u"caf\u00e9 <&>"_s);

    // An encoding libxml2 does not know gives no bytes rather than a crash.
    LogCapture log;
    doc->setCharacterEncoding(u"no-such-encoding"_s);
    EXPECT_TRUE(doc->XMLData().isEmpty());
    EXPECT_TRUE(log.contains(u"Cannot serialise the document"_s));

    EXPECT_EQ(GDataXMLDocument::initWithRootElement(nullptr)->rootElement(), nullptr);
}

TEST(GDataXMLDocument, XPathUsesRootNamespacesGivenPrefixesAndReportsFailures)
{
    auto doc = parse(
        R"(<feed xmlns="urn:atom" xmlns:g="urn:g"><entry g:id="1"/><entry g:id="2"/><g:x>t</g:x></feed>)");
    ASSERT_TRUE(doc);
    FvError error;
    EXPECT_EQ(doc->nodesForXPath(u"/_def_ns:feed/_def_ns:entry"_s, &error).size(), 2);
    EXPECT_EQ(doc->nodesForXPath(u"//g:x"_s, &error).value(0)->stringValue(), u"t"_s);
    auto ids = doc->nodesForXPath(u"//_def_ns:entry/@g:id"_s, &error);
    ASSERT_EQ(ids.size(), 2);
    EXPECT_EQ(ids[1]->stringValue(), u"2"_s);
    EXPECT_EQ(ids[1]->kind(), GDataXMLAttributeKind);

    // Given prefixes win over the root's, and relative paths start at the node.
    auto root = doc->rootElement();
    EXPECT_EQ(root->nodesForXPath(u"a:entry"_s, {{u"a"_s, u"urn:atom"_s}}, &error).size(), 2);
    EXPECT_EQ(root->nodesForXPath(u"g:entry"_s, {{u"g"_s, u"urn:atom"_s}}, &error).size(), 2);

    // Namespace nodes come back as owned copies that outlive the evaluation.
    auto namespaces = root->nodesForXPath(u"namespace::g"_s, &error);
    ASSERT_EQ(namespaces.size(), 1);
    EXPECT_EQ(namespaces[0]->kind(), GDataXMLNamespaceKind);
    EXPECT_EQ(namespaces[0]->stringValue(), u"urn:g"_s);
    EXPECT_TRUE(namespaces[0]->shouldFreeXMLNode());

    LogCapture log;
    root->nodesForXPath(u"*"_s, {{u""_s, u"urn:atom"_s}}, &error);
    EXPECT_TRUE(log.contains(u"GDataXMLNode XPath namespace  issue"_s));

    error = {};
    EXPECT_TRUE(doc->nodesForXPath(u"//*[unclosed"_s, &error).isEmpty());
    EXPECT_EQ(error.code, -1);
    EXPECT_EQ(error.domain, GDataXMLErrorDomain());

    error = {};
    EXPECT_TRUE(namespaces[0]->nodesForXPath(u"*"_s, &error).isEmpty());
    EXPECT_EQ(error.userInfo.value(u"error"_s).toString(), u"invalid node"_s);
}

TEST(GDataXMLDocument, XPathOnATreeOutsideADocumentLeavesTheTreeAsItWas)
{
    auto root = GDataXMLNode::elementWithName(u"r"_s);
    auto child = GDataXMLNode::elementWithName(u"c"_s, u"one"_s);
    root->addChild(child);
    root->addChild(GDataXMLNode::elementWithName(u"c"_s, u"two"_s));
    auto inner = std::static_pointer_cast<GDataXMLElement>(root->childAtIndex(1));
    const QString before = root->XMLString();

    FvError error;
    // From a node deep in the tree: the whole tree is lent to the temporary document.
    auto found = inner->nodesForXPath(u"/r/c"_s, &error);
    ASSERT_EQ(found.size(), 2);
    EXPECT_EQ(found[0]->stringValue(), u"one"_s);
    EXPECT_EQ(root->XMLNode()->doc, nullptr);
    EXPECT_EQ(inner->XMLNode()->parent, root->XMLNode());
    EXPECT_EQ(root->XMLString(), before);
    // The results stay usable after the temporary document is gone, and keep the tree alive.
    root.reset();
    inner.reset();
    EXPECT_EQ(found[1]->stringValue(), u"two"_s);
}

TEST(GDataXMLDocument, WrappersKeepTheirDocumentAlive)
{
    std::shared_ptr<GDataXMLElement> item;
    std::shared_ptr<GDataXMLNode> attribute;
    {
        auto doc = parse(R"(<XML><ITEM NAME="n">text</ITEM></XML>)");
        item = doc->rootElement()->elementsForName(u"ITEM"_s).value(0);
        attribute = item->attributeForName(u"NAME"_s);
    }
    EXPECT_EQ(item->stringValue(), u"text"_s);
    EXPECT_EQ(attribute->stringValue(), u"n"_s);
    EXPECT_EQ(item->XMLString(), u"<ITEM NAME=\"n\">text</ITEM>"_s);
}
