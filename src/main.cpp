// ferrovane: the desktop client. Parses the command line and hands over to the tray application,
// or with --headless to the headless client.
#include "app/HeadlessClient.h"
#include "ui/TrayClient.h"
#include "util/Log.h"

#include <QApplication>
#include <QCommandLineParser>
#include <QCoreApplication>
#include <QFile>
#include <cstdio>
#include <cstring>
#include <memory>

namespace {

// Whether the widgets can be shown: a platform was named, or there is a display to show them on.
bool hasDisplay()
{
    return !qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM") || !qEnvironmentVariableIsEmpty("DISPLAY") ||
           !qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY");
}

// The tray application needs a QApplication; the headless client, --help and --version only a
// QCoreApplication (no display). Chosen from the raw arguments, before Qt parses them.
std::unique_ptr<QCoreApplication> createApplication(int &argc, char **argv)
{
    bool widgets = true;
    for (int i = 1; i < argc; ++i) {
        for (const char *option : {"--headless", "-h", "--help", "--help-all", "-v", "--version"}) {
            if (std::strcmp(argv[i], option) == 0)
                widgets = false;
        }
    }
    if (widgets && hasDisplay())
        return std::make_unique<QApplication>(argc, argv);
    return std::make_unique<QCoreApplication>(argc, argv);
}

struct CommandLine
{
    QCommandLineOption headless{QStringLiteral("headless"),
                                QStringLiteral("Run without widgets (no display needed); print the activity "
                                               "log and every user-visible message to stdout.")};
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
                                           "work-list pass) and exit; with --headless.")};
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
    // The engine's threads (the worker, the listener queue, the transfers) take the plain event
    // loop: the GLib one wakes its own thread each time a socket's write watch goes on or off,
    // twice per request. The main thread keeps GLib, which the desktop's integration wants.
    if (!qEnvironmentVariableIsSet("QT_NO_THREADED_GLIB"))
        qputenv("QT_NO_THREADED_GLIB", "1");
    const std::unique_ptr<QCoreApplication> app = createApplication(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("ferrovane"));
    QCoreApplication::setApplicationVersion(QStringLiteral(FERROVANE_VERSION));

    QCommandLineParser parser;
    parser.setApplicationDescription(
        QStringLiteral("Ferrovane keeps a local folder identical, in both directions, with your area on a "
                       "Ferrovane server.\n"
                       "Without --headless it runs in the desktop's tray: its menu, the sign-in and settings "
                       "window, the preferences and the activity log. The sign-in options below fill the "
                       "sign-in window and the settings for a scripted set-up in either mode."));
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

    if (!parser.isSet(options.headless)) {
        if (!qobject_cast<QApplication *>(app.get()))
            return usageError(QStringLiteral("no display to show the tray application on (DISPLAY and "
                                             "WAYLAND_DISPLAY are unset); run it with --headless"));
        if (parser.isSet(options.once))
            return usageError(QStringLiteral("--once goes with --headless"));
        TrayClient client(settings);
        return client.exec();
    }
    HeadlessClient client(settings);
    return client.exec();
}
