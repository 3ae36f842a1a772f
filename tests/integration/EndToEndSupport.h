#pragma once
// End-to-end test support: the real ferrovane-server as a process, "computers" that each run the
// headless client with a session bus, XDG folders and sync folder of their own (so each also gets
// its own ferrovane-daemon), and whole-state snapshots of the three places a tree lives: the
// server, a sync folder, and a client's catalogue.
//
// Everything here runs on the test's main thread; waits spin its event loop and are bounded.

#include <QByteArray>
#include <QJsonObject>
#include <QMap>
#include <QProcess>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <utility>

namespace EndToEnd {

// One item of a tree, keyed by its path relative to the sync folder ("/a/b.txt").
struct Entry
{
    bool folder = false;
    qint64 size = -1; // files only
    QString md5;      // files only
    qint64 mtime = 0; // seconds since the epoch (UTC); 0 when unknown
    bool operator==(const Entry &other) const = default;
};
using Tree = QMap<QString, Entry>;

// What to compare: dates are compared only where both sides carry one.
struct Compare
{
    bool dates = false;
    bool folderDates = false;
};

// A readable list of differences; empty when the trees agree.
QString difference(const Tree &expected, const Tree &actual, const Compare &how = {});

// Spins the event loop until `condition` holds or `timeoutMs` passes; the last value.
bool waitFor(const std::function<bool()> &condition, int timeoutMs);

QString md5Hex(const QByteArray &data);

class ServerProcess
{
public:
    ServerProcess();
    ~ServerProcess();
    ServerProcess(const ServerProcess &) = delete;
    ServerProcess &operator=(const ServerProcess &) = delete;

    // Starts on free ports (or the previous ones, after stop()) with its data folder kept across
    // restarts. False (with `error`) when it did not come up.
    bool start(QString *error = nullptr);
    void stop();
    bool isRunning() const;

    QString domain() const; // "127.0.0.1:<port>", what a user types as domain
    QString certificate() const;
    QString zone() const; // "+0900"

    // Admin interface. A failed request yields {"ok": false, "error": ...}.
    QJsonObject get(const QString &pathAndQuery);
    QJsonObject post(const QString &path, const QJsonObject &body);
    bool ok(const QJsonObject &reply) const;

    bool addUser(const QString &user, const QString &password);
    bool mkdir(const QString &user, const QString &path);
    bool put(const QString &user, const QString &path, const QByteArray &content,
             const QString &serverTime = {});
    bool rename(const QString &user, const QString &path, const QString &name);
    bool move(const QString &user, const QString &path, const QString &destination);
    bool remove(const QString &user, const QString &path);
    bool fault(const QJsonObject &fault);
    bool clearFaults();
    // Fault counts not yet used up (-1 when the server did not answer).
    int pendingFaults();
    // Commands the server has received since the last clear (e.g. "PUT", "DEL").
    QStringList commandLog();
    void clearLog();

    Tree tree(const QString &user);
    // Every path the server holds for `user`, as listed (so a path held twice shows twice); with
    // `pending`, files announced but never uploaded too.
    QStringList treePaths(const QString &user, bool pending = false);
    // A server time string as seconds since the epoch, read in the server's zone.
    qint64 epochOfServerTime(const QString &serverTime) const;

private:
    QTemporaryDir m_data;
    std::unique_ptr<QProcess> m_process;
    quint16 m_port = 0;
    quint16 m_adminPort = 0;
    QString m_zone;
    QString m_certificate;
    QByteArray m_output;
};

// One computer: a session bus, XDG folders and a sync folder of its own, and the headless client.
class Computer
{
public:
    Computer(const QString &name, ServerProcess &server);
    ~Computer();
    Computer(const Computer &) = delete;
    Computer &operator=(const Computer &) = delete;

    const QString &name() const { return m_name; }
    QString syncFolder() const { return m_syncFolder; }
    QString dataHome() const { return m_home.filePath(QStringLiteral("data")); }
    // The catalogue store of `user` on this computer.
    QString storePath(const QString &user) const;
    QString busAddress() const { return m_busAddress; }

    // Starts `ferrovane --headless` with `arguments`; the password (if any) goes to its stdin.
    bool startClient(const QStringList &arguments, const QString &password = {});
    // Sign in and sync: --domain, --user, --password-stdin, --folder, --sync.
    bool startSyncing(const QString &user, const QString &password);
    // SIGTERM and wait; the exit code (-1 when it had to be killed).
    int stopClient();
    void killClient();
    bool clientRunning() const;
    // Runs the client to its end (e.g. with --once); its exit code, -1 on time-out.
    int runClient(const QStringList &arguments, const QString &password, int timeoutMs);
    // Everything the client printed on stdout so far, line by line.
    QStringList output();
    QString errorOutput();

    // The watcher daemon of this computer's bus (started by the client): its pid, 0 when none.
    qint64 daemonPid();

    Tree localTree() const;
    Tree catalogueTree(const QString &user) const;
    int pendingTasks(const QString &user) const;

    // Writes a file (parents created) with a given modification time (0: now).
    bool writeFile(const QString &relative, const QByteArray &data, qint64 mtime = 0) const;
    QString path(const QString &relative) const { return m_syncFolder + relative; }

private:
    QProcessEnvironment environment() const;
    bool startBus();
    // Keeps any sanitizer report in the client's stderr before that output is dropped.
    void noteReports();

    QString m_name;
    ServerProcess &m_server;
    QTemporaryDir m_home;
    QString m_syncFolder;
    std::unique_ptr<QProcess> m_bus;
    QString m_busAddress;
    std::unique_ptr<QProcess> m_client;
    QByteArray m_stdout;
    QByteArray m_stderr;
    QString m_reports; // of every client run so far
};

// Server tree == every computer's sync folder == its catalogue: the differences, empty when in step.
QString outOfStep(ServerProcess &server, const QString &user, const QList<Computer *> &computers,
                  const Compare &how = {});

// The program paths in the build (beside the test executable).
QString programPath(const QString &name);

// A test with the server running and one account on it.
class AccountTest : public ::testing::Test
{
protected:
    AccountTest(QString user, QString password) : m_user(std::move(user)), m_password(std::move(password)) {}

    void SetUp() override
    {
        QString error;
        ASSERT_TRUE(server.start(&error)) << qPrintable(error);
        ASSERT_TRUE(server.addUser(m_user, m_password));
    }

    ServerProcess server;

private:
    QString m_user;
    QString m_password;
};

} // namespace EndToEnd
