#include "xml/XmlSupport.h"

#include "util/Log.h"
#include "xml/GDataXMLNode.h"

#include <climits>
#include <libxml/parser.h>
#include <libxml/xmlerror.h>
#include <mutex>

using namespace Qt::StringLiterals;

QString GDataXMLErrorDomain()
{
    return u"com.velmora.GDataXML"_s;
}

namespace fvxml {

namespace {

// Parse errors are kept in the parser context; this handler only stops libxml2 from printing them.
void quietStructuredError(void *, xmlErrorPtr) {}

QString errorText(const xmlError &error)
{
    if (!error.message)
        return {};
    QString text = QString::fromUtf8(error.message).trimmed();
    if (error.line > 0)
        text += u" (line %1)"_s.arg(error.line);
    return text;
}

} // namespace

StringCache *stringCacheForDoc(xmlDocPtr doc)
{
    if (!doc || !doc->_private)
        return nullptr;
    auto *cache = static_cast<StringCache *>(doc->_private);
    if (cache->magic != StringCache::kMagic || cache->doc != doc)
        return nullptr;
    return cache;
}

void ensureLibxmlInitialised()
{
    static std::once_flag once;
    std::call_once(once, [] { xmlInitParser(); });
}

FvError makeError(const QString &key, const QString &value, const QString &description)
{
    QVariantMap info;
    if (!key.isEmpty())
        info.insert(key, value);
    if (!description.isEmpty())
        info.insert(u"NSLocalizedDescription"_s, description);
    return FvError(GDataXMLErrorDomain(), -1, info);
}

xmlDocPtr parseXMLBytes(const QByteArray &data, FvError *error)
{
    ensureLibxmlInitialised();
    if (data.size() > INT_MAX) {
        if (error)
            *error = makeError({}, {}, u"document too large"_s);
        return nullptr;
    }
    xmlParserCtxtPtr ctxt = xmlNewParserCtxt();
    if (!ctxt) {
        if (error)
            *error = makeError({}, {}, u"cannot create parser"_s);
        return nullptr;
    }
    if (ctxt->sax)
        ctxt->sax->serror = quietStructuredError;
    // Errors raised without the context (a failed encoding conversion) go to the thread's handler,
    // which prints them on stderr; quiet for the parse, the thread's own handler restored after.
    const xmlStructuredErrorFunc threadHandler = xmlStructuredError;
    void *const threadHandlerData = xmlStructuredErrorContext;
    xmlSetStructuredErrorFunc(nullptr, quietStructuredError);
    xmlDocPtr doc = xmlCtxtReadMemory(ctxt, data.constData(), static_cast<int>(data.size()), nullptr, nullptr,
                                      kGDataXMLParseOptions);
    xmlSetStructuredErrorFunc(threadHandlerData, threadHandler);
    // Recoverable errors still produce a document; only well-formed input is accepted.
    if (doc && !ctxt->wellFormed) {
        xmlFreeDoc(doc);
        doc = nullptr;
    }
    if (!doc && error) {
        QString message = errorText(ctxt->lastError);
        if (message.isEmpty())
            message = u"document is not well-formed"_s;
        *error = makeError({}, {}, message);
    }
    xmlFreeParserCtxt(ctxt);
    // libxml2 also keeps a copy of the last error in per-thread state, holding its strings until
    // the thread's next error. Ours came from the context; drop that copy.
    xmlResetLastError();
    return doc;
}

void freeXMLNode(xmlNodePtr node)
{
    if (!node)
        return;
    switch (node->type) {
    case XML_NAMESPACE_DECL:
        xmlFreeNs(reinterpret_cast<xmlNsPtr>(node));
        break;
    case XML_DOCUMENT_NODE:
    case XML_HTML_DOCUMENT_NODE:
        xmlFreeDoc(reinterpret_cast<xmlDocPtr>(node));
        break;
    case XML_ATTRIBUTE_NODE:
        xmlUnlinkNode(node);
        xmlFreeProp(reinterpret_cast<xmlAttrPtr>(node));
        break;
    default:
        xmlUnlinkNode(node);
        xmlFreeNode(node);
        break;
    }
}

bool splitBracedName(const QByteArray &name, QByteArray *uri, QByteArray *rest)
{
    if (!name.startsWith('{'))
        return false;
    const qsizetype close = name.indexOf('}');
    if (close < 0)
        return false;
    if (uri)
        *uri = name.mid(1, close - 1);
    if (rest)
        *rest = name.mid(close + 1);
    return true;
}

NameParts nameParts(xmlNodePtr node)
{
    NameParts parts;
    if (!node || !node->name)
        return parts;
    const QByteArray raw(charsOf(node->name));
    if (node->type != XML_ELEMENT_NODE && node->type != XML_ATTRIBUTE_NODE) {
        parts.local = raw;
        return parts;
    }
    QByteArray rest = raw;
    QByteArray uri;
    if (splitBracedName(raw, &uri, &rest)) {
        parts.uri = uri;
        parts.hasURI = true;
    } else if (node->ns) {
        parts.uri = bytesOf(node->ns->href);
        parts.hasURI = true;
        parts.prefix = bytesOf(node->ns->prefix);
        parts.local = raw;
        return parts;
    }
    const qsizetype colon = rest.indexOf(':');
    if (colon > 0) {
        parts.prefix = rest.left(colon);
        parts.local = rest.mid(colon + 1);
    } else {
        parts.local = rest;
    }
    return parts;
}

QByteArray qualifiedNameOf(xmlNodePtr node)
{
    if (!node || !node->name)
        return {};
    if ((node->type == XML_ELEMENT_NODE || node->type == XML_ATTRIBUTE_NODE) && node->ns && node->ns->prefix)
        return bytesOf(node->ns->prefix) + ':' + bytesOf(node->name);
    return bytesOf(node->name);
}

xmlNsPtr findNamespaceInScope(xmlNodePtr node, const xmlChar *prefix)
{
    for (xmlNodePtr current = node; current; current = current->parent) {
        if (current->type != XML_ELEMENT_NODE)
            continue;
        for (xmlNsPtr ns = current->nsDef; ns; ns = ns->next) {
            if (xmlStrEqual(ns->prefix, prefix))
                return ns;
        }
    }
    return nullptr;
}

xmlNsPtr findNamespaceByHref(xmlNodePtr node, const xmlChar *href, bool needPrefix)
{
    if (!href)
        return nullptr;
    for (xmlNodePtr current = node; current; current = current->parent) {
        if (current->type != XML_ELEMENT_NODE)
            continue;
        for (xmlNsPtr ns = current->nsDef; ns; ns = ns->next) {
            if (!xmlStrEqual(ns->href, href) || (needPrefix && !ns->prefix))
                continue;
            // A nearer declaration of the same prefix hides this one.
            if (findNamespaceInScope(node, ns->prefix) == ns)
                return ns;
        }
    }
    return nullptr;
}

QByteArray unusedPrefix(xmlNodePtr node, const QByteArray &wanted)
{
    if (!wanted.isEmpty() && wanted != "xml" && wanted != "xmlns" &&
        !findNamespaceInScope(node, xmlChars(wanted)))
        return wanted;
    for (int i = 0;; ++i) {
        const QByteArray candidate = "ns" + QByteArray::number(i);
        if (!findNamespaceInScope(node, xmlChars(candidate)))
            return candidate;
    }
}

} // namespace fvxml
