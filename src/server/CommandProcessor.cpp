#include "server/CommandProcessor.h"

#include "server/ServerClock.h"
#include "server/ServerStore.h"
#include "util/Log.h"

namespace {

qint64 keyFrom(const QString &text)
{
    bool ok = false;
    const qint64 key = text.trimmed().toLongLong(&ok);
    return ok && key > 0 ? key : 0;
}

const XmlElement *firstChild(const XmlElement &element, const QString &name)
{
    for (const XmlElement &child : element.children) {
        if (child.name == name)
            return &child;
    }
    return nullptr;
}

// The computer a change is made from: the command's own PCNAME, else the signed-in one.
QString pcNameOf(const XmlElement &command, const SessionInfo &session)
{
    const QString named = command.attribute(QStringLiteral("PCNAME"));
    return named.isEmpty() ? session.pcName : named;
}

// One answer line of RENAME or DEL: the key as sent and the outcome.
XmlElement keyResult(const XmlElement &item, int code)
{
    XmlElement result(QStringLiteral("KEY"));
    result.set(QStringLiteral("KEY"), item.text.trimmed());
    result.text = QString::number(code);
    return result;
}

XmlElement folderElement(const StoredItem &it)
{
    XmlElement dir(QStringLiteral("DIR"));
    dir.set(QStringLiteral("NAME"), it.name)
        .set(QStringLiteral("TIME"), it.time)
        .set(QStringLiteral("SIZE"), qint64(-1))
        .set(QStringLiteral("KEY"), it.key)
        .set(QStringLiteral("PKEY"), it.parentKey)
        .set(QStringLiteral("MEMO"), it.memo)
        .set(QStringLiteral("PRIV"), it.priv)
        .set(QStringLiteral("KIND"), it.kind)
        .set(QStringLiteral("SYNC"), it.sync ? QStringLiteral("1") : QStringLiteral("0"));
    return dir;
}

XmlElement fileElement(const StoredItem &it, bool inSync)
{
    XmlElement file(QStringLiteral("FILE"));
    file.set(QStringLiteral("NAME"), it.name)
        .set(QStringLiteral("MD5"), it.md5)
        .set(QStringLiteral("TIME"), it.time)
        .set(QStringLiteral("SIZE"), it.size)
        .set(QStringLiteral("KEY"), it.key)
        .set(QStringLiteral("PKEY"), it.parentKey)
        .set(QStringLiteral("MEMO"), it.memo)
        .set(QStringLiteral("PRIV"), it.priv)
        .set(QStringLiteral("sync"), inSync ? QStringLiteral("1") : QStringLiteral("0"));
    return file;
}

} // namespace

CommandProcessor::CommandProcessor(ServerStore &store, const ServerClock &clock)
    : m_store(store), m_clock(clock)
{}

QString CommandProcessor::commandName(const QByteArray &body)
{
    const auto command = XmlMessage::parseCommand(body, nullptr);
    return command ? command->name : QString();
}

CommandReply CommandProcessor::xml(const XmlElement &element)
{
    XmlElement root(QStringLiteral("XML"));
    root.add(element);
    CommandReply reply;
    reply.body = XmlMessage::serialize(root);
    return reply;
}

CommandReply CommandProcessor::error(int status, const QString &message)
{
    XmlElement root(QStringLiteral("XML"));
    XmlElement err(QStringLiteral("ERROR"));
    err.set(QStringLiteral("RESULT"), qint64(ResultCode::BadItem)).set(QStringLiteral("MESSAGE"), message);
    root.add(err);
    CommandReply reply;
    reply.status = status;
    reply.body = XmlMessage::serialize(root);
    return reply;
}

CommandReply CommandProcessor::process(const QByteArray &body)
{
    QString problem;
    const auto command = XmlMessage::parseCommand(body, &problem);
    if (!command) {
        FV_LOG(QStringLiteral("Unreadable command: %1").arg(problem));
        return error(400, QStringLiteral("unreadable command: ") + problem);
    }
    const QString &name = command->name;
    if (name == u"LOGIN")
        return login(*command);

    static const QStringList known = {
        QStringLiteral("QUOTA"),      QStringLiteral("THUMBNAIL"), QStringLiteral("LIST"),
        QStringLiteral("SYNCLIST"),   QStringLiteral("WORKLIST"),  QStringLiteral("PUT"),
        QStringLiteral("RENAME"),     QStringLiteral("DEL"),       QStringLiteral("MOVE"),
        QStringLiteral("SERVERTIME"), QStringLiteral("INFO")};
    if (!known.contains(name))
        return error(400, QStringLiteral("unknown command ") + name);

    const QString token = command->attribute(QStringLiteral("SESSION")).trimmed();
    const auto session = m_store.session(token);
    if (!session) {
        CommandReply reply;
        reply.contentType = "text/plain";
        reply.body = QByteArray::number(ResultCode::InvalidSession);
        return reply;
    }
    if (name == u"QUOTA")
        return xml(quota(*session));
    if (name == u"THUMBNAIL")
        return xml(thumbnail(*command, *session, token));
    if (name == u"LIST")
        return xml(list(*command, *session));
    if (name == u"SYNCLIST")
        return xml(syncList(*session));
    if (name == u"WORKLIST")
        return xml(workList(*command, *session));
    if (name == u"PUT")
        return xml(put(*command, *session));
    if (name == u"RENAME")
        return xml(rename(*command, *session));
    if (name == u"DEL")
        return xml(remove(*command, *session));
    if (name == u"MOVE")
        return xml(move(*command, *session));
    if (name == u"SERVERTIME")
        return xml(serverTime());
    return xml(info(*command, *session));
}

CommandReply CommandProcessor::login(const XmlElement &command)
{
    const QString id = command.attribute(QStringLiteral("ID"));
    const QString password = command.attribute(QStringLiteral("PASSWORD"));
    const QString encode = command.attribute(QStringLiteral("ENCODE"));
    QString mailId;
    XmlElement reply(QStringLiteral("LOGIN"));
    if (id.isEmpty() || !m_store.checkPassword(id, password, encode, &mailId)) {
        reply.set(QStringLiteral("RESULT"), QStringLiteral("-1"))
            .set(QStringLiteral("TIMEZONE"), m_clock.zoneText())
            .set(QStringLiteral("ID"), QString());
        return xml(reply);
    }
    const QString session = m_store.createSession(id, command.attribute(QStringLiteral("PCNAME")),
                                                  command.attribute(QStringLiteral("MAC")));
    if (session.isEmpty())
        return error(500, QStringLiteral("cannot create a session"));
    reply.set(QStringLiteral("RESULT"), session)
        .set(QStringLiteral("TIMEZONE"), m_clock.zoneText())
        .set(QStringLiteral("ID"), mailId);
    return xml(reply);
}

XmlElement CommandProcessor::quota(const SessionInfo &session)
{
    qint64 total = 0;
    qint64 used = 0;
    m_store.quota(session.user, &total, &used);
    XmlElement reply(QStringLiteral("QUOTA"));
    reply.set(QStringLiteral("TOTAL"), total).set(QStringLiteral("USED"), used);
    return reply;
}

XmlElement CommandProcessor::thumbnail(const XmlElement &command, const SessionInfo &session,
                                       const QString &token)
{
    XmlElement reply(QStringLiteral("THUMBNAIL"));
    const XmlElement *keyElement = firstChild(command, QStringLiteral("KEY"));
    const qint64 key = keyElement ? keyFrom(keyElement->text) : 0;
    const auto it = key ? m_store.item(session.user, key) : std::nullopt;
    if (!it || it->folder || it->content.isEmpty()) {
        reply.set(QStringLiteral("RESULT"), qint64(ResultCode::UnknownItem));
        return reply;
    }
    // No images are rendered: the "thumbnail" is where the whole file can be fetched.
    reply.set(QStringLiteral("RESULT"), qint64(ResultCode::Done))
        .set(QStringLiteral("KEY"), it->key)
        .set(QStringLiteral("NAME"), it->name)
        .set(QStringLiteral("SIZE"), it->size)
        .set(QStringLiteral("MD5"), it->md5)
        .set(QStringLiteral("URL"),
             QStringLiteral("?do=download&session=%1&key=%2&offset=0").arg(token).arg(it->key));
    return reply;
}

XmlElement CommandProcessor::folderListing(const QString &elementName, const QString &user, qint64 folderKey)
{
    XmlElement reply(elementName);
    const auto folder = m_store.item(user, folderKey);
    if (!folder || !folder->folder) {
        reply.set(QStringLiteral("RESULT"), qint64(ResultCode::UnknownItem));
        return reply;
    }
    reply.set(QStringLiteral("KEY"), folder->key);
    const bool inSync = m_store.serverPath(user, folderKey).section(u'/', 0, 0) ==
                        QLatin1String(ServerStore::kSyncFolderName);
    for (const StoredItem &child : m_store.children(user, folderKey))
        reply.add(child.folder ? folderElement(child) : fileElement(child, inSync));
    return reply;
}

XmlElement CommandProcessor::list(const XmlElement &command, const SessionInfo &session)
{
    if (const XmlElement *dirKey = firstChild(command, QStringLiteral("DIRKEY")))
        return folderListing(QStringLiteral("LIST"), session.user, keyFrom(dirKey->text));
    XmlElement reply(QStringLiteral("LIST"));
    for (const StoredItem &top : m_store.topFolders(session.user))
        reply.add(folderElement(top));
    return reply;
}

XmlElement CommandProcessor::syncList(const SessionInfo &session)
{
    return folderListing(QStringLiteral("SYNCLIST"), session.user, m_store.syncRootKey(session.user));
}

XmlElement CommandProcessor::workList(const XmlElement &command, const SessionInfo &session)
{
    XmlElement reply(QStringLiteral("WORKLIST"));
    qint64 after = 0;
    if (!m_clock.parse(command.attribute(QStringLiteral("ID")).trimmed(), &after)) {
        // Without a usable starting point the asker is told the present time and nothing else.
        reply.set(QStringLiteral("ID"), m_clock.format(m_store.markServerTime()))
            .set(QStringLiteral("RESULT"), qint64(ResultCode::BadItem));
        return reply;
    }
    const QString pcName = pcNameOf(command, session);
    const WorkList list = m_store.workList(session.user, after, pcName, kWorkListLimit);
    reply.set(QStringLiteral("ID"), m_clock.format(list.id));
    for (const JournalEntry &e : list.entries) {
        XmlElement item(e.kind);
        item.set(QStringLiteral("ID"), m_clock.format(e.stamp))
            .set(QStringLiteral("KEY"), e.key)
            .set(QStringLiteral("FOLDER"), e.folder ? QStringLiteral("1") : QStringLiteral("0"));
        if (e.kind == u"ADD") {
            item.set(QStringLiteral("NAME"), e.name)
                .set(QStringLiteral("SIZE"), e.folder ? qint64(-1) : e.size)
                .set(QStringLiteral("MD5"), e.md5)
                .set(QStringLiteral("PKEY"), e.parentKey)
                .set(QStringLiteral("TIME"), e.time);
            item.text = e.path;
        } else if (e.kind == u"RENAME") {
            item.set(QStringLiteral("NAME"), e.name);
            item.text = e.path;
        } else if (e.kind == u"MOVE") {
            item.set(QStringLiteral("NAME"), e.name).set(QStringLiteral("DEST_PARENT_KEY"), e.parentKey);
            item.text = e.path;
        }
        reply.add(item);
    }
    return reply;
}

XmlElement CommandProcessor::put(const XmlElement &command, const SessionInfo &session)
{
    const QString pcName = pcNameOf(command, session);
    XmlElement reply(QStringLiteral("PUT"));
    for (const XmlElement &item : command.children) {
        XmlElement result(item.name);
        const QString name = item.attribute(QStringLiteral("NAME"));
        const bool folder = item.name == u"DIR";
        PutResult put;
        put.code = ResultCode::BadItem;
        if (folder || item.name == u"FILE") {
            bool sizeOk = folder;
            const qint64 size = folder ? -1 : item.attribute(QStringLiteral("SIZE")).toLongLong(&sizeOk);
            QString path = item.text.trimmed();
            if (path.isEmpty())
                path = u'/' + name;
            if (sizeOk)
                put = m_store.put(session.user, path, name, folder, size,
                                  item.attribute(QStringLiteral("TIME")), pcName);
        }
        result.set(QStringLiteral("NAME"), name)
            .set(QStringLiteral("KEY"), put.key ? QString::number(put.key) : QString())
            .set(QStringLiteral("PKEY"), put.parentKey ? QString::number(put.parentKey) : QString());
        result.text = QString::number(put.code);
        reply.add(result);
    }
    return reply;
}

XmlElement CommandProcessor::rename(const XmlElement &command, const SessionInfo &session)
{
    const QString pcName = pcNameOf(command, session);
    XmlElement reply(QStringLiteral("RENAME"));
    for (const XmlElement &item : command.children) {
        const qint64 key = keyFrom(item.text);
        const int code =
            key ? m_store.rename(session.user, key, item.attribute(QStringLiteral("NAME")), pcName)
                : ResultCode::UnknownItem;
        reply.add(keyResult(item, code).set(QStringLiteral("NAME"), item.attribute(QStringLiteral("NAME"))));
    }
    return reply;
}

XmlElement CommandProcessor::remove(const XmlElement &command, const SessionInfo &session)
{
    const QString pcName = pcNameOf(command, session);
    XmlElement reply(QStringLiteral("DEL"));
    for (const XmlElement &item : command.children) {
        const qint64 key = keyFrom(item.text);
        const int code = key ? m_store.remove(session.user, key, pcName) : ResultCode::UnknownItem;
        reply.add(keyResult(item, code));
    }
    return reply;
}

XmlElement CommandProcessor::move(const XmlElement &command, const SessionInfo &session)
{
    const QString pcName = pcNameOf(command, session);
    XmlElement reply(QStringLiteral("MOVE"));
    for (const XmlElement &item : command.children) {
        const qint64 source = keyFrom(item.attribute(QStringLiteral("SRC")));
        const qint64 dest = keyFrom(item.attribute(QStringLiteral("DEST")));
        const bool force = item.attribute(QStringLiteral("FORCE")).trimmed() == u"1";
        const int code = source && dest ? m_store.move(session.user, source, dest, force, pcName)
                                        : ResultCode::UnknownItem;
        XmlElement result(QStringLiteral("KEY"));
        result.set(QStringLiteral("SRC"), item.attribute(QStringLiteral("SRC")))
            .set(QStringLiteral("DEST"), item.attribute(QStringLiteral("DEST")))
            .set(QStringLiteral("RESULT"), qint64(code));
        reply.add(result);
    }
    return reply;
}

XmlElement CommandProcessor::serverTime()
{
    XmlElement reply(QStringLiteral("SERVERTIME"));
    reply.set(QStringLiteral("ID"), m_clock.format(m_store.markServerTime()));
    return reply;
}

XmlElement CommandProcessor::info(const XmlElement &command, const SessionInfo &session)
{
    XmlElement reply(QStringLiteral("INFO"));
    const XmlElement *keyElement = firstChild(command, QStringLiteral("KEY"));
    const qint64 key = keyElement ? keyFrom(keyElement->text) : 0;
    const auto it = key ? m_store.item(session.user, key) : std::nullopt;
    if (!it) {
        reply.set(QStringLiteral("RESULT"), qint64(ResultCode::UnknownItem));
        return reply;
    }
    XmlElement item(it->folder ? QStringLiteral("DIR") : QStringLiteral("FILE"));
    item.set(QStringLiteral("NAME"), it->name)
        .set(QStringLiteral("PATH"), m_store.serverPath(session.user, it->key))
        .set(QStringLiteral("TIME"), it->time)
        .set(QStringLiteral("SIZE"), it->folder ? qint64(-1) : it->size)
        .set(QStringLiteral("MEMO"), it->memo)
        .set(QStringLiteral("PRIV"), it->priv)
        .set(QStringLiteral("TAG"), it->tag)
        .set(QStringLiteral("DESC"), it->desc)
        .set(QStringLiteral("OWNER"), session.user)
        .set(QStringLiteral("KEY"), it->key)
        .set(QStringLiteral("PKEY"), it->parentKey);
    reply.add(item);
    return reply;
}
