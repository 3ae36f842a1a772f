#pragma once
// Reading the replies of the catalogue's commands (PUT, RENAME, DEL, MOVE, SERVERTIME, INFO): the
// pure step between a parsed reply and what the catalogue does with it, apart from the senders so
// that it can be exercised alone. Any thread; a null document reads as a reply with nothing in it.

#include <QList>
#include <QString>
#include <QStringList>
#include <memory>
#include <optional>

class GDataXMLDocument;
class GDataXMLElement;

namespace CommandReplies {

// The first child element named `name` of `parent` (nullptr when there is none).
std::shared_ptr<GDataXMLElement> firstElement(const std::shared_ptr<GDataXMLElement> &parent,
                                              const QString &name);
// The element children of the root's first element named after the command, in document order.
QList<std::shared_ptr<GDataXMLElement>> items(const std::shared_ptr<GDataXMLDocument> &document,
                                              const QString &command);
// An attribute's text; a null string when the attribute is absent.
QString attribute(const std::shared_ptr<GDataXMLElement> &element, const QString &name);
// The result code an item carries as its text (RENAME, DEL, PUT); 0 when it is not a number.
int itemCode(const std::shared_ptr<GDataXMLElement> &element);

// PUT: the first item whose code is neither 1 nor -1 is a refusal and ends the reading; otherwise
// the last item names the new key and parent key.
struct PutReply
{
    std::optional<int> refusal;
    bool named = false;
    QString key;
    QString pkey;
};
PutReply readPut(const std::shared_ptr<GDataXMLDocument> &document);

// SERVERTIME: the "ID" of the root's first SERVERTIME element (null when absent).
QString readServerTime(const std::shared_ptr<GDataXMLDocument> &document);

// INFO: the first child element of the root's first INFO element, as its NAME, PATH, TIME, SIZE,
// MEMO, PRIV, TAG, DESC, OWNER (null strings where absent); empty when there is no such element.
QStringList readInfo(const std::shared_ptr<GDataXMLDocument> &document);

} // namespace CommandReplies
