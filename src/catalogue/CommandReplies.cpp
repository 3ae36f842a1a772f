#include "catalogue/CommandReplies.h"

#include "xml/GDataXMLNode.h"

namespace CommandReplies {

std::shared_ptr<GDataXMLElement> firstElement(const std::shared_ptr<GDataXMLElement> &parent,
                                              const QString &name)
{
    if (!parent)
        return nullptr;
    const QList<std::shared_ptr<GDataXMLElement>> found = parent->elementsForName(name);
    return found.isEmpty() ? nullptr : found.first();
}

QList<std::shared_ptr<GDataXMLElement>> items(const std::shared_ptr<GDataXMLDocument> &document,
                                              const QString &command)
{
    QList<std::shared_ptr<GDataXMLElement>> items;
    const auto found = firstElement(document ? document->rootElement() : nullptr, command);
    if (!found)
        return items;
    for (const auto &child : found->children()) {
        if (child->kind() != GDataXMLElementKind)
            continue;
        if (auto element = std::dynamic_pointer_cast<GDataXMLElement>(child))
            items.append(element);
    }
    return items;
}

QString attribute(const std::shared_ptr<GDataXMLElement> &element, const QString &name)
{
    const auto node = element ? element->attributeForName(name) : nullptr;
    return node ? node->stringValue() : QString();
}

int itemCode(const std::shared_ptr<GDataXMLElement> &element)
{
    return element ? element->stringValue().trimmed().toInt() : 0;
}

PutReply readPut(const std::shared_ptr<GDataXMLDocument> &document)
{
    PutReply reply;
    for (const auto &item : items(document, QStringLiteral("PUT"))) {
        const int code = itemCode(item);
        if (code != 1 && code != -1) {
            reply.refusal = code;
            return reply;
        }
        reply.named = true;
        reply.key = attribute(item, QStringLiteral("KEY"));
        reply.pkey = attribute(item, QStringLiteral("PKEY"));
    }
    return reply;
}

QString readServerTime(const std::shared_ptr<GDataXMLDocument> &document)
{
    const auto element =
        firstElement(document ? document->rootElement() : nullptr, QStringLiteral("SERVERTIME"));
    return attribute(element, QStringLiteral("ID"));
}

QStringList readInfo(const std::shared_ptr<GDataXMLDocument> &document)
{
    QStringList fields;
    fields.reserve(14);
    const auto info = firstElement(document ? document->rootElement() : nullptr, QStringLiteral("INFO"));
    std::shared_ptr<GDataXMLElement> item;
    if (info) {
        for (const auto &child : info->children()) {
            if (child->kind() == GDataXMLElementKind) {
                item = std::dynamic_pointer_cast<GDataXMLElement>(child);
                break;
            }
        }
    }
    if (!item)
        return fields;
    for (const char *name : {"NAME", "PATH", "TIME", "SIZE", "MEMO", "PRIV", "TAG", "DESC", "OWNER"})
        fields.append(attribute(item, QString::fromLatin1(name)));
    return fields;
}

} // namespace CommandReplies
