#include "util/Log.h"
#include "xml/GDataXMLNode.h"
#include "xml/XmlSupport.h"

#include <new>

using namespace Qt::StringLiterals;
using namespace fvxml;

GDataXMLDocument::GDataXMLDocument(xmlDocPtr doc) : m_doc(doc)
{
    addStringsCacheToDoc(m_doc);
}

GDataXMLDocument::~GDataXMLDocument()
{
    if (m_doc) {
        releaseStringsCacheForDoc(m_doc);
        xmlFreeDoc(m_doc);
    }
}

void GDataXMLDocument::addStringsCacheToDoc(xmlDocPtr doc)
{
    if (!doc)
        return;
    if (doc->_private) {
        FV_LOG(u"GDataXMLDocument cache creation problem"_s);
        return;
    }
    auto *cache = new (std::nothrow) StringCache;
    if (!cache) {
        FV_LOG(u"GDataXMLDocument cache creation problem"_s);
        return;
    }
    cache->doc = doc;
    doc->_private = cache;
}

void GDataXMLDocument::releaseStringsCacheForDoc(xmlDocPtr doc)
{
    if (StringCache *cache = stringCacheForDoc(doc)) {
        doc->_private = nullptr;
        delete cache;
    }
}

std::shared_ptr<GDataXMLDocument> GDataXMLDocument::initWithData(const QByteArray &data, int options,
                                                                 FvError *error)
{
    Q_UNUSED(options);
    xmlDocPtr doc = parseXMLBytes(data, error);
    if (!doc)
        return nullptr;
    return std::shared_ptr<GDataXMLDocument>(new GDataXMLDocument(doc));
}

std::shared_ptr<GDataXMLDocument> GDataXMLDocument::initWithXMLString(const QString &str, int options,
                                                                      FvError *error)
{
    return initWithData(str.toUtf8(), options, error);
}

std::shared_ptr<GDataXMLDocument>
GDataXMLDocument::initWithRootElement(const std::shared_ptr<GDataXMLElement> &root)
{
    ensureLibxmlInitialised();
    xmlDocPtr doc = xmlNewDoc(reinterpret_cast<const xmlChar *>("1.0"));
    if (!doc)
        return nullptr;
    if (root) {
        if (xmlNodePtr copy = root->XMLNodeCopy()) {
            xmlDocSetRootElement(doc, copy);
            GDataXMLNode::fixUpNamespacesForNode(copy, copy);
        }
    }
    return std::shared_ptr<GDataXMLDocument>(new GDataXMLDocument(doc));
}

std::shared_ptr<GDataXMLElement> GDataXMLDocument::rootElement() const
{
    xmlNodePtr root = m_doc ? xmlDocGetRootElement(m_doc) : nullptr;
    if (!root)
        return nullptr;
    return std::static_pointer_cast<GDataXMLElement>(
        GDataXMLNode::wrapNode(root, false, weak_from_this().lock()));
}

QByteArray GDataXMLDocument::XMLData() const
{
    if (!m_doc)
        return {};
    xmlChar *buffer = nullptr;
    int size = 0;
    xmlDocDumpMemory(m_doc, &buffer, &size);
    if (!buffer) {
        FV_LOG(u"Cannot serialise the document (encoding %1)"_s.arg(
            m_doc->encoding ? QString::fromUtf8(charsOf(m_doc->encoding)) : u"UTF-8"_s));
        return {};
    }
    QByteArray data(charsOf(buffer), size);
    xmlFree(buffer);
    return data;
}

void GDataXMLDocument::setVersion(const QString &version)
{
    if (!m_doc)
        return;
    if (m_doc->version)
        xmlFree(const_cast<xmlChar *>(m_doc->version));
    m_doc->version = version.isNull() ? nullptr : xmlStrdup(xmlChars(version.toUtf8()));
}

void GDataXMLDocument::setCharacterEncoding(const QString &encoding)
{
    if (!m_doc)
        return;
    if (m_doc->encoding)
        xmlFree(const_cast<xmlChar *>(m_doc->encoding));
    m_doc->encoding = encoding.isNull() ? nullptr : xmlStrdup(xmlChars(encoding.toUtf8()));
}

QList<std::shared_ptr<GDataXMLNode>> GDataXMLDocument::nodesForXPath(const QString &xpath,
                                                                     FvError *error) const
{
    return nodesForXPath(xpath, {}, error);
}

QList<std::shared_ptr<GDataXMLNode>>
GDataXMLDocument::nodesForXPath(const QString &xpath, const QHash<QString, QString> &namespaces,
                                FvError *error) const
{
    // Evaluate from the document node; the results keep this document alive.
    auto documentNode =
        GDataXMLNode::wrapNode(reinterpret_cast<xmlNodePtr>(m_doc), false, weak_from_this().lock());
    if (!documentNode) {
        if (error)
            *error = makeError(u"error"_s, u"invalid node"_s);
        return {};
    }
    return documentNode->nodesForXPath(xpath, namespaces, error);
}

QString GDataXMLDocument::description() const
{
    const auto root = rootElement();
    return u"GDataXMLDocument 0x%1: {root:%2}"_s.arg(quintptr(this), 0, 16)
        .arg(root ? root->description() : u"(none)"_s);
}
