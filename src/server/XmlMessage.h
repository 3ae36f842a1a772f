#pragma once
// The small XML documents of the command endpoint: reading a command ("<XML><CMD ...>...</CMD></XML>")
// into a tree, and writing a reply tree with every value escaped. Pure functions; any thread.

#include <QByteArray>
#include <QList>
#include <QPair>
#include <QString>
#include <optional>

struct XmlElement
{
    QString name;
    QList<QPair<QString, QString>> attributes;
    QString text; // the element's own text, children's text excluded
    QList<XmlElement> children;

    XmlElement() = default;
    explicit XmlElement(QString elementName) : name(std::move(elementName)) {}
    QString attribute(const QString &attributeName) const;
    XmlElement &set(const QString &attributeName, const QString &value);
    XmlElement &set(const QString &attributeName, qint64 value);
    XmlElement &add(XmlElement child);
};

namespace XmlMessage {
constexpr int kMaxDepth = 32;
constexpr int kMaxElements = 200000;

// The one element inside the root "XML". Nothing on malformed XML, another root, or no command.
std::optional<XmlElement> parseCommand(const QByteArray &body, QString *error);
// "<?xml ...?>" followed by the root element.
QByteArray serialize(const XmlElement &root);
// Drops characters XML 1.0 cannot carry.
QString sanitized(const QString &text);
} // namespace XmlMessage
