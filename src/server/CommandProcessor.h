#pragma once
// Answers the XML commands of the endpoint "cgi-bin/cloudXml.cgi" from the store: LOGIN, QUOTA,
// THUMBNAIL, LIST (top level and one folder), SYNCLIST, WORKLIST, PUT, RENAME, DEL, MOVE, SERVERTIME
// and INFO. A command whose session is unknown is answered with the bare text "-3", which is what
// clients take as a signal to sign in again. Stateless beyond the store; any thread.

#include "server/XmlMessage.h"

#include <QByteArray>
#include <QString>

class ServerClock;
class ServerStore;
struct SessionInfo;

struct CommandReply
{
    int status = 200;
    QByteArray contentType = "text/xml; charset=utf-8";
    QByteArray body;
};

class CommandProcessor
{
public:
    static constexpr int kWorkListLimit = 1000;

    CommandProcessor(ServerStore &store, const ServerClock &clock);

    // The command's name from the body, for logging and fault matching ("" when unreadable).
    static QString commandName(const QByteArray &body);
    CommandReply process(const QByteArray &body);

private:
    CommandReply login(const XmlElement &command);
    XmlElement quota(const SessionInfo &session);
    XmlElement thumbnail(const XmlElement &command, const SessionInfo &session, const QString &token);
    XmlElement list(const XmlElement &command, const SessionInfo &session);
    XmlElement syncList(const SessionInfo &session);
    XmlElement workList(const XmlElement &command, const SessionInfo &session);
    XmlElement put(const XmlElement &command, const SessionInfo &session);
    XmlElement rename(const XmlElement &command, const SessionInfo &session);
    XmlElement remove(const XmlElement &command, const SessionInfo &session);
    XmlElement move(const XmlElement &command, const SessionInfo &session);
    XmlElement serverTime();
    XmlElement info(const XmlElement &command, const SessionInfo &session);
    XmlElement folderListing(const QString &elementName, const QString &user, qint64 folderKey);

    static CommandReply xml(const XmlElement &element);
    static CommandReply error(int status, const QString &message);

    ServerStore &m_store;
    const ServerClock &m_clock;
};
