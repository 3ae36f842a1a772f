#pragma once
// The sync engine. Created by the application when sync is switched on (creating it starts it) and
// told disconnect() before it is dropped. Owns the worker thread "Main thread", the serial listener
// queue, the 60-second work-list timer, the connection to the watcher daemon with its keep-alive,
// the download queue and the pending server work items.
//
// Threads:
//  - main thread: creation, disconnect, destruction, the daemon link (distributed notifications,
//    the socket and its keep-alive), the signals;
//  - worker "Main thread": the first synchronisation, the work-list timer and its passes, the task
//    executor and the download queue, with the catalogue context `managedObjectContext`;
//  - listener queue (a thread named after the bundle identifier + ".ListenerQueue"): one job at a
//    time, each local change and each entry of the first synchronisation, with the catalogue context
//    `listenerManagedObjectContext`.
// Methods documented "worker" or "listener queue" must be called on that thread; the change
// handlers (fileWasAdded, ...) may be called from any thread and hop to the listener queue.
// The work flags are set and tested without locks; `isAlive` going false stops every loop at its
// next test. Ownership: the application services are not owned and must outlive the controller.
// The destructor serves the main thread's queued calls while it waits for the threads, so destroy
// the controller outside the handlers of its own signals (deleteLater).

#include "RestLibrary/RestClient.h"
#include "sync/FileDownload.h"
#include "sync/ProcessTask.h"
#include "util/FolderUtil.h"
#include "watch/FSEventsListener.h"
#include "watch/VDKQueue.h"

#include <QElapsedTimer>
#include <QHash>
#include <QList>
#include <QMutex>
#include <QObject>
#include <QPointer>
#include <QStringList>
#include <QTcpSocket>
#include <QVariant>
#include <QVariantMap>
#include <atomic>
#include <functional>
#include <memory>

class AppServices;
class DaemonLauncher;
class DatabaseUtils;
class File;
class GDataXMLElement;
class ManagedObjectContext;
class QThread;
class QTimer;

namespace MessageFraming {
class FrameBuffer;
}

class ProcessWindowController final : public QObject,
                                      public RestClientDelegate,
                                      public FileDownloadDelegate,
                                      public FolderUtilDelegate,
                                      public FSEventsListenerDelegate,
                                      public VDKQueueDelegate
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(ProcessWindowController)
public:
    // What the engine is doing, for whoever shows it.
    enum class State {
        Starting, // first synchronisation (or its rescan) under way
        Idle,     // running, waiting for the next work-list tick
        Syncing,  // a work-list pass is under way
        Stalled,  // the first synchronisation could not reach the server; waits for a restart
        Relogin,  // the session was refused; the application signs in again
        Stopped,  // disconnect() was called
    };
    Q_ENUM(State)

    // A daemon event as the entry points and handlers receive it.
    struct Notification
    {
        QString name;
        QVariant object;
        QVariantMap userInfo;
    };

    // init: builds the engine and starts it. `appDelegate` is not owned and must outlive it.
    explicit ProcessWindowController(AppServices *appDelegate, QObject *parent = nullptr);
    // Waits (bounded) for the worker thread and the listener queue to end.
    ~ProcessWindowController() override;

    // Stops the engine; no work starts afterwards. Main thread; a second call does nothing.
    void disconnect();

    State state() const;
    // True when nothing is queued or running: no listener job, no download, no task run, no pass.
    bool isQuiet() const;
    // Server changes not yet applied because a file could not be fetched (the connection broke,
    // the disk is full): the last pass stopped before one, or the first synchronisation missed one.
    bool serverChangesWaiting() const;

    // --- Properties ---
    bool isSyncing() const { return m_isSyncing.load(); }
    void setIsSyncing(bool syncing) { m_isSyncing = syncing; }
    AppServices *appDelegate() const { return m_appDelegate; }
    QString path() const;
    void setPath(const QString &path);
    QString macName() const;
    void setMacName(const QString &name);
    std::shared_ptr<RestClient> restClient() const;
    FSEventsListener *eventListener() const { return m_eventListener.get(); }
    void setEventListener(std::unique_ptr<FSEventsListener> listener);
    VDKQueue *vdkQueue() const { return m_vdkQueue.get(); }
    void setVdkQueue(std::unique_ptr<VDKQueue> queue);
    QList<QStringList> listDownload() const;
    void setListDownload(const QList<QStringList> &downloads);
    QList<ProcessTask> listTask() const;
    QTimer *checkSyncTimer() const;
    QTimer *liveTimer() const { return m_liveTimer; }
    std::shared_ptr<FolderUtil> folderUtil() const;
    // Lazy: made on first use on the worker (resp. the listener queue); null elsewhere until then.
    std::shared_ptr<ManagedObjectContext> managedObjectContext();
    std::shared_ptr<ManagedObjectContext> listenerManagedObjectContext();
    QThread *mainThreadCheck() const { return m_mainThreadCheck; }
    // One loopback socket carries both directions: the two streams are its two halves.
    QTcpSocket *inputStream() const { return m_socket; }
    QTcpSocket *outputStream() const { return m_socket; }

    // --- Lifecycle and passes ---
    // Worker: the body of the 60-second timer.
    void threadCheck();
    // Worker: creates the 60-second timer and fires it once at once, unless one exists.
    void createThreadCheck();
    // The worker's entry: its event loop, until the thread is ended.
    void createMainThreadCheck();
    // The first synchronisation on a thread of its own (not used by the constructor).
    void createThreadFirstTime();
    // Worker: the first synchronisation, then the timer.
    void firstTimeSync();
    // Listener queue: one folder of the server tree, recursively.
    void getContentInFolder(const std::shared_ptr<GDataXMLElement> &element, const QString &parentPath,
                            const std::shared_ptr<ManagedObjectContext> &context);
    // Listener queue: creates one folder and its record; its local path ("" when skipped).
    QString addDirWithElement(const std::shared_ptr<GDataXMLElement> &element, const QString &parentPath,
                              const std::shared_ptr<ManagedObjectContext> &context);
    // Listener queue: fetches one file when needed and records it. `known`, when given, holds the
    // rows of its listing's files looked up together (DatabaseUtils::getFilesWithKeys); a row made
    // here is added to it.
    void addFileWithElement(const std::shared_ptr<GDataXMLElement> &element, const QString &parentPath,
                            const std::shared_ptr<ManagedObjectContext> &context,
                            QHash<QString, std::shared_ptr<File>> *known = nullptr);
    // Listener queue: saves the walk's pending rows (logged, not thrown, when the save fails).
    void saveWalkRows(const std::shared_ptr<ManagedObjectContext> &context);
    // Worker: one work-list pass.
    void checkSyncList();
    // Worker: the work-item builders (each appends at most one item to listTask).
    void addObjectWithXmlElement(const std::shared_ptr<GDataXMLElement> &element);
    void delObjectWithXmlElement(const std::shared_ptr<GDataXMLElement> &element);
    void renameObjectWithXmlElement(const std::shared_ptr<GDataXMLElement> &element);
    void moveObjectWithXmlElement(const std::shared_ptr<GDataXMLElement> &element);
    // Worker: applies and empties listTask.
    void nextTask();

    // Stores `time` as the last check unless the stored one is not older (never moves backwards).
    void updateLastCheck(const std::shared_ptr<ManagedObjectContext> &context, const QString &time);
    // Stores index 2 of `info` as the last check when it is a valid 14-digit time.
    void updateInfoamtion(const QVariantList &info, const std::shared_ptr<ManagedObjectContext> &context);

    // --- Downloads (any thread; they run on the worker) ---
    void downloadFile();
    void fileDownloadComplete() override;
    void fileDownloadStatus(const QString &status) override;

    // --- Replies of the asynchronous command path ---
    void restClientDidFinishRequestwithData(RestClient *client,
                                            const std::shared_ptr<GDataXMLDocument> &document) override;
    void restClientHasFail(RestClient *client, const std::optional<QVariantMap> &info) override;

    // --- The watcher daemon (main thread) ---
    void beginListener();
    void endListener();
    void registerNotification();
    void removeNotification();
    // (name) or (name, object): a distributed notification.
    void postNotificationOnMainThread(const QStringList &notification);
    void createSocketClientWithNotification(const QString &port);
    void sendLive();
    void myFSListenerTest(const Notification &notification);

    // Entry points: queue the matching handler on the listener queue (any thread).
    void myFSListenerCreateFile(const Notification &notification);
    void myFSListenerCreateDir(const Notification &notification);
    void myFSListenerDeleteFile(const Notification &notification);
    void myFSListenerDeleteDir(const Notification &notification);
    void myFSListenerRenameFile(const Notification &notification);
    void myFSListenerRenameDir(const Notification &notification);
    void myFSListenerUpdateFile(const Notification &notification);
    void myFSListenerMoveFile(const Notification &notification);
    void myFSListenerMoveDir(const Notification &notification);
    // Handlers (listener queue).
    void myFSListenerCreateFileOnThread(const Notification &notification);
    void myFSListenerCreateDirOnThread(const Notification &notification);
    void myFSListenerDeleteFileOnThread(const Notification &notification);
    void myFSListenerDeleteDirOnThread(const Notification &notification);
    void myFSListenerRenameFileOnThread(const Notification &notification);
    void myFSListenerRenameDirOnThread(const Notification &notification);
    void myFSListenerUpdateFileOnThread(const Notification &notification);
    void myFSListenerMoveFileOnThread(const Notification &notification);
    void myFSListenerMoveDirOnThread(const Notification &notification);

    // Change handlers: each stores one task description (any thread; they run on the listener queue).
    void fileWasAdded(const QString &path) override;
    void fileWasRemoved(const QString &path) override;
    void fileWasUpdate(const QString &path) override;
    void fileWasRenamed(const QString &oldPath, const QString &newPath) override;
    // Full old and new paths; the in-process listener's (name, old folder, new folder) form is
    // accepted too.
    void fileWasMove(const QString &name, const QString &oldDir, const QString &newDir) override;
    void directoryWasAdded(const QString &path) override;
    void directoryWasRemoved(const QString &path) override;
    void directoryWasRenamed(const QString &oldPath, const QString &newPath) override;
    void directoryWasMove(const QString &oldPath, const QString &newPath) override;
    void fileSystemUnknowAtPath(const QString &path) override;
    void folderUtilHasItemAtPath(FolderUtil *util, const QString &path, bool isFolder) override;
    void VDKQueueReceivedNotificationForPath(VDKQueue *queue, const QString &name,
                                             const QString &path) override;

    // --- Reporting (any thread) ---
    void addStringToLog(const QString &message);
    void addStringToLogOnMainThread(const QString &message);
    void postLog(const QVariant &log);

signals:
    void stateChanged(ProcessWindowController::State state);
    // A work-list pass ended ("Read sync list complete").
    void passCompleted();

private:
    struct Fields; // what the main thread drops while the worker may still read it

    void setState(State state);
    bool isAlive() const { return m_isAlive.load(); }
    [[noreturn]] void endThread();
    void endThreadIfNotAlive();
    // Runs `job` on the worker / the listener queue without waiting; counted for isQuiet().
    void postToWorker(std::function<void()> job);
    void postToListener(std::function<void()> job, bool paced);
    // Runs `job` on the listener queue and waits (at once when already there).
    void runOnListenerAndWait(const std::function<void()> &job);
    // Runs `job` on the main thread, waiting only when asked, and never past the engine's end.
    void runOnMainThread(std::function<void()> job, bool wait);
    bool onListenerQueue() const;
    void startAnimation(bool wait = false);
    void stopAnimation();
    QString session() const;
    std::shared_ptr<DatabaseUtils> db() const { return m_databaseUtils; }

    // First synchronisation helpers.
    bool findCloudFolderKey(const std::shared_ptr<ManagedObjectContext> &context);
    // Worker: records what differs between the sync folder and the catalogue as tasks: every item
    // on disk (the catalogue's change detection drops the unchanged ones) and every catalogued item
    // that is gone from disk.
    void rescanSyncFolder();
    void releaseCatalogueMemory();
    static void giveBackFreedMemory();
    // Listener queue: a delete task for each catalogued item gone from disk (the topmost one only).
    void recordRemovedItems();
    // Any thread: a rescan on the worker, unless one is already waiting to start.
    void requestRescan();
    // What became of a fetch: done; refused for good (a name that leaves the sync folder, a
    // folder that cannot be written); or failed for now (the connection broke, the disk is full),
    // to be tried again at a later pass.
    enum class Fetch { Done, Refused, Failed };
    // Fetches a file of `size` bytes into `local`. The bytes go to a hidden file beside it, which
    // takes the name only once complete: a failed or cut-off fetch leaves nothing under the name.
    // `fetchedSize` receives the size of the file put in place.
    Fetch downloadInto(const QString &local, const QString &name, qint64 size, QString *md5,
                       const QString &key, const QString &serverTime, qint64 *fetchedSize = nullptr);
    // Tells the user, once until it is resolved, that `local` does not fit on its disk.
    void reportNoSpace(const QString &local, qint64 size, qint64 available);
    // Worker: fetches again the files of the first synchronisation that could not be fetched;
    // false while some still fail.
    bool retryMissedDownloads();
    // Work-list helpers.
    // Applies the items of a WORKLIST reply; the ID of its last WORKLIST element.
    QString readWorkList(const std::shared_ptr<GDataXMLDocument> &document);
    void checkRootFolder(const std::shared_ptr<ManagedObjectContext> &context);
    void invalidSession();
    void noInternetConnection();
    void applyTask(const ProcessTask &task, const std::shared_ptr<ManagedObjectContext> &context);
    // The local path of a server path; `asSpelledHere` takes the Unicode spelling of names that
    // are already on disk (CataloguePaths::localSpelling).
    QString localPathOfServerPath(const QString &serverPath, bool asSpelledHere = true) const;
    // Whether the server item `key` (in folder `parentKey`, when given) would land, through the
    // spelling on disk, on another catalogued item: two server names that differ only in their
    // Unicode normalisation. The second of them is skipped rather than written over the first.
    bool isSpellingTwin(const QString &literal, const QString &local, const QString &key,
                        const QString &parentKey, const std::shared_ptr<ManagedObjectContext> &context);

    // Daemon link helpers.
    void handleSocketBytes();
    void handleSocketEnd(const QString &reason, bool error);
    void dispatchMessage(const QByteArray &body);
    void dropSocket();
    void stopLiveTimer();
    void storeTask(qint64 type, const QString &name, const QString &path, const QString &newPath, bool folder,
                   bool fileStillThere);
    void renameOnThread(const Notification &notification, bool folder);
    // What this engine did to the sync folder for the server (a rename or move: type 3 or 4 with
    // both paths; a removal: type 2), noted so that the watcher's report of it is not taken for the
    // user's change. Listener queue only.
    void noteOwnChange(qint64 type, const QString &path, const QString &newPath);
    // Whether a reported change is one of those (used up when it is).
    bool takeOwnChange(qint64 type, const QString &path, const QString &newPath);
    void moveOnThread(const Notification &notification, bool folder);

    AppServices *m_appDelegate = nullptr;
    std::shared_ptr<DatabaseUtils> m_databaseUtils;
    std::unique_ptr<Fields> m_fields;
    std::unique_ptr<FSEventsListener> m_eventListener;
    std::unique_ptr<VDKQueue> m_vdkQueue;
    std::shared_ptr<ManagedObjectContext> m_managedObjectContext;
    std::shared_ptr<ManagedObjectContext> m_listenerManagedObjectContext;
    std::unique_ptr<FileDownload> m_fileDownload; // worker
    std::atomic<bool> m_isSyncing{false};
    std::atomic<bool> m_isDownloading{false};
    std::atomic<bool> m_isAlive{false};
    std::atomic<bool> m_disconnected{false};
    std::atomic<int> m_pendingListenerJobs{0};
    std::atomic<int> m_pendingWorkerJobs{0};
    std::atomic<bool> m_rescanWanted{false}; // a rescan is asked for and has not started yet
    std::atomic<bool> m_rescanBegun{false};  // the first rescan has started
    // The start's rescan runs before this engine downloads anything else: the download parts it
    // finds were left by a download cut short, and are removed.
    std::atomic<bool> m_removeDownloadParts{false};
    // A work-list item whose file could not be fetched ends the pass before the last check passes
    // it; the failures per key (listener queue only) bound how often one file is tried, except
    // while the disk is too full for it.
    static constexpr int kDownloadAttempts = 3;
    QHash<QString, int> m_downloadFailures;
    struct OwnChange
    {
        qint64 type = 0;
        QString path;
        QString newPath;
        QElapsedTimer since;
    };
    QList<OwnChange> m_ownChanges;          // listener queue only
    bool m_linkMadeBefore = false;          // main thread: a daemon link was made before
    std::atomic<bool> m_linked{false};      // a daemon link has been made (and so watches)
    std::atomic<bool> m_fetchFailed{false}; // a server change could not be fetched this pass

    QThread *m_mainThreadCheck = nullptr;
    QThread *m_listenerQueue = nullptr;
    QObject *m_workerReceiver = nullptr;   // lives on the worker; queued jobs go to it
    QObject *m_listenerReceiver = nullptr; // lives on the listener queue
    QTimer *m_liveTimer = nullptr;         // main thread
    QPointer<QTcpSocket> m_socket;         // main thread
    std::unique_ptr<MessageFraming::FrameBuffer> m_frameBuffer;
    std::unique_ptr<DaemonLauncher> m_daemonLauncher;
    State m_state = State::Starting; // main thread
};
