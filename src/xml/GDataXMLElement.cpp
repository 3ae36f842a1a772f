#include "util/Log.h"
#include "xml/GDataXMLNode.h"
#include "xml/XmlSupport.h"

#include <QSet>

using namespace Qt::StringLiterals;
using namespace fvxml;

namespace {

bool sameAttributeIdentity(xmlNodePtr a, xmlNodePtr b)
{
    if (a->ns || b->ns) {
        return a->ns && b->ns && xmlStrEqual(a->name, b->name) && xmlStrEqual(a->ns->href, b->ns->href);
    }
    return xmlStrEqual(a->name, b->name);
}

// Binds every reference to a declaration in `removed` found below element to a surviving
// declaration: the same prefix and URI in scope, else any prefix for that URI in scope, else a
// new declaration on element.
void rebindRemovedNamespaces(xmlNodePtr element, xmlNodePtr node, const QSet<xmlNsPtr> &removed)
{
    auto rebind = [&](xmlNsPtr old, bool isAttribute, xmlNodePtr scope) -> xmlNsPtr {
        xmlNsPtr ns = findNamespaceInScope(scope, old->prefix);
        if (ns && xmlStrEqual(ns->href, old->href) && (ns->prefix || !isAttribute))
            return ns;
        ns = findNamespaceByHref(scope, old->href, isAttribute);
        if (ns)
            return ns;
        // Redeclare on element, under the old prefix when that is unbound in scope.
        if ((old->prefix || !isAttribute) && !findNamespaceInScope(element, old->prefix))
            return xmlNewNs(element, old->href, old->prefix);
        return xmlNewNs(element, old->href, xmlChars(unusedPrefix(element, {})));
    };

    if (node->type != XML_ELEMENT_NODE)
        return;
    if (node->ns && removed.contains(node->ns))
        node->ns = rebind(node->ns, false, node);
    for (xmlAttrPtr attribute = node->properties; attribute; attribute = attribute->next) {
        if (attribute->ns && removed.contains(attribute->ns))
            attribute->ns = rebind(attribute->ns, true, node);
    }
    for (xmlNodePtr child = node->children; child; child = child->next)
        rebindRemovedNamespaces(element, child, removed);
}

} // namespace

std::shared_ptr<GDataXMLElement> GDataXMLElement::initWithXMLString(const QString &str, FvError *error)
{
    xmlDocPtr doc = parseXMLBytes(str.toUtf8(), error);
    if (!doc)
        return nullptr;
    std::shared_ptr<GDataXMLElement> element;
    if (xmlNodePtr root = xmlDocGetRootElement(doc)) {
        // Copy without a target document so nothing refers to the parse's dictionary.
        xmlNodePtr copy = xmlDocCopyNode(root, nullptr, 1);
        element = std::static_pointer_cast<GDataXMLElement>(wrapNode(copy, true, nullptr));
    }
    xmlFreeDoc(doc);
    if (!element && error)
        *error = makeError({}, {}, u"document has no root element"_s);
    return element;
}

QList<std::shared_ptr<GDataXMLNode>> GDataXMLElement::namespaces() const
{
    QList<std::shared_ptr<GDataXMLNode>> result;
    if (!isElementNode())
        return result;
    for (xmlNsPtr ns = m_node->nsDef; ns; ns = ns->next)
        result.append(borrowNode(reinterpret_cast<xmlNodePtr>(ns)));
    return result;
}

void GDataXMLElement::setNamespaces(const QList<std::shared_ptr<GDataXMLNode>> &namespaces)
{
    if (!isElementNode())
        return;
    releaseCachedValues();
    xmlNsPtr oldList = m_node->nsDef;
    m_node->nsDef = nullptr;
    for (const auto &item : namespaces) {
        if (!item || !item->isNamespaceNode())
            continue;
        auto *ns = reinterpret_cast<xmlNsPtr>(item->m_node);
        if (!xmlNewNs(m_node, ns->href, ns->prefix))
            FV_LOG(u"Namespace %1 not declared"_s.arg(item->XMLString()));
    }
    if (!oldList)
        return;
    QSet<xmlNsPtr> removed;
    for (xmlNsPtr ns = oldList; ns; ns = ns->next)
        removed.insert(ns);
    // Nothing below may keep pointing at the declarations about to be freed.
    rebindRemovedNamespaces(m_node, m_node, removed);
    xmlFreeNsList(oldList);
}

void GDataXMLElement::addNamespace(const std::shared_ptr<GDataXMLNode> &aNamespace)
{
    if (!isElementNode() || !aNamespace || !aNamespace->isNamespaceNode())
        return;
    releaseCachedValues();
    auto *ns = reinterpret_cast<xmlNsPtr>(aNamespace->m_node);
    if (!xmlNewNs(m_node, ns->href, ns->prefix))
        FV_LOG(u"Namespace %1 not declared"_s.arg(aNamespace->XMLString()));
}

void GDataXMLElement::addChild(const std::shared_ptr<GDataXMLNode> &child)
{
    if (!isElementNode() || !child || !child->m_node)
        return;
    switch (child->kind()) {
    case GDataXMLAttributeKind:
        addAttribute(child);
        return;
    case GDataXMLNamespaceKind:
        addNamespace(child);
        return;
    case GDataXMLDocumentKind:
    case XML_HTML_DOCUMENT_NODE:
    case GDataXMLDTDKind:
    case GDataXMLDocumentTypeKind:
    case GDataXMLDocumentFragmentKind:
        FV_LOG(u"Cannot add a node of kind %1 as a child"_s.arg(child->kind()));
        return;
    default:
        break;
    }
    graftCopyOf(*child);
}

xmlNodePtr GDataXMLElement::graftCopyOf(const GDataXMLNode &node)
{
    releaseCachedValues();
    xmlNodePtr copy = node.XMLNodeCopy();
    if (!copy)
        return nullptr;
    // A text copy may be merged into a neighbouring text node (and freed): use the result only.
    xmlNodePtr added = xmlAddChild(m_node, copy);
    if (!added) {
        freeXMLNode(copy);
        return nullptr;
    }
    fixUpNamespacesForNode(added, m_node);
    return added;
}

void GDataXMLElement::removeChild(const std::shared_ptr<GDataXMLNode> &child)
{
    if (!isElementNode() || !child || !child->m_node || child->isNamespaceNode())
        return;
    xmlNodePtr node = child->m_node;
    if (node->parent != m_node) {
        FV_LOG(u"Node %1 is not a child of %2"_s.arg(child->name(), name()));
        return;
    }
    releaseCachedValues();
    // The child's wrapper keeps a free-standing copy: the original may hold strings of this
    // document's dictionary and namespace declarations of its ancestors.
    xmlNodePtr detached = child->XMLNodeCopy();
    xmlUnlinkNode(node);
    freeXMLNode(node);
    child->adoptDetachedNode(detached);
}

QList<std::shared_ptr<GDataXMLElement>> GDataXMLElement::elementsForName(const QString &name) const
{
    QList<std::shared_ptr<GDataXMLElement>> result;
    if (!isElementNode())
        return result;
    const QByteArray wanted = name.toUtf8();
    const qsizetype colon = wanted.indexOf(':');
    if (colon > 0) {
        const QByteArray prefix = wanted.left(colon);
        QByteArray uri;
        if (prefix == "xml") {
            uri = bytesOf(XML_XML_NAMESPACE);
        } else if (xmlNsPtr ns = findNamespaceInScope(m_node, xmlChars(prefix))) {
            uri = bytesOf(ns->href);
        }
        if (!uri.isNull())
            return elementsForLocalName(QString::fromUtf8(wanted.mid(colon + 1)), QString::fromUtf8(uri));
    }
    for (xmlNodePtr child = m_node->children; child; child = child->next) {
        if (child->type == XML_ELEMENT_NODE && qualifiedNameOf(child) == wanted)
            result.append(std::static_pointer_cast<GDataXMLElement>(borrowNode(child)));
    }
    return result;
}

QList<std::shared_ptr<GDataXMLElement>> GDataXMLElement::elementsForLocalName(const QString &localName,
                                                                              const QString &URI) const
{
    QList<std::shared_ptr<GDataXMLElement>> result;
    if (!isElementNode())
        return result;
    const QByteArray local = localName.toUtf8();
    const QByteArray uri = URI.toUtf8();
    for (xmlNodePtr child = m_node->children; child; child = child->next) {
        if (child->type != XML_ELEMENT_NODE)
            continue;
        const NameParts parts = nameParts(child);
        if (parts.local == local && parts.uri == uri)
            result.append(std::static_pointer_cast<GDataXMLElement>(borrowNode(child)));
    }
    return result;
}

QList<std::shared_ptr<GDataXMLNode>> GDataXMLElement::attributes() const
{
    QList<std::shared_ptr<GDataXMLNode>> result;
    if (!isElementNode())
        return result;
    for (xmlAttrPtr attribute = m_node->properties; attribute; attribute = attribute->next)
        result.append(borrowNode(reinterpret_cast<xmlNodePtr>(attribute)));
    return result;
}

void GDataXMLElement::addAttribute(const std::shared_ptr<GDataXMLNode> &attribute)
{
    if (!isElementNode() || !attribute || attribute->kind() != GDataXMLAttributeKind)
        return;
    xmlNodePtr added = graftCopyOf(*attribute);
    if (!added)
        return;
    // Attribute names are unique: the new one replaces any other with the same name.
    xmlAttrPtr current = m_node->properties;
    while (current) {
        xmlAttrPtr next = current->next;
        auto *currentNode = reinterpret_cast<xmlNodePtr>(current);
        if (currentNode != added && sameAttributeIdentity(currentNode, added)) {
            xmlUnlinkNode(currentNode);
            xmlFreeProp(current);
        }
        current = next;
    }
}

std::shared_ptr<GDataXMLNode> GDataXMLElement::attributeForName(const QString &name) const
{
    if (!isElementNode())
        return nullptr;
    const QByteArray wanted = name.toUtf8();
    for (xmlAttrPtr attribute = m_node->properties; attribute; attribute = attribute->next) {
        if (qualifiedNameOf(reinterpret_cast<xmlNodePtr>(attribute)) == wanted)
            return borrowNode(reinterpret_cast<xmlNodePtr>(attribute));
    }
    // The same namespace may be bound to another prefix on the attribute.
    const qsizetype colon = wanted.indexOf(':');
    if (colon > 0) {
        if (xmlNsPtr ns = findNamespaceInScope(m_node, xmlChars(wanted.left(colon))))
            return attributeForLocalName(QString::fromUtf8(wanted.mid(colon + 1)),
                                         QString::fromUtf8(charsOf(ns->href)));
    }
    return nullptr;
}

std::shared_ptr<GDataXMLNode> GDataXMLElement::attributeForLocalName(const QString &localName,
                                                                     const QString &URI) const
{
    if (!isElementNode())
        return nullptr;
    const QByteArray local = localName.toUtf8();
    const QByteArray uri = URI.toUtf8();
    for (xmlAttrPtr attribute = m_node->properties; attribute; attribute = attribute->next) {
        const NameParts parts = nameParts(reinterpret_cast<xmlNodePtr>(attribute));
        if (parts.local == local && parts.uri == uri)
            return borrowNode(reinterpret_cast<xmlNodePtr>(attribute));
    }
    return nullptr;
}

QString GDataXMLElement::resolvePrefixForNamespaceURI(const QString &URI) const
{
    if (!isElementNode())
        return {};
    const QByteArray uri = URI.toUtf8();
    if (uri == bytesOf(XML_XML_NAMESPACE))
        return u"xml"_s;
    xmlNsPtr ns = findNamespaceByHref(m_node, xmlChars(uri), false);
    if (!ns)
        return {};
    return ns->prefix ? stringFromXMLString(ns->prefix) : QString(u""_s);
}
