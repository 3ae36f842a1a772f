#include "FuzzXml.h"

#include <QByteArray>
#include <QSet>
#include <cstdio>
#include <cstdlib>

namespace FuzzXml {

std::shared_ptr<GDataXMLDocument> parse(const uint8_t *data, size_t size)
{
    const QByteArray bytes = QByteArray::fromRawData(reinterpret_cast<const char *>(data), qsizetype(size));
    FvError error;
    std::shared_ptr<GDataXMLDocument> document = GDataXMLDocument::initWithData(bytes, 0, &error);
    if (!document && (error.code != -1 || error.domain != GDataXMLErrorDomain())) {
        std::fprintf(stderr, "parse failed without the layer's error: %s\n", qPrintable(error.toString()));
        std::abort();
    }
    return document;
}

void walk(const std::shared_ptr<GDataXMLNode> &node)
{
    if (!node)
        return;
    (void)node->name();
    (void)node->localName();
    (void)node->URI();
    (void)node->stringValue();
    const auto element = std::dynamic_pointer_cast<GDataXMLElement>(node);
    if (element) {
        for (const auto &attribute : element->attributes()) {
            (void)attribute->stringValue();
            const auto again = element->attributeForName(attribute->name());
            if (!again) {
                std::fprintf(stderr, "attribute %s not found by its name\n", qPrintable(attribute->name()));
                std::abort();
            }
        }
    }
    const auto children = node->children();
    if (children.size() != node->childCount())
        std::abort();
    // elementsForName goes through all children, and its answer depends only on the name: asked
    // once per distinct name, not once per child (a wide element made this quadratic).
    QSet<QString> namesFound;
    for (const auto &child : children) {
        // Only plain names are required to find their element: a "prefix:local" name is looked up
        // by its namespace, which a malformed one ("v:", "v:1a") does not have.
        const QString name = child->name();
        if (element && child->kind() == GDataXMLElementKind && !name.contains(u':') &&
            !namesFound.contains(name)) {
            if (element->elementsForName(name).isEmpty()) {
                std::fprintf(stderr, "child %s not found by its name\n", qPrintable(name));
                std::abort();
            }
            namesFound.insert(name);
        }
        walk(child);
    }
}

} // namespace FuzzXml
