// ferrovane: the desktop client. Parses the command line and hands over to the application.
#include "app/AppDelegate.h"
#include "util/AppServices.h"
#include "util/Log.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QTextStream>

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("ferrovane"));
    QCoreApplication::setApplicationVersion(QStringLiteral(FERROVANE_VERSION));

    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("Ferrovane keeps a local folder identical, in both "
                                                    "directions, with your area on a Ferrovane server."));
    parser.addHelpOption();
    parser.addVersionOption();
    const QCommandLineOption headless(
        QStringLiteral("headless"), QStringLiteral("Run without widgets; print the activity log to stdout."));
    const QCommandLineOption verbose(QStringLiteral("verbose"),
                                     QStringLiteral("Mirror diagnostic lines to stderr."));
    parser.addOption(headless);
    parser.addOption(verbose);
    parser.process(app);
    Log::setVerbose(parser.isSet(verbose));

    AppDelegate delegate;
    AppServices::setShared(&delegate);
    delegate.applicationDidFinishLaunching();
    return 0;
}
