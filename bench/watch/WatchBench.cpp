// The watcher daemon's set-up on a large tree, measured in-process with the daemon's own service
// object: startListener (the tree's watches, the classifier's scan of what exists, the listening
// socket), as ferrovane-daemon runs it when the client asks it to watch.
//   ferrovane-bench-watch FOLDER
// Prints one line of "key=value" pairs: seconds, watches (kernel watches of this process),
// rss_kib (after the set-up), peak_rss_kib.
#include "bench/BenchSupport.h"
#include "daemon/FerrovaneDaemon.h"
#include "link/DistributedNotificationCenter.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <cstdio>

namespace {
// Watches held by this process, read from the inotify descriptors' fdinfo.
int kernelWatches()
{
    int watches = 0;
    const QDir fds(QStringLiteral("/proc/self/fdinfo"));
    for (const QString &fd : fds.entryList(QDir::Files)) {
        QFile info(fds.filePath(fd));
        if (info.open(QIODevice::ReadOnly))
            watches += int(info.readAll().count("inotify wd:"));
    }
    return watches;
}
} // namespace

int main(int argc, char **argv)
{
    BenchSupport::installQtWarningCheck();
    bool ok = false;
    {
        QCoreApplication app(argc, argv);
        const QStringList args = app.arguments().mid(1);
        if (args.size() != 1) {
            std::fprintf(stderr, "usage: ferrovane-bench-watch FOLDER\n");
            return 2;
        }
        // A center of its own (as the daemon's); without a session bus it only posts nothing.
        DistributedNotificationCenter center;
        FerrovaneDaemon daemon(&center);
        QElapsedTimer timer;
        timer.start();
        daemon.startListener(args[0]);
        const double seconds = double(timer.nsecsElapsed()) / 1e9;
        ok = daemon.isListening();
        std::printf("seconds=%.3f watches=%d rss_kib=%lld peak_rss_kib=%lld\n", seconds, kernelWatches(),
                    BenchSupport::statusKib("VmRSS:"), BenchSupport::statusKib("VmHWM:"));
        std::fflush(stdout);
        daemon.stopListener();
    }
    return BenchSupport::exitStatus(ok);
}
