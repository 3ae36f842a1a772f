#include "server/ServerWorker.h"

#include "server/AdminApi.h"
#include "server/HttpListener.h"
#include "server/ServerBackend.h"
#include "util/Log.h"

#include <QFileInfo>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QTimer>

struct ServerWorker::Context
{
    enum class Kind { Command, Upload, Download, Update, Package, NotFound, BadRequest };
    Kind kind = Kind::NotFound;
    QString command;
    std::optional<Fault> fault;
    std::optional<SessionInfo> session;
    qint64 key = 0;
};

namespace {
const HttpConnection::Headers kText = {{"Content-Type", "text/plain"}};
const HttpConnection::Headers kXml = {{"Content-Type", "text/xml; charset=utf-8"}};

ServerWorker::BodySink bodySinkFor(bool file)
{
    return file ? HttpHandler::BodySink::File : HttpHandler::BodySink::Discard;
}
} // namespace

ServerWorker::ServerWorker(ServerBackend &backend, QSslConfiguration tls)
    : m_backend(backend), m_tls(std::move(tls)), m_admin(std::make_unique<AdminApi>(backend))
{}

ServerWorker::~ServerWorker()
{
    // Connections are children of the listeners and go with them, before the admin handler.
    delete m_listener;
    delete m_adminListener;
}

bool ServerWorker::listen(const QHostAddress &address, quint16 port, quint16 adminPort, QString *error)
{
    m_listener = new HttpListener(this, m_tls, this);
    m_adminListener = new HttpListener(m_admin.get(), std::nullopt, this);
    if (!m_listener->listen(address, port)) {
        *error = QStringLiteral("Cannot listen on port %1: %2").arg(port).arg(m_listener->errorString());
        return false;
    }
    // The admin interface can change any account: it never leaves the loopback interface.
    if (!m_adminListener->listen(QHostAddress::LocalHost, adminPort)) {
        *error = QStringLiteral("Cannot listen on admin port %1: %2")
                     .arg(adminPort)
                     .arg(m_adminListener->errorString());
        return false;
    }
    return true;
}

quint16 ServerWorker::port() const
{
    return m_listener ? m_listener->serverPort() : 0;
}
quint16 ServerWorker::adminPort() const
{
    return m_adminListener ? m_adminListener->serverPort() : 0;
}

HttpHandler::BodySink ServerWorker::headersReceived(HttpConnection *connection, HttpRequest &request)
{
    static const QRegularExpression updatePath(
        QStringLiteral("^/+winapp/.+/palmoor/tessaline/(tessaline\\.xml|ferrovaneupdate\\.pkg)$"));
    Context context;
    // Transfers are recognised by their query, whatever path precedes it.
    const QString action = request.query.queryItemValue(QStringLiteral("do"));
    if (action == u"upload") {
        context.kind = Context::Kind::Upload;
        context.command = QStringLiteral("UPLOAD");
    } else if (action == u"download") {
        context.kind = Context::Kind::Download;
        context.command = QStringLiteral("DOWNLOAD");
    } else if (!action.isEmpty()) {
        context.kind = Context::Kind::BadRequest;
        context.command = QStringLiteral("UNKNOWN");
    } else if (const auto match = updatePath.match(request.path); match.hasMatch()) {
        const bool description = match.captured(1) == u"tessaline.xml";
        context.kind = description ? Context::Kind::Update : Context::Kind::Package;
        context.command = description ? QStringLiteral("UPDATE") : QStringLiteral("PACKAGE");
    } else if (request.path.endsWith(u"cloudXml.cgi")) {
        context.kind = Context::Kind::Command;
    } else {
        context.command = QStringLiteral("UNKNOWN");
    }

    BodySink sink = BodySink::Discard;
    if (context.kind == Context::Kind::Command) {
        sink = BodySink::Memory;
    } else {
        context.fault = m_backend.faults.take(context.command);
        if (context.fault && context.fault->kind == Fault::Kind::Drop) {
            m_backend.log.append({0,
                                  context.command,
                                  QString::fromLatin1(request.method),
                                  QString::fromUtf8(request.target),
                                  {},
                                  0});
            connection->drop();
            return BodySink::Discard;
        }
    }
    if (context.kind == Context::Kind::Upload || context.kind == Context::Kind::Download) {
        context.session = m_backend.store.session(request.query.queryItemValue(QStringLiteral("session")));
        context.key = request.query.queryItemValue(QStringLiteral("key")).trimmed().toLongLong();
    }
    if (context.kind == Context::Kind::Upload) {
        const bool refused = context.fault && (context.fault->kind == Fault::Kind::HttpStatus ||
                                               context.fault->kind == Fault::Kind::Body ||
                                               context.fault->kind == Fault::Kind::RefuseUpload);
        const auto it =
            context.session ? m_backend.store.item(context.session->user, context.key) : std::nullopt;
        const bool accept = it && !it->folder && !refused;
        if (accept) {
            request.bodyFile = m_backend.store.tempDir() + QStringLiteral("/upload-") +
                               QString::number(QRandomGenerator::global()->generate64(), 16);
        }
        sink = bodySinkFor(accept);
    }
    request.context = context;
    return sink;
}

void ServerWorker::requestReceived(HttpConnection *connection, HttpRequest &request)
{
    Context context = std::any_cast<Context>(request.context);
    if (context.kind == Context::Kind::Command) {
        context.command = CommandProcessor::commandName(request.body);
        if (context.command.isEmpty())
            context.command = QStringLiteral("UNKNOWN");
        context.fault = m_backend.faults.take(context.command);
    }
    m_backend.log.append(
        {0, context.command, QString::fromLatin1(request.method), QString::fromUtf8(request.target),
         context.kind == Context::Kind::Command ? request.body : QByteArray(), request.bodySize});
    if (context.fault && applyFault(connection, request, context))
        return;
    handle(connection, request, context, ReplyLoss::None);
}

bool ServerWorker::applyFault(HttpConnection *connection, HttpRequest &request, const Context &context)
{
    const Fault &fault = *context.fault;
    switch (fault.kind) {
    case Fault::Kind::Drop:
        connection->drop();
        return true;
    case Fault::Kind::CutReply:
        connection->breakOff();
        return true;
    case Fault::Kind::DropAfterProcessing:
        handle(connection, request, context, ReplyLoss::AfterHead);
        return true;
    case Fault::Kind::DropAfterProcessingSilently:
        handle(connection, request, context, ReplyLoss::Silent);
        return true;
    case Fault::Kind::HttpStatus:
        connection->respond(fault.status, kText, HttpConnection::reasonPhrase(fault.status) + '\n');
        return true;
    case Fault::Kind::Body:
        connection->respond(200, kText, fault.body);
        return true;
    case Fault::Kind::Delay: {
        HttpRequest *pending = &request;
        QTimer::singleShot(fault.delayMs, connection, [this, connection, pending, context] {
            if (!connection->isClosed())
                handle(connection, *pending, context, ReplyLoss::None);
        });
        return true;
    }
    case Fault::Kind::RefuseUpload:
        connection->respond(200, {{"Content-Type", "text/plain"}, {"Velmora-result", fault.result.toUtf8()}},
                            fault.result.toUtf8());
        return true;
    case Fault::Kind::CutDownload:
        handleDownload(connection, request, context, std::max<qint64>(0, fault.bytes));
        return true;
    }
    return false;
}

void ServerWorker::loseReply(HttpConnection *connection, ReplyLoss loss)
{
    if (loss == ReplyLoss::Silent)
        connection->drop();
    else
        connection->breakOff();
}

void ServerWorker::handle(HttpConnection *connection, HttpRequest &request, const Context &context,
                          ReplyLoss loss)
{
    switch (context.kind) {
    case Context::Kind::Command: {
        if (request.method != "POST") {
            connection->respond(405, {{"Content-Type", "text/plain"}, {"Allow", "POST"}},
                                "Commands are posted\n");
            return;
        }
        const CommandReply reply = m_backend.commands.process(request.body);
        if (loss != ReplyLoss::None)
            loseReply(connection, loss);
        else
            connection->respond(reply.status, {{"Content-Type", reply.contentType}}, reply.body);
        return;
    }
    case Context::Kind::Upload:
        handleUpload(connection, request, context, loss);
        return;
    case Context::Kind::Download:
        if (loss != ReplyLoss::None)
            loseReply(connection, loss);
        else
            handleDownload(connection, request, context, -1);
        return;
    case Context::Kind::Update:
        connection->respond(200, kXml, m_backend.updateDescription());
        return;
    case Context::Kind::Package: {
        const QFileInfo package(m_backend.packagePath());
        if (!package.isFile())
            connection->respond(404, kText, "No update package\n");
        else
            connection->respondFile(200, {{"Content-Type", "application/octet-stream"}}, package.filePath(),
                                    0, package.size());
        return;
    }
    case Context::Kind::BadRequest:
        connection->respond(400, kText, "Unknown transfer\n");
        return;
    case Context::Kind::NotFound:
        connection->respond(404, kText, "Not found\n");
        return;
    }
}

void ServerWorker::handleUpload(HttpConnection *connection, HttpRequest &request, const Context &context,
                                ReplyLoss loss)
{
    int code = ResultCode::UnknownItem;
    if (!context.session) {
        code = ResultCode::InvalidSession;
    } else if (!request.bodyFile.isEmpty()) {
        code = m_backend.store.commitUpload(
            context.session->user, context.key, request.bodyFile, request.bodySize, request.bodyMd5,
            QString::fromUtf8(request.header("velmora_filetime")), context.session->pcName);
    }
    if (code != ResultCode::Done)
        FV_LOG(QStringLiteral("Upload of key %1 refused: %2").arg(context.key).arg(code));
    if (loss != ReplyLoss::None) {
        loseReply(connection, loss);
        return;
    }
    // "0" is the one answer that means stored.
    const QByteArray verdict = code == ResultCode::Done ? QByteArray("0") : QByteArray::number(code);
    connection->respond(200, {{"Content-Type", "text/plain"}, {"Velmora-result", verdict}}, verdict);
}

void ServerWorker::handleDownload(HttpConnection *connection, HttpRequest &request, const Context &context,
                                  qint64 cutAfter)
{
    if (!context.session) {
        connection->respond(403, {{"Content-Type", "text/plain"}, {"Velmora-result", "-3"}}, {});
        return;
    }
    const auto it = m_backend.store.item(context.session->user, context.key);
    const QString path = it && !it->folder ? m_backend.store.contentPath(*it) : QString();
    const QFileInfo file(path);
    if (path.isEmpty() || !file.isFile()) {
        connection->respond(404, {{"Content-Type", "text/plain"}, {"Velmora-result", "-4"}}, {});
        return;
    }
    bool ok = true;
    const QString offsetText = request.query.queryItemValue(QStringLiteral("offset"));
    const qint64 offset = offsetText.isEmpty() ? 0 : offsetText.toLongLong(&ok);
    if (!ok || offset < 0 || offset > file.size()) {
        connection->respond(416, kText, {});
        return;
    }
    connection->respondFile(200,
                            {{"Content-Type", "application/octet-stream"},
                             {"Content-MD5-Hex", it->md5.toLatin1()},
                             {"Velmora-filetime", it->time.toLatin1()}},
                            path, offset, file.size() - offset, cutAfter);
}
