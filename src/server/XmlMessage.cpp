#include "server/XmlMessage.h"

#include <QXmlStreamReader>
#include <QXmlStreamWriter>

QString XmlElement::attribute(const QString &attributeName) const
{
    for (const auto &pair : attributes) {
        if (pair.first == attributeName)
            return pair.second;
    }
    return {};
}

XmlElement &XmlElement::set(const QString &attributeName, const QString &value)
{
    attributes.append({attributeName, value});
    return *this;
}

XmlElement &XmlElement::set(const QString &attributeName, qint64 value)
{
    return set(attributeName, QString::number(value));
}

XmlElement &XmlElement::add(XmlElement child)
{
    children.append(std::move(child));
    return *this;
}

namespace XmlMessage {

std::optional<XmlElement> parseCommand(const QByteArray &body, QString *error)
{
    QXmlStreamReader reader(body);
    QList<XmlElement> stack;
    std::optional<XmlElement> root;
    int elements = 0;
    while (!reader.atEnd()) {
        const auto token = reader.readNext();
        if (token == QXmlStreamReader::StartElement) {
            if (root || stack.size() >= kMaxDepth || ++elements > kMaxElements) {
                if (error)
                    *error = root ? QStringLiteral("content after the root element")
                                  : QStringLiteral("document too deep or too large");
                return std::nullopt;
            }
            XmlElement element(reader.name().toString());
            for (const QXmlStreamAttribute &attr : reader.attributes())
                element.attributes.append({attr.qualifiedName().toString(), attr.value().toString()});
            stack.append(std::move(element));
        } else if (token == QXmlStreamReader::EndElement) {
            XmlElement done = stack.takeLast();
            if (stack.isEmpty())
                root = std::move(done);
            else
                stack.last().children.append(std::move(done));
        } else if (token == QXmlStreamReader::Characters && !stack.isEmpty()) {
            stack.last().text += reader.text();
        }
    }
    if (reader.hasError() || !root) {
        if (error)
            *error = reader.hasError() ? reader.errorString() : QStringLiteral("empty document");
        return std::nullopt;
    }
    if (root->name != u"XML" || root->children.isEmpty()) {
        if (error)
            *error = QStringLiteral("not a command document");
        return std::nullopt;
    }
    return root->children.first();
}

QString sanitized(const QString &text)
{
    QString out;
    out.reserve(text.size());
    for (qsizetype i = 0; i < text.size(); ++i) {
        const QChar c = text[i];
        if (c.isHighSurrogate() && i + 1 < text.size() && text[i + 1].isLowSurrogate()) {
            out += c;
            out += text[++i];
            continue;
        }
        const char16_t u = c.unicode();
        const bool allowed =
            u == 0x9 || u == 0xA || u == 0xD || (u >= 0x20 && u < 0xD800) || (u >= 0xE000 && u < 0xFFFE);
        if (allowed)
            out += c;
    }
    return out;
}

namespace {
void write(QXmlStreamWriter &writer, const XmlElement &element)
{
    writer.writeStartElement(element.name);
    for (const auto &pair : element.attributes)
        writer.writeAttribute(pair.first, sanitized(pair.second));
    if (!element.text.isEmpty())
        writer.writeCharacters(sanitized(element.text));
    for (const XmlElement &child : element.children)
        write(writer, child);
    writer.writeEndElement();
}
} // namespace

QByteArray serialize(const XmlElement &root)
{
    QByteArray out;
    QXmlStreamWriter writer(&out);
    writer.writeStartDocument();
    write(writer, root);
    writer.writeEndDocument();
    return out;
}

} // namespace XmlMessage
