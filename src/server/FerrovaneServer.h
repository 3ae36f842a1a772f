#pragma once
// A complete local server for the Ferrovane client, runnable in-process (tests) or as the program
// ferrovane-server: HTTPS command endpoint, uploads and downloads, the update description and
// package, a loopback JSON admin interface, persistent storage in a data folder.
//
// The server answers on its own thread, so callers may block theirs (clients under test do).
// The admin methods below are thread-safe and may be called from any thread while it runs; they
// take effect at once. Paths given to them are relative to the account's sync folder ("a/b.txt").

#include "server/FaultPlan.h"
#include "server/ServerTypes.h"

#include <QHostAddress>
#include <QList>
#include <QObject>
#include <QString>
#include <memory>

class QThread;
class ServerBackend;
class ServerWorker;

struct ServerConfig
{
    QString dataDir; // persistent folder (SQLite + file contents + cert)
    QHostAddress address = QHostAddress::LocalHost;
    quint16 port = 0;                           // 0 = ephemeral
    quint16 adminPort = 0;                      // 0 = ephemeral; admin JSON interface on loopback
    QString timezone = QStringLiteral("+0900"); // server zone "+hhmm"/"-hhmm", deliberately not UTC
    QString certFile, keyFile;                  // empty = self-signed generated into dataDir on first start
};

class FerrovaneServer final : public QObject
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(FerrovaneServer)

public:
    // The computer name under which admin changes enter the work list.
    static constexpr const char *kAdminPcName = "ferrovane-admin";

    explicit FerrovaneServer(ServerConfig config, QObject *parent = nullptr);
    ~FerrovaneServer() override; // stops and joins its thread

    bool start(QString *error = nullptr); // serves on its own thread; returns once listening
    void stop();
    bool isRunning() const;
    quint16 port() const;
    quint16 adminPort() const;
    QString domain() const;          // "127.0.0.1:<port>": what a user types as the domain
    QString url() const;             // "https://127.0.0.1:<port>/"
    QString adminUrl() const;        // "http://127.0.0.1:<adminPort>/"
    QString certificatePath() const; // PEM to trust through FERROVANE_CA_FILE
    QString timezone() const;        // "+hhmm"
    QString serverTime() const;      // now, 14 digits in the server zone

    // Accounts.
    bool addUser(const QString &id, const QString &password, const QString &mailId = {});
    int expireSessions(const QString &user); // the next command of those sessions gets "-3"
    bool setQuota(const QString &user, qint64 totalBytes);

    // The tree, changed as another computer would (entering the work list under `pcName`).
    // Missing parent folders are created. Return the item's key, or "" on failure.
    QString makeFolder(const QString &user, const QString &path,
                       const QString &pcName = QLatin1String(kAdminPcName));
    QString putFile(const QString &user, const QString &path, const QByteArray &contents,
                    const QString &time = {}, const QString &pcName = QLatin1String(kAdminPcName));
    bool renameItem(const QString &user, const QString &path, const QString &newName,
                    const QString &pcName = QLatin1String(kAdminPcName));
    // `destFolder` "" is the sync folder itself.
    bool moveItem(const QString &user, const QString &path, const QString &destFolder,
                  const QString &pcName = QLatin1String(kAdminPcName));
    bool deleteItem(const QString &user, const QString &path,
                    const QString &pcName = QLatin1String(kAdminPcName));
    // Sorted by path. Files announced by PUT whose contents never arrived only with `includePending`.
    QList<TreeEntry> tree(const QString &user, bool includePending = false) const;
    // Stored bytes of a file; empty when there is none (use tree() to tell an empty file apart).
    QByteArray fileContents(const QString &user, const QString &path) const;

    // Requests received, oldest first.
    QList<RequestLogEntry> requestLog() const;
    QStringList requestedCommands() const; // just the command names
    void clearRequestLog();

    // Faults for the next `count` requests of `command` (LOGIN ... INFO, UPLOAD, DOWNLOAD, UPDATE,
    // PACKAGE, or "*" for any).
    // Close without a byte of answer, request not carried out. Clients send such a request again by
    // themselves, and each re-send takes a count: the network access manager up to 3 times (drop 4
    // to fail one call of a client whose connection had just answered), a worker thread's direct
    // exchange once when it went out on a kept connection. cutReplies fails exactly one call.
    void dropReplies(const QString &command, int count = 1);
    // Not carried out; the answer breaks off after its head, so no client re-sends it.
    void cutReplies(const QString &command, int count = 1);
    // Carried out; the answer breaks off after its head (the reply is lost on the way).
    void dropRepliesAfterProcessing(const QString &command, int count = 1);
    void failWithStatus(const QString &command, int status = 500, int count = 1);
    void replyWithBody(const QString &command, const QByteArray &body, int count = 1); // e.g. "-3", "-2"
    void delayReplies(const QString &command, int milliseconds, int count = 1);
    void refuseUploads(int count = 1, const QString &result = QStringLiteral("1")); // Velmora-result
    void cutDownloads(qint64 afterBytes, int count = 1);
    void addFault(const Fault &fault);
    void clearFaults();
    int pendingFaults() const;

    // The update check: newest client "version" and "build", and the package offered.
    bool setUpdate(const QString &version, const QString &build, const QByteArray &package = {});

private:
    ServerConfig m_config;
    std::unique_ptr<ServerBackend> m_backend;
    QThread *m_thread = nullptr;
    ServerWorker *m_worker = nullptr;
    quint16 m_port = 0;
    quint16 m_adminPort = 0;
    QString m_certFile;
};
