#pragma once
// Persistent state of the local server: accounts, sessions, each account's folder tree with server
// keys, times and MD5s, and the change journal behind WORKLIST, in one SQLite database in the data
// folder; file contents live beside it as files named after their key.
//
// Every change runs in one transaction; uploaded contents are written to a temporary file first and
// renamed into place before the row that points at them is committed, so a failure at any point
// leaves the previous state intact. Thread-safe: one connection guarded by a mutex, so the worker
// thread and in-process admin calls may use it at the same time.

#include "server/ServerClock.h"
#include "server/ServerTypes.h"

#include <QList>
#include <QMutex>
#include <QString>
#include <optional>

struct sqlite3;

struct StoredItem
{
    qint64 key = 0;
    qint64 parentKey = 0; // 0 for top-level folders
    QString name;
    bool folder = false;
    QString kind;      // top-level folders only ("" or "SHARE")
    bool sync = false; // marks the sync folder among the top-level folders
    qint64 size = -1;
    QString md5;
    QString time;
    QString content; // file name under files/; empty until the first upload completes
    qint64 memo = 0;
    QString priv, tag, desc;
    QString pendingPc; // computer that announced the file with PUT, until its upload lands
};

struct SessionInfo
{
    QString user;
    QString pcName;
};

struct PutResult
{
    int code = ResultCode::StorageError;
    qint64 key = 0;
    qint64 parentKey = 0;
};

struct WorkList
{
    qint64 id = 0; // the ID to send back: the newest change the asker has now seen
    QList<JournalEntry> entries;
};

class ServerStore
{
public:
    static constexpr qint64 kDefaultQuota = 10LL * 1024 * 1024 * 1024;
    static constexpr const char *kSyncFolderName = "syncfolder";

    explicit ServerStore(const ServerClock &clock);
    ~ServerStore();
    ServerStore(const ServerStore &) = delete;
    ServerStore &operator=(const ServerStore &) = delete;

    bool open(const QString &dataDir, QString *error);
    QString tempDir() const;
    QString contentPath(const StoredItem &item) const;

    // Accounts and sessions.
    bool addUser(const QString &id, const QString &password, const QString &mailId);
    // `encode` "raw" compares the password as sent; "md5" compares its 32-digit MD5.
    bool checkPassword(const QString &id, const QString &password, const QString &encode, QString *mailId);
    QString createSession(const QString &user, const QString &pcName, const QString &mac);
    std::optional<SessionInfo> session(const QString &token);
    int expireSessions(const QString &user);
    bool setQuota(const QString &user, qint64 total);
    bool quota(const QString &user, qint64 *total, qint64 *used);

    // Reading the tree. children() leaves out files whose contents never arrived.
    std::optional<StoredItem> item(const QString &user, qint64 key);
    QList<StoredItem> topFolders(const QString &user);
    QList<StoredItem> children(const QString &user, qint64 folderKey);
    qint64 syncRootKey(const QString &user);
    QString serverPath(const QString &user, qint64 key);
    QList<TreeEntry> tree(const QString &user, bool includePending);

    // Commands. `relativePath` is the item's path below the sync folder ("/a/b.txt"); its parent must
    // exist. Announcing an existing item answers its key; a new file stays hidden until uploaded.
    PutResult put(const QString &user, const QString &relativePath, const QString &name, bool folder,
                  qint64 size, const QString &time, const QString &pcName);
    int rename(const QString &user, qint64 key, const QString &newName, const QString &pcName);
    int remove(const QString &user, qint64 key, const QString &pcName);
    int move(const QString &user, qint64 sourceKey, qint64 destKey, bool force, const QString &pcName);
    // Moves `tempFile` into place as the contents of file `key`; removes it on refusal.
    int commitUpload(const QString &user, qint64 key, const QString &tempFile, qint64 size,
                     const QString &md5, const QString &time, const QString &pcName);

    // The server clock as SERVERTIME reports it; later changes are stamped strictly after it.
    qint64 markServerTime();
    WorkList workList(const QString &user, qint64 after, const QString &pcName, int limit);

    // Changes by path below the sync folder ("a/b.txt"), made as computer `pcName`; missing parent
    // folders are created. Return a result code; the key of a new item through `key`.
    int makeFolder(const QString &user, const QString &path, const QString &pcName, qint64 *key = nullptr);
    int putFile(const QString &user, const QString &path, const QByteArray &contents, const QString &time,
                const QString &pcName, qint64 *key = nullptr);
    int renamePath(const QString &user, const QString &path, const QString &newName, const QString &pcName);
    int movePath(const QString &user, const QString &path, const QString &destFolder, const QString &pcName);
    int removePath(const QString &user, const QString &path, const QString &pcName);

    QString meta(const QString &name, const QString &fallback = {});
    bool setMeta(const QString &name, const QString &value);

    static bool isValidName(const QString &name);

private:
    class Transaction;
    bool exec(const char *sql);
    std::optional<StoredItem> itemLocked(const QString &user, qint64 key);
    std::optional<StoredItem> childLocked(const QString &user, qint64 parentKey, const QString &name);
    QList<StoredItem> childrenLocked(const QString &user, qint64 folderKey, bool includePending);
    qint64 syncRootLocked(const QString &user);
    QString serverPathLocked(const QString &user, qint64 key);
    bool inSyncLocked(const QString &user, qint64 key);
    bool isWithinLocked(const QString &user, qint64 key, qint64 ancestor);
    std::optional<StoredItem> resolveLocked(const QString &user, const QString &path);
    qint64 insertItemLocked(const QString &user, const StoredItem &item);
    bool removeTreeLocked(const QString &user, qint64 key, QStringList *contents);
    qint64 nextStampLocked();
    bool journalLocked(const QString &user, const QString &kind, const StoredItem &item,
                       const QString &pcName, qint64 parentKey);
    bool journalAddTreeLocked(const QString &user, const StoredItem &item, const QString &pcName);
    int removeLocked(const QString &user, qint64 key, const QString &pcName);
    int moveLocked(const QString &user, qint64 sourceKey, qint64 destKey, bool force, const QString &pcName);
    int renameLocked(const QString &user, qint64 key, const QString &newName, const QString &pcName);
    bool setMetaLocked(const QString &name, const QString &value);
    void deleteContents(const QStringList &contents);
    int ensureFoldersLocked(const QString &user, const QStringList &parts, qint64 *folderKey,
                            const QString &pcName);

    const ServerClock &m_clock;
    QMutex m_mutex;
    sqlite3 *m_db = nullptr;
    QString m_dataDir;
    qint64 m_lastStamp = 0;
};
