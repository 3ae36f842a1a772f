#pragma once
// The process-wide catalogue object: account record access, and (in further source files, one per
// concern) the catalogue operations, server-time conversion and the task executor.
//
// instance() creates it on first use (under a lock) and marks it alive; destroy() marks it not alive
// and drops the process's reference. Threads that run catalogue work keep their own reference
// (the shared_ptr returned by instance()) so the object outlives destroy() until they return; they
// check isAlive() before each unit of work.
//
// Threading: the main-context operations run on the main thread (they wait for it when called from
// elsewhere); the `...WithManagedObjectContext` forms run on the thread that owns the given context.

#include "catalogue/ManagedObjectContext.h"
#include "catalogue/Records.h"
#include "util/FvError.h"
#include "util/LogObject.h"

#include <QDateTime>
#include <QElapsedTimer>
#include <QHash>
#include <QPointer>
#include <QString>
#include <QStringList>
#include <QTimeZone>
#include <QVariant>
#include <QVariantMap>
#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>

class AppServices;
class CommandTransport;
class GDataXMLDocument;
class QThread;
class QTimer;

class DatabaseUtils final : public std::enable_shared_from_this<DatabaseUtils>
{
public:
    using ContextPtr = std::shared_ptr<ManagedObjectContext>;
    // Item record: the fields of one folder or file, in this order.
    enum ItemField { ItemName = 0, ItemSize = 1, ItemMd5 = 2, ItemKey = 3, ItemPKey = 4, ItemPath = 5 };
    // Change verdicts of checkFileIsModifierWithPath.
    enum Verdict { Unchanged = 1, Missing = 2, ChangedLocally = 3, OlderThanServer = 4 };
    // Result of a task command that met a reply which is not XML ("Error read xml"): the run ends
    // and the task stays. Never a server code (those are small).
    static constexpr int kErrorReadXml = -1000000;
    // The server's result code for a key it does not know (an item already gone).
    static constexpr int kUnknownItem = -4;

    static std::shared_ptr<DatabaseUtils> instance();
    static void destroy();
    ~DatabaseUtils();
    DatabaseUtils(const DatabaseUtils &) = delete;
    DatabaseUtils &operator=(const DatabaseUtils &) = delete;

    // The alive mark: true from creation until destroy().
    bool isAlive() const { return m_alive.load(); }

    // --- Account record ---
    // The Infomation row whose `account` equals the configured "kKeyUseID", from the main context;
    // null when there is none or no main context.
    InfomationPtr getInfomation();
    InfomationPtr getInfomationWithManagedObjectContext(const std::shared_ptr<ManagedObjectContext> &context);
    // Saves the main context; a failure goes to the activity log ("Cannot save infomation: %@").
    void updateInfomation(const QVariant &ignored = {});

    // Posts a plain text line to the activity log ("kKeyLogNotification", the text under "log",
    // object false: a local-side message). Entries proper are LogObjects, posted by their producers.
    static void postActivityText(const QString &text);

    // --- State kept between calls ---
    AppServices *appDelegate() const { return m_appDelegate; }
    QString macName() const { return m_macName; }
    void setMacName(const QString &name) { m_macName = name; }
    // The executor's timer (not owned by a Qt parent; deleted with deleteLater on release).
    QTimer *timer() const { return m_timer; }
    void setTimer(QTimer *timer);
    bool isDoTask() const { return m_isDoTask.load(); }
    void setIsDoTask(bool running) { m_isDoTask = running; }
    // The executor's context and thread (set by the sync controller when its worker starts).
    std::shared_ptr<ManagedObjectContext> managedObjectContext() const { return m_managedObjectContext; }
    void setManagedObjectContext(const std::shared_ptr<ManagedObjectContext> &context)
    {
        m_managedObjectContext = context;
    }
    QThread *syncThread() const { return m_syncThread; }
    void setSyncThread(QThread *thread) { m_syncThread = thread; }
    QString path() const { return m_path; }
    void setPath(const QString &path) { m_path = path; }

    // Server-time state, made lazily by the time conversions. Formats are date patterns
    // ("yyyyMMddHHmmss"); an empty pattern or an absent zone means not made yet.
    QString sTimezone() const { return m_sTimezone; }
    void setSTimezone(const QString &zone) { m_sTimezone = zone; }
    QString dateFormat() const { return m_dateFormat; }
    void setDateFormat(const QString &pattern) { m_dateFormat = pattern; }
    QString localDateFormat() const { return m_localDateFormat; }
    void setLocalDateFormat(const QString &pattern) { m_localDateFormat = pattern; }
    std::optional<QTimeZone> serverTimeZone() const { return m_serverTimeZone; }
    void setServerTimeZone(const std::optional<QTimeZone> &zone) { m_serverTimeZone = zone; }
    std::optional<QTimeZone> localTimeZone() const { return m_localTimeZone; }
    void setLocalTimeZone(const std::optional<QTimeZone> &zone) { m_localTimeZone = zone; }

    // --- Queries (first match or null; lists empty when nothing matches or the fetch fails) ---
    // Main-context forms run on the main thread (they wait for it when called from elsewhere).
    DirectoryPtr getDirectoryWithKey(const QString &key);
    DirectoryPtr getDirectoryWithKey(const QString &key, const ContextPtr &context);
    FilePtr getFileWithKey(const QString &key);
    FilePtr getFileWithKey(const QString &key, const ContextPtr &context);
    // What getFileWithKey gives for each of the keys, looked up a few keys to a query: each key
    // maps to its row, or to null when there is none. Keys with a wildcard are left out (the
    // caller asks getFileWithKey for those).
    QHash<QString, FilePtr> getFilesWithKeys(const QStringList &keys, const ContextPtr &context);
    DirectoryPtr getDirectoryWithPath(const QString &path);
    DirectoryPtr getDirectoryWithPath(const QString &path, const ContextPtr &context);
    FilePtr getFileWithPath(const QString &path);
    FilePtr getFileWithPath(const QString &path, const ContextPtr &context);
    FilePtr getFileWithKey(const QString &key, const QString &path);
    FilePtr getFileWithKey(const QString &key, const QString &path, const ContextPtr &context);
    // The catalogued folder / file that a local item at a new place used to be (by time and name;
    // for files also by content).
    DirectoryPtr getDirectoryWithNewPath(const QString &path, const ContextPtr &context);
    FilePtr getFileWithNewPath(const QString &path, const ContextPtr &context);
    // Rows below the path (case- and diacritic-insensitive).
    QList<DirectoryPtr> getDirectoryContainPath(const QString &path, const ContextPtr &context);
    QList<FilePtr> getFileContainPath(const QString &path, const ContextPtr &context);
    QList<DirectoryPtr> getAllDirectoryWithManagedObjectContext(const ContextPtr &context);
    QList<FilePtr> getAllFileWithPKey(const QString &pkey, const ContextPtr &context);
    TaskPtr getTaskWithPath(const QString &path, const ContextPtr &context);
    QList<TaskPtr> getAllTaskWithPath(const QString &path, const ContextPtr &context);

    // --- Changes that come from the server (item records) ---
    // The insert operations return false when an unreadable reply ("Error read xml") ended them.
    bool insertDir(const QStringList &record);
    bool insertDir(const QStringList &record, const ContextPtr &context);
    bool insertDirNoCreate(const QStringList &record, const ContextPtr &context);
    bool insertFile(const QStringList &record);
    // `uploadDone`, when given, is set on the row in the same save: an upload's row and its state
    // are one change (one commit, and never the one without the other).
    bool insertFile(const QStringList &record, const ContextPtr &context,
                    std::optional<bool> uploadDone = std::nullopt);
    void deleteDirectory(const QString &key);
    void deleteDirectory(const QString &key, const ContextPtr &context);
    void deleteFile(const QString &key);
    void deleteFile(const QString &key, const ContextPtr &context);
    void renameDirectory(const QStringList &record);
    void renameDirectory(const QStringList &record, const ContextPtr &context);
    void renameFile(const QStringList &record);
    void renameFile(const QStringList &record, const ContextPtr &context);
    void moveDirectory(const QStringList &record, const ContextPtr &context);
    void moveFile(const QStringList &record, const ContextPtr &context);
    void changePathOfDirectory(const QString &newPath, const QString &oldPath, const ContextPtr &context);
    void changePathOfFile(const QString &newPath, const QString &oldPath, const ContextPtr &context);
    void deleteDirectoryContainsPath(const QString &path, const ContextPtr &context);
    void deleteFileContainsPath(const QString &path, const ContextPtr &context);
    // Queue a delete task for every row whose parent key is `pkey`.
    void deleteAllDirectoryWithPKey(const QString &pkey, const ContextPtr &context);
    void deleteAllFileWithPKey(const QString &pkey, const ContextPtr &context);
    void setTimeModifierForDirectoryAtPath(const QString &path, const QDateTime &time);
    void setTimeModifierForDirectoryAtPath(const QString &path);
    void deleteAllObjectOfEntity(const QString &entityName);

    // --- Tasks ---
    // Admits a local change (keys kKeyTaskType, kKeyTaskName, kKeyTaskPath, kKeyTaskNewPath,
    // kKeyTaskTime, kKeyTaskFolder) as a Task row, then asks the worker for a run. Returns the new
    // row (its type possibly rewritten) or null when the change was filtered out.
    TaskPtr addTaskWithDictionary(const QVariantMap &dictionary, const ContextPtr &context);
    // Asks syncThread (without waiting) to run doTask. checkTask only calls it.
    void checkAndRunTask();
    void checkTask();
    // One run over the stored tasks, oldest first. Call on syncThread.
    void doTask();
    // The task commands; results: 1 done, -1 skipped, -5 unknown or cancelled, -6 retry later,
    // kErrorReadXml, or a server code of a PUT.
    int uploadFile(const TaskPtr &task, const ContextPtr &context);
    int renameTask(const TaskPtr &task, const ContextPtr &context);
    int deleteTask(const TaskPtr &task, const ContextPtr &context);
    int moveTask(const TaskPtr &task, const ContextPtr &context);
    // What the server holds under `key` (INFO, one try): its fields as getInfomationOfItemWithKey
    // gives them, empty when it knows no such item, nullopt when no readable answer came.
    std::optional<QStringList> serverItem(const QString &key);
    // Fetches one file into `path` (blocking; worker threads only). `md5_p` receives the digest,
    // `size_p` the size of the file put in place.
    bool downloadFileTo(const QString &path, const QString &name, QString *md5_p, const QString &key,
                        const QString &serverTime, qint64 *size_p = nullptr);
    bool downloadTask(const FilePtr &task, const ContextPtr &context);
    // Whether `path` is still exactly as a download of the last minute left it (same inode, size,
    // modification and change times): the watcher's report of it, or a rescan finding it, is then
    // no change of the user's, and needs neither the catalogue nor a digest to say so.
    bool isAsDownloaded(const QString &path);
    // Lets go of the records of downloads older than that minute.
    void forgetOldDownloads();
    void statusBarAnimation();
    void stopBarAnimation();
    static void postLogFromSync(const LogObject &log);
    static void postLogFromServer(const LogObject &log);

    // --- Server time ---
    void createDateFormat();
    QString localTimeToServerTime(const QDateTime &date);
    QString localTimeFromDate(const QDateTime &date);
    QDateTime serverTimeToLocalTime(const QString &serverTime);
    QString serverTimeToLocalTimeStr(const QString &serverTime);
    QString serverTimeOfFileAtPath(const QString &path);
    QDateTime serverTimeNSDateOfFileAtPath(const QString &path);
    static QString getDateServerFromDate(const QDateTime &date);
    // The server clock (SERVERTIME), null when nothing usable came back.
    QString getServerID();
    void updateLastCheckWithCurrentTimeOfServer(const ContextPtr &context);
    // INFO through the common transport; null on no reply or an unreadable one (`error` set then).
    std::shared_ptr<GDataXMLDocument> getInfoOfItemWithKey(const QString &key, FvError *error = nullptr);
    // INFO on its own connection, resent until a reply comes. The item's NAME, PATH, TIME, SIZE,
    // MEMO, PRIV, TAG, DESC, OWNER (null strings where absent; empty list when the reply names no
    // item). nullopt when cancelled, or with `error` set when the reply was not XML.
    std::optional<QStringList> getInfomationOfItemWithKey(const QString &key, FvError *error = nullptr);
    int checkFileIsModifierWithPath(const QString &path, const QString &timeCompare,
                                    const QString &md5Compare);
    // Whether the file at `path` is no longer the contents a record describes (its size, then its
    // MD5; an empty MD5 describes nothing). Times are kept to the second, so a file written again
    // in the second of its last transfer looks unchanged by date: its contents tell.
    static bool fileDiffersFromRecord(const QString &path, const QString &md5, const QString &size);
    // Whether the server's copy of a file dated the same second as the local one (`serverMd5`)
    // should replace it: the server's contents differ from the record's while the local file is
    // still the record's.
    static bool serverCopyReplacesSameSecond(const QString &path, const FilePtr &row,
                                             const QString &serverMd5);
    QList<DirectoryPtr> getAllDirectoryChangedWithManagedObjectContext(const ContextPtr &context);

    // --- Command transport ---
    struct CommandReply
    {
        std::shared_ptr<GDataXMLDocument> document; // null: nothing came back, or not XML
        bool unreadable = false;                    // a reply came that is not XML ("Error read xml")
    };
    // Posts a command body (UTF-8) to the command endpoint of the configured domain.
    CommandReply sentRequestWithBody(const QString &body);
    // The transport under the command senders (default: RestClient). Replaceable, e.g. by a local
    // answerer; null restores the default.
    void setTransport(const std::shared_ptr<CommandTransport> &transport);

    // The sync folder: path(), else the configured "kKeyPath", else the account record's path.
    QString syncFolderPath(const ContextPtr &context = nullptr);
    // Texts shown to the user are looked up through this (default: the key itself).
    static void setLocalizer(const std::function<QString(const QString &)> &lookup);
    static QString localizedString(const QString &key);

private:
    DatabaseUtils();

    // Runs `job` on the main thread and waits; runs it directly when already there.
    static void onMainThread(const std::function<void()> &job);
    ContextPtr mainContext();
    ContextPtr ownContext();
    bool saveContext(const ContextPtr &context, const QString &format);
    void saveMainContext();
    // An item record long enough, with acceptable names and a path inside the sync folder.
    bool isInsertable(const QStringList &record, bool folder, const ContextPtr &context);
    bool insertDirectoryRow(const QStringList &record, const ContextPtr &context, bool create);
    void removeItem(const QString &key, bool folder, const ContextPtr &context, bool toTrash);
    std::shared_ptr<CatalogueItem> itemWithKey(const QString &key, bool folder, const ContextPtr &context);
    // The row an item record names, once the record is long enough (`lastField` present) and its
    // name is acceptable; `action` starts the diagnostic line of a short record.
    std::shared_ptr<CatalogueItem> itemForRecord(const QStringList &record, int lastField,
                                                 const QString &action, bool folder,
                                                 const ContextPtr &context);
    // Where a server rename or move takes an item, and how it is logged.
    struct Relocation
    {
        QString name;
        QString path;
        std::optional<QString> parentKey; // moves only
        QString failFormat;               // diagnostic when the disk refuses; %1: the reason
        QString workKey;                  // activity-log text key
        QString detail;                   // "<before> => <after>"
    };
    // After a local rename or move was sent: waiting uploads of what it carried follow it, and what
    // a moved folder holds that is neither catalogued nor waiting is queued. Whether any task was.
    // `relocationId`: the rename's or move's task number.
    bool followRelocation(const QString &oldPath, const QString &newPath, qint64 relocationId,
                          const ContextPtr &context);
    // Queues an upload for everything below `top` on disk that is neither catalogued nor waiting
    // (a download part or a Finder file aside). Whether any task was.
    bool takeUpUnsentBelow(const QString &top, const ContextPtr &context);
    // A rename or move whose item is gone from its old place while the catalogue has another item
    // at the new one: the server cannot take it (the name is in use), and the item there stands for
    // what the user now has at the new place (sent anew by a delete that found the place filled
    // again, or about to be, by the waiting delete of the item it replaced). The item at the old
    // place is then removed on the server; the delete's result, or 0 when the relocation stands.
    int relocationIntoTakenPlace(const TaskPtr &task, const std::shared_ptr<CatalogueItem> &row,
                                 const ContextPtr &context);
    // The row takes its new name and place first, the item follows on disk, and the row goes back
    // when the disk refuses. Logged either way.
    void relocateItem(const std::shared_ptr<CatalogueItem> &row, bool folder, const Relocation &to,
                      const QString &root, const ContextPtr &context);
    void renameItem(const QStringList &record, bool folder, const ContextPtr &context);
    void moveItem(const QStringList &record, bool folder, const ContextPtr &context);
    void changePathOfItems(const QString &newPath, const QString &oldPath, bool folders,
                           const ContextPtr &context);
    void deleteItemsWithPKey(const QString &pkey, bool folders, const ContextPtr &context);
    // One pass over the stored tasks; false when it ended the run early (thread end, unreadable reply).
    bool runTasks(const ContextPtr &context);
    int runOneTask(const TaskPtr &task, const ContextPtr &context, bool *restart);
    QByteArray postToServer(const QString &url, const QString &body);
    QString timeZoneText();

    AppServices *m_appDelegate = nullptr;
    std::atomic<bool> m_alive{false};
    QString m_macName;
    QTimer *m_timer = nullptr;
    std::atomic<bool> m_isDoTask{false};
    std::shared_ptr<ManagedObjectContext> m_managedObjectContext;
    QThread *m_syncThread = nullptr;
    QString m_path;
    QString m_sTimezone;
    QString m_dateFormat;
    QString m_localDateFormat;
    std::optional<QTimeZone> m_serverTimeZone;
    std::optional<QTimeZone> m_localTimeZone;

    // A run asked for while one was in progress (queued calls reach the worker inside the nested
    // event loops of its blocking requests): the running one goes round again at its end.
    std::atomic<bool> m_runAgain{false};
    // The task the executor is carrying out (0: none). An upload under way has read, or is reading,
    // the file: a change of it reported meanwhile is not covered by that task.
    std::atomic<qint64> m_taskUnderWay{0};
    std::recursive_mutex m_timeLock; // guards the lazily made time-zone state and the memo below
    // The last server time converted, with the zones it was converted between: an item's time is
    // converted for its log line, its date and its row, one after the other.
    struct TimeMemo
    {
        QString serverTime;
        QTimeZone serverZone;
        QTimeZone localZone;
        QString localText;
        std::optional<QDateTime> localDate; // read back when first asked for
    };
    std::optional<TimeMemo> m_timeMemo;
    TimeMemo &convertedTime(const QString &serverTime); // m_timeLock held, zones made
    std::mutex m_runnerLock;
    QPointer<QObject> m_runner; // lives on syncThread; receives the queued task runs
    std::mutex m_transportLock;
    std::shared_ptr<CommandTransport> m_transport;

    struct FileStamp
    {
        quint64 inode = 0;
        qint64 size = -1;
        qint64 modifiedNs = 0;
        qint64 changedNs = 0;
        qint64 at = 0; // m_stampClock's milliseconds when taken
    };
    static std::optional<FileStamp> stampOf(const QString &path);
    // The file's size as found (-1 when it is gone).
    qint64 rememberDownload(const QString &path);
    void sweepStamps(qint64 now); // m_stampLock held
    std::mutex m_stampLock;
    QHash<QString, FileStamp> m_downloaded; // path -> the file as its download left it
    qsizetype m_stampsKept = 0;             // stamps left by the last sweep of expired ones
    QElapsedTimer m_stampClock;
};
