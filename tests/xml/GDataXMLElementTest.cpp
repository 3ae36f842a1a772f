// Names and namespaces, building and editing trees, copies and identity.

#include "LogCapture.h"
#include "xml/GDataXMLNode.h"

#include <gtest/gtest.h>

using namespace Qt::StringLiterals;

namespace {

std::shared_ptr<GDataXMLElement> rootOf(const QString &xml)
{
    FvError error;
    auto element = GDataXMLElement::initWithXMLString(xml, &error);
    EXPECT_TRUE(element) << error.toString().toStdString() << " for " << xml.toStdString();
    return element;
}

// Namespace mistakes only show once the text is read back.
std::shared_ptr<GDataXMLElement> roundTrip(const std::shared_ptr<GDataXMLElement> &element)
{
    return rootOf(element->XMLString());
}

} // namespace

TEST(GDataXMLElement, NamesResolveThroughPrefixesAndFallBackToExactNames)
{
    auto root = rootOf(
        u"<r xmlns:a='urn:a' xmlns:b='urn:a' xmlns='urn:d' a:k='1' k='2'><a:x/><b:x/><x/><u:y/></r>"_s);
    EXPECT_EQ(root->elementsForName(u"a:x"_s).size(), 2); // both prefixes name urn:a
    EXPECT_EQ(root->elementsForLocalName(u"x"_s, u"urn:d"_s).size(), 1);
    EXPECT_EQ(root->elementsForName(u"x"_s).size(), 1);
    const auto undeclared = root->elementsForName(u"u:y"_s); // unknown prefix: exact name
    ASSERT_EQ(undeclared.size(), 1);
    EXPECT_EQ(undeclared[0]->localName(), u"y"_s);
    EXPECT_EQ(undeclared[0]->prefix(), u"u"_s);
    EXPECT_TRUE(root->elementsForName(u"zz:x"_s).isEmpty());
    EXPECT_EQ(root->elementsForName(u"b:x"_s).value(1)->qualifiedName(), u"b:x"_s);

    EXPECT_EQ(root->attributeForName(u"b:k"_s)->stringValue(), u"1"_s);
    EXPECT_EQ(root->attributeForLocalName(u"k"_s, u""_s)->stringValue(), u"2"_s); // no default for attributes
    EXPECT_EQ(root->attributeForName(u"missing"_s), nullptr);
    auto child = std::static_pointer_cast<GDataXMLElement>(root->childAtIndex(2));
    EXPECT_EQ(child->resolvePrefixForNamespaceURI(u"urn:d"_s), u""_s);
    EXPECT_FALSE(child->resolvePrefixForNamespaceURI(u"urn:d"_s).isNull());
    EXPECT_TRUE(child->resolvePrefixForNamespaceURI(u"urn:none"_s).isNull());
}

TEST(GDataXMLElement, BuildsTreesWithLiteralTextAndUniqueAttributes)
{
    auto root = GDataXMLNode::elementWithName(u"cmd"_s);
    root->addAttribute(GDataXMLNode::attributeWithName(u"NAME"_s, u"first"_s));
    root->addChild(GDataXMLNode::attributeWithName(u"NAME"_s, u"a&b <\"c\">"_s));
    root->addChild(GDataXMLNode::elementWithName(u"v"_s, u"&amp; stays literal"_s));
    root->addChild(GDataXMLNode::textWithStringValue(u"t1"_s));
    root->addChild(GDataXMLNode::textWithStringValue(u"t2"_s));
    EXPECT_EQ(root->attributes().size(), 1);
    EXPECT_EQ(root->childCount(), 2); // adjacent text merges
    auto parsed = roundTrip(root);
    EXPECT_EQ(parsed->attributeForName(u"NAME"_s)->stringValue(), u"a&b <\"c\">"_s);
    EXPECT_EQ(parsed->elementsForName(u"v"_s).value(0)->stringValue(), u"&amp; stays literal"_s);

    auto v = root->elementsForName(u"v"_s).value(0);
    v->setStringValue(u"<x/> & &lt;"_s);
    EXPECT_EQ(v->stringValue(), u"<x/> & &lt;"_s);
    auto source = GDataXMLNode::elementWithName(u"s"_s, u"before"_s);
    root->addChild(source);
    source->setStringValue(u"after"_s); // the tree holds a copy
    EXPECT_EQ(root->elementsForName(u"s"_s).value(0)->stringValue(), u"before"_s);
}

TEST(GDataXMLElement, GraftingResolvesURIsAgainstTheTargetTree)
{
    auto root = rootOf(u"<r xmlns:p='urn:p'/>"_s);
    root->addChild(GDataXMLNode::elementWithNameURI(u"item"_s, u"urn:p"_s));
    root->addChild(GDataXMLNode::elementWithNameURI(u"other"_s, u"urn:new"_s));
    root->addChild(GDataXMLNode::elementWithName(u"p:late"_s));
    auto item = root->elementsForLocalName(u"item"_s, u"urn:p"_s).value(0);
    ASSERT_TRUE(item);
    item->addAttribute(GDataXMLNode::attributeWithName(u"k"_s, u"urn:p"_s, u"v"_s));
    item->addAttribute(GDataXMLNode::attributeWithName(u"z"_s, u"urn:z"_s, u"w"_s));
    EXPECT_TRUE(item->XMLString().contains(u"<p:item "_s) && !item->XMLString().contains(u"xmlns:p"_s))
        << item->XMLString().toStdString();

    // A subtree from another document drops declarations that repeat the target's.
    auto source = rootOf(u"<s xmlns:p='urn:p'><p:deep p:a='1'/></s>"_s);
    root->addChild(source->childAtIndex(0));
    EXPECT_TRUE(root->elementsForName(u"p:deep"_s).value(0)->namespaces().isEmpty());

    auto parsed = roundTrip(root);
    auto parsedItem = parsed->elementsForLocalName(u"item"_s, u"urn:p"_s).value(0);
    ASSERT_TRUE(parsedItem);
    EXPECT_EQ(parsedItem->attributeForLocalName(u"k"_s, u"urn:p"_s)->stringValue(), u"v"_s);
    EXPECT_EQ(parsedItem->attributeForLocalName(u"z"_s, u"urn:z"_s)->stringValue(), u"w"_s);
    EXPECT_EQ(parsed->elementsForLocalName(u"other"_s, u"urn:new"_s).size(), 1);
    EXPECT_EQ(parsed->elementsForLocalName(u"late"_s, u"urn:p"_s).size(), 1);
    EXPECT_EQ(parsed->elementsForLocalName(u"deep"_s, u"urn:p"_s)
                  .value(0)
                  ->attributeForName(u"p:a"_s)
                  ->stringValue(),
              u"1"_s);
}

TEST(GDataXMLElement, NamespaceEditsKeepReferencesValid)
{
    auto root = rootOf(u"<r xmlns:a='urn:a' xmlns:b='urn:b'><a:x a:k='1'/><b:y/></r>"_s);
    root->setNamespaces({GDataXMLNode::namespaceWithName(u"a"_s, u"urn:a"_s)}); // b still in use below
    root->addNamespace(GDataXMLNode::namespaceWithName(u""_s, u"urn:default"_s));
    root->addChild(GDataXMLNode::elementWithNameURI(u"d"_s, u"urn:default"_s));
    auto parsed = roundTrip(root);
    ASSERT_TRUE(parsed) << root->XMLString().toStdString();
    EXPECT_EQ(
        parsed->elementsForLocalName(u"x"_s, u"urn:a"_s).value(0)->attributeForName(u"a:k"_s)->stringValue(),
        u"1"_s);
    EXPECT_EQ(parsed->elementsForLocalName(u"y"_s, u"urn:b"_s).size(), 1);
    EXPECT_EQ(parsed->elementsForLocalName(u"d"_s, u"urn:default"_s).size(), 1);
}

TEST(GDataXMLElement, RemovedChildIsOwnedByItsWrapper)
{
    std::shared_ptr<GDataXMLNode> removed;
    std::shared_ptr<GDataXMLNode> removedAttribute;
    {
        auto doc =
            GDataXMLDocument::initWithData("<r xmlns:p='urn:p' p:at='v'><p:c>x</p:c><d/></r>", 0, nullptr);
        auto root = doc->rootElement();
        removed = root->childAtIndex(0);
        removedAttribute = root->attributeForName(u"p:at"_s);
        root->removeChild(removed);
        root->removeChild(removedAttribute);
        root->removeChild(removed); // no longer a child: refused without harm
        EXPECT_EQ(root->childCount(), 1);
        EXPECT_TRUE(root->attributes().isEmpty());
    }
    // The document is gone; the detached copies carry their own names and namespaces.
    EXPECT_TRUE(removed->shouldFreeXMLNode());
    EXPECT_EQ(rootOf(removed->XMLString())->URI(), u"urn:p"_s);
    EXPECT_EQ(removedAttribute->URI(), u"urn:p"_s);
    EXPECT_EQ(removedAttribute->localName(), u"at"_s);
}

TEST(GDataXMLElement, CopiesIdentityAndRawWrappers)
{
    auto root = rootOf(u"<r><c k='1'>t</c></r>"_s);
    auto a = root->childAtIndex(0);
    auto b = root->elementsForName(u"c"_s).value(0);
    EXPECT_TRUE(a->isEqual(b.get()));
    EXPECT_EQ(a->hash(), b->hash());
    auto copy = a->copy();
    EXPECT_FALSE(copy->isEqual(a.get()));
    EXPECT_TRUE(copy->shouldFreeXMLNode() && !a->shouldFreeXMLNode());
    EXPECT_EQ(copy->XMLString(), a->XMLString());
    copy->setStringValue(u"changed"_s);
    EXPECT_EQ(a->stringValue(), u"t"_s);

    xmlNodePtr raw = xmlNewNode(nullptr, reinterpret_cast<const xmlChar *>("raw"));
    EXPECT_EQ(GDataXMLNode::nodeBorrowingXMLNode(raw)->name(), u"raw"_s); // borrowing never frees
    EXPECT_TRUE(GDataXMLNode::nodeConsumingXMLNode(raw)->shouldFreeXMLNode());

    LogCapture log;
    xmlNs broken{};
    broken.type = XML_NAMESPACE_DECL;
    EXPECT_TRUE(
        GDataXMLNode::nodeBorrowingXMLNode(reinterpret_cast<xmlNodePtr>(&broken))->stringValue().isNull());
    EXPECT_TRUE(log.contains(u"GDataXMLNode sees an unexpected empty string"_s));
}
