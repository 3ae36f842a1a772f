#pragma once
// A small document object model over libxml2, used to read every server reply, the language files
// and the update description, and to build XML when needed.
//
// GDataXMLDocument owns a parsed (or built) libxml2 document. GDataXMLNode wraps one libxml2 node
// (element, attribute, text, namespace, ...); GDataXMLElement is the wrapper of element nodes and
// adds children, attributes and namespaces. Every wrapper that the classes hand out for an element
// node is a GDataXMLElement, so std::dynamic_pointer_cast<GDataXMLElement> on a child works.
//
// Ownership: a wrapper either owns its node (shouldFreeXMLNode(): made by a factory, by copy(), by
// nodeConsumingXMLNode, or handed a detached copy by removeChild) and frees it when destroyed, or
// borrows a node that belongs to a document or to another wrapper's tree. Borrowing wrappers made
// by this layer also hold a reference to that document or owning wrapper, so the tree outlives
// them; wrappers made with nodeBorrowingXMLNode hold nothing and the caller keeps the tree alive.
// Adding a node to another tree (addChild, addAttribute, initWithRootElement) always adds a deep
// copy, so a wrapper's node never changes owner behind its back.
//
// Threading: a document may be read from several threads at once (its string cache is locked);
// editing a tree, or sharing one wrapper object between threads, needs outside coordination.
// XPath on a tree outside any document lends the tree to a temporary document for the call, so
// that counts as editing it.
// Bad input never aborts: parse failures give nothing and an error, unexpected states give a
// diagnostic line and an empty result.

#include "util/FvError.h"

#include <QByteArray>
#include <QHash>
#include <QList>
#include <QString>
#include <cstddef>
#include <libxml/tree.h>
#include <memory>

class GDataXMLElement;
class GDataXMLDocument;

// Node kinds are libxml2's node type numbers.
enum GDataXMLNodeKind {
    GDataXMLInvalidKind = 0,
    GDataXMLElementKind = XML_ELEMENT_NODE,
    GDataXMLAttributeKind = XML_ATTRIBUTE_NODE,
    GDataXMLTextKind = XML_TEXT_NODE,
    GDataXMLCDATAKind = XML_CDATA_SECTION_NODE,
    GDataXMLEntityReferenceKind = XML_ENTITY_REF_NODE,
    GDataXMLEntityKind = XML_ENTITY_NODE,
    GDataXMLProcessingInstructionKind = XML_PI_NODE,
    GDataXMLCommentKind = XML_COMMENT_NODE,
    GDataXMLDocumentKind = XML_DOCUMENT_NODE,
    GDataXMLDocumentTypeKind = XML_DOCUMENT_TYPE_NODE,
    GDataXMLDocumentFragmentKind = XML_DOCUMENT_FRAG_NODE,
    GDataXMLDTDKind = XML_DTD_NODE,
    GDataXMLNamespaceKind = XML_NAMESPACE_DECL,
};

// libxml2 parse options used for every parse: no CDATA nodes, no blank text nodes (16640).
inline constexpr int kGDataXMLParseOptions = (1 << 14) | (1 << 8);

// The error domain of this layer; parse failures carry code -1.
QString GDataXMLErrorDomain();

class GDataXMLNode : public std::enable_shared_from_this<GDataXMLNode>
{
public:
    virtual ~GDataXMLNode();
    GDataXMLNode(const GDataXMLNode &) = delete;
    GDataXMLNode &operator=(const GDataXMLNode &) = delete;

    // Factories: each returns a wrapper that owns a new, free-standing node (nullptr if libxml2
    // refuses). A name with a namespace URI is kept as "{URI}name" until the node is added to a
    // tree, where the URI is matched to a declaration in scope (or one is declared).
    static std::shared_ptr<GDataXMLElement> elementWithName(const QString &name);
    static std::shared_ptr<GDataXMLElement> elementWithName(const QString &name, const QString &stringValue);
    static std::shared_ptr<GDataXMLElement> elementWithNameURI(const QString &name, const QString &URI);
    static std::shared_ptr<GDataXMLNode> attributeWithName(const QString &name, const QString &stringValue);
    static std::shared_ptr<GDataXMLNode> attributeWithName(const QString &name, const QString &URI,
                                                           const QString &stringValue);
    static std::shared_ptr<GDataXMLNode> textWithStringValue(const QString &value);
    // A namespace declaration: name is the prefix (empty for the default namespace), value the URI.
    static std::shared_ptr<GDataXMLNode> namespaceWithName(const QString &name, const QString &stringValue);
    // Wraps a raw libxml2 node: the consuming wrapper frees it (it must not belong to a tree
    // any more), the borrowing one never does. Namespace nodes are passed as libxml2 does in node
    // sets: the xmlNs cast to xmlNodePtr.
    static std::shared_ptr<GDataXMLNode> nodeConsumingXMLNode(xmlNodePtr node);
    static std::shared_ptr<GDataXMLNode> nodeBorrowingXMLNode(xmlNodePtr node);

    // Text content: of an element, all its text; of an attribute, its value; of a namespace, the URI.
    QString stringValue() const;
    void setStringValue(const QString &value);
    // The node serialised as XML (no declaration, no formatting).
    QString XMLString() const;
    QString localName() const;
    QString prefix() const;
    QString URI() const;
    QString qualifiedName() const;
    // The qualified name for elements and attributes, the prefix for a namespace, libxml2's name
    // for others ("text", "comment").
    QString name() const;
    qsizetype childCount() const;
    QList<std::shared_ptr<GDataXMLNode>> children() const;
    std::shared_ptr<GDataXMLNode> childAtIndex(qsizetype index) const; // nullptr when out of range
    int kind() const;

    // XPath from this node. Prefixes declared on the document's root element are usable (its
    // default namespace as "_def_ns"), plus the given prefix -> URI pairs, which win on a clash.
    // On failure the result is empty and *error (if given) is set.
    QList<std::shared_ptr<GDataXMLNode>> nodesForXPath(const QString &xpath, FvError *error) const;
    QList<std::shared_ptr<GDataXMLNode>>
    nodesForXPath(const QString &xpath, const QHash<QString, QString> &namespaces, FvError *error) const;

    // Identity: two wrappers are equal when they wrap the same libxml2 node.
    bool isEqual(const GDataXMLNode *other) const;
    bool operator==(const GDataXMLNode &other) const { return isEqual(&other); }
    std::size_t hash() const;
    // Deep copy into a new owning wrapper (nullptr for an empty wrapper).
    std::shared_ptr<GDataXMLNode> copy() const;
    QString description() const;

    xmlNodePtr XMLNode() const { return m_node; }
    // A deep, free-standing copy of the node that the caller owns (free with xmlFreeNode, or
    // xmlFreeNs for a namespace). Attributes in a namespace come back named "{URI}local".
    xmlNodePtr XMLNodeCopy() const;
    bool shouldFreeXMLNode() const { return m_shouldFreeXMLNode; }
    // Drops the cached name and string value; called whenever the node changes.
    void releaseCachedValues();

    // Repairs namespaces after nodeToFix was grafted below graftPointNode: "{URI}local" names
    // and unresolved "prefix:local" names get their namespace from the tree (declaring it when
    // absent), and declarations that repeat one in scope are removed with references moved over.
    static void fixUpNamespacesForNode(xmlNodePtr nodeToFix, xmlNodePtr graftPointNode);

protected:
    GDataXMLNode(xmlNodePtr node, bool shouldFree, std::shared_ptr<const void> owner);

    // A wrapper of the right class for node.
    static std::shared_ptr<GDataXMLNode> wrapNode(xmlNodePtr node, bool shouldFree,
                                                  std::shared_ptr<const void> owner);
    // A borrowing wrapper of a node of this wrapper's tree, keeping that tree alive.
    std::shared_ptr<GDataXMLNode> borrowNode(xmlNodePtr node) const;
    std::shared_ptr<const void> treeOwner() const;
    // libxml2 string -> QString, shared through the document's string cache when there is one.
    QString stringFromXMLString(const xmlChar *string) const;
    bool isElementNode() const { return m_node && m_node->type == XML_ELEMENT_NODE; }
    bool isNamespaceNode() const { return m_node && m_node->type == XML_NAMESPACE_DECL; }
    // Replaces the wrapped node by a free-standing one that this wrapper owns.
    void adoptDetachedNode(xmlNodePtr node);

    static void fixQualifiedNamesForNode(xmlNodePtr nodeToFix, xmlNodePtr graftPointNode);
    static void fixQualifiedNameOfNode(xmlNodePtr node);
    static void removeRedundantNamespacesForNode(xmlNodePtr node);
    static void replaceNamespaceReferences(xmlNodePtr subtree, xmlNsPtr oldNamespace, xmlNsPtr newNamespace);

    friend class GDataXMLElement;
    friend class GDataXMLDocument;

private:
    xmlNodePtr m_node = nullptr;
    bool m_shouldFreeXMLNode = false;
    std::shared_ptr<const void> m_owner;
    mutable QString m_cachedName;
    mutable QString m_cachedStringValue;
    mutable bool m_hasCachedName = false;
    mutable bool m_hasCachedStringValue = false;
};

class GDataXMLElement : public GDataXMLNode
{
public:
    // Parses str and returns an owning copy of its root element (nullptr and *error on failure).
    static std::shared_ptr<GDataXMLElement> initWithXMLString(const QString &str, FvError *error);

    QList<std::shared_ptr<GDataXMLNode>> namespaces() const;
    // Replaces the namespace declarations of this element; names that used a removed declaration
    // are re-bound to one in scope with the same prefix or URI, or keep theirs redeclared here.
    void setNamespaces(const QList<std::shared_ptr<GDataXMLNode>> &namespaces);
    void addNamespace(const std::shared_ptr<GDataXMLNode> &aNamespace);
    // Adds a deep copy of child (attributes and namespaces go to addAttribute / addNamespace).
    void addChild(const std::shared_ptr<GDataXMLNode> &child);
    // Removes child from this element; the child's wrapper keeps a free-standing copy it owns.
    void removeChild(const std::shared_ptr<GDataXMLNode> &child);

    // Element children named name, in document order. A "prefix:local" name whose prefix is
    // declared in scope matches by local name and namespace URI; otherwise names match exactly.
    QList<std::shared_ptr<GDataXMLElement>> elementsForName(const QString &name) const;
    QList<std::shared_ptr<GDataXMLElement>> elementsForLocalName(const QString &localName,
                                                                 const QString &URI) const;
    QList<std::shared_ptr<GDataXMLNode>> attributes() const;
    // Adds a copy of the attribute, replacing one with the same name.
    void addAttribute(const std::shared_ptr<GDataXMLNode> &attribute);
    std::shared_ptr<GDataXMLNode> attributeForName(const QString &name) const; // nullptr if absent
    std::shared_ptr<GDataXMLNode> attributeForLocalName(const QString &localName, const QString &URI) const;
    // The prefix bound to URI in scope ("" for the default namespace), a null string if none.
    QString resolvePrefixForNamespaceURI(const QString &URI) const;

protected:
    using GDataXMLNode::GDataXMLNode;
    friend class GDataXMLNode;

private:
    // Adds a deep copy of node as the last child (or attribute) and repairs its namespaces.
    // The node as added, or nullptr when nothing was added.
    xmlNodePtr graftCopyOf(const GDataXMLNode &node);
};

class GDataXMLDocument : public std::enable_shared_from_this<GDataXMLDocument>
{
public:
    // Parses data (options are ignored: the parse always uses kGDataXMLParseOptions).
    // nullptr on failure, with *error set to code -1 in GDataXMLErrorDomain().
    static std::shared_ptr<GDataXMLDocument> initWithData(const QByteArray &data, int options,
                                                          FvError *error);
    static std::shared_ptr<GDataXMLDocument> initWithXMLString(const QString &str, int options,
                                                               FvError *error);
    // A new document whose root is a copy of root.
    static std::shared_ptr<GDataXMLDocument>
    initWithRootElement(const std::shared_ptr<GDataXMLElement> &root);

    ~GDataXMLDocument();
    GDataXMLDocument(const GDataXMLDocument &) = delete;
    GDataXMLDocument &operator=(const GDataXMLDocument &) = delete;

    std::shared_ptr<GDataXMLElement> rootElement() const; // nullptr when the document has none
    // The whole document with its XML declaration, in its character encoding (UTF-8 by default).
    QByteArray XMLData() const;
    void setVersion(const QString &version);
    void setCharacterEncoding(const QString &encoding);
    QList<std::shared_ptr<GDataXMLNode>> nodesForXPath(const QString &xpath, FvError *error) const;
    QList<std::shared_ptr<GDataXMLNode>>
    nodesForXPath(const QString &xpath, const QHash<QString, QString> &namespaces, FvError *error) const;
    QString description() const;
    xmlDocPtr XMLDocument() const { return m_doc; }

private:
    explicit GDataXMLDocument(xmlDocPtr doc);
    // Attaches the string cache to the document's private slot.
    static void addStringsCacheToDoc(xmlDocPtr doc);
    static void releaseStringsCacheForDoc(xmlDocPtr doc);

    xmlDocPtr m_doc = nullptr;
};
