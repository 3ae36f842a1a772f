#pragma once
// Makes sure the watcher daemon runs in this session before the client talks to it: a daemon holds
// the session-bus name com.velmora.FerrovaneDaemon once it listens for the client's notifications.
// When no process holds the name, the launcher starts ferrovane-daemon from the client's own folder
// (or, when it is not there, asks the bus to activate the name) and waits until the name appears.
// A daemon that already holds the name is used as it is: no second one is started.
//
// Threading: main thread (it uses the shared session-bus connection). Callbacks run on it.

#include <QObject>
#include <QString>
#include <QTimer>
#include <functional>

class QDBusServiceWatcher;

class DaemonLauncher final : public QObject
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(DaemonLauncher)
public:
    static QString serviceName();
    // The program started when no daemon runs: ferrovane-daemon beside the running executable.
    static QString programPath();

    explicit DaemonLauncher(QObject *parent = nullptr);
    ~DaemonLauncher() override;

    // True when a process holds the daemon's bus name now.
    static bool isRunning();

    // Calls `ready` once a daemon holds the name: at once when one does, else after starting one.
    // A later call replaces a waiting callback. Without a session bus, or when no daemon appears
    // within `timeoutMs`, `ready` is dropped with a diagnostic line.
    void whenRunning(std::function<void()> ready, int timeoutMs = 30000);
    // Drops a waiting callback.
    void cancel();

signals:
    // The daemon's bus name lost its owner (the daemon ended or was killed), once whenRunning has
    // been called.
    void daemonGone();

private:
    void registered();
    void timedOut();

    QDBusServiceWatcher *m_watcher = nullptr;
    QTimer m_timeout;
    std::function<void()> m_ready;
};
