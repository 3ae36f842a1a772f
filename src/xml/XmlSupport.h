#pragma once
// Internal helpers of the XML layer: parsing, freeing, name splitting, namespace lookup without
// side effects, and the per-document string cache. Not for use outside src/xml.

#include "util/FvError.h"

#include <QByteArray>
#include <QHash>
#include <QMutex>
#include <QString>
#include <libxml/tree.h>

namespace fvxml {

// The string cache attached to a document's private slot. The magic and the back pointer let a
// wrapper tell the cache apart from anything else a foreign document may keep in that slot.
struct StringCache
{
    static constexpr quint64 kMagic = 0x4744584d4c534331ULL;
    quint64 magic = kMagic;
    xmlDocPtr doc = nullptr;
    QMutex mutex;
    QHash<QByteArray, QString> strings;
};

// The cache of doc, or nullptr when doc has none.
StringCache *stringCacheForDoc(xmlDocPtr doc);

// Makes libxml2 ready for use from several threads (once per process).
void ensureLibxmlInitialised();

// Parses bytes with the layer's fixed options; nullptr and *error (code -1) on failure.
xmlDocPtr parseXMLBytes(const QByteArray &data, FvError *error);

FvError makeError(const QString &key, const QString &value, const QString &description = {});

// Frees a free-standing node of any kind (namespaces, attributes and documents included).
void freeXMLNode(xmlNodePtr node);

inline const xmlChar *xmlChars(const QByteArray &bytes)
{
    return reinterpret_cast<const xmlChar *>(bytes.constData());
}
inline const char *charsOf(const xmlChar *chars)
{
    return reinterpret_cast<const char *>(chars);
}
inline QByteArray bytesOf(const xmlChar *chars)
{
    return chars ? QByteArray(charsOf(chars)) : QByteArray();
}

// Names of element and attribute nodes, by the same rules as the wrappers' accessors:
// "{URI}prefix:local" (a factory's name not yet grafted), "prefix:local" without a bound
// namespace, or a plain local name with node->ns.
struct NameParts
{
    QByteArray uri;
    QByteArray prefix;
    QByteArray local;
    bool hasURI = false;
};
NameParts nameParts(xmlNodePtr node);
QByteArray qualifiedNameOf(xmlNodePtr node);
// Splits "{URI}rest"; false when name has no such form.
bool splitBracedName(const QByteArray &name, QByteArray *uri, QByteArray *rest);

// The declaration of prefix (nullptr: the default namespace) in scope at node, without the side
// effects of libxml2's search (which may add declarations for the "xml" prefix).
xmlNsPtr findNamespaceInScope(xmlNodePtr node, const xmlChar *prefix);
// A declaration of href in scope at node that is not shadowed; with needPrefix, only prefixed ones.
xmlNsPtr findNamespaceByHref(xmlNodePtr node, const xmlChar *href, bool needPrefix);

// A prefix bound nowhere in scope at node: wanted when possible, else "ns0", "ns1", ...
QByteArray unusedPrefix(xmlNodePtr node, const QByteArray &wanted);

} // namespace fvxml
