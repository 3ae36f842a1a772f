// Another process on the session bus, driven by the distributed-notification tests.
//   ferrovane_link_bus_peer post NAME [OBJECT]   posts one notification and exits
//   ferrovane_link_bus_peer listen NAME          prints "ready", then "NAME\tOBJECT" for the first
//                                                notification called NAME, and exits (2 after 10 s)
#include "link/DistributedNotificationCenter.h"

#include <QCoreApplication>
#include <QTimer>
#include <cstdio>

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments();
    if (args.size() < 3)
        return 64;
    DistributedNotificationCenter center;
    if (!center.isConnected())
        return 3;
    const QString name = args[2];
    if (args[1] == u"post")
        return center.postNotificationName(name, args.value(3)) ? 0 : 1;

    QObject observer;
    center.addObserver(
        &observer,
        [](const QString &seenName, const QString &object) {
            std::printf("%s\t%s\n", qPrintable(seenName), qPrintable(object));
            std::fflush(stdout);
            QCoreApplication::exit(0);
        },
        name);
    QTimer::singleShot(10000, &app, [] { QCoreApplication::exit(2); });
    std::printf("ready\n");
    std::fflush(stdout);
    return app.exec();
}
