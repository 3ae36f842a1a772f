#include "xml/GDataXMLNode.h"

#include "util/Log.h"
#include "xml/XmlSupport.h"

#include <QMutexLocker>
#include <QStringList>
#include <functional>
#include <libxml/entities.h>
#include <libxml/xpath.h>
#include <libxml/xpathInternals.h>

using namespace Qt::StringLiterals;
using namespace fvxml;

namespace {

QByteArray utf8(const QString &text)
{
    return text.toUtf8();
}

void collectXPathError(void *userData, xmlErrorPtr error)
{
    auto *messages = static_cast<QStringList *>(userData);
    if (messages && error && error->message)
        messages->append(QString::fromUtf8(error->message).trimmed());
}

// A free-standing copy of an attribute. libxml2's own copy would take the names from the source
// document's dictionary when no target is given, which dangles once that document is gone.
xmlNodePtr copyAttributeDetached(xmlAttrPtr attribute)
{
    QByteArray name = bytesOf(attribute->name);
    if (attribute->ns && attribute->ns->href)
        name = '{' + bytesOf(attribute->ns->href) + '}' + name;
    xmlChar *value = xmlNodeGetContent(reinterpret_cast<xmlNodePtr>(attribute));
    xmlAttrPtr copy =
        xmlNewProp(nullptr, xmlChars(name), value ? value : reinterpret_cast<const xmlChar *>(""));
    if (value)
        xmlFree(value);
    return reinterpret_cast<xmlNodePtr>(copy);
}

bool isXMLNamespace(const QByteArray &uri)
{
    return uri == QByteArray(charsOf(XML_XML_NAMESPACE));
}

} // namespace

// ---- construction ----

GDataXMLNode::GDataXMLNode(xmlNodePtr node, bool shouldFree, std::shared_ptr<const void> owner)
    : m_node(node), m_shouldFreeXMLNode(shouldFree), m_owner(shouldFree ? nullptr : std::move(owner))
{}

GDataXMLNode::~GDataXMLNode()
{
    if (m_shouldFreeXMLNode && m_node)
        freeXMLNode(m_node);
}

std::shared_ptr<GDataXMLNode> GDataXMLNode::wrapNode(xmlNodePtr node, bool shouldFree,
                                                     std::shared_ptr<const void> owner)
{
    if (!node)
        return nullptr;
    if (node->type == XML_ELEMENT_NODE)
        return std::shared_ptr<GDataXMLNode>(new GDataXMLElement(node, shouldFree, std::move(owner)));
    return std::shared_ptr<GDataXMLNode>(new GDataXMLNode(node, shouldFree, std::move(owner)));
}

std::shared_ptr<const void> GDataXMLNode::treeOwner() const
{
    if (m_shouldFreeXMLNode)
        return weak_from_this().lock();
    return m_owner;
}

std::shared_ptr<GDataXMLNode> GDataXMLNode::borrowNode(xmlNodePtr node) const
{
    return wrapNode(node, false, treeOwner());
}

void GDataXMLNode::adoptDetachedNode(xmlNodePtr node)
{
    releaseCachedValues();
    m_node = node;
    m_shouldFreeXMLNode = node != nullptr;
    m_owner.reset();
}

std::shared_ptr<GDataXMLNode> GDataXMLNode::nodeConsumingXMLNode(xmlNodePtr node)
{
    return wrapNode(node, true, nullptr);
}

std::shared_ptr<GDataXMLNode> GDataXMLNode::nodeBorrowingXMLNode(xmlNodePtr node)
{
    return wrapNode(node, false, nullptr);
}

// ---- factories ----

std::shared_ptr<GDataXMLElement> GDataXMLNode::elementWithName(const QString &name)
{
    ensureLibxmlInitialised();
    xmlNodePtr node = xmlNewNode(nullptr, xmlChars(utf8(name)));
    return std::static_pointer_cast<GDataXMLElement>(wrapNode(node, true, nullptr));
}

std::shared_ptr<GDataXMLElement> GDataXMLNode::elementWithName(const QString &name,
                                                               const QString &stringValue)
{
    auto element = elementWithName(name);
    if (element) {
        // A text child keeps the value literally (no entity parsing).
        xmlNodePtr text = xmlNewText(xmlChars(utf8(stringValue)));
        if (text && !xmlAddChild(element->m_node, text))
            xmlFreeNode(text);
    }
    return element;
}

std::shared_ptr<GDataXMLElement> GDataXMLNode::elementWithNameURI(const QString &name, const QString &URI)
{
    return elementWithName(u"{"_s + URI + u"}"_s + name);
}

std::shared_ptr<GDataXMLNode> GDataXMLNode::attributeWithName(const QString &name, const QString &stringValue)
{
    ensureLibxmlInitialised();
    xmlAttrPtr attribute = xmlNewProp(nullptr, xmlChars(utf8(name)), xmlChars(utf8(stringValue)));
    return wrapNode(reinterpret_cast<xmlNodePtr>(attribute), true, nullptr);
}

std::shared_ptr<GDataXMLNode> GDataXMLNode::attributeWithName(const QString &name, const QString &URI,
                                                              const QString &stringValue)
{
    return attributeWithName(u"{"_s + URI + u"}"_s + name, stringValue);
}

std::shared_ptr<GDataXMLNode> GDataXMLNode::textWithStringValue(const QString &value)
{
    ensureLibxmlInitialised();
    return wrapNode(xmlNewText(xmlChars(utf8(value))), true, nullptr);
}

std::shared_ptr<GDataXMLNode> GDataXMLNode::namespaceWithName(const QString &name, const QString &stringValue)
{
    ensureLibxmlInitialised();
    const QByteArray prefix = utf8(name);
    xmlNsPtr ns =
        xmlNewNs(nullptr, xmlChars(utf8(stringValue)), prefix.isEmpty() ? nullptr : xmlChars(prefix));
    return wrapNode(reinterpret_cast<xmlNodePtr>(ns), true, nullptr);
}

// ---- strings ----

QString GDataXMLNode::stringFromXMLString(const xmlChar *string) const
{
    if (!string) {
        FV_LOG(u"GDataXMLNode sees an unexpected empty string"_s);
        return {};
    }
    StringCache *cache = nullptr;
    if (m_node && m_node->type != XML_NAMESPACE_DECL)
        cache = stringCacheForDoc(m_node->doc);
    if (!cache)
        return QString::fromUtf8(charsOf(string));

    const char *chars = charsOf(string);
    const QByteArray key = QByteArray::fromRawData(chars, qstrlen(chars));
    QMutexLocker locker(&cache->mutex);
    auto it = cache->strings.constFind(key);
    if (it != cache->strings.constEnd())
        return it.value();
    const QString value = QString::fromUtf8(key);
    cache->strings.insert(QByteArray(chars), value);
    return value;
}

void GDataXMLNode::releaseCachedValues()
{
    m_cachedName.clear();
    m_cachedStringValue.clear();
    m_hasCachedName = false;
    m_hasCachedStringValue = false;
}

// ---- accessors ----

QString GDataXMLNode::stringValue() const
{
    if (!m_node)
        return {};
    if (m_hasCachedStringValue)
        return m_cachedStringValue;
    QString value;
    if (isNamespaceNode()) {
        value = stringFromXMLString(reinterpret_cast<xmlNsPtr>(m_node)->href);
    } else {
        xmlChar *content = xmlNodeGetContent(m_node);
        if (content) {
            value = stringFromXMLString(content);
            xmlFree(content);
        }
    }
    m_cachedStringValue = value;
    m_hasCachedStringValue = true;
    return value;
}

void GDataXMLNode::setStringValue(const QString &value)
{
    if (!m_node)
        return;
    releaseCachedValues();
    const QByteArray bytes = utf8(value);
    switch (m_node->type) {
    case XML_NAMESPACE_DECL: {
        auto *ns = reinterpret_cast<xmlNsPtr>(m_node);
        if (ns->href)
            xmlFree(const_cast<xmlChar *>(ns->href));
        ns->href = xmlStrdup(xmlChars(bytes));
        break;
    }
    case XML_ELEMENT_NODE:
    case XML_ATTRIBUTE_NODE: {
        // libxml2 reads entity references in element and attribute content, so escape first.
        xmlChar *escaped = xmlEncodeSpecialChars(m_node->doc, xmlChars(bytes));
        if (escaped) {
            xmlNodeSetContent(m_node, escaped);
            xmlFree(escaped);
        }
        break;
    }
    case XML_DOCUMENT_NODE:
    case XML_HTML_DOCUMENT_NODE:
    case XML_DTD_NODE:
        FV_LOG(u"Cannot set the string value of a node of kind %1"_s.arg(int(m_node->type)));
        break;
    default:
        xmlNodeSetContent(m_node, xmlChars(bytes));
        break;
    }
}

QString GDataXMLNode::XMLString() const
{
    if (!m_node)
        return {};
    if (isNamespaceNode()) {
        auto *ns = reinterpret_cast<xmlNsPtr>(m_node);
        const QString href = QString::fromUtf8(charsOf(ns->href));
        if (ns->prefix)
            return u"xmlns:%1=\"%2\""_s.arg(QString::fromUtf8(charsOf(ns->prefix)), href);
        return u"xmlns=\"%1\""_s.arg(href);
    }
    xmlBufferPtr buffer = xmlBufferCreate();
    if (!buffer)
        return {};
    QString result;
    if (xmlNodeDump(buffer, m_node->doc, m_node, 0, 0) >= 0)
        result = QString::fromUtf8(charsOf(xmlBufferContent(buffer)), xmlBufferLength(buffer));
    xmlBufferFree(buffer);
    return result;
}

QString GDataXMLNode::localName() const
{
    if (!m_node)
        return {};
    if (isNamespaceNode()) {
        auto *ns = reinterpret_cast<xmlNsPtr>(m_node);
        return ns->prefix ? stringFromXMLString(ns->prefix) : QString(u""_s);
    }
    if (!m_node->name)
        return {};
    if (m_node->type == XML_ELEMENT_NODE || m_node->type == XML_ATTRIBUTE_NODE) {
        if (m_node->ns)
            return stringFromXMLString(m_node->name);
        const QByteArray local = nameParts(m_node).local;
        return stringFromXMLString(xmlChars(local));
    }
    return stringFromXMLString(m_node->name);
}

QString GDataXMLNode::prefix() const
{
    if (!m_node || (m_node->type != XML_ELEMENT_NODE && m_node->type != XML_ATTRIBUTE_NODE))
        return u""_s;
    if (m_node->ns)
        return m_node->ns->prefix ? stringFromXMLString(m_node->ns->prefix) : QString(u""_s);
    return QString::fromUtf8(nameParts(m_node).prefix);
}

QString GDataXMLNode::URI() const
{
    if (!m_node || (m_node->type != XML_ELEMENT_NODE && m_node->type != XML_ATTRIBUTE_NODE))
        return {};
    if (m_node->ns)
        return m_node->ns->href ? stringFromXMLString(m_node->ns->href) : QString();
    const NameParts parts = nameParts(m_node);
    return parts.hasURI ? QString::fromUtf8(parts.uri) : QString();
}

QString GDataXMLNode::qualifiedName() const
{
    if (!m_node)
        return {};
    if (isNamespaceNode()) {
        auto *ns = reinterpret_cast<xmlNsPtr>(m_node);
        return ns->prefix ? stringFromXMLString(ns->prefix) : QString(u""_s);
    }
    if (!m_node->name)
        return {};
    if ((m_node->type == XML_ELEMENT_NODE || m_node->type == XML_ATTRIBUTE_NODE) && m_node->ns &&
        m_node->ns->prefix)
        return stringFromXMLString(xmlChars(qualifiedNameOf(m_node)));
    return stringFromXMLString(m_node->name);
}

QString GDataXMLNode::name() const
{
    if (!m_node)
        return {};
    if (!m_hasCachedName) {
        m_cachedName = qualifiedName();
        m_hasCachedName = true;
    }
    return m_cachedName;
}

qsizetype GDataXMLNode::childCount() const
{
    if (!m_node || isNamespaceNode())
        return 0;
    qsizetype count = 0;
    for (xmlNodePtr child = m_node->children; child; child = child->next)
        ++count;
    return count;
}

QList<std::shared_ptr<GDataXMLNode>> GDataXMLNode::children() const
{
    QList<std::shared_ptr<GDataXMLNode>> result;
    if (!m_node || isNamespaceNode())
        return result;
    for (xmlNodePtr child = m_node->children; child; child = child->next)
        result.append(borrowNode(child));
    return result;
}

std::shared_ptr<GDataXMLNode> GDataXMLNode::childAtIndex(qsizetype index) const
{
    if (!m_node || isNamespaceNode() || index < 0)
        return nullptr;
    qsizetype position = 0;
    for (xmlNodePtr child = m_node->children; child; child = child->next, ++position) {
        if (position == index)
            return borrowNode(child);
    }
    return nullptr;
}

int GDataXMLNode::kind() const
{
    return m_node ? int(m_node->type) : int(GDataXMLInvalidKind);
}

// ---- XPath ----

QList<std::shared_ptr<GDataXMLNode>> GDataXMLNode::nodesForXPath(const QString &xpath, FvError *error) const
{
    return nodesForXPath(xpath, {}, error);
}

QList<std::shared_ptr<GDataXMLNode>> GDataXMLNode::nodesForXPath(const QString &xpath,
                                                                 const QHash<QString, QString> &namespaces,
                                                                 FvError *error) const
{
    QList<std::shared_ptr<GDataXMLNode>> result;
    if (!m_node || isNamespaceNode()) {
        if (error)
            *error = makeError(u"error"_s, u"invalid node"_s);
        return result;
    }
    ensureLibxmlInitialised();

    xmlDocPtr doc = m_node->doc;
    xmlDocPtr tempDoc = nullptr;
    xmlNodePtr topNode = nullptr;
    if (m_node->type == XML_DOCUMENT_NODE || m_node->type == XML_HTML_DOCUMENT_NODE) {
        doc = reinterpret_cast<xmlDocPtr>(m_node);
    } else if (!doc) {
        // XPath needs a document: lend the node's whole tree to a temporary one.
        topNode = m_node;
        while (topNode->parent)
            topNode = topNode->parent;
        if (topNode->type != XML_ELEMENT_NODE) {
            if (error)
                *error = makeError(u"error"_s, u"invalid node"_s);
            return result;
        }
        tempDoc = xmlNewDoc(reinterpret_cast<const xmlChar *>("1.0"));
        if (!tempDoc) {
            if (error)
                *error = makeError(u"error"_s, u"invalid node"_s);
            return result;
        }
        xmlDocSetRootElement(tempDoc, topNode);
        doc = tempDoc;
    }

    QStringList messages;
    xmlXPathContextPtr context = xmlXPathNewContext(doc);
    if (context) {
        context->node = m_node;
        context->error = collectXPathError;
        context->userData = &messages;

        if (xmlNodePtr root = xmlDocGetRootElement(doc)) {
            for (xmlNsPtr ns = root->nsDef; ns; ns = ns->next) {
                const xmlChar *prefix =
                    ns->prefix ? ns->prefix : reinterpret_cast<const xmlChar *>("_def_ns");
                if (!ns->href || xmlXPathRegisterNs(context, prefix, ns->href) != 0)
                    FV_LOG(
                        u"GDataXMLNode XPath namespace %1 issue"_s.arg(QString::fromUtf8(charsOf(prefix))));
            }
        }
        for (auto it = namespaces.constBegin(); it != namespaces.constEnd(); ++it) {
            if (xmlXPathRegisterNs(context, xmlChars(utf8(it.key())), xmlChars(utf8(it.value()))) != 0)
                FV_LOG(u"GDataXMLNode XPath namespace %1 issue"_s.arg(it.key()));
        }

        xmlXPathObjectPtr object = xmlXPathEvalExpression(xmlChars(utf8(xpath)), context);
        if (object) {
            xmlNodeSetPtr nodeSet = object->nodesetval;
            for (int i = 0; nodeSet && i < nodeSet->nodeNr; ++i) {
                xmlNodePtr found = nodeSet->nodeTab[i];
                if (!found)
                    continue;
                if (found->type == XML_NAMESPACE_DECL) {
                    // Namespace nodes of a node set die with it: hand out owned copies.
                    auto *ns = reinterpret_cast<xmlNsPtr>(found);
                    xmlNsPtr copy = xmlNewNs(nullptr, ns->href, ns->prefix);
                    if (copy)
                        result.append(wrapNode(reinterpret_cast<xmlNodePtr>(copy), true, nullptr));
                } else if (tempDoc && found == reinterpret_cast<xmlNodePtr>(tempDoc)) {
                    continue; // the temporary document is dismantled below
                } else {
                    result.append(borrowNode(found));
                }
            }
            xmlXPathFreeObject(object);
        } else if (error) {
            *error = makeError(u"error"_s, u"xpath evaluation failed"_s, messages.join(u"; "_s));
        }
        xmlXPathFreeContext(context);
    } else if (error) {
        *error = makeError(u"error"_s, u"xpath context failed"_s);
    }

    if (tempDoc) {
        xmlUnlinkNode(topNode);
        xmlSetTreeDoc(topNode, nullptr);
        xmlFreeDoc(tempDoc);
    }
    return result;
}

// ---- identity, copying, description ----

bool GDataXMLNode::isEqual(const GDataXMLNode *other) const
{
    return other && m_node == other->m_node;
}

std::size_t GDataXMLNode::hash() const
{
    return std::hash<const void *>()(m_node);
}

xmlNodePtr GDataXMLNode::XMLNodeCopy() const
{
    if (!m_node)
        return nullptr;
    switch (m_node->type) {
    case XML_NAMESPACE_DECL: {
        auto *ns = reinterpret_cast<xmlNsPtr>(m_node);
        return reinterpret_cast<xmlNodePtr>(xmlNewNs(nullptr, ns->href, ns->prefix));
    }
    case XML_ATTRIBUTE_NODE:
        return copyAttributeDetached(reinterpret_cast<xmlAttrPtr>(m_node));
    case XML_DOCUMENT_NODE:
    case XML_HTML_DOCUMENT_NODE:
        return reinterpret_cast<xmlNodePtr>(xmlCopyDoc(reinterpret_cast<xmlDocPtr>(m_node), 1));
    case XML_DTD_NODE:
        return reinterpret_cast<xmlNodePtr>(xmlCopyDtd(reinterpret_cast<xmlDtdPtr>(m_node)));
    default:
        // No target document: names are duplicated, not taken from the source's dictionary,
        // and namespaces used from outside the node are declared on the copy.
        return xmlDocCopyNode(m_node, nullptr, 1);
    }
}

std::shared_ptr<GDataXMLNode> GDataXMLNode::copy() const
{
    return wrapNode(XMLNodeCopy(), true, nullptr);
}

QString GDataXMLNode::description() const
{
    const QString className = isElementNode() ? u"GDataXMLElement"_s : u"GDataXMLNode"_s;
    return u"%1 0x%2: {type:%3 name:%4 xml:\"%5\"}"_s.arg(className)
        .arg(quintptr(this), 0, 16)
        .arg(kind())
        .arg(name(), XMLString());
}

// ---- namespace repair after grafting ----

void GDataXMLNode::fixUpNamespacesForNode(xmlNodePtr nodeToFix, xmlNodePtr graftPointNode)
{
    if (!nodeToFix)
        return;
    fixQualifiedNamesForNode(nodeToFix, graftPointNode);
    if (nodeToFix->type == XML_ELEMENT_NODE)
        removeRedundantNamespacesForNode(nodeToFix);
}

void GDataXMLNode::fixQualifiedNamesForNode(xmlNodePtr nodeToFix, xmlNodePtr graftPointNode)
{
    if (!nodeToFix)
        return;
    Q_UNUSED(graftPointNode); // the node is already in the tree: its own scope includes the graft point
    if (nodeToFix->type == XML_ATTRIBUTE_NODE) {
        fixQualifiedNameOfNode(nodeToFix);
        return;
    }
    if (nodeToFix->type != XML_ELEMENT_NODE)
        return;
    fixQualifiedNameOfNode(nodeToFix);
    for (xmlAttrPtr attribute = nodeToFix->properties; attribute; attribute = attribute->next)
        fixQualifiedNameOfNode(reinterpret_cast<xmlNodePtr>(attribute));
    for (xmlNodePtr child = nodeToFix->children; child; child = child->next) {
        if (child->type == XML_ELEMENT_NODE)
            fixQualifiedNamesForNode(child, nodeToFix);
    }
}

void GDataXMLNode::fixQualifiedNameOfNode(xmlNodePtr node)
{
    const bool isAttribute = node->type == XML_ATTRIBUTE_NODE;
    xmlNodePtr scope = isAttribute ? node->parent : node;
    if (!scope || scope->type != XML_ELEMENT_NODE || !node->name)
        return;
    const QByteArray rawName = bytesOf(node->name);
    QByteArray uri;
    QByteArray rest;
    if (splitBracedName(rawName, &uri, &rest)) {
        QByteArray wantedPrefix;
        QByteArray local = rest;
        const qsizetype colon = rest.indexOf(':');
        if (colon > 0) {
            wantedPrefix = rest.left(colon);
            local = rest.mid(colon + 1);
        }
        xmlNsPtr ns = nullptr;
        if (isXMLNamespace(uri)) {
            ns = xmlSearchNs(node->doc, scope, reinterpret_cast<const xmlChar *>("xml"));
        } else if (!uri.isEmpty()) {
            if (!wantedPrefix.isEmpty()) {
                ns = findNamespaceInScope(scope, xmlChars(wantedPrefix));
                if (ns && !xmlStrEqual(ns->href, xmlChars(uri)))
                    ns = nullptr;
            }
            // A default namespace never applies to attributes.
            if (!ns)
                ns = findNamespaceByHref(scope, xmlChars(uri), isAttribute);
            if (!ns) {
                const QByteArray prefix = unusedPrefix(scope, wantedPrefix);
                ns = xmlNewNs(scope, xmlChars(uri), xmlChars(prefix));
            }
        }
        node->ns = ns;
        xmlNodeSetName(node, xmlChars(local));
        return;
    }
    if (node->ns)
        return;
    const qsizetype colon = rawName.indexOf(':');
    if (colon <= 0)
        return;
    const QByteArray prefix = rawName.left(colon);
    xmlNsPtr ns = prefix == "xml" ? xmlSearchNs(node->doc, scope, reinterpret_cast<const xmlChar *>("xml"))
                                  : findNamespaceInScope(scope, xmlChars(prefix));
    if (!ns)
        return;
    node->ns = ns;
    xmlNodeSetName(node, xmlChars(rawName.mid(colon + 1)));
}

void GDataXMLNode::removeRedundantNamespacesForNode(xmlNodePtr node)
{
    if (!node || node->type != XML_ELEMENT_NODE)
        return;
    xmlNsPtr *link = &node->nsDef;
    while (*link) {
        xmlNsPtr ns = *link;
        xmlNsPtr outer = node->parent ? findNamespaceInScope(node->parent, ns->prefix) : nullptr;
        if (outer && outer != ns && xmlStrEqual(outer->href, ns->href)) {
            *link = ns->next;
            ns->next = nullptr;
            replaceNamespaceReferences(node, ns, outer);
            xmlFreeNs(ns);
        } else {
            link = &ns->next;
        }
    }
    for (xmlNodePtr child = node->children; child; child = child->next)
        removeRedundantNamespacesForNode(child);
}

void GDataXMLNode::replaceNamespaceReferences(xmlNodePtr subtree, xmlNsPtr oldNamespace,
                                              xmlNsPtr newNamespace)
{
    if (!subtree || subtree->type != XML_ELEMENT_NODE)
        return;
    if (subtree->ns == oldNamespace)
        subtree->ns = newNamespace;
    for (xmlAttrPtr attribute = subtree->properties; attribute; attribute = attribute->next) {
        if (attribute->ns == oldNamespace)
            attribute->ns = newNamespace;
    }
    for (xmlNodePtr child = subtree->children; child; child = child->next)
        replaceNamespaceReferences(child, oldNamespace, newNamespace);
}
