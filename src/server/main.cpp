// ferrovane-server: the local Ferrovane server as a program. Prints one line with its URL, admin
// URL and certificate path once it listens, then serves until SIGINT or SIGTERM.

#include "server/AdminApi.h"
#include "server/FerrovaneServer.h"
#include "util/Log.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QSocketNotifier>
#include <QStandardPaths>
#include <csignal>
#include <cstdio>
#include <unistd.h>

namespace {
int g_signalPipe[2] = {-1, -1};

void onSignal(int)
{
    const char byte = 1;
    [[maybe_unused]] const auto written = ::write(g_signalPipe[1], &byte, 1);
}

bool parsePort(const QString &text, quint16 *port)
{
    bool ok = false;
    const uint value = text.toUInt(&ok);
    if (!ok || value > 65535)
        return false;
    *port = quint16(value);
    return true;
}
} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("ferrovane-server"));
    QCoreApplication::setApplicationVersion(QStringLiteral(FERROVANE_VERSION));

    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral(
        "Local Ferrovane server: HTTPS command endpoint \"cgi-bin/cloudXml.cgi\", uploads and downloads\n"
        "(\"?do=upload\" / \"?do=download\"), the update description and package, and an admin interface.\n"
        "\n"
        "Admin interface: JSON over plain HTTP on 127.0.0.1:<admin port>. Answers are JSON objects with "
        "\"ok\".\n"
        "  GET  /tree?user=U[&pending=1]   items of the sync folder (path, key, pkey, folder, size, md5, "
        "time)\n"
        "  GET  /file?user=U&path=P        the stored bytes of one file\n"
        "  GET  /log                       requests received (command, method, target, body)\n"
        "  GET  /time                      server time and zone\n"
        "  POST /users {id,password,mail}  POST /sessions/expire {user}  POST /quota {user,total}\n"
        "  POST /mkdir {user,path}         POST /put {user,path,content|content_base64,time}\n"
        "  POST /rename {user,path,name}   POST /move {user,path,dest}   POST /delete {user,path}\n"
        "       (paths relative to the sync folder; optional \"pcname\", default \"ferrovane-admin\")\n"
        "  POST /fault {kind,command,count,status,body,ms,result,bytes}\n"
        "       kinds: drop, cut-reply, drop-after, status, body, delay, refuse-upload, cut-download;\n"
        "       command: LOGIN ... INFO, UPLOAD, DOWNLOAD, UPDATE, PACKAGE or *\n"
        "  GET  /faults                    fault counts not yet used up\n"
        "  POST /faults/clear  POST /log/clear  POST /update {version,build,package|package_base64}"));
    parser.addHelpOption();
    parser.addVersionOption();
    const QCommandLineOption portOption(QStringLiteral("port"),
                                        QStringLiteral("HTTPS port (0 picks a free one)."),
                                        QStringLiteral("port"), QStringLiteral("8443"));
    const QCommandLineOption adminPortOption(QStringLiteral("admin-port"),
                                             QStringLiteral("Admin port on 127.0.0.1 (0 picks a free one)."),
                                             QStringLiteral("port"), QStringLiteral("8444"));
    const QCommandLineOption addressOption(QStringLiteral("address"),
                                           QStringLiteral("Address to serve HTTPS on (default 127.0.0.1)."),
                                           QStringLiteral("address"), QStringLiteral("127.0.0.1"));
    const QCommandLineOption dataOption(
        QStringLiteral("data"),
        QStringLiteral("Data folder: database, file contents, certificate (kept across runs)."),
        QStringLiteral("dir"));
    const QCommandLineOption zoneOption(QStringLiteral("timezone"),
                                        QStringLiteral("Server time zone as +hhmm or -hhmm (default +0900)."),
                                        QStringLiteral("zone"), QStringLiteral("+0900"));
    const QCommandLineOption certOption(
        QStringLiteral("cert"),
        QStringLiteral("PEM certificate (default: self-signed, made on first start)."),
        QStringLiteral("file"));
    const QCommandLineOption keyOption(QStringLiteral("key"), QStringLiteral("PEM private key for --cert."),
                                       QStringLiteral("file"));
    const QCommandLineOption userOption(QStringLiteral("add-user"),
                                        QStringLiteral("Create or update an account (repeatable)."),
                                        QStringLiteral("id:password[:mailid]"));
    const QCommandLineOption verboseOption(QStringLiteral("verbose"),
                                           QStringLiteral("Diagnostics to stderr."));
    parser.addOptions({portOption, adminPortOption, addressOption, dataOption, zoneOption, certOption,
                       keyOption, userOption, verboseOption});
    parser.process(app);
    Log::setVerbose(parser.isSet(verboseOption));

    ServerConfig config;
    if (!parsePort(parser.value(portOption), &config.port) ||
        !parsePort(parser.value(adminPortOption), &config.adminPort)) {
        std::fprintf(stderr, "ferrovane-server: invalid port\n");
        return 2;
    }
    if (!config.address.setAddress(parser.value(addressOption))) {
        std::fprintf(stderr, "ferrovane-server: invalid address\n");
        return 2;
    }
    config.dataDir = parser.isSet(dataOption)
                         ? parser.value(dataOption)
                         : QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation) +
                               QStringLiteral("/ferrovane-server");
    config.timezone = parser.value(zoneOption);
    config.certFile = parser.value(certOption);
    config.keyFile = parser.value(keyOption);

    FerrovaneServer server(config);
    QString error;
    if (!server.start(&error)) {
        std::fprintf(stderr, "ferrovane-server: %s\n", qPrintable(error));
        return 1;
    }
    for (const QString &account : parser.values(userOption)) {
        const QStringList parts = account.split(u':');
        if (parts.size() < 2 || parts.size() > 3 || parts[0].isEmpty() ||
            !server.addUser(parts[0], parts[1], parts.value(2))) {
            std::fprintf(stderr, "ferrovane-server: cannot add user \"%s\" (expected ID:PASSWORD[:MAILID])\n",
                         qPrintable(account));
            return 2;
        }
    }

    if (::pipe(g_signalPipe) == 0) {
        auto *notifier = new QSocketNotifier(g_signalPipe[0], QSocketNotifier::Read, &app);
        QObject::connect(notifier, &QSocketNotifier::activated, &app, [] { QCoreApplication::quit(); });
        std::signal(SIGINT, onSignal);
        std::signal(SIGTERM, onSignal);
    }
    std::printf("ferrovane-server listening url=%s admin=%s cert=%s\n", qPrintable(server.url()),
                qPrintable(server.adminUrl()), qPrintable(server.certificatePath()));
    std::fflush(stdout);
    const int status = app.exec();
    server.stop();
    return status;
}
