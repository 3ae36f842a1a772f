// ProcessWindowController: the server work list. Every tick the worker asks WORKLIST for what
// changed on the server since the last check, turns each entry into a work item and applies it to
// the sync folder and the catalogue before reading the next; the last-check time follows each
// applied entry and never goes back.
#include "catalogue/CataloguePaths.h"
#include "catalogue/DatabaseUtils.h"
#include "sync/ProcessWindowControllerPrivate.h"
#include "util/AppServices.h"
#include "util/Codecs.h"
#include "util/Log.h"
#include "util/LogObject.h"
#include "xml/GDataXMLNode.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <cerrno>
#include <cstring>

using namespace EngineDetail;

namespace {

const QString kSyncFolderWord = QStringLiteral("syncfolder");

bool isFolderElement(const std::shared_ptr<GDataXMLElement> &element)
{
    return attribute(element, QStringLiteral("FOLDER")) == u"1";
}

} // namespace

void ProcessWindowController::checkSyncList()
{
    const std::shared_ptr<ManagedObjectContext> context = managedObjectContext();
    const std::shared_ptr<DatabaseUtils> utils = db();
    utils->forgetOldDownloads();
    checkRootFolder(context);

    // Files of the first synchronisation still missing come before new changes.
    if (!retryMissedDownloads())
        FV_LOG(QStringLiteral("Files of the first synchronisation are still to be fetched"));
    endThreadIfNotAlive();

    const InfomationPtr info = utils->getInfomationWithManagedObjectContext(context);
    QString lastCheck = info ? info->lastUpdate() : QString();
    if (lastCheck.isEmpty())
        lastCheck = utils->getServerID();
    const std::shared_ptr<RestClient> client = restClient();
    endThreadIfNotAlive();
    const QByteArray data = client->postNonAsyncRawWithURL(
        kEndpoint,
        QStringLiteral("<XML><WORKLIST SESSION =\"%1\" ID=\"%2\" PCNAME = \"%3\"></WORKLIST></XML>")
            .arg(session(), lastCheck, gtm_stringBySanitizingAndEscapingForXML(macName())));
    if (data.isEmpty()) {
        noInternetConnection();
        return;
    }
    FvError error;
    const std::shared_ptr<GDataXMLDocument> document = GDataXMLDocument::initWithData(data, 0, &error);
    if (!document) {
        const QString text = QString::fromUtf8(data).trimmed();
        if (text == u"-3" || text == u"-2") {
            invalidSession();
        } else if (unreadableReplies() < 3) {
            setUnreadableReplies(unreadableReplies() + 1);
            noInternetConnection();
        } else {
            invalidSession(); // the fourth unreadable reply in a row
        }
        return;
    }
    setUnreadableReplies(0);
    const QString lastId = readWorkList(document);
    // Tasks kept for later (no reply, an upload cut off) go again each pass, not only when a new
    // local change asks for a run: else the last of them waits for the next change or start.
    FvError countError;
    if (context->countForFetchRequest(FetchRequest::fetchRequestWithEntityName(Task::entityName()),
                                      &countError) > 0) {
        utils->doTask();
        endThreadIfNotAlive();
    }

    addStringToLog(QStringLiteral("All task complete"));
    m_isSyncing = false;
    stopAnimation();
    if (!lastId.isEmpty())
        updateLastCheck(context, lastId);
    addStringToLog(QStringLiteral("Read sync list complete"));
    countPass();
    releaseCatalogueMemory();
    setState(State::Idle);
    QMetaObject::invokeMethod(this, &ProcessWindowController::passCompleted, Qt::QueuedConnection);
}

QString ProcessWindowController::readWorkList(const std::shared_ptr<GDataXMLDocument> &document)
{
    const std::shared_ptr<ManagedObjectContext> context = managedObjectContext();
    const auto root = document ? document->rootElement() : nullptr;
    const auto lists =
        root ? root->elementsForName(QStringLiteral("WORKLIST")) : QList<std::shared_ptr<GDataXMLElement>>();
    QString lastId;
    m_fetchFailed = false;
    for (const auto &list : lists) {
        lastId = attribute(list, QStringLiteral("ID"));
        for (const auto &child : childElements(list)) {
            endThreadIfNotAlive();
            const QString name = child->name();
            FV_LOG(QStringLiteral("Element Name: %1").arg(name));
            if (name == u"ADD")
                addObjectWithXmlElement(child);
            else if (name == u"DEL")
                delObjectWithXmlElement(child);
            else if (name == u"RENAME")
                renameObjectWithXmlElement(child);
            else if (name == u"MOVE")
                moveObjectWithXmlElement(child);
            // Each change is applied before the next is read; the last check follows it.
            nextTask();
            if (m_fetchFailed) {
                // A file that could not be fetched (the connection broke, the disk is full): the
                // last check stays before it, so the next pass brings it and what follows again.
                FV_LOG(QStringLiteral("The pass stops before a change that could not be fetched"));
                return QString();
            }
            const QString id = attribute(child, QStringLiteral("ID"));
            if (!id.isEmpty())
                updateLastCheck(context, id);
        }
    }
    return lastId;
}

void ProcessWindowController::checkRootFolder(const std::shared_ptr<ManagedObjectContext> &context)
{
    const QString root = path();
    if (root.isEmpty() || QFileInfo(root).isDir())
        return;
    if (!QDir().mkpath(root))
        FV_LOG(
            QStringLiteral("Error create root folder: %1").arg(QString::fromLocal8Bit(std::strerror(errno))));
    // The first level is forgotten either way, so that the following passes rebuild it.
    const InfomationPtr info = db()->getInfomationWithManagedObjectContext(context);
    const QString key = info ? info->cloudFolderKey() : QString();
    db()->deleteAllDirectoryWithPKey(key, context);
    db()->deleteAllFileWithPKey(key, context);
}

void ProcessWindowController::noInternetConnection()
{
    addStringToLog(QStringLiteral("No internet connection"));
    m_isSyncing = false;
    setState(State::Idle);
}

void ProcessWindowController::invalidSession()
{
    setUnreadableReplies(0);
    addStringToLog(QStringLiteral("Try Login"));
    if (AppServices *services = m_appDelegate)
        runOnMainThread([services] { services->relogin(); }, false);
    m_isAlive = false;
    setState(State::Relogin);
    // Cancelled: the worker's loop ends after this job.
    QThread::currentThread()->requestInterruption();
    QThread::currentThread()->quit();
}

QString ProcessWindowController::localPathOfServerPath(const QString &serverPath, bool asSpelledHere) const
{
    const QString root = path();
    // Only the first occurrence stands for the sync folder: a name may contain the word too.
    const qsizetype at = serverPath.indexOf(kSyncFolderWord);
    QString local;
    if (at >= 0)
        local = QString(serverPath).replace(at, kSyncFolderWord.size(), root);
    else if (serverPath.startsWith(u'/'))
        local = root + serverPath;
    else
        local = root + u'/' + serverPath;
    return asSpelledHere ? CataloguePaths::localSpelling(local, root) : local;
}

bool ProcessWindowController::isSpellingTwin(const QString &literal, const QString &local, const QString &key,
                                             const QString &parentKey,
                                             const std::shared_ptr<ManagedObjectContext> &context)
{
    if (literal == local || !context)
        return false;
    const std::shared_ptr<DatabaseUtils> utils = db();
    QString other;
    if (const FilePtr file = utils->getFileWithPath(local, context))
        other = file->key();
    else if (const DirectoryPtr folder = utils->getDirectoryWithPath(local, context))
        other = folder->key();
    // The folder it goes into was found under another spelling too: it must be the item's parent.
    const QString parent = CataloguePaths::deletingLastPathComponent(local);
    if (other.isEmpty() && !parentKey.isEmpty() &&
        parent != CataloguePaths::deletingLastPathComponent(literal)) {
        if (const DirectoryPtr folder = utils->getDirectoryWithPath(parent, context);
            folder && folder->key() != parentKey)
            other = folder->key();
    }
    if (other.isEmpty() || other == key)
        return false;
    FV_LOG(QStringLiteral("Item %1 skipped: its name is another spelling of item %2's at %3")
               .arg(key, other, CataloguePaths::relativePath(local, path())));
    return true;
}

// --- Work-item builders ---

void ProcessWindowController::addObjectWithXmlElement(const std::shared_ptr<GDataXMLElement> &element)
{
    const std::shared_ptr<ManagedObjectContext> context = managedObjectContext();
    const std::shared_ptr<DatabaseUtils> utils = db();
    const QString key = attribute(element, QStringLiteral("KEY"));
    const FilePtr file = utils->getFileWithKey(key, context);
    std::shared_ptr<CatalogueItem> row = file;
    if (!row)
        row = utils->getDirectoryWithKey(key, context);
    // A known item is taken only when the local copy is older than the server's, or, dated the
    // same second (dates are kept to the second), when only the server's contents have changed.
    if (row) {
        const int verdict = utils->checkFileIsModifierWithPath(
            row->path(), attribute(element, QStringLiteral("TIME")), QString());
        if (verdict != DatabaseUtils::OlderThanServer &&
            !(verdict == DatabaseUtils::Unchanged &&
              DatabaseUtils::serverCopyReplacesSameSecond(row->path(), file,
                                                          attribute(element, QStringLiteral("MD5")))))
            return;
    }
    const QString name = attribute(element, QStringLiteral("NAME"));
    const QString local = localPathOfServerPath(element->stringValue());
    if (!CataloguePaths::checkName(name, QStringLiteral("Work item")) ||
        !CataloguePaths::checkInside(local, path(), QStringLiteral("Work item")))
        return;
    if (!row && isSpellingTwin(localPathOfServerPath(element->stringValue(), false), local, key,
                               attribute(element, QStringLiteral("PKEY")), context))
        return;
    const QStringList record = {
        CataloguePaths::nameAsSpelled(name, local), attribute(element, QStringLiteral("SIZE")),
        attribute(element, QStringLiteral("MD5")),  key,
        attribute(element, QStringLiteral("PKEY")), local};
    QMutexLocker lock(&m_fields->lock);
    m_fields->listTask.append(ProcessTask(ProcessTask::Add, record, isFolderElement(element)));
}

void ProcessWindowController::delObjectWithXmlElement(const std::shared_ptr<GDataXMLElement> &element)
{
    QMutexLocker lock(&m_fields->lock);
    m_fields->listTask.append(ProcessTask(ProcessTask::Delete, attribute(element, QStringLiteral("KEY")),
                                          isFolderElement(element)));
}

// Renames and moves carry an item record, the form the catalogue's rename and move read: the new
// name at 0, the key at 3, the new parent's key at 4 (moves), the server's path at 5.
void ProcessWindowController::renameObjectWithXmlElement(const std::shared_ptr<GDataXMLElement> &element)
{
    const std::shared_ptr<ManagedObjectContext> context = managedObjectContext();
    const QString key = attribute(element, QStringLiteral("KEY"));
    const QString name = attribute(element, QStringLiteral("NAME"));
    std::shared_ptr<CatalogueItem> row = db()->getFileWithKey(key, context);
    if (!row)
        row = db()->getDirectoryWithKey(key, context);
    if (row &&
        row->name().normalized(QString::NormalizationForm_C) == name.normalized(QString::NormalizationForm_C))
        return; // already so here (the server spells names composed; here they may not be)
    const QStringList record = {name, QString(), QString(), key, QString(), element->stringValue()};
    QMutexLocker lock(&m_fields->lock);
    m_fields->listTask.append(ProcessTask(ProcessTask::Rename, record, isFolderElement(element)));
}

void ProcessWindowController::moveObjectWithXmlElement(const std::shared_ptr<GDataXMLElement> &element)
{
    const QStringList record = {attribute(element, QStringLiteral("NAME")),
                                QString(),
                                QString(),
                                attribute(element, QStringLiteral("KEY")),
                                attribute(element, QStringLiteral("DEST_PARENT_KEY")),
                                element->stringValue()};
    QMutexLocker lock(&m_fields->lock);
    m_fields->listTask.append(ProcessTask(ProcessTask::Move, record, isFolderElement(element)));
}

// --- Applying the work items ---

void ProcessWindowController::nextTask()
{
    // A lock of its own on every call, kept as it always was: it excludes nothing.
    QMutex lock;
    QMutexLocker locker(&lock);
    endThreadIfNotAlive();
    forever
    {
        ProcessTask task;
        {
            QMutexLocker fields(&m_fields->lock);
            if (m_fields->listTask.isEmpty())
                break;
            task = m_fields->listTask.first();
        }
        startAnimation(true);
        // Applied on the listener queue: the watcher's reports of what this writes are queued behind
        // it and find the catalogue already up to date, as during the first synchronisation.
        runOnListenerAndWait([&] { applyTask(task, listenerManagedObjectContext()); });
        {
            QMutexLocker fields(&m_fields->lock);
            if (!m_fields->listTask.isEmpty())
                m_fields->listTask.removeFirst();
        }
        endThreadIfNotAlive();
    }
}

void ProcessWindowController::applyTask(const ProcessTask &task,
                                        const std::shared_ptr<ManagedObjectContext> &context)
{
    const std::shared_ptr<DatabaseUtils> utils = db();
    if (!context)
        return;
    // Where the catalogue has the item of `key` now (read before and after a change is applied).
    const auto catalogued = [&](const QString &key) {
        const std::shared_ptr<CatalogueItem> row =
            task.isFolder() ? std::shared_ptr<CatalogueItem>(utils->getDirectoryWithKey(key, context))
                            : std::shared_ptr<CatalogueItem>(utils->getFileWithKey(key, context));
        return row ? row->path() : QString();
    };
    switch (task.taskType()) {
    case ProcessTask::Add: {
        QStringList record = task.taskObject().toStringList();
        if (record.size() <= DatabaseUtils::ItemPath)
            return;
        const QString name = record.at(DatabaseUtils::ItemName);
        const QString key = record.at(DatabaseUtils::ItemKey);
        const QString local = record.at(DatabaseUtils::ItemPath);
        const QString root = path();
        const std::optional<QStringList> info = utils->getInfomationOfItemWithKey(key);
        const QString time = info ? info->value(2) : QString();
        if (task.isFolder()) {
            utils->insertDir(record, context);
            if (utils->getDirectoryWithPath(local, context))
                DatabaseUtils::postLogFromServer(LogObject::createLogObjectWithName(
                    name, DatabaseUtils::localizedString(QStringLiteral("work_add")), -1,
                    CataloguePaths::relativePath(local, root), true, utils->serverTimeToLocalTimeStr(time),
                    QString(), true));
            return;
        }
        // Already here under this key and path: nothing to fetch, unless the copy here is older
        // than the server's (the server changed the file's contents).
        if (const FilePtr known = utils->getFileWithKey(key, local, context)) {
            const int verdict = utils->checkFileIsModifierWithPath(local, time, QString());
            if (verdict != DatabaseUtils::OlderThanServer &&
                !(verdict == DatabaseUtils::Unchanged &&
                  DatabaseUtils::serverCopyReplacesSameSecond(local, known,
                                                              record.at(DatabaseUtils::ItemMd5))))
                return;
        }
        QString md5 = record.at(DatabaseUtils::ItemMd5);
        qint64 fetchedBytes = -1;
        const Fetch fetched = downloadInto(local, name, record.at(DatabaseUtils::ItemSize).toLongLong(), &md5,
                                           key, time, &fetchedBytes);
        if (fetched == Fetch::Failed) {
            // Not applied: the pass ends here and the next one asks for this change again. A file the
            // server never delivers is given up after a few passes rather than kept blocking the
            // rest; one waiting for disk space is not.
            bool noSpace = false;
            {
                QMutexLocker fields(&m_fields->lock);
                noSpace = m_fields->reportedNoSpace.contains(local);
            }
            if (noSpace || ++m_downloadFailures[key] < kDownloadAttempts)
                m_fetchFailed = true;
            else
                FV_LOG(QStringLiteral("Download given up: %1").arg(local));
        }
        if (fetched != Fetch::Done) {
            return;
        }
        m_downloadFailures.remove(key);
        record[DatabaseUtils::ItemMd5] = md5;
        utils->insertFile(record, context);
        // The row's size is the server's at the time of recording, which may already be a later
        // version's (the file edited again meanwhile); the MD5 is that of the bytes fetched. Mixed,
        // they make the copy here look changed here: a later edit on the server dated the same
        // second is then never fetched, and the copy could be sent back over it. The size is that
        // of what was fetched.
        if (const FilePtr row = utils->getFileWithKey(key, context)) {
            const QString fetchedSize = QString::number(std::max<qint64>(fetchedBytes, 0));
            if (row->size() != fetchedSize) {
                row->setSize(fetchedSize);
                FvError error;
                if (!context->save(&error))
                    FV_LOG(QStringLiteral("%1").arg(error.toString()));
            }
        }
        if (utils->getFileWithPath(local, context))
            DatabaseUtils::postLogFromServer(LogObject::createLogObjectWithName(
                name, DatabaseUtils::localizedString(QStringLiteral("work_add")),
                record.at(DatabaseUtils::ItemSize).toLongLong(), CataloguePaths::relativePath(local, root),
                false, utils->serverTimeToLocalTimeStr(time), QString(), true));
        return;
    }
    case ProcessTask::Delete: {
        const QString key = task.taskObject().toString();
        const QString gone = catalogued(key);
        const bool wasThere = !gone.isEmpty() && CataloguePaths::itemExists(gone);
        if (task.isFolder())
            utils->deleteDirectory(key, context);
        else
            utils->deleteFile(key, context);
        if (wasThere && !CataloguePaths::itemExists(gone))
            noteOwnChange(2, gone, QString());
        return;
    }
    case ProcessTask::Rename:
    case ProcessTask::Move: {
        const QStringList record = task.taskObject().toStringList();
        const QString key = record.value(DatabaseUtils::ItemKey);
        const QString from = catalogued(key);
        if (task.taskType() == ProcessTask::Rename) {
            if (task.isFolder())
                utils->renameDirectory(record, context);
            else
                utils->renameFile(record, context);
        } else {
            if (task.isFolder())
                utils->moveDirectory(record, context);
            else
                utils->moveFile(record, context);
        }
        // The catalogue takes the new path only once the item has moved on disk.
        const QString to = catalogued(key);
        if (!from.isEmpty() && !to.isEmpty() && from != to)
            noteOwnChange(task.taskType(), from, to);
        return;
    }
    default:
        return;
    }
}

// --- The asynchronous command path ---

void ProcessWindowController::restClientDidFinishRequestwithData(
    RestClient *, const std::shared_ptr<GDataXMLDocument> &document)
{
    // Arrives on the main thread; the items are applied on the worker like a pass's.
    postToWorker([this, document] {
        const QString lastId = readWorkList(document);
        if (!lastId.isEmpty())
            updateLastCheck(managedObjectContext(), lastId);
        addStringToLog(QStringLiteral("Read sync list complete"));
        QMetaObject::invokeMethod(this, &ProcessWindowController::passCompleted, Qt::QueuedConnection);
    });
}

void ProcessWindowController::restClientHasFail(RestClient *, const std::optional<QVariantMap> &)
{
    m_isSyncing = false;
}
