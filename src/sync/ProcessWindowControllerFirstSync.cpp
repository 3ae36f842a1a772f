// ProcessWindowController: the first synchronisation. The worker finds the server's sync folder,
// starts the watcher daemon, sends pending local tasks, and (once per account and folder) walks the
// server tree; each top-level entry is handled on the listener queue, where it cannot interleave
// with local change events. Then the local folder is rescanned and the work-list timer started.
#include "catalogue/CataloguePaths.h"
#include "catalogue/DatabaseUtils.h"
#include "protocol/UploadFile.h"
#include "sync/ProcessWindowControllerPrivate.h"
#include "util/AppServices.h"
#include "util/Codecs.h"
#include "util/Log.h"
#include "util/LogObject.h"
#include "util/Pace.h"
#include "xml/GDataXMLNode.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QScopeGuard>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/statvfs.h>
#include <unistd.h>

using namespace EngineDetail;

namespace {

std::optional<qint64> integerOf(const QString &text)
{
    if (text.isNull())
        return std::nullopt;
    return text.trimmed().toLongLong();
}

// Names are sent to the server composed, so of two entries of one listing whose names differ only
// in their Unicode normalisation, only the composed one can be kept in step from here: the other
// is left on the server (said in a diagnostic line) rather than take the same place on disk.
bool shadowedByComposedTwin(const std::shared_ptr<GDataXMLElement> &child,
                            const QList<std::shared_ptr<GDataXMLElement>> &siblings)
{
    const QString name = attribute(child, QStringLiteral("NAME"));
    const QString composedName = name.normalized(QString::NormalizationForm_C);
    if (name == composedName)
        return false;
    for (const auto &sibling : siblings) {
        if (attribute(sibling, QStringLiteral("NAME")) == composedName) {
            FV_LOG(QStringLiteral("Item %1 skipped: its name is another spelling of item %2's (\"%3\")")
                       .arg(attribute(child, QStringLiteral("KEY")),
                            attribute(sibling, QStringLiteral("KEY")), composedName));
            return true;
        }
    }
    return false;
}

} // namespace

void ProcessWindowController::firstTimeSync()
{
    const std::shared_ptr<ManagedObjectContext> context = managedObjectContext();
    const std::shared_ptr<DatabaseUtils> utils = db();
    utils->setSyncThread(QThread::currentThread());
    utils->setManagedObjectContext(context);
    if (path().isEmpty()) {
        if (const InfomationPtr info = utils->getInfomationWithManagedObjectContext(context))
            setPath(info->path());
    }
    utils->setPath(path());

    const InfomationPtr info = utils->getInfomationWithManagedObjectContext(context);
    if (!info) {
        FV_LOG(QStringLiteral("No account record: the first synchronisation cannot start"));
        setState(State::Stalled);
        return;
    }
    const bool firstSyncDone = info->firstSync().value_or(false);
    if (!firstSyncDone) {
        // A first synchronisation always starts from an empty catalogue.
        utils->deleteAllObjectOfEntity(QStringLiteral("Task"));
        utils->deleteAllObjectOfEntity(QStringLiteral("File"));
        utils->deleteAllObjectOfEntity(QStringLiteral("Directory"));
    }
    addStringToLog(QStringLiteral("Check struct of Ferrovane!"));
    if (!isAlive()) {
        utils->setIsDoTask(false);
        endThread();
    }
    startAnimation();

    if (info->cloudFolderKey().isEmpty() && !findCloudFolderKey(context)) {
        addStringToLog(QStringLiteral("Please check your internet connection!"));
        utils->setIsDoTask(false);
        stopAnimation();
        setState(State::Stalled);
        return;
    }

    // The server's clock before the tree is read: the first work list then starts from there and
    // replays what changed during the walk (the catalogue checks drop what the walk already has).
    // Asked after the walk, a change made during it would fall before the last check and be lost.
    const QString beforeWalk =
        info->lastUpdate().isEmpty() || !firstSyncDone ? utils->getServerID() : QString();
    const std::shared_ptr<RestClient> client = restClient();
    endThreadIfNotAlive();
    const std::shared_ptr<GDataXMLDocument> syncList = client->postNonAsyncWithURL(
        kEndpoint, QStringLiteral("<XML><SYNCLIST SESSION =\"%1\"></SYNCLIST></XML>").arg(session()));
    if (!syncList) {
        // Stalled: the worker keeps its loop but no timer until the engine is started again.
        addStringToLog(QStringLiteral("Please check your internet connection!"));
        stopAnimation();
        setState(State::Stalled);
        return;
    }

    runOnMainThread([this] { beginListener(); }, false);
    utils->doTask();
    endThreadIfNotAlive();

    if (!firstSyncDone) {
        const QString root = path();
        if (!CataloguePaths::makeFolder(root))
            FV_LOG(QStringLiteral("Error create root folder: %1")
                       .arg(QString::fromLocal8Bit(std::strerror(errno))));
        const auto document = syncList->rootElement();
        const auto lists = document ? document->elementsForName(QStringLiteral("SYNCLIST"))
                                    : QList<std::shared_ptr<GDataXMLElement>>();
        for (const auto &list : lists) {
            if (!isAlive()) {
                utils->setIsDoTask(false);
                endThread();
            }
            const auto children = childElements(list);
            for (const auto &child : children) {
                if (shadowedByComposedTwin(child, children))
                    continue;
                runOnListenerAndWait([&] {
                    const auto listenerContext = listenerManagedObjectContext();
                    // The walk's file rows are saved a folder at a time; what is pending when an
                    // entry ends, however it ends, is saved then.
                    const auto saveRows = qScopeGuard([&] { saveWalkRows(listenerContext); });
                    if (child->name() == u"DIR")
                        getContentInFolder(child, root, listenerContext);
                    else
                        addFileWithElement(child, root, listenerContext);
                });
                if (!isAlive()) {
                    utils->setIsDoTask(false);
                    endThread();
                }
                Pace::sleep(500);
            }
        }
        // The finished walk and the time it read the tree as of are saved together: saved apart, a
        // stop between the two would leave a finished walk without a last check, and the next start
        // would take the server's time then, losing every change made in between.
        if (!beforeWalk.isEmpty() && (info->lastUpdate().isEmpty() || info->lastUpdate() < beforeWalk))
            info->setLastUpdate(beforeWalk);
        // With files still to fetch, a new start walks the tree again (the passes fetch them
        // meanwhile, and mark the walk done once they have).
        QMutexLocker fields(&m_fields->lock);
        info->setFirstSync(m_fields->missedDownloads.isEmpty());
        fields.unlock();
        FvError error;
        if (!context->save(&error))
            FV_LOG(QStringLiteral("%1").arg(error.toString()));
    }

    // The daemon reports what changes once it is linked: a rescan after that leaves nothing between
    // the two, where one before it is followed by a second when the link comes (bounded wait).
    QDeadlineTimer linkDeadline(Pace::ms(10000));
    while (!m_linked && isAlive() && !linkDeadline.hasExpired())
        QThread::msleep(10);
    endThreadIfNotAlive();
    m_removeDownloadParts = true;
    rescanSyncFolder();
    m_removeDownloadParts = false;
    utils->setIsDoTask(false);
    endThreadIfNotAlive();
    startAnimation();
    // A full walk has read the tree as of `beforeWalk`: nothing older needs replaying.
    if (!firstSyncDone || info->lastUpdate().isEmpty())
        updateLastCheck(context, beforeWalk);
    if (info->lastUpdate().isEmpty())
        updateLastCheck(context, utils->getServerID());
    createThreadCheck();
    stopAnimation();
    releaseCatalogueMemory();
    setState(State::Idle);
}

void ProcessWindowController::releaseCatalogueMemory()
{
    // Between passes the catalogue rests: what its connections hold for speed is given back.
    if (const std::shared_ptr<ManagedObjectContext> context = managedObjectContext())
        context->releaseMemory();
    // The listener lets go when its queue comes to this, often after the trim that the idle state
    // makes: what it frees then would stay with the allocator until the next pass, a minute on.
    postToListener(
        [this] {
            if (const std::shared_ptr<ManagedObjectContext> context = listenerManagedObjectContext())
                context->releaseMemory();
            giveBackFreedMemory();
        },
        false);
}

bool ProcessWindowController::findCloudFolderKey(const std::shared_ptr<ManagedObjectContext> &context)
{
    const std::shared_ptr<RestClient> client = restClient();
    endThreadIfNotAlive();
    const std::shared_ptr<GDataXMLDocument> reply = client->postNonAsyncWithURL(
        kEndpoint, QStringLiteral("<XML><LIST SESSION =\"%1\"></LIST></XML>").arg(session()));
    if (!reply)
        return false;
    for (const auto &dir : childElements(firstElement(reply, QStringLiteral("LIST")))) {
        if (dir->name() != u"DIR")
            continue;
        // The synchronised folder is an ordinary folder (no KIND) marked SYNC 1; shared ones are not it.
        if (!attribute(dir, QStringLiteral("KIND")).isEmpty() ||
            attribute(dir, QStringLiteral("SYNC")).trimmed().toInt() != 1)
            continue;
        if (const InfomationPtr info = db()->getInfomationWithManagedObjectContext(context)) {
            info->setCloudFolderKey(attribute(dir, QStringLiteral("KEY")));
            FvError error;
            if (!context->save(&error))
                FV_LOG(QStringLiteral("%1").arg(error.toString()));
        }
        break;
    }
    return true; // without a match the engine goes on without a key; the next start asks again
}

void ProcessWindowController::rescanSyncFolder()
{
    m_rescanWanted = false;
    m_rescanBegun = true;
    const QString root = path();
    const std::shared_ptr<FolderUtil> scanner = folderUtil();
    if (!scanner || root.isEmpty() || !QFileInfo(root).isDir())
        return;
    // Folders too, and what went missing: made while no watcher saw it (the client or the daemon
    // was not running), a new empty folder or a deletion would otherwise never be sent.
    scanner->scanFolder(root, true);
    endThreadIfNotAlive();
    runOnListenerAndWait([this] { recordRemovedItems(); });
}

void ProcessWindowController::recordRemovedItems()
{
    const std::shared_ptr<ManagedObjectContext> context = listenerManagedObjectContext();
    const QString root = path();
    // A sync folder that is not there (an unmounted disk) is not a deletion of everything in it.
    if (!context || root.isEmpty() || !QFileInfo(root).isDir())
        return;
    const QString inside = root + u'/';
    QStringList gone; // folders found missing: nothing below them needs a task of its own
    const auto below = [&gone](const QString &path) {
        return std::any_of(gone.cbegin(), gone.cend(),
                           [&path](const QString &folder) { return path.startsWith(folder + u'/'); });
    };
    QList<DirectoryPtr> folders = context->fetch<Directory>();
    std::sort(folders.begin(), folders.end(), [](const DirectoryPtr &a, const DirectoryPtr &b) {
        return a->path().size() < b->path().size();
    });
    for (const DirectoryPtr &row : std::as_const(folders)) {
        const QString folder = row->path();
        if (!folder.startsWith(inside) || CataloguePaths::itemExists(folder) || below(folder))
            continue;
        gone.append(folder);
        directoryWasRemoved(folder);
    }
    for (const FilePtr &row : context->fetch<File>()) {
        const QString file = row->path();
        if (file.startsWith(inside) && !CataloguePaths::itemExists(file) && !below(file))
            fileWasRemoved(file);
    }
}

void ProcessWindowController::requestRescan()
{
    if (m_rescanWanted.exchange(true))
        return; // one is waiting to start: it will see this change too
    postToWorker([this] {
        if (m_rescanWanted)
            rescanSyncFolder();
    });
}

void ProcessWindowController::folderUtilHasItemAtPath(FolderUtil *util, const QString &path, bool isFolder)
{
    if (!isAlive()) {
        util->setIsEnd(true); // the scan stops before its next entry
        return;
    }
    if (isFolder && path == this->path())
        return; // the sync folder itself is no item of it
    if (!isFolder && CataloguePaths::isDownloadPart(path)) {
        if (m_removeDownloadParts && QFile::remove(path))
            FV_LOG(QStringLiteral("Removed the part of a download cut short: %1").arg(path));
        return;
    }
    // A file fetched moments ago and untouched since is the download's own: the listener would
    // drop its report, so the rescan does not wait for the queue to say so (after a first sync,
    // that is every file, and the two thread switches per file were most of the rescan's time).
    if (!isFolder && db()->isAsDownloaded(path)) {
        FV_LOG(QStringLiteral("File was add: %1").arg(path));
        return;
    }
    runOnListenerAndWait([&] {
        if (isFolder)
            directoryWasAdded(path);
        else
            fileWasAdded(path);
    });
}

// --- The walk of the server tree (listener queue) ---

void ProcessWindowController::getContentInFolder(const std::shared_ptr<GDataXMLElement> &element,
                                                 const QString &parentPath,
                                                 const std::shared_ptr<ManagedObjectContext> &context)
{
    endThreadIfNotAlive();
    FV_LOG(QStringLiteral("Get content in folder: %1").arg(attribute(element, QStringLiteral("NAME"))));
    const QString folderPath = addDirWithElement(element, parentPath, context);
    if (folderPath.isEmpty())
        return; // skipped: nothing below it is made either
    const QString key = attribute(element, QStringLiteral("KEY"));
    while (isAlive()) {
        startAnimation();
        const std::shared_ptr<RestClient> client = restClient();
        const std::shared_ptr<GDataXMLDocument> reply =
            client ? client->postNonAsyncWithURL(
                         kEndpoint,
                         QStringLiteral("<XML><LIST SESSION =\"%1\" ><DIRKEY> %2 </DIRKEY></LIST></XML>")
                             .arg(session(), key))
                   : nullptr;
        if (!reply) {
            addStringToLog(DatabaseUtils::localizedString(QStringLiteral("check_internet")));
            Pace::sleep(1000);
            continue;
        }
        const auto children = childElements(firstElement(reply, QStringLiteral("LIST")));
        // The rows of a run of files (up to the next folder, whose walk comes in between) are
        // looked up together: one query per run, not one per file.
        QHash<QString, FilePtr> known;
        qsizetype knownUntil = -1;
        for (qsizetype i = 0; i < children.size(); ++i) {
            const auto &child = children.at(i);
            endThreadIfNotAlive();
            if (shadowedByComposedTwin(child, children))
                continue;
            child->addAttribute(GDataXMLNode::attributeWithName(QStringLiteral("PKEY"), key));
            if (child->name() == u"DIR") {
                getContentInFolder(child, folderPath, context);
            } else {
                if (i > knownUntil) {
                    QStringList keys;
                    for (knownUntil = i;
                         knownUntil < children.size() && children.at(knownUntil)->name() != u"DIR";
                         ++knownUntil)
                        keys.append(attribute(children.at(knownUntil), QStringLiteral("KEY")));
                    known = db()->getFilesWithKeys(keys, context);
                }
                addFileWithElement(child, folderPath, context, &known);
            }
            Pace::sleep(500);
        }
        saveWalkRows(context);
        break;
    }
    // Writing the children moved the folder's date; it gets the server's again.
    const QString time = attribute(element, QStringLiteral("TIME"));
    CataloguePaths::setModificationDate(folderPath, db()->serverTimeToLocalTime(time));
}

QString ProcessWindowController::addDirWithElement(const std::shared_ptr<GDataXMLElement> &element,
                                                   const QString &parentPath,
                                                   const std::shared_ptr<ManagedObjectContext> &context)
{
    endThreadIfNotAlive();
    QString name = attribute(element, QStringLiteral("NAME"));
    const QString time = attribute(element, QStringLiteral("TIME"));
    const QString size = attribute(element, QStringLiteral("SIZE"));
    const QString key = attribute(element, QStringLiteral("KEY"));
    const QString pkey = attribute(element, QStringLiteral("PKEY"));
    const QString memo = attribute(element, QStringLiteral("MEMO"));
    const QString priv = attribute(element, QStringLiteral("PRIV"));
    const std::shared_ptr<DatabaseUtils> utils = db();
    const QString root = path();
    // Checked before anything is made: a name from the server must not lead out of the sync folder.
    if (!CataloguePaths::checkName(name, QStringLiteral("Folder")))
        return {};
    const QString local = CataloguePaths::localSpelling(parentPath + u'/' + name, root);
    if (!CataloguePaths::checkInside(local, root, QStringLiteral("Folder")) ||
        isSpellingTwin(parentPath + u'/' + name, local, key, QString(), context))
        return {};
    name = CataloguePaths::nameAsSpelled(name, local);
    if (!QDir().mkpath(local)) {
        FV_LOG(QStringLiteral("Cannot create path: %1").arg(local));
        return {};
    }
    if (CataloguePaths::setModificationDate(local, utils->serverTimeToLocalTime(time)))
        FV_LOG(QStringLiteral("Set attribute for folder: %1").arg(local));

    if (utils->getDirectoryWithKey(key, context))
        return local; // known folders stay as they are
    const DirectoryPtr row = context->insertNewObject<Directory>();
    row->setName(name);
    row->setSize(size);
    row->setMd5(QStringLiteral(""));
    row->setKey(key);
    row->setPkey(pkey);
    row->setPath(local);
    row->setTime(time);
    row->setMemo(integerOf(memo));
    row->setPriv(priv);
    FvError error;
    if (!context->save(&error)) {
        FV_LOG(QStringLiteral("Cannot create path: %1").arg(parentPath));
        return local;
    }
    FV_LOG(QStringLiteral("Add folder \"%1\" at path: \"%2\"").arg(name, local));
    if (m_appDelegate)
        m_appDelegate->postNotificationWithTitle(
            DatabaseUtils::localizedString(QStringLiteral("create_complete")),
            QStringLiteral("%1: %2").arg(DatabaseUtils::localizedString(QStringLiteral("folder")), name));
    DatabaseUtils::postLogFromServer(
        LogObject::createLogObjectWithName(name, DatabaseUtils::localizedString(QStringLiteral("work_add")),
                                           -1, CataloguePaths::relativePath(local, root), true,
                                           utils->serverTimeToLocalTimeStr(time), QString(), true));
    return local;
}

void ProcessWindowController::addFileWithElement(const std::shared_ptr<GDataXMLElement> &element,
                                                 const QString &parentPath,
                                                 const std::shared_ptr<ManagedObjectContext> &context,
                                                 QHash<QString, FilePtr> *known)
{
    endThreadIfNotAlive();
    QString name = attribute(element, QStringLiteral("NAME"));
    QString md5 = attribute(element, QStringLiteral("MD5"));
    const QString time = attribute(element, QStringLiteral("TIME"));
    const QString size = attribute(element, QStringLiteral("SIZE"));
    const QString key = attribute(element, QStringLiteral("KEY"));
    const QString pkey = attribute(element, QStringLiteral("PKEY"));
    const QString memo = attribute(element, QStringLiteral("MEMO"));
    const QString priv = attribute(element, QStringLiteral("PRIV"));
    const QString sync = attribute(element, QStringLiteral("sync"));
    const std::shared_ptr<DatabaseUtils> utils = db();
    const QString root = path();
    if (!CataloguePaths::checkName(name, QStringLiteral("File")))
        return;
    const QString local = CataloguePaths::localSpelling(parentPath + u'/' + name, root);
    if (!CataloguePaths::checkInside(local, root, QStringLiteral("File")) ||
        isSpellingTwin(parentPath + u'/' + name, local, key, QString(), context))
        return;
    name = CataloguePaths::nameAsSpelled(name, local);
    FilePtr row = known && known->contains(key) ? known->value(key) : utils->getFileWithKey(key, context);

    qint64 fetchedSize = -1;
    const bool download = !CataloguePaths::itemExists(local) ||
                          utils->checkFileIsModifierWithPath(local, time, md5) != DatabaseUtils::Unchanged;
    if (download) {
        const Fetch fetched = downloadInto(local, name, size.toLongLong(), &md5, key, time, &fetchedSize);
        DatabaseUtils::postLogFromServer(LogObject::createLogObjectWithName(
            name, DatabaseUtils::localizedString(QStringLiteral("work_add")), size.toLongLong(),
            CataloguePaths::relativePath(local, root), false, utils->serverTimeToLocalTimeStr(time),
            QString(), fetched == Fetch::Done));
        if (fetched == Fetch::Refused)
            return;
        if (fetched == Fetch::Failed) {
            // Not recorded: a row would pass for a file in step. Fetched again at the next passes
            // as the server's add of it would be.
            QMutexLocker fields(&m_fields->lock);
            m_fields->missedDownloads.append(
                ProcessTask(ProcessTask::Add, QStringList{name, size, md5, key, pkey, local}, false));
            return;
        }
    }
    if (!row) {
        row = context->insertNewObject<File>();
        if (md5.isEmpty())
            md5 = UploadFile::getMD5OfFileAtPath(local);
        if (known && known->contains(key))
            known->insert(key, row); // a later entry of the same key finds it, as a lookup would
    }
    row->setName(name);
    if (!md5.isEmpty())
        row->setMd5(md5);
    row->setTime(time);
    // What was fetched may be a later version than the listing's (edited again meanwhile): its
    // size goes with its MD5.
    row->setSize(download ? QString::number(std::max<qint64>(fetchedSize, 0)) : size);
    row->setKey(key);
    row->setPkey(pkey);
    row->setPath(local);
    row->setMemo(integerOf(memo));
    row->setPriv(priv);
    row->setSync(sync.trimmed().toLongLong() != 0);
    // Saved with the rest of its folder (saveWalkRows): one transaction per file was the walk's
    // largest catalogue cost. Until then the row is pending in this context, whose fetches see it.
}

void ProcessWindowController::saveWalkRows(const std::shared_ptr<ManagedObjectContext> &context)
{
    FvError error;
    if (context && !context->save(&error))
        FV_LOG(QStringLiteral("%1").arg(error.toString()));
}

ProcessWindowController::Fetch
ProcessWindowController::downloadInto(const QString &local, const QString &name, qint64 size, QString *md5,
                                      const QString &key, const QString &serverTime, qint64 *fetchedSize)
{
    const std::shared_ptr<DatabaseUtils> utils = db();
    const QString root = path();
    if (!CataloguePaths::checkName(name, QStringLiteral("Download")) ||
        !CataloguePaths::checkInside(local, root, QStringLiteral("Download")))
        return Fetch::Refused;
    const QString folder = CataloguePaths::deletingLastPathComponent(local);
    // Mostly the folder is there and can be written, which one look says; it is made otherwise.
    if (::access(QFile::encodeName(folder).constData(), W_OK) != 0) {
        CataloguePaths::makeFolder(folder);
        if (!QFileInfo(folder).isWritable()) {
            FV_LOG(QStringLiteral("Cannot download into %1: the folder cannot be written").arg(folder));
            return Fetch::Refused;
        }
    }
    // What cannot fit is not fetched at all: a full disk is said once, and tried again later.
    // statvfs, not QStorageInfo: that one reads the whole mount table each time, for every file.
    const auto available = [&folder]() -> qint64 {
        struct statvfs disk
        {
        };
        if (::statvfs(QFile::encodeName(folder).constData(), &disk) != 0)
            return -1;
        return qint64(disk.f_bavail) * qint64(disk.f_frsize);
    };
    if (const qint64 free = available(); size > 0 && free >= 0 && free < size) {
        reportNoSpace(local, size, free);
        return Fetch::Failed;
    }
    // The download is written beside the file and replaces it only once complete. A reply lost on
    // the way is asked for again a few times, a second apart, before the file is given up for now.
    QString digest;
    for (int attempt = 1;; ++attempt) {
        if (utils->downloadFileTo(local, name, &digest, key, serverTime, fetchedSize))
            break;
        if (const qint64 free = available(); size > 0 && free >= 0 && free < size) {
            reportNoSpace(local, size, free);
            return Fetch::Failed;
        }
        if (attempt == kDownloadAttempts || !isAlive())
            return Fetch::Failed;
        Pace::sleep(1000);
    }
    if (md5 && !digest.isEmpty())
        *md5 = digest;
    {
        QMutexLocker fields(&m_fields->lock);
        m_fields->reportedNoSpace.remove(local);
    }
    return Fetch::Done;
}

void ProcessWindowController::reportNoSpace(const QString &local, qint64 size, qint64 available)
{
    {
        QMutexLocker fields(&m_fields->lock);
        if (m_fields->reportedNoSpace.contains(local))
            return;
        m_fields->reportedNoSpace.insert(local);
    }
    const QString message =
        QStringLiteral("Not enough disk space to download %1 (%2 bytes needed, %3 bytes free): it will be "
                       "downloaded once there is room")
            .arg(CataloguePaths::relativePath(local, path()))
            .arg(size)
            .arg(available);
    FV_LOG(message);
    addStringToLog(message);
    if (m_appDelegate)
        m_appDelegate->postNotificationWithTitle(DatabaseUtils::localizedString(QStringLiteral("disk_full")),
                                                 message);
}

bool ProcessWindowController::retryMissedDownloads()
{
    QList<ProcessTask> missed;
    {
        QMutexLocker fields(&m_fields->lock);
        missed = m_fields->missedDownloads;
    }
    if (missed.isEmpty())
        return true;
    m_fetchFailed = false;
    qsizetype done = 0;
    for (const ProcessTask &task : std::as_const(missed)) {
        endThreadIfNotAlive();
        runOnListenerAndWait([&] { applyTask(task, listenerManagedObjectContext()); });
        if (m_fetchFailed)
            break;
        ++done;
    }
    QMutexLocker fields(&m_fields->lock);
    m_fields->missedDownloads.remove(0, done);
    const bool all = m_fields->missedDownloads.isEmpty();
    fields.unlock();
    if (all) {
        const std::shared_ptr<ManagedObjectContext> context = managedObjectContext();
        if (const InfomationPtr info = db()->getInfomationWithManagedObjectContext(context)) {
            info->setFirstSync(true);
            FvError error;
            if (!context->save(&error))
                FV_LOG(QStringLiteral("%1").arg(error.toString()));
        }
    }
    return all;
}
