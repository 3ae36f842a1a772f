// ferrovane: the desktop client. Parses the command line and hands over to the headless client
// (or, once it exists, the tray application).
#include "app/HeadlessClient.h"
#include "util/Log.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QFile>
#include <cstdio>
#include <memory>

namespace {

// The headless client needs only a QCoreApplication; the tray application will need a QApplication,
// chosen here from the raw arguments before Qt parses them.
std::unique_ptr<QCoreApplication> createApplication(int &argc, char **argv)
{
    return std::make_unique<QCoreApplication>(argc, argv);
}

struct CommandLine
{
    QCommandLineOption headless{QStringLiteral("headless"),
                                QStringLiteral("Run without widgets; print the activity log and every "
                                               "user-visible message to stdout.")};
    QCommandLineOption domain{QStringLiteral("domain"),
                              QStringLiteral("Server domain to sign in to (host[:port])."),
                              QStringLiteral("domain")};
    QCommandLineOption user{QStringLiteral("user"), QStringLiteral("User id to sign in with."),
                            QStringLiteral("id")};
    QCommandLineOption passwordStdin{
        QStringLiteral("password-stdin"),
        QStringLiteral("Read the password from the first line of standard input.")};
    QCommandLineOption folder{QStringLiteral("folder"),
                              QStringLiteral("Set the sync folder (as the settings' Save)."),
                              QStringLiteral("path")};
    QCommandLineOption pcName{QStringLiteral("pc-name"),
                              QStringLiteral("Name this computer by (as the settings' computer name; "
                                             "default: the host name)."),
                              QStringLiteral("name")};
    QCommandLineOption sync{QStringLiteral("sync"), QStringLiteral("Switch sync on.")};
    QCommandLineOption once{QStringLiteral("once"),
                            QStringLiteral("Sync once (first sync or rescan, pending changes sent, one "
                                           "work-list pass) and exit.")};
    QCommandLineOption verbose{QStringLiteral("verbose"),
                               QStringLiteral("Mirror diagnostic lines to stderr.")};

    void addTo(QCommandLineParser &parser) const
    {
        for (const QCommandLineOption &option :
             {headless, domain, user, passwordStdin, folder, pcName, sync, once, verbose})
            parser.addOption(option);
    }
};

int usageError(const QString &message)
{
    std::fprintf(stderr, "ferrovane: %s\nRun 'ferrovane --help' for the options.\n", qPrintable(message));
    return HeadlessClient::UsageError;
}

// The first line of standard input, without its line end.
QString readPasswordLine()
{
    QFile input;
    if (!input.open(stdin, QIODevice::ReadOnly))
        return {};
    QByteArray line = input.readLine();
    if (line.endsWith('\n'))
        line.chop(1);
    if (line.endsWith('\r'))
        line.chop(1);
    return QString::fromUtf8(line);
}

} // namespace

int main(int argc, char *argv[])
{
    const std::unique_ptr<QCoreApplication> app = createApplication(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("ferrovane"));
    QCoreApplication::setApplicationVersion(QStringLiteral(FERROVANE_VERSION));

    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("Ferrovane keeps a local folder identical, in both "
                                                    "directions, with your area on a Ferrovane server."));
    const QCommandLineOption help = parser.addHelpOption();
    const QCommandLineOption version = parser.addVersionOption();
    const CommandLine options;
    options.addTo(parser);
    if (!parser.parse(QCoreApplication::arguments()))
        return usageError(parser.errorText());
    if (parser.isSet(help)) {
        std::printf("%s\n%s", qPrintable(parser.helpText()), qPrintable(HeadlessClient::usageNotes()));
        return 0;
    }
    if (parser.isSet(version)) {
        std::printf("ferrovane %s\n", FERROVANE_VERSION);
        return 0;
    }
    if (!parser.positionalArguments().isEmpty())
        return usageError(QStringLiteral("unexpected argument: ") +
                          parser.positionalArguments().constFirst());
    Log::setVerbose(parser.isSet(options.verbose));

    if (!parser.isSet(options.headless))
        return usageError(QStringLiteral("this build has no tray application yet; run it with --headless"));

    HeadlessClient::Options settings;
    settings.domain = parser.value(options.domain);
    settings.user = parser.value(options.user);
    settings.folder = parser.value(options.folder);
    settings.pcName = parser.value(options.pcName);
    settings.sync = parser.isSet(options.sync);
    settings.once = parser.isSet(options.once);
    const bool anyCredential =
        parser.isSet(options.domain) || parser.isSet(options.user) || parser.isSet(options.passwordStdin);
    if (anyCredential) {
        if (settings.domain.isEmpty() || settings.user.isEmpty() || !parser.isSet(options.passwordStdin))
            return usageError(QStringLiteral("--domain, --user and --password-stdin go together"));
        settings.password = readPasswordLine();
        settings.hasPassword = true;
        if (settings.password.isEmpty())
            return usageError(QStringLiteral("no password on standard input"));
    }
    if (parser.isSet(options.folder) && settings.folder.isEmpty())
        return usageError(QStringLiteral("--folder needs a path"));
    if (parser.isSet(options.pcName) && settings.pcName.trimmed().isEmpty())
        return usageError(QStringLiteral("--pc-name needs a name"));

    HeadlessClient client(settings);
    return client.exec();
}
