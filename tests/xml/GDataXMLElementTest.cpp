// Names and namespaces, building and editing trees, copies and identity.

#include "LogCapture.h"
#include "xml/GDataXMLNode.h"

#include <QStringList>
#include <gtest/gtest.h>

using namespace Qt::StringLiterals;

namespace {

std::shared_ptr<GDataXMLElement> rootOf(const QString &xml)
{
    FvError error;
    auto element = GDataXMLElement::initWithXMLString(xml, &error);
    EXPECT_TRUE(element) << error.toString().toStdString();
    return element;
}

// Serialises and parses again: namespace mistakes only show once the text is read back.
std::shared_ptr<GDataXMLElement> roundTrip(const std::shared_ptr<GDataXMLElement> &element)
{
    return rootOf(element->XMLString());
}

} // namespace

TEST(GDataXMLElement, ElementsForNameResolvesPrefixesAndFallsBackToExactNames)
{
    auto root = rootOf(u"<r xmlns:a='urn:a' xmlns:b='urn:a' xmlns='urn:d'><a:x/><b:x/><x/><u:y/><y/></r>"_s);
    ASSERT_TRUE(root);
    // Both prefixes name the same namespace, so both children match.
    EXPECT_EQ(root->elementsForName(u"a:x"_s).size(), 2);
    EXPECT_EQ(root->elementsForLocalName(u"x"_s, u"urn:a"_s).size(), 2);
    EXPECT_EQ(root->elementsForLocalName(u"x"_s, u"urn:d"_s).size(), 1);
    // Unprefixed names compare with the qualified name.
    EXPECT_EQ(root->elementsForName(u"x"_s).size(), 1);
    // An undeclared prefix falls back to the exact name.
    const auto undeclared = root->elementsForName(u"u:y"_s);
    ASSERT_EQ(undeclared.size(), 1);
    EXPECT_EQ(undeclared[0]->name(), u"u:y"_s);
    EXPECT_EQ(undeclared[0]->localName(), u"y"_s);
    EXPECT_EQ(undeclared[0]->prefix(), u"u"_s);
    EXPECT_TRUE(root->elementsForName(u"zz:x"_s).isEmpty());

    auto ax = root->elementsForName(u"a:x"_s).value(0);
    EXPECT_EQ(ax->localName(), u"x"_s);
    EXPECT_EQ(ax->prefix(), u"a"_s);
    EXPECT_EQ(ax->URI(), u"urn:a"_s);
    EXPECT_EQ(ax->qualifiedName(), u"a:x"_s);
}

TEST(GDataXMLElement, AttributeLookupByNameLocalNameAndPrefix)
{
    auto root =
        rootOf(u"<r xmlns:p='urn:p' xmlns:q='urn:p' xmlns='urn:d' p:k='1' k='2' xml:lang='en'><c/></r>"_s);
    ASSERT_TRUE(root);
    EXPECT_EQ(root->attributeForName(u"p:k"_s)->stringValue(), u"1"_s);
    EXPECT_EQ(root->attributeForName(u"q:k"_s)->stringValue(), u"1"_s);
    EXPECT_EQ(root->attributeForName(u"k"_s)->stringValue(), u"2"_s);
    EXPECT_EQ(root->attributeForName(u"xml:lang"_s)->stringValue(), u"en"_s);
    EXPECT_EQ(root->attributeForLocalName(u"k"_s, u"urn:p"_s)->stringValue(), u"1"_s);
    // Unprefixed attributes are in no namespace, whatever the default namespace is.
    EXPECT_EQ(root->attributeForLocalName(u"k"_s, u""_s)->stringValue(), u"2"_s);
    EXPECT_EQ(root->attributeForName(u"missing"_s), nullptr);
    EXPECT_EQ(root->attributes().size(), 3);

    auto child = std::static_pointer_cast<GDataXMLElement>(root->childAtIndex(0));
    EXPECT_EQ(child->resolvePrefixForNamespaceURI(u"urn:d"_s), u""_s);
    EXPECT_FALSE(child->resolvePrefixForNamespaceURI(u"urn:d"_s).isNull());
    EXPECT_TRUE(child->resolvePrefixForNamespaceURI(u"urn:none"_s).isNull());
    EXPECT_EQ(child->resolvePrefixForNamespaceURI(u"http://www.w3.org/XML/1998/namespace"_s), u"xml"_s);
    const QString prefix = child->resolvePrefixForNamespaceURI(u"urn:p"_s);
    EXPECT_TRUE(prefix == u"p"_s || prefix == u"q"_s);
    QStringList prefixes;
    for (const auto &ns : root->namespaces())
        prefixes << ns->name();
    EXPECT_TRUE(prefixes.contains(u"p"_s) && prefixes.contains(u"q"_s) && prefixes.contains(u""_s));
}

TEST(GDataXMLElement, BuildsTreesWithLiteralTextAndUniqueAttributes)
{
    auto root = GDataXMLNode::elementWithName(u"cmd"_s);
    root->addAttribute(GDataXMLNode::attributeWithName(u"NAME"_s, u"a&b <c>"_s));
    root->addAttribute(GDataXMLNode::attributeWithName(u"NAME"_s, u"second"_s));
    root->addChild(GDataXMLNode::attributeWithName(u"SIZE"_s, u"7"_s));
    root->addChild(GDataXMLNode::elementWithName(u"v"_s, u"&amp; stays literal"_s));
    root->addChild(GDataXMLNode::textWithStringValue(u"t1"_s));
    root->addChild(GDataXMLNode::textWithStringValue(u"t2"_s));

    EXPECT_EQ(root->attributes().size(), 2);
    EXPECT_EQ(root->attributeForName(u"NAME"_s)->stringValue(), u"second"_s);
    // Adjacent text merges into one node.
    EXPECT_EQ(root->childCount(), 2);
    EXPECT_EQ(root->childAtIndex(1)->stringValue(), u"t1t2"_s);

    auto parsed = roundTrip(root);
    ASSERT_TRUE(parsed);
    EXPECT_EQ(parsed->elementsForName(u"v"_s).value(0)->stringValue(), u"&amp; stays literal"_s);
    EXPECT_EQ(parsed->attributeForName(u"SIZE"_s)->stringValue(), u"7"_s);

    // setStringValue replaces content literally on elements, attributes and text.
    auto v = root->elementsForName(u"v"_s).value(0);
    v->setStringValue(u"<x/> & &lt;"_s);
    EXPECT_EQ(v->stringValue(), u"<x/> & &lt;"_s);
    EXPECT_EQ(v->childCount(), 1);
    auto size = root->attributeForName(u"SIZE"_s);
    size->setStringValue(u"\"8\" & co"_s);
    EXPECT_EQ(roundTrip(root)->attributeForName(u"SIZE"_s)->stringValue(), u"\"8\" & co"_s);
    EXPECT_EQ(root->name(), u"cmd"_s);

    // Added nodes are copies: editing the source later changes nothing in the tree.
    auto source = GDataXMLNode::elementWithName(u"s"_s, u"before"_s);
    root->addChild(source);
    source->setStringValue(u"after"_s);
    EXPECT_EQ(root->elementsForName(u"s"_s).value(0)->stringValue(), u"before"_s);
}

TEST(GDataXMLElement, GraftingResolvesURIsAgainstTheTargetTree)
{
    auto root = rootOf(u"<r xmlns:p='urn:p'/>"_s);
    root->addChild(GDataXMLNode::elementWithNameURI(u"item"_s, u"urn:p"_s));
    root->addChild(GDataXMLNode::elementWithNameURI(u"other"_s, u"urn:new"_s));
    auto item = root->elementsForLocalName(u"item"_s, u"urn:p"_s).value(0);
    ASSERT_TRUE(item);
    item->addAttribute(GDataXMLNode::attributeWithName(u"k"_s, u"urn:p"_s, u"v"_s));
    item->addAttribute(GDataXMLNode::attributeWithName(u"z"_s, u"urn:z"_s, u"w"_s));

    // The known URI reuses the declared prefix without redeclaring it.
    const QString itemText = item->XMLString();
    EXPECT_TRUE(itemText.startsWith(u"<p:item "_s)) << itemText.toStdString();
    EXPECT_TRUE(itemText.contains(u" p:k=\"v\""_s)) << itemText.toStdString();
    EXPECT_FALSE(itemText.contains(u"xmlns:p"_s)) << itemText.toStdString();
    EXPECT_EQ(item->namespaces().size(), 1); // only urn:z needed a declaration here

    auto parsed = roundTrip(root);
    ASSERT_TRUE(parsed);
    auto parsedItem = parsed->elementsForLocalName(u"item"_s, u"urn:p"_s).value(0);
    ASSERT_TRUE(parsedItem);
    EXPECT_EQ(parsedItem->attributeForLocalName(u"k"_s, u"urn:p"_s)->stringValue(), u"v"_s);
    EXPECT_EQ(parsedItem->attributeForLocalName(u"z"_s, u"urn:z"_s)->stringValue(), u"w"_s);
    EXPECT_EQ(parsed->elementsForLocalName(u"other"_s, u"urn:new"_s).size(), 1);

    // A prefixed name without a namespace is bound once it lands under a declaration.
    root->addChild(GDataXMLNode::elementWithName(u"p:late"_s));
    EXPECT_EQ(root->elementsForLocalName(u"late"_s, u"urn:p"_s).size(), 1);

    // A subtree copied from another document drops declarations that repeat the target's.
    auto source = rootOf(u"<s xmlns:p='urn:p'><p:deep p:a='1'/></s>"_s);
    root->addChild(source->childAtIndex(0));
    auto deep = root->elementsForName(u"p:deep"_s).value(0);
    ASSERT_TRUE(deep);
    EXPECT_TRUE(deep->namespaces().isEmpty());
    EXPECT_EQ(roundTrip(root)
                  ->elementsForLocalName(u"deep"_s, u"urn:p"_s)
                  .value(0)
                  ->attributeForName(u"p:a"_s)
                  ->stringValue(),
              u"1"_s);
}

TEST(GDataXMLElement, NamespaceEditingKeepsReferencesValid)
{
    auto root = rootOf(u"<r xmlns:a='urn:a' xmlns:b='urn:b'><a:x a:k='1'/><b:y/></r>"_s);
    ASSERT_TRUE(root);
    // Replacing the declarations must not leave children pointing at freed ones.
    root->setNamespaces({GDataXMLNode::namespaceWithName(u"a"_s, u"urn:a"_s)});
    auto parsed = roundTrip(root);
    ASSERT_TRUE(parsed) << root->XMLString().toStdString();
    EXPECT_EQ(parsed->elementsForLocalName(u"x"_s, u"urn:a"_s).size(), 1);
    EXPECT_EQ(parsed->elementsForLocalName(u"y"_s, u"urn:b"_s).size(), 1);
    EXPECT_EQ(parsed->elementsForLocalName(u"x"_s, u"urn:a"_s)
                  .value(0)
                  ->attributeForLocalName(u"k"_s, u"urn:a"_s)
                  ->stringValue(),
              u"1"_s);

    root->addNamespace(GDataXMLNode::namespaceWithName(u""_s, u"urn:default"_s));
    root->addChild(GDataXMLNode::elementWithNameURI(u"d"_s, u"urn:default"_s));
    EXPECT_EQ(roundTrip(root)->elementsForLocalName(u"d"_s, u"urn:default"_s).size(), 1);

    auto ns = GDataXMLNode::namespaceWithName(u"n"_s, u"urn:n"_s);
    EXPECT_EQ(ns->name(), u"n"_s);
    EXPECT_EQ(ns->stringValue(), u"urn:n"_s);
    EXPECT_EQ(ns->XMLString(), u"xmlns:n=\"urn:n\""_s);
}

TEST(GDataXMLElement, RemovedChildIsOwnedByItsWrapper)
{
    std::shared_ptr<GDataXMLNode> removed;
    std::shared_ptr<GDataXMLNode> removedAttribute;
    {
        FvError error;
        auto doc =
            GDataXMLDocument::initWithData("<r xmlns:p='urn:p' p:at='v'><p:c>x</p:c><d/></r>", 0, &error);
        ASSERT_TRUE(doc);
        auto root = doc->rootElement();
        removed = root->childAtIndex(0);
        removedAttribute = root->attributeForName(u"p:at"_s);
        root->removeChild(removed);
        root->removeChild(removedAttribute);
        EXPECT_EQ(root->childCount(), 1);
        EXPECT_TRUE(root->attributes().isEmpty());
        // Not a child any more: a second removal is refused without harm.
        root->removeChild(removed);
        EXPECT_EQ(root->childCount(), 1);
    }
    // The document is gone; the detached copies carry their own names and namespaces.
    EXPECT_TRUE(removed->shouldFreeXMLNode());
    EXPECT_EQ(removed->stringValue(), u"x"_s);
    EXPECT_EQ(removed->URI(), u"urn:p"_s);
    EXPECT_EQ(removedAttribute->URI(), u"urn:p"_s);
    EXPECT_EQ(removedAttribute->localName(), u"at"_s);
    auto parsed = rootOf(removed->XMLString());
    ASSERT_TRUE(parsed);
    EXPECT_EQ(parsed->URI(), u"urn:p"_s);
}

TEST(GDataXMLElement, CopiesAreIndependentAndIdentityFollowsTheNode)
{
    auto root = rootOf(u"<r><c k='1'>t</c></r>"_s);
    auto a = root->childAtIndex(0);
    auto b = root->elementsForName(u"c"_s).value(0);
    EXPECT_NE(a.get(), b.get());
    EXPECT_TRUE(a->isEqual(b.get()));
    EXPECT_EQ(a->hash(), b->hash());
    EXPECT_FALSE(a->isEqual(nullptr));

    auto copy = a->copy();
    ASSERT_TRUE(copy);
    EXPECT_FALSE(copy->isEqual(a.get()));
    EXPECT_TRUE(copy->shouldFreeXMLNode());
    EXPECT_FALSE(a->shouldFreeXMLNode());
    ASSERT_TRUE(std::dynamic_pointer_cast<GDataXMLElement>(copy));
    EXPECT_EQ(copy->XMLString(), a->XMLString());
    copy->setStringValue(u"changed"_s);
    EXPECT_EQ(a->stringValue(), u"t"_s);

    auto attributeCopy = std::static_pointer_cast<GDataXMLElement>(a)->attributeForName(u"k"_s)->copy();
    EXPECT_EQ(attributeCopy->stringValue(), u"1"_s);
    EXPECT_TRUE(GDataXMLNode::textWithStringValue(u"x"_s)->copy()->isEqual(
                    GDataXMLNode::textWithStringValue(u"x"_s).get()) == false);
    EXPECT_TRUE(a->description().contains(u"GDataXMLElement"_s));
}

TEST(GDataXMLElement, RawNodeWrappersAndUnexpectedNullStrings)
{
    // A consuming wrapper frees the node it was given; a borrowing one never does.
    xmlNodePtr raw = xmlNewNode(nullptr, reinterpret_cast<const xmlChar *>("raw"));
    {
        auto borrowed = GDataXMLNode::nodeBorrowingXMLNode(raw);
        EXPECT_FALSE(borrowed->shouldFreeXMLNode());
        EXPECT_EQ(borrowed->name(), u"raw"_s);
    }
    auto consumed = GDataXMLNode::nodeConsumingXMLNode(raw);
    EXPECT_TRUE(consumed->shouldFreeXMLNode());
    EXPECT_EQ(GDataXMLNode::nodeBorrowingXMLNode(nullptr), nullptr);

    LogCapture log;
    xmlNs broken{};
    broken.type = XML_NAMESPACE_DECL;
    auto wrapper = GDataXMLNode::nodeBorrowingXMLNode(reinterpret_cast<xmlNodePtr>(&broken));
    EXPECT_TRUE(wrapper->stringValue().isNull());
    EXPECT_TRUE(log.contains(u"GDataXMLNode sees an unexpected empty string"_s));
}
