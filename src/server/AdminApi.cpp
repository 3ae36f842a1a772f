#include "server/AdminApi.h"

#include "server/ServerBackend.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

namespace {

QByteArray json(const QJsonObject &object)
{
    return QJsonDocument(object).toJson(QJsonDocument::Compact) + '\n';
}

QJsonObject failure(const QString &message)
{
    return {{QStringLiteral("ok"), false}, {QStringLiteral("error"), message}};
}

QJsonObject outcome(int code, const QString &key = {})
{
    if (code != ResultCode::Done)
        return {{QStringLiteral("ok"), false},
                {QStringLiteral("error"), QStringLiteral("result %1").arg(code)},
                {QStringLiteral("code"), code}};
    QJsonObject object{{QStringLiteral("ok"), true}};
    if (!key.isEmpty())
        object.insert(QStringLiteral("key"), key);
    return object;
}

QByteArray bytesField(const QJsonObject &body, const QString &plain, const QString &base64)
{
    if (body.contains(base64))
        return QByteArray::fromBase64(body.value(base64).toString().toLatin1());
    return body.value(plain).toString().toUtf8();
}

} // namespace

AdminApi::AdminApi(ServerBackend &backend) : m_backend(backend) {}

HttpHandler::BodySink AdminApi::headersReceived(HttpConnection *, HttpRequest &)
{
    return BodySink::Memory;
}

void AdminApi::requestReceived(HttpConnection *connection, HttpRequest &request)
{
    const HttpConnection::Headers jsonType = {{"Content-Type", "application/json"}};
    const QString path = request.path;
    const bool get = request.method == "GET";
    ServerStore &store = m_backend.store;

    if (get && path == u"/file") {
        const QString user = request.query.queryItemValue(QStringLiteral("user"), QUrl::FullyDecoded);
        const QString file = request.query.queryItemValue(QStringLiteral("path"), QUrl::FullyDecoded);
        for (const TreeEntry &entry : store.tree(user, false)) {
            if (entry.path == file && !entry.folder) {
                const auto it = store.item(user, entry.key.toLongLong());
                const QString content = it ? store.contentPath(*it) : QString();
                if (!content.isEmpty()) {
                    connection->respondFile(200, {{"Content-Type", "application/octet-stream"}}, content, 0,
                                            it->size);
                    return;
                }
            }
        }
        connection->respond(404, jsonType, json(failure(QStringLiteral("no such file"))));
        return;
    }

    QJsonObject reply;
    if (get && path == u"/tree") {
        QJsonArray entries;
        const QString user = request.query.queryItemValue(QStringLiteral("user"), QUrl::FullyDecoded);
        const bool pending = request.query.queryItemValue(QStringLiteral("pending")) == u"1";
        for (const TreeEntry &e : store.tree(user, pending)) {
            entries.append(QJsonObject{{QStringLiteral("path"), e.path},
                                       {QStringLiteral("key"), e.key},
                                       {QStringLiteral("pkey"), e.parentKey},
                                       {QStringLiteral("folder"), e.folder},
                                       {QStringLiteral("size"), double(e.size)},
                                       {QStringLiteral("md5"), e.md5},
                                       {QStringLiteral("time"), e.time},
                                       {QStringLiteral("uploaded"), e.uploaded}});
        }
        reply = {{QStringLiteral("ok"), true}, {QStringLiteral("entries"), entries}};
    } else if (get && path == u"/log") {
        QJsonArray entries;
        for (const RequestLogEntry &e : m_backend.log.entries()) {
            entries.append(QJsonObject{{QStringLiteral("seq"), double(e.sequence)},
                                       {QStringLiteral("command"), e.command},
                                       {QStringLiteral("method"), e.method},
                                       {QStringLiteral("target"), e.target},
                                       {QStringLiteral("body"), QString::fromUtf8(e.body)},
                                       {QStringLiteral("size"), double(e.bodySize)}});
        }
        reply = {{QStringLiteral("ok"), true}, {QStringLiteral("entries"), entries}};
    } else if (get && path == u"/faults") {
        reply = {{QStringLiteral("ok"), true}, {QStringLiteral("pending"), m_backend.faults.pending()}};
    } else if (get && path == u"/time") {
        reply = {{QStringLiteral("ok"), true},
                 {QStringLiteral("time"), m_backend.clock.now()},
                 {QStringLiteral("timezone"), m_backend.clock.zoneText()}};
    } else if (request.method != "POST") {
        connection->respond(get ? 404 : 405, jsonType, json(failure(QStringLiteral("unknown request"))));
        return;
    } else {
        QJsonParseError parseError;
        const QJsonDocument document = request.body.trimmed().isEmpty()
                                           ? QJsonDocument(QJsonObject())
                                           : QJsonDocument::fromJson(request.body, &parseError);
        if (!document.isObject()) {
            connection->respond(400, jsonType, json(failure(QStringLiteral("body is not a JSON object"))));
            return;
        }
        const QJsonObject body = document.object();
        const QString user = body.value(QStringLiteral("user")).toString();
        const QString itemPath = body.value(QStringLiteral("path")).toString();
        const QString pcName =
            body.value(QStringLiteral("pcname")).toString(QString::fromLatin1(kDefaultPcName));

        if (path == u"/users") {
            const bool ok = store.addUser(body.value(QStringLiteral("id")).toString(),
                                          body.value(QStringLiteral("password")).toString(),
                                          body.value(QStringLiteral("mail")).toString());
            reply = ok ? QJsonObject{{QStringLiteral("ok"), true}}
                       : failure(QStringLiteral("cannot add the account"));
        } else if (path == u"/sessions/expire") {
            reply = {{QStringLiteral("ok"), true}, {QStringLiteral("expired"), store.expireSessions(user)}};
        } else if (path == u"/quota") {
            reply = store.setQuota(user, qint64(body.value(QStringLiteral("total")).toDouble()))
                        ? QJsonObject{{QStringLiteral("ok"), true}}
                        : failure(QStringLiteral("no such account"));
        } else if (path == u"/mkdir") {
            qint64 key = 0;
            const int code = store.makeFolder(user, itemPath, pcName, &key);
            reply = outcome(code, QString::number(key));
        } else if (path == u"/put") {
            qint64 key = 0;
            const int code = store.putFile(
                user, itemPath, bytesField(body, QStringLiteral("content"), QStringLiteral("content_base64")),
                body.value(QStringLiteral("time")).toString(), pcName, &key);
            reply = outcome(code, QString::number(key));
        } else if (path == u"/rename") {
            reply = outcome(
                store.renamePath(user, itemPath, body.value(QStringLiteral("name")).toString(), pcName));
        } else if (path == u"/move") {
            reply = outcome(
                store.movePath(user, itemPath, body.value(QStringLiteral("dest")).toString(), pcName));
        } else if (path == u"/delete") {
            reply = outcome(store.removePath(user, itemPath, pcName));
        } else if (path == u"/fault") {
            const auto kind = Fault::kindFromName(body.value(QStringLiteral("kind")).toString());
            if (!kind) {
                reply = failure(QStringLiteral("unknown fault kind"));
            } else {
                Fault fault;
                fault.kind = *kind;
                fault.command = body.value(QStringLiteral("command")).toString(QStringLiteral("*"));
                fault.count = body.value(QStringLiteral("count")).toInt(1);
                fault.status = body.value(QStringLiteral("status")).toInt(500);
                fault.body = body.value(QStringLiteral("body")).toString(QStringLiteral("-3")).toUtf8();
                fault.delayMs = body.value(QStringLiteral("ms")).toInt(0);
                fault.result = body.value(QStringLiteral("result")).toString(QStringLiteral("1"));
                fault.bytes = qint64(body.value(QStringLiteral("bytes")).toDouble(0));
                m_backend.faults.add(fault);
                reply = {{QStringLiteral("ok"), true}};
            }
        } else if (path == u"/faults/clear") {
            m_backend.faults.clear();
            reply = {{QStringLiteral("ok"), true}};
        } else if (path == u"/log/clear") {
            m_backend.log.clear();
            reply = {{QStringLiteral("ok"), true}};
        } else if (path == u"/update") {
            const bool ok = m_backend.setUpdate(
                body.value(QStringLiteral("version")).toString(),
                body.value(QStringLiteral("build")).toString(),
                bytesField(body, QStringLiteral("package"), QStringLiteral("package_base64")));
            reply = ok ? QJsonObject{{QStringLiteral("ok"), true}}
                       : failure(QStringLiteral("cannot store the update"));
        } else {
            connection->respond(404, jsonType, json(failure(QStringLiteral("unknown request"))));
            return;
        }
    }
    connection->respond(200, jsonType, json(reply));
}
