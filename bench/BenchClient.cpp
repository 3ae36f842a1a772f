// The client side of the transfer and digest benchmarks, one measurement per process:
//   ferrovane-bench-client upload URL FILE TIME
//   ferrovane-bench-client download URL FILE
//   ferrovane-bench-client md5 FILE
// Prints one line of "key=value" pairs: seconds (the transfer), trust_seconds (the process's one-time
// trust set-up, before it), result, md5, peak_rss_kib (VmHWM of this process).
// Fails (exit status 1) when the transfer fails or Qt printed a warning.

#include "RestLibrary/NetworkAccess.h"
#include "bench/BenchSupport.h"
#include "protocol/DownloadFile.h"
#include "protocol/UploadFile.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QThread>
#include <cstdio>

namespace {
int usage()
{
    std::fprintf(stderr,
                 "usage: ferrovane-bench-client upload URL FILE TIME | download URL FILE | md5 FILE\n");
    return 2;
}
} // namespace

int main(int argc, char **argv)
{
    BenchSupport::installQtWarningCheck();
    bool ok = false;
    {
        QCoreApplication app(argc, argv);
        const QStringList args = app.arguments().mid(1);
        const QString mode = args.value(0);
        if (!((mode == QLatin1String("upload") && args.size() == 4) ||
              (mode == QLatin1String("download") && args.size() == 3) ||
              (mode == QLatin1String("md5") && args.size() == 2)))
            return usage();

        // The process's one-time trust set-up, timed on its own: with FERROVANE_CA_FILE, Qt loads
        // every system authority too (a few hundred certificates) before the first connection.
        QElapsedTimer trustTimer;
        trustTimer.start();
        if (mode != QLatin1String("md5"))
            NetworkAccess::installTrust();
        const double trustSeconds = double(trustTimer.nsecsElapsed()) / 1e9;

        QString result, md5;
        double seconds = 0;
        // Transfers block a worker thread while this (main) thread runs the connection.
        QThread *worker = QThread::create([&] {
            QElapsedTimer timer;
            timer.start();
            if (mode == QLatin1String("upload")) {
                result = UploadFile::uploadFileWithKey({}, args[2], args[1], 0, args[3]);
            } else if (mode == QLatin1String("download")) {
                result = DownloadFile::downloadFileFromURL(args[1], args[2], &md5, {})
                             ? QStringLiteral("ok")
                             : QStringLiteral("fail");
            } else {
                md5 = UploadFile::getMD5OfFileAtPath(args[1]);
                result = md5.isEmpty() ? QStringLiteral("fail") : QStringLiteral("ok");
            }
            seconds = double(timer.nsecsElapsed()) / 1e9;
        });
        QObject::connect(worker, &QThread::finished, &app, &QCoreApplication::quit);
        worker->start();
        app.exec();
        worker->wait();
        delete worker;

        std::printf("seconds=%.3f trust_seconds=%.3f result=%s md5=%s peak_rss_kib=%lld\n", seconds,
                    trustSeconds, qPrintable(result), qPrintable(md5.isEmpty() ? QStringLiteral("-") : md5),
                    BenchSupport::statusKib("VmHWM:"));
        std::fflush(stdout);
        ok = result == QLatin1String("ok") || result == QLatin1String("done");
        // The application object goes before the verdict: its teardown may warn too.
    }
    return BenchSupport::exitStatus(ok);
}
