// ProcessWindowController: local change capture. The watcher daemon is started when needed and told
// (by distributed notification) to watch the sync folder; it announces a port, the controller
// connects on the main thread and reads framed, archived change messages. Each message becomes a job
// on the listener queue, which classifies the change and stores it as a task for the executor.
#include "catalogue/CataloguePaths.h"
#include "catalogue/DatabaseUtils.h"
#include "link/DaemonLauncher.h"
#include "link/DistributedNotificationCenter.h"
#include "link/KeyedArchive.h"
#include "link/LinkNames.h"
#include "link/MessageFraming.h"
#include "sync/ProcessWindowControllerPrivate.h"
#include "util/Log.h"
#include "util/Pace.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QDebug>
#include <QHostAddress>
#include <QTcpSocket>
#include <QTimer>

using namespace EngineDetail;

namespace {

const QString kDSStore = QStringLiteral(".DS_Store");

QString describe(const QVariant &value)
{
    QString text;
    QDebug(&text).noquote() << value;
    return text;
}

QVariant payloadOf(const ProcessWindowController::Notification &notification)
{
    return notification.userInfo.value(LinkNames::kUserInfoObjectKey);
}

bool isMainThread()
{
    QCoreApplication *app = QCoreApplication::instance();
    return app && QThread::currentThread() == app->thread();
}

} // namespace

// --- Notifications to and from the daemon (main thread) ---

void ProcessWindowController::beginListener()
{
    if (!isMainThread()) {
        runOnMainThread([this] { beginListener(); }, false);
        return;
    }
    if (!isAlive())
        return;
    registerNotification();
    // A start posted before a daemon listens would be lost: wait until one holds its bus name.
    m_daemonLauncher->whenRunning([this] {
        if (isAlive())
            postNotificationOnMainThread({LinkNames::kDemonStartListener, path()});
    });
}

void ProcessWindowController::endListener()
{
    if (!isMainThread()) {
        runOnMainThread([this] { endListener(); }, false);
        return;
    }
    removeNotification();
    m_daemonLauncher->cancel();
    postNotificationOnMainThread({LinkNames::kDemonStopListener});
}

void ProcessWindowController::registerNotification()
{
    DistributedNotificationCenter *center = DistributedNotificationCenter::defaultCenter();
    // Registered once however often the listener restarts.
    center->removeObserver(this, LinkNames::kKeyMyFSListenerPort);
    center->removeObserver(this, LinkNames::kTestNotification);
    center->addObserver(
        this, [this](const QString &, const QString &object) { createSocketClientWithNotification(object); },
        LinkNames::kKeyMyFSListenerPort);
    center->addObserver(
        this,
        [this](const QString &name, const QString &object) {
            myFSListenerTest({name, object, {}});
        },
        LinkNames::kTestNotification);
}

void ProcessWindowController::removeNotification()
{
    DistributedNotificationCenter *center = DistributedNotificationCenter::defaultCenter();
    // The test notification's observer stays.
    for (const QString &name : {LinkNames::kKeyMyFSListenerCreateDir, LinkNames::kKeyMyFSListenerPort,
                                LinkNames::kKeyMyFSListenerCreateFile, LinkNames::kKeyMyFSListenerRenameDir,
                                LinkNames::kKeyMyFSListenerRenameFile, LinkNames::kKeyMyFSListenerDeleteDir,
                                LinkNames::kKeyMyFSListenerDeleteFile, LinkNames::kKeyMyFSListenerMoveDir,
                                LinkNames::kKeyMyFSListenerMoveFile})
        center->removeObserver(this, name);
}

void ProcessWindowController::postNotificationOnMainThread(const QStringList &notification)
{
    if (notification.isEmpty())
        return;
    if (!isMainThread()) {
        runOnMainThread(
            [notification] {
                DistributedNotificationCenter::defaultCenter()->postNotificationName(
                    notification.at(0), notification.size() >= 2 ? notification.at(1) : QString());
            },
            false);
        return;
    }
    DistributedNotificationCenter::defaultCenter()->postNotificationName(
        notification.at(0), notification.size() >= 2 ? notification.at(1) : QString());
}

void ProcessWindowController::myFSListenerTest(const Notification &) {}

// --- The connection (main thread) ---

void ProcessWindowController::createSocketClientWithNotification(const QString &port)
{
    if (!isAlive())
        return;
    FV_LOG(QStringLiteral("Port: %1").arg(port));
    addStringToLog(QStringLiteral("Connect to port: %1").arg(port));
    bool ok = false;
    const int number = port.trimmed().toInt(&ok);
    if (!ok || number <= 0 || number > 65535) {
        FV_LOG(QStringLiteral("Not a port: \"%1\"").arg(port));
        return;
    }
    // A new announcement replaces the connection there was (without restarting the daemon).
    stopLiveTimer();
    dropSocket();
    m_frameBuffer = std::make_unique<MessageFraming::FrameBuffer>();
    auto *socket = new QTcpSocket(this);
    m_socket = socket;
    connect(socket, &QTcpSocket::connected, this, [this] {
        FV_LOG(QStringLiteral("Input stream open complete!"));
        addStringToLog(QStringLiteral("Connect to socket server complete"));
        // What changed while no daemon watched (it went away, or a new one started after the first
        // rescan had begun) is only on disk: the link made again is followed by a rescan.
        m_linked = true;
        if (std::exchange(m_linkMadeBefore, true) || m_rescanBegun)
            requestRescan();
        FV_LOG(QStringLiteral("Output stream open complete!"));
        stopLiveTimer();
        m_liveTimer = new QTimer(this);
        m_liveTimer->setInterval(Pace::ms(500));
        connect(m_liveTimer, &QTimer::timeout, this, &ProcessWindowController::sendLive);
        m_liveTimer->start();
    });
    connect(socket, &QTcpSocket::readyRead, this, &ProcessWindowController::handleSocketBytes);
    connect(socket, &QTcpSocket::disconnected, this, [this] { handleSocketEnd(QString(), false); });
    connect(socket, &QTcpSocket::errorOccurred, this, [this, socket](QAbstractSocket::SocketError error) {
        // The peer closing is the stream's end, not an error.
        handleSocketEnd(socket->errorString(), error != QAbstractSocket::RemoteHostClosedError);
    });
    socket->connectToHost(QHostAddress(QHostAddress::LocalHost), quint16(number));
}

void ProcessWindowController::sendLive()
{
    if (!m_socket || m_socket->state() != QAbstractSocket::ConnectedState)
        return;
    m_socket->write(LinkNames::kKeepAlive, 4);
}

void ProcessWindowController::stopLiveTimer()
{
    if (!m_liveTimer)
        return;
    m_liveTimer->stop();
    m_liveTimer->deleteLater();
    m_liveTimer = nullptr;
}

void ProcessWindowController::dropSocket()
{
    QTcpSocket *socket = m_socket;
    m_socket = nullptr;
    if (!socket)
        return;
    socket->disconnect(this); // closing it must not look like the daemon going away
    socket->close();
    socket->deleteLater();
}

void ProcessWindowController::handleSocketBytes()
{
    if (!m_socket)
        return;
    FV_LOG(QStringLiteral("Receive new event from FerrovaneDaemon!"));
    // Whole frames only: a frame cut between two reads waits here for its rest.
    for (const QByteArray &body : m_frameBuffer->readFrom(*m_socket))
        dispatchMessage(body);
}

void ProcessWindowController::handleSocketEnd(const QString &reason, bool error)
{
    if (!m_socket)
        return;
    if (error) {
        FV_LOG(QStringLiteral("Input stream error: %1").arg(reason));
        FV_LOG(QStringLiteral("Output stream error: %1").arg(reason));
    } else {
        FV_LOG(QStringLiteral("Input stream end! : %1").arg(reason));
        FV_LOG(QStringLiteral("Output stream end! : %1").arg(reason));
        // What was left of a frame cut by the end is read as it stands.
        if (m_socket->bytesAvailable() > 0)
            handleSocketBytes();
        for (const QByteArray &body : m_frameBuffer->finish())
            dispatchMessage(body);
    }
    stopLiveTimer();
    dropSocket();
    if (isAlive()) {
        // The daemon is told to stop and start again; it then announces a new port.
        QMetaObject::invokeMethod(
            this,
            [this] {
                endListener();
                beginListener();
            },
            Qt::QueuedConnection);
    }
}

void ProcessWindowController::dispatchMessage(const QByteArray &body)
{
    QString error;
    const std::optional<QVariantList> message = KeyedArchive::unarchiveMessage(body, &error);
    if (!message) {
        FV_LOG(QStringLiteral("Dropped a message from the daemon: %1").arg(error));
        return;
    }
    const Notification notification{message->at(0).toString(), message->at(1),
                                    message->size() > 2 ? message->at(2).toMap() : QVariantMap()};
    // Compared in this order; other names (the two move events included) are ignored.
    const QString &name = notification.name;
    if (name == LinkNames::kKeyMyFSListenerCreateFile)
        myFSListenerCreateFile(notification);
    else if (name == LinkNames::kKeyMyFSListenerDeleteFile)
        myFSListenerDeleteFile(notification);
    else if (name == LinkNames::kKeyMyFSListenerDeleteDir)
        myFSListenerDeleteDir(notification);
    else if (name == LinkNames::kKeyMyFSListenerRenameFile)
        myFSListenerRenameFile(notification);
    else if (name == LinkNames::kKeyMyFSListenerRenameDir)
        myFSListenerRenameDir(notification);
    else if (name == LinkNames::kKeyMyFSListenerUpdateFile)
        myFSListenerUpdateFile(notification);
    else if (name == LinkNames::kKeyMyFSListenerCreateDir)
        myFSListenerCreateDir(notification);
}

// --- Entry points: one paced job per event on the listener queue ---

void ProcessWindowController::myFSListenerCreateFile(const Notification &notification)
{
    postToListener([this, notification] { myFSListenerCreateFileOnThread(notification); }, true);
}

void ProcessWindowController::myFSListenerCreateDir(const Notification &notification)
{
    postToListener([this, notification] { myFSListenerCreateDirOnThread(notification); }, true);
}

void ProcessWindowController::myFSListenerDeleteFile(const Notification &notification)
{
    postToListener([this, notification] { myFSListenerDeleteFileOnThread(notification); }, true);
}

void ProcessWindowController::myFSListenerDeleteDir(const Notification &notification)
{
    postToListener([this, notification] { myFSListenerDeleteDirOnThread(notification); }, true);
}

void ProcessWindowController::myFSListenerRenameFile(const Notification &notification)
{
    postToListener([this, notification] { myFSListenerRenameFileOnThread(notification); }, true);
}

void ProcessWindowController::myFSListenerRenameDir(const Notification &notification)
{
    postToListener([this, notification] { myFSListenerRenameDirOnThread(notification); }, true);
}

void ProcessWindowController::myFSListenerUpdateFile(const Notification &notification)
{
    postToListener([this, notification] { myFSListenerUpdateFileOnThread(notification); }, true);
}

void ProcessWindowController::myFSListenerMoveFile(const Notification &notification)
{
    postToListener([this, notification] { myFSListenerMoveFileOnThread(notification); }, true);
}

void ProcessWindowController::myFSListenerMoveDir(const Notification &notification)
{
    postToListener([this, notification] { myFSListenerMoveDirOnThread(notification); }, true);
}

// --- Handlers (listener queue) ---

void ProcessWindowController::myFSListenerCreateFileOnThread(const Notification &notification)
{
    FV_LOG(describe(notification.userInfo));
    fileWasAdded(payloadOf(notification).toString());
}

void ProcessWindowController::myFSListenerCreateDirOnThread(const Notification &notification)
{
    FV_LOG(describe(notification.userInfo));
    directoryWasAdded(payloadOf(notification).toString());
}

void ProcessWindowController::myFSListenerDeleteFileOnThread(const Notification &notification)
{
    FV_LOG(describe(notification.userInfo));
    fileWasRemoved(payloadOf(notification).toString());
}

void ProcessWindowController::myFSListenerDeleteDirOnThread(const Notification &notification)
{
    FV_LOG(describe(notification.userInfo));
    const QVariant payload = payloadOf(notification);
    if (payload.metaType().id() == QMetaType::QVariantList ||
        payload.metaType().id() == QMetaType::QStringList) {
        const QStringList paths = payload.toStringList();
        if (!paths.isEmpty())
            directoryWasRemoved(paths.first());
        return;
    }
    directoryWasRemoved(payload.toString());
}

void ProcessWindowController::myFSListenerUpdateFileOnThread(const Notification &notification)
{
    FV_LOG(describe(notification.userInfo));
    fileWasUpdate(notification.object.toString()); // the object, not the user info
}

void ProcessWindowController::myFSListenerRenameFileOnThread(const Notification &notification)
{
    FV_LOG(describe(notification.userInfo));
    renameOnThread(notification, false);
}

void ProcessWindowController::myFSListenerRenameDirOnThread(const Notification &notification)
{
    FV_LOG(describe(notification.userInfo));
    renameOnThread(notification, true);
}

void ProcessWindowController::myFSListenerMoveFileOnThread(const Notification &notification)
{
    FV_LOG(describe(notification.userInfo));
    moveOnThread(notification, false);
}

void ProcessWindowController::myFSListenerMoveDirOnThread(const Notification &notification)
{
    FV_LOG(describe(notification.userInfo));
    moveOnThread(notification, true);
}

void ProcessWindowController::renameOnThread(const Notification &notification, bool folder)
{
    const QStringList paths = payloadOf(notification).toStringList();
    if (paths.size() < 2) {
        FV_LOG(QStringLiteral("A rename needs the old and the new path"));
        return;
    }
    const QString &oldPath = paths.at(0);
    const QString &newPath = paths.at(1);
    const QString oldDir = CataloguePaths::deletingLastPathComponent(oldPath);
    const QString newDir = CataloguePaths::deletingLastPathComponent(newPath);
    const QString oldName = CataloguePaths::lastPathComponent(oldPath);
    const QString newName = CataloguePaths::lastPathComponent(newPath);
    if (oldName != newName && oldDir == newDir) {
        if (folder)
            directoryWasRenamed(oldPath, newPath);
        else
            fileWasRenamed(oldPath, newPath);
    } else if (oldDir != newDir) {
        if (!newDir.contains(path())) {
            // Moved out of the sync folder: gone as far as the server is concerned.
            if (folder)
                directoryWasRemoved(oldPath);
            else
                fileWasRemoved(oldPath);
        } else if (folder) {
            directoryWasMove(oldPath, newPath);
        } else {
            fileWasMove(oldName, oldPath, newPath);
        }
    } else if (folder) {
        myFSListenerMoveDirOnThread(notification);
    } else {
        myFSListenerMoveFileOnThread(notification);
    }
}

void ProcessWindowController::moveOnThread(const Notification &notification, bool folder)
{
    const QStringList paths = payloadOf(notification).toStringList();
    if (paths.isEmpty())
        return;
    if (paths.size() == 1) {
        if (folder)
            directoryWasAdded(paths.first());
        else
            fileWasAdded(paths.first());
        return;
    }
    const QString &oldPath = paths.at(0);
    const QString &newPath = paths.at(1);
    const QString root = path();
    if (!oldPath.contains(root, Qt::CaseInsensitive)) {
        // Came from outside: maybe a catalogued item that moved (same time and name). The look-up
        // uses this queue's own context, since a context serves only the thread that made it.
        const auto context = listenerManagedObjectContext();
        const std::shared_ptr<CatalogueItem> record =
            folder ? std::shared_ptr<CatalogueItem>(db()->getDirectoryWithNewPath(newPath, context))
                   : std::shared_ptr<CatalogueItem>(db()->getFileWithNewPath(newPath, context));
        if (record && record->path() != newPath) {
            if (folder)
                directoryWasMove(record->path(), newPath);
            else
                fileWasMove(record->name(), record->path(), newPath);
        } else if (folder) {
            directoryWasAdded(newPath);
        } else {
            fileWasAdded(newPath);
        }
    } else if (oldPath != newPath) {
        if (folder)
            directoryWasMove(oldPath, newPath);
        else
            fileWasMove(CataloguePaths::lastPathComponent(oldPath), oldPath, newPath);
    }
}

// --- Change handlers: one task description each (listener queue) ---

void ProcessWindowController::storeTask(qint64 type, const QString &name, const QString &path,
                                        const QString &newPath, bool folder, bool fileStillThere)
{
    if (!isAlive())
        return;
    // The watcher reports what the engine itself did for the server too: that is no change of the
    // user's. Sent back, it could even hit another item: a server rename of A to B followed by one
    // of C to A leaves C where the report of the first says A left, and the rename would go out for
    // C (a move or removal likewise).
    if ((type == 2 || type == 3 || type == 4) && takeOwnChange(type, path, newPath)) {
        FV_LOG(QStringLiteral("Applied for the server, not sent back: %1 %2").arg(path, newPath));
        return;
    }
    // A download being written (or put in place: the part renamed over the file) is no local
    // change; the download records the file itself.
    if (CataloguePaths::isDownloadPart(path) ||
        (!newPath.isEmpty() && CataloguePaths::isDownloadPart(newPath)))
        return;
    // A file just fetched and untouched since: its report (or the rescan's) is the download's own.
    if ((type == 1 || type == 5) && !folder && newPath.isEmpty() && db()->isAsDownloaded(path))
        return;
    QDateTime time;
    if (!folder && fileStillThere)
        time = db()->serverTimeNSDateOfFileAtPath(newPath.isEmpty() ? path : newPath);
    if (!time.isValid())
        time = QDateTime::currentDateTime(); // removals, folders, and files gone in the meantime
    QVariantMap task{{QStringLiteral("kKeyTaskType"), type},
                     {QStringLiteral("kKeyTaskName"), name},
                     {QStringLiteral("kKeyTaskPath"), path},
                     {QStringLiteral("kKeyTaskTime"), time},
                     {QStringLiteral("kKeyTaskFolder"), folder}};
    if (!newPath.isEmpty())
        task.insert(QStringLiteral("kKeyTaskNewPath"), newPath);
    if (db()->addTaskWithDictionary(task, listenerManagedObjectContext()))
        postToWorker([] {}); // counted until the worker has taken up the run the task asked for
}

void ProcessWindowController::noteOwnChange(qint64 type, const QString &path, const QString &newPath)
{
    // A report that never comes (no daemon linked at the time: the next link's rescan covers it)
    // must not swallow a change of the user's much later. The bound is the machine's, not the
    // program's pace: it is not scaled.
    constexpr qint64 kReportBoundMs = 60000;
    m_ownChanges.removeIf([](const OwnChange &change) { return change.since.hasExpired(kReportBoundMs); });
    OwnChange change{type == 2 ? 2 : 3, path, newPath, {}};
    change.since.start();
    m_ownChanges.append(change);
}

bool ProcessWindowController::takeOwnChange(qint64 type, const QString &path, const QString &newPath)
{
    const qint64 kind = type == 2 ? 2 : 3; // a rename and a move are told apart by the folders only
    for (qsizetype i = 0; i < m_ownChanges.size(); ++i) {
        const OwnChange &change = m_ownChanges.at(i);
        if (change.type != kind || change.path != path || (kind == 3 && change.newPath != newPath))
            continue;
        m_ownChanges.removeAt(i);
        return true;
    }
    return false;
}

void ProcessWindowController::fileWasAdded(const QString &path)
{
    if (!onListenerQueue()) {
        postToListener([this, path] { fileWasAdded(path); }, false);
        return;
    }
    FV_LOG(QStringLiteral("File was add: %1").arg(path));
    const QString name = CataloguePaths::lastPathComponent(path);
    // A download's part (one left by a stop in the middle, too) is no file of the user's.
    if (name == kDSStore || name.startsWith(kPartPrefix))
        return;
    storeTask(1, name, path, QString(), false, true);
}

void ProcessWindowController::fileWasRemoved(const QString &path)
{
    if (!onListenerQueue()) {
        postToListener([this, path] { fileWasRemoved(path); }, false);
        return;
    }
    FV_LOG(QStringLiteral("File was remove: %1").arg(path));
    storeTask(2, CataloguePaths::lastPathComponent(path), path, QString(), false, false);
}

void ProcessWindowController::fileWasUpdate(const QString &path)
{
    if (!onListenerQueue()) {
        postToListener([this, path] { fileWasUpdate(path); }, false);
        return;
    }
    FV_LOG(QStringLiteral("File was update: %1").arg(path));
    const QString name = CataloguePaths::lastPathComponent(path);
    if (name == kDSStore || name.startsWith(kPartPrefix))
        return;
    storeTask(5, name, path, QString(), false, true);
}

void ProcessWindowController::fileWasRenamed(const QString &oldPath, const QString &newPath)
{
    if (!onListenerQueue()) {
        postToListener([this, oldPath, newPath] { fileWasRenamed(oldPath, newPath); }, false);
        return;
    }
    FV_LOG(QStringLiteral("File was rename: %1 -> %2").arg(oldPath, newPath));
    storeTask(3, CataloguePaths::lastPathComponent(oldPath), oldPath, newPath, false, true);
}

void ProcessWindowController::fileWasMove(const QString &name, const QString &oldDir, const QString &newDir)
{
    if (!onListenerQueue()) {
        postToListener([this, name, oldDir, newDir] { fileWasMove(name, oldDir, newDir); }, false);
        return;
    }
    QString oldPath = oldDir;
    QString newPath = newDir;
    if (CataloguePaths::lastPathComponent(oldDir) != name) {
        // The in-process listener names the two folders rather than the two paths.
        oldPath = oldDir + u'/' + name;
        newPath = newDir + u'/' + name;
    }
    FV_LOG(QStringLiteral("File was move: %1 -> %2").arg(oldPath, newPath));
    storeTask(4, name, oldPath, newPath, false, true);
}

void ProcessWindowController::directoryWasAdded(const QString &path)
{
    if (!onListenerQueue()) {
        postToListener([this, path] { directoryWasAdded(path); }, false);
        return;
    }
    FV_LOG(QStringLiteral("Directory was add: %1").arg(path));
    storeTask(1, CataloguePaths::lastPathComponent(path), path, QString(), true, false);
}

void ProcessWindowController::directoryWasRemoved(const QString &path)
{
    if (!onListenerQueue()) {
        postToListener([this, path] { directoryWasRemoved(path); }, false);
        return;
    }
    FV_LOG(QStringLiteral("Directory was remove: %1").arg(path));
    storeTask(2, CataloguePaths::lastPathComponent(path), path, QString(), true, false);
    if (!isAlive() || path != this->path())
        return;
    // The sync folder itself went: its first level is forgotten.
    const auto context = listenerManagedObjectContext();
    const InfomationPtr info = db()->getInfomationWithManagedObjectContext(context);
    const QString key = info ? info->cloudFolderKey() : QString();
    db()->deleteAllDirectoryWithPKey(key, context);
    db()->deleteAllFileWithPKey(key, context);
}

void ProcessWindowController::directoryWasRenamed(const QString &oldPath, const QString &newPath)
{
    if (!onListenerQueue()) {
        postToListener([this, oldPath, newPath] { directoryWasRenamed(oldPath, newPath); }, false);
        return;
    }
    FV_LOG(QStringLiteral("Directory was rename: %1 -> %2").arg(oldPath, newPath));
    storeTask(3, CataloguePaths::lastPathComponent(oldPath), oldPath, newPath, true, false);
}

void ProcessWindowController::directoryWasMove(const QString &oldPath, const QString &newPath)
{
    if (!onListenerQueue()) {
        postToListener([this, oldPath, newPath] { directoryWasMove(oldPath, newPath); }, false);
        return;
    }
    FV_LOG(QStringLiteral("Directory was move: %1 -> %2").arg(oldPath, newPath));
    storeTask(4, CataloguePaths::lastPathComponent(oldPath), oldPath, newPath, true, false);
}

void ProcessWindowController::fileSystemUnknowAtPath(const QString &path)
{
    // Scanned on the listener queue, with a scanner of its own: a rescan on the worker may be using
    // the controller's, and the main thread must not sit through the scan's pauses.
    postToListener(
        [this, path] {
            FolderUtil scanner;
            scanner.setDelegate(this);
            scanner.scanFolder(path, true);
        },
        false);
}

void ProcessWindowController::VDKQueueReceivedNotificationForPath(VDKQueue *, const QString &name,
                                                                  const QString &path)
{
    FV_LOG(name + u'\t' + path);
}
