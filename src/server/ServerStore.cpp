#include "server/ServerStore.h"

#include "util/Log.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRandomGenerator>
#include <QSet>
#include <algorithm>
#include <sqlite3.h>

namespace {

constexpr const char *kItemColumns =
    "key, pkey, name, folder, kind, sync, size, md5, time, content, memo, priv, tag, descr, pending_pc";

// One prepared statement, finalised on destruction.
class Stmt
{
public:
    Stmt(sqlite3 *db, const QByteArray &sql) : m_db(db)
    {
        if (sqlite3_prepare_v2(db, sql.constData(), int(sql.size()), &m_stmt, nullptr) != SQLITE_OK) {
            FV_LOG(QStringLiteral("SQL prepare failed: %1 (%2)")
                       .arg(QString::fromUtf8(sqlite3_errmsg(db)), QString::fromUtf8(sql)));
            m_stmt = nullptr;
        }
    }
    ~Stmt() { sqlite3_finalize(m_stmt); }
    Stmt(const Stmt &) = delete;
    Stmt &operator=(const Stmt &) = delete;

    Stmt &bind(int index, qint64 value)
    {
        if (m_stmt)
            sqlite3_bind_int64(m_stmt, index, value);
        return *this;
    }
    Stmt &bind(int index, const QString &value)
    {
        if (m_stmt) {
            const QByteArray utf8 = value.toUtf8();
            sqlite3_bind_text(m_stmt, index, utf8.constData(), int(utf8.size()), SQLITE_TRANSIENT);
        }
        return *this;
    }
    // True while rows come.
    bool next()
    {
        if (!m_stmt)
            return false;
        const int rc = sqlite3_step(m_stmt);
        if (rc != SQLITE_ROW && rc != SQLITE_DONE)
            logError();
        return rc == SQLITE_ROW;
    }
    // Runs a statement that returns no rows; true on success.
    bool run()
    {
        if (!m_stmt)
            return false;
        const int rc = sqlite3_step(m_stmt);
        if (rc != SQLITE_DONE && rc != SQLITE_ROW) {
            logError();
            return false;
        }
        return true;
    }
    qint64 integer(int column) const { return sqlite3_column_int64(m_stmt, column); }
    QString text(int column) const
    {
        const auto *data = reinterpret_cast<const char *>(sqlite3_column_text(m_stmt, column));
        return data ? QString::fromUtf8(data, sqlite3_column_bytes(m_stmt, column)) : QString();
    }

    StoredItem item() const
    {
        StoredItem it;
        it.key = integer(0);
        it.parentKey = integer(1);
        it.name = text(2);
        it.folder = integer(3) != 0;
        it.kind = text(4);
        it.sync = integer(5) != 0;
        it.size = integer(6);
        it.md5 = text(7);
        it.time = text(8);
        it.content = text(9);
        it.memo = integer(10);
        it.priv = text(11);
        it.tag = text(12);
        it.desc = text(13);
        it.pendingPc = text(14);
        return it;
    }

private:
    void logError()
    {
        FV_LOG(QStringLiteral("SQL step failed: %1").arg(QString::fromUtf8(sqlite3_errmsg(m_db))));
    }

    sqlite3 *m_db;
    sqlite3_stmt *m_stmt = nullptr;
};

QByteArray itemQuery(const char *where)
{
    return QByteArray("SELECT ") + kItemColumns + " FROM items WHERE " + where;
}

QStringList splitPath(const QString &path, bool *ok)
{
    QStringList parts;
    *ok = true;
    for (const QString &part : path.split(u'/', Qt::SkipEmptyParts)) {
        if (!ServerStore::isValidName(part))
            *ok = false;
        parts << part;
    }
    return parts;
}

QString randomHex(int bytes)
{
    QByteArray raw(bytes, Qt::Uninitialized);
    QRandomGenerator::system()->fillRange(reinterpret_cast<quint32 *>(raw.data()), bytes / 4);
    return QString::fromLatin1(raw.toHex());
}

} // namespace

class ServerStore::Transaction
{
public:
    explicit Transaction(ServerStore *store) : m_store(store) { m_open = m_store->exec("BEGIN IMMEDIATE"); }
    ~Transaction()
    {
        if (m_open)
            m_store->exec("ROLLBACK");
    }
    bool isOpen() const { return m_open; }
    bool commit()
    {
        if (!m_open)
            return false;
        m_open = false;
        if (m_store->exec("COMMIT"))
            return true;
        m_store->exec("ROLLBACK");
        return false;
    }

private:
    ServerStore *m_store;
    bool m_open = false;
};

ServerStore::ServerStore(const ServerClock &clock) : m_clock(clock) {}

ServerStore::~ServerStore()
{
    if (m_db)
        sqlite3_close(m_db);
}

bool ServerStore::isValidName(const QString &name)
{
    return !name.isEmpty() && name != u"." && name != u".." && !name.contains(u'/') &&
           !name.contains(QChar(0)) && name.size() <= 255;
}

bool ServerStore::exec(const char *sql)
{
    char *message = nullptr;
    if (sqlite3_exec(m_db, sql, nullptr, nullptr, &message) != SQLITE_OK) {
        FV_LOG(QStringLiteral("SQL failed: %1 (%2)")
                   .arg(QString::fromUtf8(message ? message : ""), QString::fromUtf8(sql)));
        sqlite3_free(message);
        return false;
    }
    return true;
}

bool ServerStore::open(const QString &dataDir, QString *error)
{
    QMutexLocker lock(&m_mutex);
    m_dataDir = QDir(dataDir).absolutePath();
    QDir dir(m_dataDir);
    if (!dir.mkpath(QStringLiteral(".")) || !dir.mkpath(QStringLiteral("files")) ||
        !dir.mkpath(QStringLiteral("tmp"))) {
        if (error)
            *error = QStringLiteral("Cannot create the data folder %1").arg(m_dataDir);
        return false;
    }
    // Transfers cut off by a previous stop leave temporary files behind.
    QDir tmp(dir.filePath(QStringLiteral("tmp")));
    for (const QString &name : tmp.entryList(QDir::Files | QDir::Hidden))
        tmp.remove(name);

    const QByteArray dbPath = dir.filePath(QStringLiteral("ferrovane-server.db")).toUtf8();
    if (sqlite3_open_v2(dbPath.constData(), &m_db,
                        SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX,
                        nullptr) != SQLITE_OK) {
        if (error)
            *error = QStringLiteral("Cannot open the database: %1")
                         .arg(QString::fromUtf8(m_db ? sqlite3_errmsg(m_db) : "out of memory"));
        sqlite3_close(m_db);
        m_db = nullptr;
        return false;
    }
    sqlite3_busy_timeout(m_db, 5000);
    const bool ok =
        exec("PRAGMA journal_mode=WAL") && exec("PRAGMA synchronous=FULL") &&
        exec("CREATE TABLE IF NOT EXISTS users(id TEXT PRIMARY KEY, password TEXT NOT NULL, "
             "mail TEXT NOT NULL, quota INTEGER NOT NULL)") &&
        exec("CREATE TABLE IF NOT EXISTS sessions(token TEXT PRIMARY KEY, user TEXT NOT NULL, "
             "pcname TEXT NOT NULL, mac TEXT NOT NULL, created INTEGER NOT NULL)") &&
        exec(
            "CREATE TABLE IF NOT EXISTS items(key INTEGER PRIMARY KEY AUTOINCREMENT, user TEXT NOT NULL, "
            "pkey INTEGER NOT NULL, name TEXT NOT NULL, folder INTEGER NOT NULL, kind TEXT NOT NULL DEFAULT "
            "'', "
            "sync INTEGER NOT NULL DEFAULT 0, size INTEGER NOT NULL DEFAULT -1, md5 TEXT NOT NULL DEFAULT "
            "'', "
            "time TEXT NOT NULL, content TEXT NOT NULL DEFAULT '', memo INTEGER NOT NULL DEFAULT 0, "
            "priv TEXT NOT NULL DEFAULT 'rwd', tag TEXT NOT NULL DEFAULT '', descr TEXT NOT NULL DEFAULT '', "
            "pending_pc TEXT NOT NULL DEFAULT '')") &&
        exec("CREATE UNIQUE INDEX IF NOT EXISTS items_by_name ON items(user, pkey, name)") &&
        exec("CREATE TABLE IF NOT EXISTS journal(id INTEGER PRIMARY KEY AUTOINCREMENT, user TEXT NOT NULL, "
             "stamp INTEGER NOT NULL, kind TEXT NOT NULL, key INTEGER NOT NULL, folder INTEGER NOT NULL, "
             "name TEXT NOT NULL, size INTEGER NOT NULL, md5 TEXT NOT NULL, pkey INTEGER NOT NULL, "
             "time TEXT NOT NULL, path TEXT NOT NULL, pcname TEXT NOT NULL)") &&
        exec("CREATE INDEX IF NOT EXISTS journal_by_stamp ON journal(user, stamp)") &&
        exec("CREATE TABLE IF NOT EXISTS meta(name TEXT PRIMARY KEY, value TEXT NOT NULL)")
        // Keys start at 1000 so that they never look like result codes.
        && exec("INSERT INTO sqlite_sequence(name, seq) SELECT 'items', 999 "
                "WHERE NOT EXISTS (SELECT 1 FROM sqlite_sequence WHERE name = 'items')");
    if (!ok) {
        if (error)
            *error = QStringLiteral("Cannot prepare the database: %1")
                         .arg(QString::fromUtf8(sqlite3_errmsg(m_db)));
        return false;
    }
    {
        Stmt last(
            m_db,
            "SELECT max(coalesce((SELECT CAST(value AS INTEGER) FROM meta WHERE name = 'last_stamp'), 0), "
            "coalesce((SELECT max(stamp) FROM journal), 0))");
        m_lastStamp = last.next() ? last.integer(0) : 0;
    }
    // Contents no row points at (left by a stop between rename and commit) are removed.
    QSet<QString> referenced;
    {
        Stmt contents(m_db, "SELECT content FROM items WHERE content != ''");
        while (contents.next())
            referenced.insert(contents.text(0));
    }
    QDir files(dir.filePath(QStringLiteral("files")));
    for (const QString &name : files.entryList(QDir::Files)) {
        if (!referenced.contains(name))
            files.remove(name);
    }
    return true;
}

QString ServerStore::tempDir() const
{
    return m_dataDir + QStringLiteral("/tmp");
}

QString ServerStore::contentPath(const StoredItem &item) const
{
    return item.content.isEmpty() ? QString() : m_dataDir + QStringLiteral("/files/") + item.content;
}

// ---- accounts and sessions ----

bool ServerStore::addUser(const QString &id, const QString &password, const QString &mailId)
{
    if (id.isEmpty() || id.contains(QChar(0)))
        return false;
    QMutexLocker lock(&m_mutex);
    Transaction tx(this);
    if (!tx.isOpen())
        return false;
    Stmt upsert(m_db, "INSERT INTO users(id, password, mail, quota) VALUES(?1, ?2, ?3, ?4) "
                      "ON CONFLICT(id) DO UPDATE SET password = excluded.password, mail = excluded.mail");
    upsert.bind(1, id).bind(2, password).bind(3, mailId.isEmpty() ? id : mailId).bind(4, kDefaultQuota);
    if (!upsert.run())
        return false;
    // Every account has the same three top-level folders; only "syncfolder" is synchronised.
    struct Top
    {
        const char *name;
        const char *kind;
        int sync;
    };
    const Top tops[] = {{"webfolder", "", 0}, {"sharefolder", "SHARE", 1}, {kSyncFolderName, "", 1}};
    for (const Top &top : tops) {
        if (childLocked(id, 0, QString::fromLatin1(top.name)))
            continue;
        StoredItem folder;
        folder.name = QString::fromLatin1(top.name);
        folder.folder = true;
        folder.kind = QString::fromLatin1(top.kind);
        folder.sync = top.sync != 0;
        folder.time = m_clock.now();
        if (insertItemLocked(id, folder) == 0)
            return false;
    }
    return tx.commit();
}

bool ServerStore::checkPassword(const QString &id, const QString &password, const QString &encode,
                                QString *mailId)
{
    QMutexLocker lock(&m_mutex);
    Stmt query(m_db, "SELECT password, mail FROM users WHERE id = ?1");
    query.bind(1, id);
    if (!query.next())
        return false;
    const QString stored = query.text(0);
    bool match = false;
    if (encode.compare(u"md5", Qt::CaseInsensitive) == 0)
        match =
            QString::fromLatin1(QCryptographicHash::hash(stored.toUtf8(), QCryptographicHash::Md5).toHex())
                .compare(password, Qt::CaseInsensitive) == 0;
    else
        match = stored == password;
    if (match && mailId)
        *mailId = query.text(1);
    return match;
}

QString ServerStore::createSession(const QString &user, const QString &pcName, const QString &mac)
{
    QMutexLocker lock(&m_mutex);
    const QString token = randomHex(16);
    Stmt insert(m_db, "INSERT INTO sessions(token, user, pcname, mac, created) VALUES(?1, ?2, ?3, ?4, ?5)");
    insert.bind(1, token).bind(2, user).bind(3, pcName).bind(4, mac).bind(5, m_clock.nowEpoch());
    return insert.run() ? token : QString();
}

std::optional<SessionInfo> ServerStore::session(const QString &token)
{
    if (token.isEmpty())
        return std::nullopt;
    QMutexLocker lock(&m_mutex);
    Stmt query(m_db, "SELECT user, pcname FROM sessions WHERE token = ?1");
    query.bind(1, token);
    if (!query.next())
        return std::nullopt;
    return SessionInfo{query.text(0), query.text(1)};
}

int ServerStore::expireSessions(const QString &user)
{
    QMutexLocker lock(&m_mutex);
    Stmt remove(m_db, "DELETE FROM sessions WHERE user = ?1");
    remove.bind(1, user);
    return remove.run() ? sqlite3_changes(m_db) : 0;
}

bool ServerStore::setQuota(const QString &user, qint64 total)
{
    QMutexLocker lock(&m_mutex);
    Stmt update(m_db, "UPDATE users SET quota = ?2 WHERE id = ?1");
    update.bind(1, user).bind(2, total);
    return update.run() && sqlite3_changes(m_db) == 1;
}

bool ServerStore::quota(const QString &user, qint64 *total, qint64 *used)
{
    QMutexLocker lock(&m_mutex);
    Stmt query(m_db, "SELECT quota, (SELECT coalesce(sum(size), 0) FROM items "
                     "WHERE user = ?1 AND folder = 0 AND content != '') FROM users WHERE id = ?1");
    query.bind(1, user);
    if (!query.next())
        return false;
    *total = query.integer(0);
    *used = query.integer(1);
    return true;
}

// ---- reading the tree ----

std::optional<StoredItem> ServerStore::itemLocked(const QString &user, qint64 key)
{
    Stmt query(m_db, itemQuery("user = ?1 AND key = ?2"));
    query.bind(1, user).bind(2, key);
    if (!query.next())
        return std::nullopt;
    return query.item();
}

std::optional<StoredItem> ServerStore::childLocked(const QString &user, qint64 parentKey, const QString &name)
{
    Stmt query(m_db, itemQuery("user = ?1 AND pkey = ?2 AND name = ?3"));
    query.bind(1, user).bind(2, parentKey).bind(3, name);
    if (!query.next())
        return std::nullopt;
    return query.item();
}

QList<StoredItem> ServerStore::childrenLocked(const QString &user, qint64 folderKey, bool includePending)
{
    QList<StoredItem> result;
    Stmt query(m_db, itemQuery("user = ?1 AND pkey = ?2 ORDER BY folder DESC, name"));
    query.bind(1, user).bind(2, folderKey);
    while (query.next()) {
        StoredItem it = query.item();
        if (includePending || it.folder || !it.content.isEmpty())
            result << it;
    }
    return result;
}

qint64 ServerStore::syncRootLocked(const QString &user)
{
    Stmt query(m_db, "SELECT key FROM items WHERE user = ?1 AND pkey = 0 AND name = ?2");
    query.bind(1, user).bind(2, QString::fromLatin1(kSyncFolderName));
    return query.next() ? query.integer(0) : 0;
}

QString ServerStore::serverPathLocked(const QString &user, qint64 key)
{
    QStringList parts;
    // Depth is bounded to survive a corrupted parent chain.
    for (int depth = 0; key != 0 && depth < 4096; ++depth) {
        const auto it = itemLocked(user, key);
        if (!it)
            break;
        parts.prepend(it->name);
        key = it->parentKey;
    }
    return parts.join(u'/');
}

bool ServerStore::isWithinLocked(const QString &user, qint64 key, qint64 ancestor)
{
    for (int depth = 0; key != 0 && depth < 4096; ++depth) {
        if (key == ancestor)
            return true;
        const auto it = itemLocked(user, key);
        if (!it)
            return false;
        key = it->parentKey;
    }
    return false;
}

bool ServerStore::inSyncLocked(const QString &user, qint64 key)
{
    const qint64 root = syncRootLocked(user);
    return root != 0 && key != root && isWithinLocked(user, key, root);
}

std::optional<StoredItem> ServerStore::resolveLocked(const QString &user, const QString &path)
{
    bool ok = false;
    const QStringList parts = splitPath(path, &ok);
    if (!ok)
        return std::nullopt;
    auto current = itemLocked(user, syncRootLocked(user));
    for (const QString &part : parts) {
        if (!current || !current->folder)
            return std::nullopt;
        current = childLocked(user, current->key, part);
    }
    return current;
}

std::optional<StoredItem> ServerStore::item(const QString &user, qint64 key)
{
    QMutexLocker lock(&m_mutex);
    return itemLocked(user, key);
}

QList<StoredItem> ServerStore::topFolders(const QString &user)
{
    QMutexLocker lock(&m_mutex);
    QList<StoredItem> result;
    Stmt query(m_db, itemQuery("user = ?1 AND pkey = 0 ORDER BY key"));
    query.bind(1, user);
    while (query.next())
        result << query.item();
    return result;
}

QList<StoredItem> ServerStore::children(const QString &user, qint64 folderKey)
{
    QMutexLocker lock(&m_mutex);
    return childrenLocked(user, folderKey, false);
}

qint64 ServerStore::syncRootKey(const QString &user)
{
    QMutexLocker lock(&m_mutex);
    return syncRootLocked(user);
}

QString ServerStore::serverPath(const QString &user, qint64 key)
{
    QMutexLocker lock(&m_mutex);
    return serverPathLocked(user, key);
}

QList<TreeEntry> ServerStore::tree(const QString &user, bool includePending)
{
    QMutexLocker lock(&m_mutex);
    QList<TreeEntry> result;
    struct Pending
    {
        qint64 key;
        QString prefix;
    };
    QList<Pending> stack{{syncRootLocked(user), QString()}};
    while (!stack.isEmpty() && stack.size() < 100000) {
        const Pending folder = stack.takeLast();
        if (folder.key == 0)
            continue;
        for (const StoredItem &it : childrenLocked(user, folder.key, includePending)) {
            TreeEntry entry;
            entry.path = folder.prefix + it.name;
            entry.key = QString::number(it.key);
            entry.parentKey = QString::number(it.parentKey);
            entry.folder = it.folder;
            entry.size = it.folder ? -1 : it.size;
            entry.md5 = it.md5;
            entry.time = it.time;
            entry.uploaded = it.folder || !it.content.isEmpty();
            result << entry;
            if (it.folder)
                stack << Pending{it.key, entry.path + u'/'};
        }
    }
    std::sort(result.begin(), result.end(),
              [](const TreeEntry &a, const TreeEntry &b) { return a.path < b.path; });
    return result;
}

// ---- journal ----

qint64 ServerStore::nextStampLocked()
{
    // Strictly increasing: two changes in one second are a second apart.
    m_lastStamp = std::max(m_clock.nowEpoch(), m_lastStamp + 1);
    setMetaLocked(QStringLiteral("last_stamp"), QString::number(m_lastStamp));
    return m_lastStamp;
}

qint64 ServerStore::markServerTime()
{
    QMutexLocker lock(&m_mutex);
    m_lastStamp = std::max(m_clock.nowEpoch(), m_lastStamp);
    setMetaLocked(QStringLiteral("last_stamp"), QString::number(m_lastStamp));
    return m_lastStamp;
}

bool ServerStore::journalLocked(const QString &user, const QString &kind, const StoredItem &item,
                                const QString &pcName, qint64 parentKey)
{
    Stmt insert(
        m_db,
        "INSERT INTO journal(user, stamp, kind, key, folder, name, size, md5, pkey, time, path, pcname) "
        "VALUES(?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10, ?11, ?12)");
    insert.bind(1, user)
        .bind(2, nextStampLocked())
        .bind(3, kind)
        .bind(4, item.key)
        .bind(5, qint64(item.folder))
        .bind(6, item.name)
        .bind(7, item.folder ? qint64(-1) : item.size)
        .bind(8, item.md5)
        .bind(9, parentKey)
        .bind(10, item.time)
        .bind(11, kind == u"DEL" ? QString() : serverPathLocked(user, item.key))
        .bind(12, pcName);
    return insert.run();
}

bool ServerStore::journalAddTreeLocked(const QString &user, const StoredItem &item, const QString &pcName)
{
    if (!item.folder && item.content.isEmpty())
        return true; // announced but never uploaded: nothing another computer could fetch
    if (!journalLocked(user, QStringLiteral("ADD"), item, pcName, item.parentKey))
        return false;
    if (item.folder) {
        for (const StoredItem &child : childrenLocked(user, item.key, false)) {
            if (!journalAddTreeLocked(user, child, pcName))
                return false;
        }
    }
    return true;
}

WorkList ServerStore::workList(const QString &user, qint64 after, const QString &pcName, int limit)
{
    QMutexLocker lock(&m_mutex);
    WorkList result;
    result.id = std::max(after, m_lastStamp);
    Stmt query(m_db,
               "SELECT stamp, kind, key, folder, name, size, md5, pkey, time, path, pcname FROM journal "
               "WHERE user = ?1 AND stamp > ?2 ORDER BY stamp, id");
    query.bind(1, user).bind(2, after);
    while (query.next()) {
        JournalEntry e;
        e.stamp = query.integer(0);
        e.pcName = query.text(10);
        if (e.pcName == pcName)
            continue;
        if (result.entries.size() >= limit) {
            // Cut here; the asker continues after the last change it was given.
            result.id = result.entries.last().stamp;
            break;
        }
        e.kind = query.text(1);
        e.key = query.integer(2);
        e.folder = query.integer(3) != 0;
        e.name = query.text(4);
        e.size = query.integer(5);
        e.md5 = query.text(6);
        e.parentKey = query.integer(7);
        e.time = query.text(8);
        e.path = query.text(9);
        result.entries << e;
    }
    return result;
}

// ---- changes ----

qint64 ServerStore::insertItemLocked(const QString &user, const StoredItem &item)
{
    Stmt insert(
        m_db,
        "INSERT INTO items(user, pkey, name, folder, kind, sync, size, md5, time, content, memo, priv, "
        "tag, descr, pending_pc) VALUES(?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10, ?11, ?12, ?13, ?14, ?15)");
    insert.bind(1, user)
        .bind(2, item.parentKey)
        .bind(3, item.name)
        .bind(4, qint64(item.folder))
        .bind(5, item.kind)
        .bind(6, qint64(item.sync))
        .bind(7, item.folder ? qint64(-1) : item.size)
        .bind(8, item.md5)
        .bind(9, item.time)
        .bind(10, item.content)
        .bind(11, item.memo)
        .bind(12, item.priv.isEmpty() ? QStringLiteral("rwd") : item.priv)
        .bind(13, item.tag)
        .bind(14, item.desc)
        .bind(15, item.pendingPc);
    return insert.run() ? sqlite3_last_insert_rowid(m_db) : 0;
}

PutResult ServerStore::put(const QString &user, const QString &relativePath, const QString &name, bool folder,
                           qint64 size, const QString &time, const QString &pcName)
{
    QMutexLocker lock(&m_mutex);
    PutResult result;
    if (!isValidName(name) || (!folder && size < 0)) {
        result.code = ResultCode::BadItem;
        return result;
    }
    // The parent is what the path names without its last piece; the item's name is NAME.
    QString parentPath = relativePath;
    const qsizetype slash = parentPath.lastIndexOf(u'/');
    parentPath = slash >= 0 ? parentPath.left(slash) : QString();
    const auto parent = resolveLocked(user, parentPath);
    if (!parent || !parent->folder) {
        result.code = ResultCode::NoParent;
        return result;
    }
    result.parentKey = parent->key;
    Transaction tx(this);
    if (!tx.isOpen())
        return result;
    const QString stamp = m_clock.isValid(time) ? time : m_clock.now();
    if (auto existing = childLocked(user, parent->key, name)) {
        const bool placeholder = !existing->folder && existing->content.isEmpty();
        if (existing->folder == folder) {
            result.key = existing->key;
            if (!folder) {
                // The announced contents arrive with the upload; remember who announced them.
                Stmt update(m_db, "UPDATE items SET pending_pc = ?2 WHERE key = ?1");
                if (!update.bind(1, existing->key).bind(2, pcName).run())
                    return result;
                if (placeholder) {
                    Stmt sizeUpdate(m_db, "UPDATE items SET size = ?2, time = ?3 WHERE key = ?1");
                    if (!sizeUpdate.bind(1, existing->key).bind(2, size).bind(3, stamp).run())
                        return result;
                }
            }
            result.code = tx.commit() ? ResultCode::Done : ResultCode::StorageError;
            return result;
        }
        if (!placeholder) {
            result.code = ResultCode::NameTaken;
            return result;
        }
        // A file that was announced but never uploaded gives way to the folder.
        Stmt remove(m_db, "DELETE FROM items WHERE key = ?1");
        if (!remove.bind(1, existing->key).run())
            return result;
    }
    StoredItem it;
    it.parentKey = parent->key;
    it.name = name;
    it.folder = folder;
    it.size = folder ? -1 : size;
    it.time = stamp;
    it.pendingPc = folder ? QString() : pcName;
    it.key = insertItemLocked(user, it);
    if (it.key == 0)
        return result;
    // A new folder is a change others must see at once; a new file only once its contents arrived.
    if (folder && inSyncLocked(user, it.key) &&
        !journalLocked(user, QStringLiteral("ADD"), it, pcName, it.parentKey))
        return result;
    if (!tx.commit())
        return result;
    result.key = it.key;
    result.code = ResultCode::Done;
    return result;
}

int ServerStore::rename(const QString &user, qint64 key, const QString &newName, const QString &pcName)
{
    QMutexLocker lock(&m_mutex);
    return renameLocked(user, key, newName, pcName);
}

int ServerStore::renameLocked(const QString &user, qint64 key, const QString &newName, const QString &pcName)
{
    auto it = itemLocked(user, key);
    if (!it)
        return ResultCode::UnknownItem;
    if (it->parentKey == 0)
        return ResultCode::NotAllowed;
    if (!isValidName(newName))
        return ResultCode::BadItem;
    if (it->name == newName)
        return ResultCode::Done;
    if (childLocked(user, it->parentKey, newName))
        return ResultCode::NameTaken;
    Transaction tx(this);
    Stmt update(m_db, "UPDATE items SET name = ?2 WHERE key = ?1");
    if (!tx.isOpen() || !update.bind(1, key).bind(2, newName).run())
        return ResultCode::StorageError;
    it->name = newName;
    if (it->folder || !it->content.isEmpty()) {
        if (inSyncLocked(user, key) &&
            !journalLocked(user, QStringLiteral("RENAME"), *it, pcName, it->parentKey))
            return ResultCode::StorageError;
    }
    return tx.commit() ? ResultCode::Done : ResultCode::StorageError;
}

bool ServerStore::removeTreeLocked(const QString &user, qint64 key, QStringList *contents)
{
    for (const StoredItem &child : childrenLocked(user, key, true)) {
        if (!removeTreeLocked(user, child.key, contents))
            return false;
    }
    const auto it = itemLocked(user, key);
    if (it && !it->content.isEmpty())
        *contents << it->content;
    Stmt remove(m_db, "DELETE FROM items WHERE key = ?1");
    return remove.bind(1, key).run();
}

void ServerStore::deleteContents(const QStringList &contents)
{
    for (const QString &name : contents)
        QFile::remove(m_dataDir + QStringLiteral("/files/") + name);
}

int ServerStore::remove(const QString &user, qint64 key, const QString &pcName)
{
    QMutexLocker lock(&m_mutex);
    return removeLocked(user, key, pcName);
}

int ServerStore::removeLocked(const QString &user, qint64 key, const QString &pcName)
{
    const auto it = itemLocked(user, key);
    if (!it)
        return ResultCode::UnknownItem;
    if (it->parentKey == 0)
        return ResultCode::NotAllowed;
    Transaction tx(this);
    if (!tx.isOpen())
        return ResultCode::StorageError;
    const bool visible = it->folder || !it->content.isEmpty();
    if (visible && inSyncLocked(user, key) &&
        !journalLocked(user, QStringLiteral("DEL"), *it, pcName, it->parentKey))
        return ResultCode::StorageError;
    QStringList contents;
    if (!removeTreeLocked(user, key, &contents) || !tx.commit())
        return ResultCode::StorageError;
    deleteContents(contents);
    return ResultCode::Done;
}

int ServerStore::move(const QString &user, qint64 sourceKey, qint64 destKey, bool force,
                      const QString &pcName)
{
    QMutexLocker lock(&m_mutex);
    return moveLocked(user, sourceKey, destKey, force, pcName);
}

int ServerStore::moveLocked(const QString &user, qint64 sourceKey, qint64 destKey, bool force,
                            const QString &pcName)
{
    auto it = itemLocked(user, sourceKey);
    const auto dest = itemLocked(user, destKey);
    if (!it || !dest)
        return ResultCode::UnknownItem;
    if (!dest->folder || it->parentKey == 0 || isWithinLocked(user, destKey, sourceKey))
        return ResultCode::NotAllowed;
    if (it->parentKey == destKey)
        return ResultCode::Done;
    Transaction tx(this);
    if (!tx.isOpen())
        return ResultCode::StorageError;
    QStringList contents;
    if (const auto clash = childLocked(user, destKey, it->name)) {
        if (!force)
            return ResultCode::NameTaken;
        // FORCE replaces what is in the way.
        const bool visible = clash->folder || !clash->content.isEmpty();
        if (visible && inSyncLocked(user, clash->key) &&
            !journalLocked(user, QStringLiteral("DEL"), *clash, pcName, clash->parentKey))
            return ResultCode::StorageError;
        if (!removeTreeLocked(user, clash->key, &contents))
            return ResultCode::StorageError;
    }
    const bool wasInSync = inSyncLocked(user, sourceKey);
    Stmt update(m_db, "UPDATE items SET pkey = ?2 WHERE key = ?1");
    if (!update.bind(1, sourceKey).bind(2, destKey).run())
        return ResultCode::StorageError;
    it->parentKey = destKey;
    const bool nowInSync = inSyncLocked(user, sourceKey);
    const bool visible = it->folder || !it->content.isEmpty();
    bool ok = true;
    if (visible && wasInSync && nowInSync)
        ok = journalLocked(user, QStringLiteral("MOVE"), *it, pcName, destKey);
    else if (visible && wasInSync)
        ok = journalLocked(user, QStringLiteral("DEL"), *it, pcName, destKey);
    else if (nowInSync)
        ok = journalAddTreeLocked(user, *it, pcName);
    if (!ok || !tx.commit())
        return ResultCode::StorageError;
    deleteContents(contents);
    return ResultCode::Done;
}

int ServerStore::commitUpload(const QString &user, qint64 key, const QString &tempFile, qint64 size,
                              const QString &md5, const QString &time, const QString &pcName)
{
    QMutexLocker lock(&m_mutex);
    auto refuse = [&](int code) {
        QFile::remove(tempFile);
        return code;
    };
    auto it = itemLocked(user, key);
    if (!it || it->folder)
        return refuse(ResultCode::UnknownItem);
    Stmt quotaQuery(m_db, "SELECT quota, (SELECT coalesce(sum(size), 0) FROM items "
                          "WHERE user = ?1 AND folder = 0 AND content != '') FROM users WHERE id = ?1");
    quotaQuery.bind(1, user);
    if (!quotaQuery.next())
        return refuse(ResultCode::StorageError);
    const qint64 used = quotaQuery.integer(1) - (it->content.isEmpty() ? 0 : it->size);
    if (used + size > quotaQuery.integer(0))
        return refuse(ResultCode::QuotaExceeded);

    // The new contents get a fresh name, so the row switches from old to new contents in one commit.
    const QString contentName = QString::number(key) + u'-' + randomHex(8);
    const QString target = m_dataDir + QStringLiteral("/files/") + contentName;
    if (!QFile::rename(tempFile, target))
        return refuse(ResultCode::StorageError);
    Transaction tx(this);
    Stmt update(
        m_db,
        "UPDATE items SET size = ?2, md5 = ?3, time = ?4, content = ?5, pending_pc = '' WHERE key = ?1");
    const QString stamp = m_clock.isValid(time) ? time : m_clock.now();
    const QString announcer = it->pendingPc.isEmpty() ? pcName : it->pendingPc;
    if (!tx.isOpen() ||
        !update.bind(1, key).bind(2, size).bind(3, md5).bind(4, stamp).bind(5, contentName).run()) {
        QFile::remove(target);
        return ResultCode::StorageError;
    }
    const QString oldContent = it->content;
    it->size = size;
    it->md5 = md5;
    it->time = stamp;
    it->content = contentName;
    if (inSyncLocked(user, key) &&
        !journalLocked(user, QStringLiteral("ADD"), *it, announcer, it->parentKey)) {
        QFile::remove(target);
        return ResultCode::StorageError;
    }
    if (!tx.commit()) {
        QFile::remove(target);
        return ResultCode::StorageError;
    }
    if (!oldContent.isEmpty())
        deleteContents({oldContent});
    return ResultCode::Done;
}

// ---- changes by path ----

int ServerStore::ensureFoldersLocked(const QString &user, const QStringList &parts, qint64 *folderKey,
                                     const QString &pcName)
{
    qint64 current = syncRootLocked(user);
    if (current == 0)
        return ResultCode::UnknownItem;
    for (const QString &part : parts) {
        if (const auto child = childLocked(user, current, part)) {
            if (!child->folder)
                return ResultCode::NameTaken;
            current = child->key;
            continue;
        }
        Transaction tx(this);
        StoredItem folder;
        folder.parentKey = current;
        folder.name = part;
        folder.folder = true;
        folder.time = m_clock.now();
        folder.key = tx.isOpen() ? insertItemLocked(user, folder) : 0;
        if (folder.key == 0 || !journalLocked(user, QStringLiteral("ADD"), folder, pcName, current) ||
            !tx.commit())
            return ResultCode::StorageError;
        current = folder.key;
    }
    *folderKey = current;
    return ResultCode::Done;
}

int ServerStore::makeFolder(const QString &user, const QString &path, const QString &pcName, qint64 *key)
{
    bool ok = false;
    const QStringList parts = splitPath(path, &ok);
    if (!ok || parts.isEmpty())
        return ResultCode::BadItem;
    QMutexLocker lock(&m_mutex);
    qint64 folderKey = 0;
    const int code = ensureFoldersLocked(user, parts, &folderKey, pcName);
    if (code == ResultCode::Done && key)
        *key = folderKey;
    return code;
}

int ServerStore::putFile(const QString &user, const QString &path, const QByteArray &contents,
                         const QString &time, const QString &pcName, qint64 *key)
{
    bool ok = false;
    QStringList parts = splitPath(path, &ok);
    if (!ok || parts.isEmpty())
        return ResultCode::BadItem;
    const QString name = parts.takeLast();
    QFile temp(tempDir() + QStringLiteral("/admin-") + randomHex(8));
    if (!temp.open(QIODevice::WriteOnly) || temp.write(contents) != contents.size() || !temp.flush())
        return ResultCode::StorageError;
    temp.close();
    const QString md5 =
        QString::fromLatin1(QCryptographicHash::hash(contents, QCryptographicHash::Md5).toHex());
    qint64 fileKey = 0;
    {
        QMutexLocker lock(&m_mutex);
        qint64 parentKey = 0;
        int code = ensureFoldersLocked(user, parts, &parentKey, pcName);
        if (code == ResultCode::Done) {
            if (const auto existing = childLocked(user, parentKey, name)) {
                fileKey = existing->folder ? 0 : existing->key;
                code = existing->folder ? ResultCode::NameTaken : ResultCode::Done;
            } else {
                StoredItem file;
                file.parentKey = parentKey;
                file.name = name;
                file.size = contents.size();
                file.time = m_clock.now();
                file.key = insertItemLocked(user, file);
                fileKey = file.key;
                code = fileKey ? ResultCode::Done : ResultCode::StorageError;
            }
        }
        if (code != ResultCode::Done) {
            temp.remove();
            return code;
        }
    }
    const int code = commitUpload(user, fileKey, temp.fileName(), contents.size(), md5, time, pcName);
    if (code == ResultCode::Done && key)
        *key = fileKey;
    return code;
}

int ServerStore::renamePath(const QString &user, const QString &path, const QString &newName,
                            const QString &pcName)
{
    QMutexLocker lock(&m_mutex);
    const auto it = resolveLocked(user, path);
    if (!it || it->key == syncRootLocked(user))
        return ResultCode::UnknownItem;
    return renameLocked(user, it->key, newName, pcName);
}

int ServerStore::movePath(const QString &user, const QString &path, const QString &destFolder,
                          const QString &pcName)
{
    QMutexLocker lock(&m_mutex);
    const auto it = resolveLocked(user, path);
    const auto dest = resolveLocked(user, destFolder);
    if (!it || !dest || it->key == syncRootLocked(user))
        return ResultCode::UnknownItem;
    return moveLocked(user, it->key, dest->key, false, pcName);
}

int ServerStore::removePath(const QString &user, const QString &path, const QString &pcName)
{
    QMutexLocker lock(&m_mutex);
    const auto it = resolveLocked(user, path);
    if (!it || it->key == syncRootLocked(user))
        return ResultCode::UnknownItem;
    return removeLocked(user, it->key, pcName);
}

// ---- meta ----

QString ServerStore::meta(const QString &name, const QString &fallback)
{
    QMutexLocker lock(&m_mutex);
    Stmt query(m_db, "SELECT value FROM meta WHERE name = ?1");
    query.bind(1, name);
    return query.next() ? query.text(0) : fallback;
}

bool ServerStore::setMeta(const QString &name, const QString &value)
{
    QMutexLocker lock(&m_mutex);
    return setMetaLocked(name, value);
}

bool ServerStore::setMetaLocked(const QString &name, const QString &value)
{
    Stmt save(m_db, "INSERT INTO meta(name, value) VALUES(?1, ?2) ON CONFLICT(name) DO UPDATE SET value = "
                    "excluded.value");
    return save.bind(1, name).bind(2, value).run();
}
