#include "integration/EndToEndSupport.h"

#include <QCoreApplication>
#include <QCryptographicHash>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDateTime>
#include <QDir>
#include <QDirIterator>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QRegularExpression>
#include <QThread>
#include <QTimeZone>
#include <QTimer>
#include <QUrlQuery>
#include <csignal>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/types.h>
#include <utime.h>

namespace EndToEnd {

namespace {

constexpr int kStartTimeoutMs = 20000;

// Reads lines from a process until one matches; false on time-out or exit.
bool waitForLine(QProcess &process, QByteArray &collected, const QRegularExpression &pattern,
                 QRegularExpressionMatch *match, int timeoutMs)
{
    QElapsedTimer clock;
    clock.start();
    while (clock.elapsed() < timeoutMs) {
        collected += process.readAllStandardOutput();
        for (const QByteArray &line : collected.split('\n')) {
            const QRegularExpressionMatch found = pattern.match(QString::fromUtf8(line));
            if (found.hasMatch()) {
                *match = found;
                return true;
            }
        }
        if (process.state() == QProcess::NotRunning)
            return false;
        process.waitForReadyRead(100);
    }
    return false;
}

// Trees are compared by name in composed form: the client sends names composed, so a file made
// locally with a decomposed name is the same item as its composed copy on the server.
QString relativeTo(const QString &root, const QString &path)
{
    return path.startsWith(root + u'/') ? path.mid(root.size()).normalized(QString::NormalizationForm_C)
                                        : QString();
}

qint64 secondsOf(const QDateTime &date)
{
    return date.isValid() ? date.toSecsSinceEpoch() : 0;
}

QString describe(const Entry &entry)
{
    if (entry.folder)
        return QStringLiteral("folder mtime=%1").arg(entry.mtime);
    return QStringLiteral("file size=%1 md5=%2 mtime=%3").arg(entry.size).arg(entry.md5).arg(entry.mtime);
}

// False once the process is gone or a zombie (the daemon is detached: its parent may be slow
// to reap it).
bool processAlive(qint64 pid)
{
    QFile stat(QStringLiteral("/proc/%1/stat").arg(pid));
    if (!stat.open(QIODevice::ReadOnly))
        return false;
    const QByteArray line = stat.readAll();
    const qsizetype end = line.lastIndexOf(')');
    return end >= 0 && line.size() > end + 2 && line[end + 2] != 'Z' && line[end + 2] != 'X';
}

// A sanitizer report in what a program wrote on stderr, from its first line on; empty when none.
// (Address and leak reports of every child also land in files the test main checks; undefined-
// behaviour reports of a program built with both sanitizers only ever go to stderr.)
QString sanitizerReport(const QByteArray &errorOutput)
{
    static const QRegularExpression report(QStringLiteral(
        "runtime error:|ERROR: AddressSanitizer|ERROR: LeakSanitizer|SUMMARY: UndefinedBehaviorSanitizer"));
    const QString text = QString::fromUtf8(errorOutput);
    const QRegularExpressionMatch found = report.match(text);
    if (!found.hasMatch())
        return {};
    const qsizetype lineStart = text.lastIndexOf(u'\n', found.capturedStart()) + 1;
    return text.mid(lineStart, 16000);
}

} // namespace

QString programPath(const QString &name)
{
    return QCoreApplication::applicationDirPath() + u'/' + name;
}

QString md5Hex(const QByteArray &data)
{
    return QString::fromLatin1(QCryptographicHash::hash(data, QCryptographicHash::Md5).toHex());
}

bool waitFor(const std::function<bool()> &condition, int timeoutMs)
{
    QElapsedTimer clock;
    clock.start();
    while (!condition()) {
        if (clock.elapsed() > timeoutMs)
            return condition();
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
        QThread::msleep(20);
    }
    return true;
}

QString difference(const Tree &expected, const Tree &actual, const Compare &how)
{
    QStringList lines;
    for (auto it = expected.cbegin(); it != expected.cend(); ++it) {
        const auto other = actual.constFind(it.key());
        if (other == actual.cend()) {
            lines << QStringLiteral("missing %1 (%2)").arg(it.key(), describe(*it));
            continue;
        }
        const Entry &a = *it, &b = *other;
        bool same = a.folder == b.folder;
        if (same && !a.folder)
            same = a.size == b.size && (a.md5.isEmpty() || b.md5.isEmpty() || a.md5 == b.md5);
        const bool compareDate = a.folder ? how.folderDates : how.dates;
        if (same && compareDate && a.mtime && b.mtime)
            same = a.mtime == b.mtime;
        if (!same)
            lines
                << QStringLiteral("differs %1: expected %2, got %3").arg(it.key(), describe(a), describe(b));
    }
    for (auto it = actual.cbegin(); it != actual.cend(); ++it) {
        if (!expected.contains(it.key()))
            lines << QStringLiteral("unexpected %1 (%2)").arg(it.key(), describe(*it));
    }
    return lines.join(u'\n');
}

// --- ServerProcess ---

ServerProcess::ServerProcess() = default;

ServerProcess::~ServerProcess()
{
    stop();
}

bool ServerProcess::start(QString *error)
{
    stop();
    m_process = std::make_unique<QProcess>();
    m_process->setProcessChannelMode(QProcess::SeparateChannels);
    m_output.clear();
    m_process->start(programPath(QStringLiteral("ferrovane-server")),
                     {QStringLiteral("--port"), QString::number(m_port), QStringLiteral("--admin-port"),
                      QString::number(m_adminPort), QStringLiteral("--data"), m_data.path()});
    static const QRegularExpression listening(QStringLiteral(
        "listening url=https://127\\.0\\.0\\.1:(\\d+)/ admin=http://127\\.0\\.0\\.1:(\\d+)/ cert=(.+)$"));
    QRegularExpressionMatch match;
    if (!m_process->waitForStarted(kStartTimeoutMs) ||
        !waitForLine(*m_process, m_output, listening, &match, kStartTimeoutMs)) {
        if (error)
            *error = QStringLiteral("ferrovane-server did not start: ") +
                     QString::fromUtf8(m_output + m_process->readAllStandardError());
        stop();
        return false;
    }
    // Kept, so a restart serves the same address the clients know.
    m_port = match.captured(1).toUShort();
    m_adminPort = match.captured(2).toUShort();
    m_certificate = match.captured(3).trimmed();
    m_zone = get(QStringLiteral("/time")).value(QStringLiteral("timezone")).toString();
    return true;
}

void ServerProcess::stop()
{
    if (!m_process)
        return;
    if (m_process->state() != QProcess::NotRunning) {
        m_process->terminate();
        if (!m_process->waitForFinished(10000)) {
            m_process->kill();
            m_process->waitForFinished(5000);
        }
    }
    if (const QString report = sanitizerReport(m_process->readAllStandardError()); !report.isEmpty())
        ADD_FAILURE() << "ferrovane-server:\n" << report.toStdString();
    m_process.reset();
}

bool ServerProcess::isRunning() const
{
    return m_process && m_process->state() == QProcess::Running;
}

QString ServerProcess::domain() const
{
    return QStringLiteral("127.0.0.1:%1").arg(m_port);
}

QString ServerProcess::certificate() const
{
    return m_certificate;
}

QString ServerProcess::zone() const
{
    return m_zone;
}

static QJsonObject failed(const QString &message)
{
    return {{QStringLiteral("ok"), false}, {QStringLiteral("error"), message}};
}

static QJsonObject request(quint16 port, const QByteArray &method, const QString &pathAndQuery,
                           const QByteArray &body)
{
    QNetworkAccessManager manager;
    QNetworkRequest req(QUrl(QStringLiteral("http://127.0.0.1:%1%2").arg(port).arg(pathAndQuery)));
    req.setHeader(QNetworkRequest::ContentTypeHeader, QStringLiteral("application/json"));
    req.setTransferTimeout(30000);
    QNetworkReply *reply = manager.sendCustomRequest(req, method, body);
    QEventLoop loop;
    QObject::connect(reply, &QNetworkReply::finished, &loop, &QEventLoop::quit);
    loop.exec();
    const QByteArray data = reply->readAll();
    const QString problem = reply->error() == QNetworkReply::NoError ? QString() : reply->errorString();
    reply->deleteLater();
    const QJsonDocument document = QJsonDocument::fromJson(data);
    if (document.isObject())
        return document.object();
    return failed(problem.isEmpty() ? QString::fromUtf8(data) : problem);
}

QJsonObject ServerProcess::get(const QString &pathAndQuery)
{
    return request(m_adminPort, "GET", pathAndQuery, {});
}

QJsonObject ServerProcess::post(const QString &path, const QJsonObject &body)
{
    return request(m_adminPort, "POST", path, QJsonDocument(body).toJson(QJsonDocument::Compact));
}

bool ServerProcess::ok(const QJsonObject &reply) const
{
    if (reply.value(QStringLiteral("ok")).toBool())
        return true;
    qInfo("admin request failed: %s", qPrintable(reply.value(QStringLiteral("error")).toString()));
    return false;
}

bool ServerProcess::addUser(const QString &user, const QString &password)
{
    return ok(post(QStringLiteral("/users"),
                   {{QStringLiteral("id"), user}, {QStringLiteral("password"), password}}));
}

bool ServerProcess::mkdir(const QString &user, const QString &path)
{
    return ok(
        post(QStringLiteral("/mkdir"), {{QStringLiteral("user"), user}, {QStringLiteral("path"), path}}));
}

bool ServerProcess::put(const QString &user, const QString &path, const QByteArray &content,
                        const QString &serverTime)
{
    QJsonObject body{{QStringLiteral("user"), user},
                     {QStringLiteral("path"), path},
                     {QStringLiteral("content_base64"), QString::fromLatin1(content.toBase64())}};
    if (!serverTime.isEmpty())
        body.insert(QStringLiteral("time"), serverTime);
    return ok(post(QStringLiteral("/put"), body));
}

bool ServerProcess::rename(const QString &user, const QString &path, const QString &name)
{
    return ok(post(
        QStringLiteral("/rename"),
        {{QStringLiteral("user"), user}, {QStringLiteral("path"), path}, {QStringLiteral("name"), name}}));
}

bool ServerProcess::move(const QString &user, const QString &path, const QString &destination)
{
    return ok(post(QStringLiteral("/move"), {{QStringLiteral("user"), user},
                                             {QStringLiteral("path"), path},
                                             {QStringLiteral("dest"), destination}}));
}

bool ServerProcess::remove(const QString &user, const QString &path)
{
    return ok(
        post(QStringLiteral("/delete"), {{QStringLiteral("user"), user}, {QStringLiteral("path"), path}}));
}

bool ServerProcess::fault(const QJsonObject &fault)
{
    return ok(post(QStringLiteral("/fault"), fault));
}

bool ServerProcess::clearFaults()
{
    return ok(post(QStringLiteral("/faults/clear"), {}));
}

int ServerProcess::pendingFaults()
{
    const QJsonObject reply = get(QStringLiteral("/faults"));
    return reply.value(QStringLiteral("ok")).toBool() ? reply.value(QStringLiteral("pending")).toInt() : -1;
}

QStringList ServerProcess::commandLog()
{
    QStringList commands;
    for (const QJsonValue &entry : get(QStringLiteral("/log")).value(QStringLiteral("entries")).toArray())
        commands << entry.toObject().value(QStringLiteral("command")).toString();
    return commands;
}

void ServerProcess::clearLog()
{
    post(QStringLiteral("/log/clear"), {});
}

qint64 ServerProcess::epochOfServerTime(const QString &serverTime) const
{
    QDateTime date = QDateTime::fromString(serverTime, QStringLiteral("yyyyMMddHHmmss"));
    if (!date.isValid())
        return 0;
    date.setTimeZone(QTimeZone::utc());
    const int sign = m_zone.startsWith(u'-') ? -1 : 1;
    const int hours = m_zone.mid(1, 2).toInt();
    const int minutes = m_zone.mid(3, 2).toInt();
    return date.toSecsSinceEpoch() - sign * (hours * 3600 + minutes * 60);
}

Tree ServerProcess::tree(const QString &user)
{
    Tree tree;
    QUrlQuery query;
    query.addQueryItem(QStringLiteral("user"), user);
    const QJsonObject reply = get(QStringLiteral("/tree?") + query.toString(QUrl::FullyEncoded));
    for (const QJsonValue &value : reply.value(QStringLiteral("entries")).toArray()) {
        const QJsonObject item = value.toObject();
        Entry entry;
        entry.folder = item.value(QStringLiteral("folder")).toBool();
        if (!entry.folder) {
            entry.size = qint64(item.value(QStringLiteral("size")).toDouble());
            entry.md5 = item.value(QStringLiteral("md5")).toString();
        }
        entry.mtime = epochOfServerTime(item.value(QStringLiteral("time")).toString());
        QString path = item.value(QStringLiteral("path")).toString();
        if (!path.startsWith(u'/'))
            path.prepend(u'/');
        tree.insert(path.normalized(QString::NormalizationForm_C), entry);
    }
    return tree;
}

QStringList ServerProcess::treePaths(const QString &user, bool pending)
{
    QUrlQuery query;
    query.addQueryItem(QStringLiteral("user"), user);
    if (pending)
        query.addQueryItem(QStringLiteral("pending"), QStringLiteral("1"));
    QStringList paths;
    const QJsonObject reply = get(QStringLiteral("/tree?") + query.toString(QUrl::FullyEncoded));
    for (const QJsonValue &value : reply.value(QStringLiteral("entries")).toArray())
        paths << value.toObject().value(QStringLiteral("path")).toString();
    return paths;
}

QString outOfStep(ServerProcess &server, const QString &user, const QList<Computer *> &computers,
                  const Compare &how)
{
    const Tree expected = server.tree(user);
    for (Computer *c : computers) {
        QString diff = difference(expected, c->localTree(), how);
        if (!diff.isEmpty())
            return c->name() + QStringLiteral(" sync folder:\n") + diff;
        diff = difference(expected, c->catalogueTree(user), how);
        if (!diff.isEmpty())
            return c->name() + QStringLiteral(" catalogue:\n") + diff;
    }
    return {};
}

// --- Computer ---

Computer::Computer(const QString &name, ServerProcess &server) : m_name(name), m_server(server)
{
    QDir home(m_home.path());
    for (const char *folder : {"home", "data", "config", "cache", "runtime"})
        home.mkpath(QString::fromLatin1(folder));
    QFile::setPermissions(home.filePath(QStringLiteral("runtime")),
                          QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
    // A blank and a non-ASCII letter in the folder's name keep path handling honest.
    m_syncFolder = home.filePath(QStringLiteral("home/Cloud Fold\u00e9r"));
    startBus();
}

Computer::~Computer()
{
    killClient();
    if (const qint64 pid = daemonPid()) {
        ::kill(pid_t(pid), SIGTERM);
        // Waited for, so that what it reports on its way out counts for the test that ran it.
        waitFor([pid] { return !processAlive(pid); }, 10000);
    }
    noteReports();
    if (!m_reports.isEmpty())
        ADD_FAILURE() << "computer " << m_name.toStdString() << ":\n" << m_reports.toStdString();
    if (m_bus) {
        m_bus->terminate();
        if (!m_bus->waitForFinished(5000))
            m_bus->kill();
        m_bus->waitForFinished(2000);
    }
}

bool Computer::startBus()
{
    m_bus = std::make_unique<QProcess>();
    m_bus->start(QStringLiteral("dbus-daemon"), {QStringLiteral("--session"), QStringLiteral("--nofork"),
                                                 QStringLiteral("--print-address=1")});
    QByteArray collected;
    QRegularExpressionMatch match;
    static const QRegularExpression address(QStringLiteral("^(unix:.+)$"));
    if (!m_bus->waitForStarted(kStartTimeoutMs) ||
        !waitForLine(*m_bus, collected, address, &match, kStartTimeoutMs))
        return false;
    m_busAddress = match.captured(1).trimmed();
    return true;
}

QString Computer::storePath(const QString &user) const
{
    return dataHome() + QStringLiteral("/com.velmora.Ferrovane/Tarnwick_") + user +
           QStringLiteral(".storedata");
}

QProcessEnvironment Computer::environment() const
{
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    QDir home(m_home.path());
    env.insert(QStringLiteral("HOME"), home.filePath(QStringLiteral("home")));
    env.insert(QStringLiteral("XDG_DATA_HOME"), home.filePath(QStringLiteral("data")));
    env.insert(QStringLiteral("XDG_CONFIG_HOME"), home.filePath(QStringLiteral("config")));
    env.insert(QStringLiteral("XDG_CACHE_HOME"), home.filePath(QStringLiteral("cache")));
    env.insert(QStringLiteral("XDG_RUNTIME_DIR"), home.filePath(QStringLiteral("runtime")));
    env.insert(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"), m_busAddress);
    env.insert(QStringLiteral("FERROVANE_CA_FILE"), m_server.certificate());
    env.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
    if (!env.contains(QStringLiteral("FERROVANE_TIME_SCALE")))
        env.insert(QStringLiteral("FERROVANE_TIME_SCALE"), QStringLiteral("0.01"));
    return env;
}

bool Computer::startClient(const QStringList &arguments, const QString &password)
{
    killClient();
    noteReports();
    m_stdout.clear();
    m_stderr.clear();
    m_client = std::make_unique<QProcess>();
    m_client->setProcessEnvironment(environment());
    m_client->start(programPath(QStringLiteral("ferrovane")),
                    QStringList{QStringLiteral("--headless")} + arguments);
    if (!m_client->waitForStarted(kStartTimeoutMs))
        return false;
    if (!password.isNull())
        m_client->write(password.toUtf8() + '\n');
    m_client->closeWriteChannel();
    return true;
}

bool Computer::startSyncing(const QString &user, const QString &password)
{
    return startClient({QStringLiteral("--domain"), m_server.domain(), QStringLiteral("--user"), user,
                        QStringLiteral("--password-stdin"), QStringLiteral("--folder"), m_syncFolder,
                        QStringLiteral("--pc-name"), m_name, QStringLiteral("--sync"),
                        QStringLiteral("--verbose")},
                       password);
}

int Computer::stopClient()
{
    if (!m_client)
        return -1;
    if (m_client->state() != QProcess::NotRunning) {
        m_client->terminate();
        if (!m_client->waitForFinished(20000)) {
            m_client->kill();
            m_client->waitForFinished(5000);
            output();
            return -1;
        }
    }
    output();
    return m_client->exitStatus() == QProcess::NormalExit ? m_client->exitCode() : -1;
}

void Computer::killClient()
{
    if (!m_client)
        return;
    if (m_client->state() != QProcess::NotRunning) {
        m_client->kill();
        m_client->waitForFinished(5000);
    }
    output();
}

bool Computer::clientRunning() const
{
    return m_client && m_client->state() == QProcess::Running;
}

int Computer::runClient(const QStringList &arguments, const QString &password, int timeoutMs)
{
    if (!startClient(arguments, password))
        return -1;
    if (!m_client->waitForFinished(timeoutMs)) {
        killClient();
        return -1;
    }
    output();
    return m_client->exitStatus() == QProcess::NormalExit ? m_client->exitCode() : -1;
}

QStringList Computer::output()
{
    if (m_client) {
        m_stdout += m_client->readAllStandardOutput();
        m_stderr += m_client->readAllStandardError();
    }
    QStringList lines = QString::fromUtf8(m_stdout).split(u'\n');
    if (!lines.isEmpty() && lines.last().isEmpty())
        lines.removeLast();
    return lines;
}

void Computer::noteReports()
{
    // The client's stderr carries its daemon's too: the daemon is started detached and inherits it.
    output();
    m_reports += sanitizerReport(m_stderr);
}

QString Computer::errorOutput()
{
    output();
    return QString::fromUtf8(m_stderr);
}

qint64 Computer::daemonPid()
{
    if (m_busAddress.isEmpty())
        return 0;
    const QString connectionName = QStringLiteral("e2e-") + m_name;
    qint64 pid = 0;
    {
        QDBusConnection bus = QDBusConnection::connectToBus(m_busAddress, connectionName);
        if (bus.isConnected()) {
            const auto reply = bus.interface()->servicePid(QStringLiteral("com.velmora.FerrovaneDaemon"));
            if (reply.isValid())
                pid = reply.value();
        }
    }
    QDBusConnection::disconnectFromBus(connectionName);
    return pid;
}

Tree Computer::localTree() const
{
    Tree tree;
    QDirIterator it(m_syncFolder, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                    QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString path = it.next();
        const QFileInfo info = it.fileInfo();
        Entry entry;
        entry.folder = info.isDir();
        entry.mtime = secondsOf(info.lastModified());
        if (!entry.folder) {
            QFile file(path);
            entry.size = info.size();
            if (file.open(QIODevice::ReadOnly))
                entry.md5 = md5Hex(file.readAll());
        }
        QString relative = relativeTo(m_syncFolder, path);
        // Two spellings of one name (composed and decomposed) are two items here: both must show.
        while (tree.contains(relative))
            relative += QStringLiteral(" <same name again>");
        tree.insert(relative, entry);
    }
    return tree;
}

Tree Computer::catalogueTree(const QString &user) const
{
    Tree tree;
    sqlite3 *db = nullptr;
    if (sqlite3_open_v2(QFile::encodeName(storePath(user)).constData(), &db, SQLITE_OPEN_READONLY, nullptr) !=
        SQLITE_OK) {
        sqlite3_close(db);
        return tree;
    }
    sqlite3_busy_timeout(db, 5000);
    for (const bool folder : {true, false}) {
        const QByteArray sql =
            folder ? "SELECT path, time FROM Directory" : "SELECT path, time, size, md5 FROM File";
        sqlite3_stmt *statement = nullptr;
        if (sqlite3_prepare_v2(db, sql.constData(), -1, &statement, nullptr) != SQLITE_OK)
            continue;
        while (sqlite3_step(statement) == SQLITE_ROW) {
            auto text = [statement](int column) {
                const auto *bytes = reinterpret_cast<const char *>(sqlite3_column_text(statement, column));
                return bytes ? QString::fromUtf8(bytes) : QString();
            };
            Entry entry;
            entry.folder = folder;
            entry.mtime = m_server.epochOfServerTime(text(1));
            if (!folder) {
                entry.size = text(2).toLongLong();
                entry.md5 = text(3);
            }
            const QString relative = relativeTo(m_syncFolder, text(0));
            // A row outside the sync folder is a fault in itself: keep it visible.
            tree.insert(relative.isEmpty() ? QStringLiteral("<outside> ") + text(0) : relative, entry);
        }
        sqlite3_finalize(statement);
    }
    sqlite3_close(db);
    return tree;
}

int Computer::pendingTasks(const QString &user) const
{
    sqlite3 *db = nullptr;
    int count = -1;
    if (sqlite3_open_v2(QFile::encodeName(storePath(user)).constData(), &db, SQLITE_OPEN_READONLY, nullptr) ==
        SQLITE_OK) {
        sqlite3_busy_timeout(db, 5000);
        sqlite3_stmt *statement = nullptr;
        if (sqlite3_prepare_v2(db, "SELECT count(*) FROM Task", -1, &statement, nullptr) == SQLITE_OK &&
            sqlite3_step(statement) == SQLITE_ROW)
            count = sqlite3_column_int(statement, 0);
        sqlite3_finalize(statement);
    }
    sqlite3_close(db);
    return count;
}

bool Computer::writeFile(const QString &relative, const QByteArray &data, qint64 mtime) const
{
    const QString full = path(relative);
    QDir().mkpath(QFileInfo(full).absolutePath());
    QFile file(full);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate) || file.write(data) != data.size())
        return false;
    file.close();
    if (mtime > 0) {
        struct utimbuf times = {time_t(mtime), time_t(mtime)};
        return ::utime(QFile::encodeName(full).constData(), &times) == 0;
    }
    return true;
}

} // namespace EndToEnd
