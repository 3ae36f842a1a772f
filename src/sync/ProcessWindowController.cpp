// ProcessWindowController: construction and shut-down, the worker thread and the listener queue,
// the work-list timer, the catalogue contexts, the last-check time, the download queue and reporting.
#include "catalogue/DatabaseUtils.h"
#include "link/DaemonLauncher.h"
#include "link/MessageFraming.h"
#include "protocol/UploadFile.h"
#include "sync/ProcessWindowControllerPrivate.h"
#include "util/AppServices.h"
#include "util/Log.h"
#include "util/NotificationCenter.h"
#include "util/Pace.h"
#include "xml/GDataXMLNode.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QDeadlineTimer>
#include <QEventLoop>
#include <QMutexLocker>
#include <QTcpSocket>
#include <QTimer>

#ifdef __GLIBC__
#include <malloc.h>
#endif

namespace {

std::atomic<int> g_unreadableReplies{0};
std::atomic<int> g_passCount{0};

// How long the destructor waits for each thread. A blocking command may take up to its 60-second
// inactivity time-out before the worker sees that the engine has ended.
constexpr int kThreadWaitMs = 90000;

// Waits for `thread` while this (main) thread keeps serving the calls the thread may be waiting on.
bool waitServing(QThread *thread, int timeoutMs)
{
    QDeadlineTimer deadline(timeoutMs);
    while (!thread->wait(10)) {
        if (deadline.hasExpired())
            return false;
        QCoreApplication::processEvents(QEventLoop::ExcludeUserInputEvents, 10);
    }
    return true;
}

} // namespace

namespace EngineDetail {

int unreadableReplies()
{
    return g_unreadableReplies.load();
}

void setUnreadableReplies(int count)
{
    g_unreadableReplies = count;
}

void countPass()
{
    // Kept as it has always been: the counter wraps at 60 and nothing reads it.
    if (++g_passCount >= 60)
        g_passCount = 0;
}

QString attribute(const std::shared_ptr<GDataXMLElement> &element, const QString &name)
{
    const auto node = element ? element->attributeForName(name) : nullptr;
    return node ? node->stringValue() : QString();
}

QList<std::shared_ptr<GDataXMLElement>> childElements(const std::shared_ptr<GDataXMLElement> &element)
{
    QList<std::shared_ptr<GDataXMLElement>> children;
    if (!element)
        return children;
    for (const auto &child : element->children()) {
        if (child->kind() != GDataXMLElementKind)
            continue;
        if (auto childElement = std::dynamic_pointer_cast<GDataXMLElement>(child))
            children.append(childElement);
    }
    return children;
}

std::shared_ptr<GDataXMLElement> firstElement(const std::shared_ptr<GDataXMLDocument> &document,
                                              const QString &name)
{
    const auto root = document ? document->rootElement() : nullptr;
    const auto found = root ? root->elementsForName(name) : QList<std::shared_ptr<GDataXMLElement>>();
    return found.isEmpty() ? nullptr : found.first();
}

} // namespace EngineDetail

using namespace EngineDetail;

// --- Start-up ---

ProcessWindowController::ProcessWindowController(AppServices *appDelegate, QObject *parent)
    : QObject(parent), m_appDelegate(appDelegate), m_fields(std::make_unique<Fields>()),
      m_frameBuffer(std::make_unique<MessageFraming::FrameBuffer>()),
      m_daemonLauncher(std::make_unique<DaemonLauncher>())
{
    m_databaseUtils = DatabaseUtils::instance();
    // The account record through the main context (this is the main thread); the worker reads it
    // again with its own context when this found nothing.
    if (const InfomationPtr info = m_databaseUtils->getInfomation())
        m_fields->path = info->path();
    if (m_appDelegate)
        m_fields->macName = m_appDelegate->getConfigValueByKey(QStringLiteral("kKeyPCName")).toString();
    m_fields->restClient = std::make_shared<RestClient>();
    m_fields->restClient->setDelegate(this);
    if (m_appDelegate)
        m_fields->restClient->setHost(
            m_appDelegate->getConfigValueByKey(QStringLiteral("kKeyDomain")).toString());
    m_fields->folderUtil = std::make_shared<FolderUtil>();
    m_fields->folderUtil->setDelegate(this);

    m_listenerQueue = new EngineThread([this] {
        QEventLoop loop;
        loop.exec();
        // The context goes on the thread that owns it.
        QMutexLocker lock(&m_fields->lock);
        m_listenerManagedObjectContext.reset();
    });
    m_listenerQueue->setObjectName(kBundleIdentifier + QStringLiteral(".ListenerQueue"));
    m_listenerReceiver = new QObject;
    m_listenerReceiver->moveToThread(m_listenerQueue);
    m_listenerQueue->start();

    // Alive before the worker starts, so that a disconnect() that comes first is not undone by it.
    m_isAlive = true;
    m_mainThreadCheck = new EngineThread([this] {
        createMainThreadCheck();
        // Timers end on their own thread, whichever way the loop ended (a refused session ends it
        // without a disconnect).
        QMutexLocker lock(&m_fields->lock);
        m_fields->checkSyncTimer = nullptr;
        qDeleteAll(m_workerReceiver->findChildren<QTimer *>(Qt::FindDirectChildrenOnly));
    });
    m_mainThreadCheck->setObjectName(QStringLiteral("Main thread"));
    m_workerReceiver = new QObject;
    m_workerReceiver->moveToThread(m_mainThreadCheck);
    m_mainThreadCheck->start();

    // A daemon that went away unseen by the socket (killed while the bus still named it, so the
    // start went to no one) is started again.
    connect(m_daemonLauncher.get(), &DaemonLauncher::daemonGone, this, [this] {
        if (!isAlive())
            return;
        FV_LOG(QStringLiteral("The watcher daemon has gone: starting the listener again"));
        stopLiveTimer();
        dropSocket(); // its end must not restart the listener a second time
        endListener();
        beginListener();
    });

    postToWorker([this] { firstTimeSync(); });
}

void ProcessWindowController::createMainThreadCheck()
{
    managedObjectContext();
    QEventLoop loop;
    loop.exec(); // until the thread is ended
    {
        QMutexLocker lock(&m_fields->lock);
        m_fields->checkSyncTimer = nullptr; // deleted with the receiver, its parent
    }
    m_fileDownload.reset();
    if (m_databaseUtils->managedObjectContext() == m_managedObjectContext)
        m_databaseUtils->setManagedObjectContext(nullptr);
    QMutexLocker lock(&m_fields->lock);
    m_managedObjectContext.reset();
}

void ProcessWindowController::createThreadFirstTime()
{
    // The first synchronisation starts the work-list timer, which must live on the worker: it
    // always runs there.
    postToWorker([this] { firstTimeSync(); });
}

// --- Shut-down ---

void ProcessWindowController::disconnect()
{
    if (m_disconnected.exchange(true))
        return;
    endListener();
    {
        QMutexLocker lock(&m_fields->lock);
        if (m_fields->restClient)
            m_fields->restClient->setDelegate(nullptr);
        m_fields->restClient.reset();
    }
    m_isAlive = false;
    // The download object lives on the worker; it goes there (or with the worker's end).
    QMetaObject::invokeMethod(
        m_workerReceiver, [this] { m_fileDownload.reset(); }, Qt::QueuedConnection);
    std::shared_ptr<FolderUtil> folderUtil;
    {
        QMutexLocker lock(&m_fields->lock);
        m_fields->path.clear();
        m_fields->macName.clear();
        if (QTimer *timer = std::exchange(m_fields->checkSyncTimer, nullptr)) {
            QMetaObject::invokeMethod(timer, &QTimer::stop, Qt::QueuedConnection);
            timer->deleteLater();
        }
        folderUtil = std::move(m_fields->folderUtil);
    }
    if (folderUtil) {
        folderUtil->setIsEnd(true);
        folderUtil->setDelegate(nullptr);
        folderUtil.reset();
    }
    removeNotification();
    stopLiveTimer();
    dropSocket();
    QObject::disconnect(NotificationCenter::defaultCenter(), nullptr, this, nullptr);
    UploadFile::cancelCurrentUpload();
    DatabaseUtils::destroy();

    // Blocking catalogue calls of both threads give up once the catalogue object is gone and their
    // thread is cancelled; the worker's loop ends after its current job.
    m_mainThreadCheck->requestInterruption();
    m_mainThreadCheck->quit();
    m_listenerQueue->requestInterruption();
    setState(State::Stopped);
}

ProcessWindowController::~ProcessWindowController()
{
    disconnect();
    // The worker first: it may be waiting on the listener queue, which therefore runs until then.
    const bool workerEnded = waitServing(m_mainThreadCheck, kThreadWaitMs);
    bool listenerEnded = false;
    if (workerEnded) {
        m_listenerQueue->quit();
        listenerEnded = waitServing(m_listenerQueue, kThreadWaitMs);
    }
    if (!workerEnded || !listenerEnded) {
        // Deleting a running thread would crash the process: leave it and what it uses behind.
        FV_LOG(QStringLiteral("Sync threads did not end in time; they are left running"));
        return;
    }
    delete m_workerReceiver;
    delete m_listenerReceiver;
    delete m_mainThreadCheck;
    delete m_listenerQueue;
}

// --- State ---

// A pass over many entries leaves much of the heap free but kept by the allocator (in every
// thread's arena); handed back once idle, the client waits between passes at its working size.
void ProcessWindowController::giveBackFreedMemory()
{
#ifdef __GLIBC__
    malloc_trim(0);
#endif
}

void ProcessWindowController::setState(State state)
{
    auto apply = [this, state] {
        // Stopped is final; a session refusal only gives way to the stop.
        if (m_state == state || m_state == State::Stopped ||
            (m_state == State::Relogin && state != State::Stopped))
            return;
        m_state = state;
        emit stateChanged(state);
        if (state == State::Idle)
            giveBackFreedMemory();
    };
    if (QThread::currentThread() == thread())
        apply();
    else
        QMetaObject::invokeMethod(this, apply, Qt::QueuedConnection);
}

ProcessWindowController::State ProcessWindowController::state() const
{
    return m_state;
}

bool ProcessWindowController::isQuiet() const
{
    return m_pendingListenerJobs.load() == 0 && m_pendingWorkerJobs.load() == 0 && !m_isDownloading.load() &&
           !m_isSyncing.load() && !m_databaseUtils->isDoTask();
}

bool ProcessWindowController::serverChangesWaiting() const
{
    QMutexLocker fields(&m_fields->lock);
    return m_fetchFailed.load() || !m_fields->missedDownloads.isEmpty();
}

// --- Threads and jobs ---

void ProcessWindowController::endThread()
{
    throw EndThread{};
}

void ProcessWindowController::endThreadIfNotAlive()
{
    if (!isAlive())
        endThread();
}

void ProcessWindowController::postToWorker(std::function<void()> job)
{
    ++m_pendingWorkerJobs;
    QMetaObject::invokeMethod(
        m_workerReceiver,
        [this, job = std::move(job)] {
            try {
                job();
            } catch (const EndThread &) {
                // The engine has ended (or the session was refused): so does the worker.
                m_databaseUtils->setIsDoTask(false);
                QThread::currentThread()->requestInterruption();
                QThread::currentThread()->quit();
            } catch (const std::exception &e) {
                FV_LOG(QStringLiteral("Exception: %1").arg(QString::fromUtf8(e.what())));
            }
            --m_pendingWorkerJobs;
        },
        Qt::QueuedConnection);
}

void ProcessWindowController::postToListener(std::function<void()> job, bool paced)
{
    ++m_pendingListenerJobs;
    QMetaObject::invokeMethod(
        m_listenerReceiver,
        [this, job = std::move(job), paced] {
            try {
                job();
            } catch (const EndThread &) {
                // The queue itself stays until destruction: the worker may still wait on it.
            } catch (const std::exception &e) {
                FV_LOG(QStringLiteral("Exception: %1").arg(QString::fromUtf8(e.what())));
            }
            // One event at a time, at most two a second.
            if (paced && isAlive())
                Pace::sleep(500);
            --m_pendingListenerJobs;
        },
        Qt::QueuedConnection);
}

bool ProcessWindowController::onListenerQueue() const
{
    return QThread::currentThread() == m_listenerQueue;
}

void ProcessWindowController::runOnListenerAndWait(const std::function<void()> &job)
{
    if (onListenerQueue()) {
        job();
        return;
    }
    ++m_pendingListenerJobs;
    QMetaObject::invokeMethod(
        m_listenerReceiver,
        [&job] {
            try {
                job();
            } catch (const EndThread &) {
            } catch (const std::exception &e) {
                FV_LOG(QStringLiteral("Exception: %1").arg(QString::fromUtf8(e.what())));
            }
        },
        Qt::BlockingQueuedConnection);
    --m_pendingListenerJobs;
}

void ProcessWindowController::runOnMainThread(std::function<void()> job, bool wait)
{
    if (QThread::currentThread() == thread()) {
        job();
        return;
    }
    // Bound to the controller: what is still queued when it goes is dropped with it.
    QMetaObject::invokeMethod(this, std::move(job),
                              wait ? Qt::BlockingQueuedConnection : Qt::QueuedConnection);
}

void ProcessWindowController::startAnimation(bool wait)
{
    AppServices *services = m_appDelegate;
    if (services)
        runOnMainThread([services] { services->startStatusBarAnimation(); }, wait);
}

void ProcessWindowController::stopAnimation()
{
    AppServices *services = m_appDelegate;
    if (services)
        runOnMainThread([services] { services->stopStatusBarAnimation(); }, false);
}

QString ProcessWindowController::session() const
{
    return m_appDelegate ? m_appDelegate->getConfigValueByKey(QStringLiteral("kKeySESSTION")).toString()
                         : QString();
}

// --- The work-list timer ---

void ProcessWindowController::createThreadCheck()
{
    if (!isAlive())
        return;
    {
        QMutexLocker lock(&m_fields->lock);
        if (m_fields->checkSyncTimer)
            return;
        auto *timer = new QTimer(m_workerReceiver);
        timer->setInterval(Pace::ms(60000));
        connect(timer, &QTimer::timeout, m_workerReceiver, [this] {
            try {
                threadCheck();
            } catch (const EndThread &) {
                m_databaseUtils->setIsDoTask(false);
                QThread::currentThread()->requestInterruption();
                QThread::currentThread()->quit();
            }
        });
        timer->start();
        m_fields->checkSyncTimer = timer;
    }
    threadCheck(); // the first pass runs now, not a minute from now
}

void ProcessWindowController::threadCheck()
{
    if (!isAlive() || m_isSyncing)
        return; // a tick during a pass is dropped, not queued
    m_isSyncing = true;
    setState(State::Syncing);
    try {
        checkSyncList();
    } catch (const std::exception &e) {
        // An exception ends the pass; the next tick starts a new one.
        FV_LOG(QStringLiteral("Exception: %1").arg(QString::fromUtf8(e.what())));
        QMutexLocker lock(&m_fields->lock);
        m_fields->listTask.clear();
        m_isSyncing = false;
        setState(State::Idle);
    }
}

QTimer *ProcessWindowController::checkSyncTimer() const
{
    QMutexLocker lock(&m_fields->lock);
    return m_fields->checkSyncTimer;
}

// --- Fields ---

QString ProcessWindowController::path() const
{
    QMutexLocker lock(&m_fields->lock);
    return m_fields->path;
}

void ProcessWindowController::setPath(const QString &path)
{
    QMutexLocker lock(&m_fields->lock);
    m_fields->path = path;
}

QString ProcessWindowController::macName() const
{
    QMutexLocker lock(&m_fields->lock);
    return m_fields->macName;
}

void ProcessWindowController::setMacName(const QString &name)
{
    QMutexLocker lock(&m_fields->lock);
    m_fields->macName = name;
}

std::shared_ptr<RestClient> ProcessWindowController::restClient() const
{
    QMutexLocker lock(&m_fields->lock);
    return m_fields->restClient;
}

void ProcessWindowController::setEventListener(std::unique_ptr<FSEventsListener> listener)
{
    m_eventListener = std::move(listener);
}

void ProcessWindowController::setVdkQueue(std::unique_ptr<VDKQueue> queue)
{
    m_vdkQueue = std::move(queue);
    if (m_vdkQueue)
        m_vdkQueue->setDelegate(this);
}

QList<QStringList> ProcessWindowController::listDownload() const
{
    QMutexLocker lock(&m_fields->lock);
    return m_fields->listDownload;
}

void ProcessWindowController::setListDownload(const QList<QStringList> &downloads)
{
    QMutexLocker lock(&m_fields->lock);
    m_fields->listDownload = downloads;
}

QList<ProcessTask> ProcessWindowController::listTask() const
{
    QMutexLocker lock(&m_fields->lock);
    return m_fields->listTask;
}

std::shared_ptr<FolderUtil> ProcessWindowController::folderUtil() const
{
    QMutexLocker lock(&m_fields->lock);
    return m_fields->folderUtil;
}

// Each context belongs to the thread that made it (a connection of its own): the worker's is made
// at the start of the worker, the listener queue's by its first job, never on the main thread.
std::shared_ptr<ManagedObjectContext> ProcessWindowController::managedObjectContext()
{
    QMutexLocker lock(&m_fields->lock);
    if (!m_managedObjectContext && QThread::currentThread() == m_mainThreadCheck && m_appDelegate) {
        lock.unlock();
        auto context = m_appDelegate->getManagedObjectContextByThread();
        lock.relock();
        m_managedObjectContext = context;
    }
    return m_managedObjectContext;
}

std::shared_ptr<ManagedObjectContext> ProcessWindowController::listenerManagedObjectContext()
{
    QMutexLocker lock(&m_fields->lock);
    if (!m_listenerManagedObjectContext && onListenerQueue() && m_appDelegate) {
        lock.unlock();
        auto context = m_appDelegate->getManagedObjectContextByThread();
        lock.relock();
        m_listenerManagedObjectContext = context;
    }
    return m_listenerManagedObjectContext;
}

// --- Last check ---

void ProcessWindowController::updateLastCheck(const std::shared_ptr<ManagedObjectContext> &context,
                                              const QString &time)
{
    if (!context || time.isEmpty())
        return;
    const InfomationPtr info = m_databaseUtils->getInfomationWithManagedObjectContext(context);
    if (!info)
        return;
    // The fixed-width form makes the plain comparison chronological; the time never goes back.
    const QString stored = info->lastUpdate();
    if (!stored.isEmpty() && !(stored < time))
        return;
    info->setLastUpdate(time);
    FvError error;
    if (!context->save(&error))
        FV_LOG(QStringLiteral("Update last check error: %1").arg(error.toString()));
}

void ProcessWindowController::updateInfoamtion(const QVariantList &info,
                                               const std::shared_ptr<ManagedObjectContext> &context)
{
    if (info.size() < 3 || !context)
        return;
    const QString time = info.at(2).toString();
    const QString format = QStringLiteral("yyyyMMddHHmmss");
    const QDateTime parsed = QDateTime::fromString(time, format);
    if (!parsed.isValid() || parsed.toString(format) != time)
        return;
    const InfomationPtr account = m_databaseUtils->getInfomationWithManagedObjectContext(context);
    if (!account)
        return;
    account->setLastUpdate(time);
    FvError error;
    if (!context->save(&error))
        FV_LOG(QStringLiteral("%1").arg(error.toString()));
}

// --- Downloads ---

void ProcessWindowController::downloadFile()
{
    if (QThread::currentThread() != m_mainThreadCheck) {
        postToWorker([this] { downloadFile(); });
        return;
    }
    if (!isAlive() || m_isDownloading)
        return;
    QStringList head;
    {
        QMutexLocker lock(&m_fields->lock);
        if (m_fields->listDownload.isEmpty())
            return;
        head = m_fields->listDownload.takeFirst();
    }
    if (!m_fileDownload)
        m_fileDownload = std::make_unique<FileDownload>(this, QStringList());
    m_isDownloading = true;
    m_fileDownload->setDelegate(this);
    m_fileDownload->setArrInfo(head);
    m_fileDownload->setManagedObjectContext(managedObjectContext());
    m_fileDownload->sentRequest();
}

void ProcessWindowController::fileDownloadComplete()
{
    addStringToLog(QStringLiteral("Complete"));
    m_isDownloading = false;
    // Reached from the download's reply, inside the worker's event loop: nothing may leave here.
    try {
        nextTask();
        downloadFile();
    } catch (const EndThread &) {
        m_databaseUtils->setIsDoTask(false);
        QThread::currentThread()->requestInterruption();
        QThread::currentThread()->quit();
    } catch (const std::exception &e) {
        FV_LOG(QStringLiteral("Exception: %1").arg(QString::fromUtf8(e.what())));
    }
}

void ProcessWindowController::fileDownloadStatus(const QString &) {}

// --- Reporting ---

void ProcessWindowController::addStringToLog(const QString &message)
{
    QCoreApplication *app = QCoreApplication::instance();
    if (!app)
        return;
    // Needs nothing of the controller: the line reaches the log even when the engine is gone.
    QMetaObject::invokeMethod(
        app,
        [message] {
            NotificationCenter::defaultCenter()->postNotificationName(QStringLiteral("kKeyLogNotification"),
                                                                      message);
        },
        Qt::QueuedConnection);
}

void ProcessWindowController::addStringToLogOnMainThread(const QString &message)
{
    NotificationCenter::defaultCenter()->postNotificationName(QStringLiteral("kKeyLogNotification"), message);
}

void ProcessWindowController::postLog(const QVariant &log)
{
    NotificationCenter::defaultCenter()->postNotificationName(QStringLiteral("kKeyLogNotification"), false,
                                                              {{QStringLiteral("log"), log}});
}
