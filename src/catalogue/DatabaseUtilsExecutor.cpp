// DatabaseUtils: the task executor. Runs on the sync worker thread with that thread's context and
// turns stored tasks into PUT (plus the content upload), RENAME, DEL and MOVE commands.
#include "catalogue/CataloguePaths.h"
#include "catalogue/CommandReplies.h"
#include "catalogue/DatabaseUtils.h"
#include "protocol/DownloadFile.h"
#include "protocol/UploadFile.h"
#include "util/AppServices.h"
#include "util/Codecs.h"
#include "util/Log.h"
#include "util/Pace.h"
#include "xml/GDataXMLNode.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QHash>
#include <QSet>
#include <QThread>

namespace {

const QString kEndpoint = QStringLiteral("cgi-bin/cloudXml.cgi");
// A file carrying this modification date (local form) is still being written by another program.
const QString kPlaceholderDate = QStringLiteral("19040101070640");

QString config(const QString &key)
{
    AppServices *services = AppServices::shared();
    return services ? services->getConfigValueByKey(key).toString() : QString();
}

// Names go to the server in precomposed form, escaped for XML.
QString composed(const QString &text)
{
    return gtm_stringBySanitizingAndEscapingForXML(text.normalized(QString::NormalizationForm_C));
}

QString opening(const QString &command, const QString &pcName)
{
    return QStringLiteral("<XML><%1 SESSION =\"%2\"  PCNAME=\"%3\" >")
        .arg(command, config(QStringLiteral("kKeySESSTION")), composed(pcName));
}

QString closing(const QString &command)
{
    return QStringLiteral("</%1></XML>").arg(command);
}

QString hostWithScheme()
{
    const QString domain = config(QStringLiteral("kKeyDomain"));
    return domain.contains(QLatin1String("https://")) ? domain : QStringLiteral("https://") + domain;
}

bool interrupted()
{
    return QThread::currentThread()->isInterruptionRequested();
}

// Oldest first, except that a new folder goes before everything below it. A new file's task
// carries the file's own date, which is often older than the task of the folder it lies in (a
// tree moved in, a folder and its first file seen together); sent first, the file would find no
// folder on the server.
QList<TaskPtr> parentsFirst(const QList<TaskPtr> &tasks)
{
    QHash<QString, TaskPtr> newFolders;
    for (const TaskPtr &task : tasks) {
        if (task->taskType() == 1 && task->folder().value_or(false) && !newFolders.contains(task->path()))
            newFolders.insert(task->path(), task);
    }
    if (newFolders.isEmpty())
        return tasks;
    QList<TaskPtr> ordered;
    ordered.reserve(tasks.size());
    QSet<const Task *> placed;
    const auto place = [&](const TaskPtr &task) {
        if (placed.contains(task.get()))
            return;
        placed.insert(task.get());
        // The folders above it first, outermost first.
        QStringList above;
        for (QString path = CataloguePaths::deletingLastPathComponent(task->path()); path.size() > 1;
             path = CataloguePaths::deletingLastPathComponent(path))
            above.prepend(path);
        for (const QString &path : std::as_const(above)) {
            const TaskPtr folder = newFolders.value(path);
            if (folder && !placed.contains(folder.get())) {
                placed.insert(folder.get());
                ordered.append(folder);
            }
        }
        ordered.append(task);
    };
    for (const TaskPtr &task : tasks)
        place(task);
    return ordered;
}

void notifyUser(const QString &titleKey, const QString &kindKey, const QString &name)
{
    if (AppServices *services = AppServices::shared())
        services->postNotificationWithTitle(
            DatabaseUtils::localizedString(titleKey),
            QStringLiteral("%1: %2").arg(DatabaseUtils::localizedString(kindKey), name));
}

} // namespace

// --- The run ---

void DatabaseUtils::doTask()
{
    if (m_isDoTask) {
        m_runAgain = true; // one run at a time: the running one goes round again for the new task
        return;
    }
    const std::shared_ptr<DatabaseUtils> keep = weak_from_this().lock();
    ContextPtr context = m_managedObjectContext;
    if (!context || context->thread() != QThread::currentThread()) {
        AppServices *services = AppServices::shared();
        context = services ? services->getManagedObjectContextByThread() : nullptr;
    }
    if (!context) {
        FV_LOG(QStringLiteral("No catalogue context for the task run"));
        return;
    }
    m_isDoTask = true;
    do {
        m_runAgain = false;
    } while (runTasks(context) && m_runAgain);
    m_isDoTask = false;
}

bool DatabaseUtils::runTasks(const ContextPtr &context)
{
    bool endThread = false;
    bool aborted = false;
    bool restart = true;
    while (restart && !endThread && !aborted) {
        restart = false;
        const QList<TaskPtr> tasks = parentsFirst(context->fetch<Task>(
            Predicate(), {SortDescriptor::sortDescriptorWithKey(QStringLiteral("time"), true)}));
        for (const TaskPtr &task : tasks) {
            if (!isAlive() || interrupted()) {
                endThread = true;
                break;
            }
            if (task->isDeleted() || !task->managedObjectContext())
                continue; // dropped by an earlier task of this run
            statusBarAnimation();
            if (runOneTask(task, context, &restart) == kErrorReadXml) {
                FV_LOG(QStringLiteral("Error read xml: the task run ends; the task stays"));
                aborted = true;
            }
            saveContext(context, QStringLiteral("%1"));
            if (restart || aborted)
                break;
        }
    }
    stopBarAnimation();
    if (endThread) {
        // Unwind to the thread's entry: quit its loop (never the application's own).
        FV_LOG(QStringLiteral("Task run stopped: the catalogue is closing or the thread was cancelled"));
        QCoreApplication *app = QCoreApplication::instance();
        if (!app || QThread::currentThread() != app->thread())
            QThread::currentThread()->quit();
    }
    return !endThread && !aborted;
}

int DatabaseUtils::runOneTask(const TaskPtr &task, const ContextPtr &context, bool *restart)
{
    const QString path = task->path();
    const QString root = syncFolderPath(context);
    int result = 1;
    switch (task->taskType().value_or(0)) {
    case 1:
        if (CataloguePaths::itemExists(path) && !root.isEmpty() && path.contains(root)) {
            result = uploadFile(task, context);
            if (result == kErrorReadXml)
                return result;
            if (result != -6)
                context->deleteObject(task);
        } else {
            context->deleteObject(task);
        }
        break;
    case 2: {
        bool isFolder = false;
        if (CataloguePaths::itemExists(path, &isFolder)) {
            // Deleted and made again: the server's copy goes, then the new one is sent.
            if ((result = deleteTask(task, context)) == kErrorReadXml ||
                (result = uploadFile(task, context)) == kErrorReadXml)
                return kErrorReadXml;
            context->deleteObject(task);
            if (isFolder) {
                for (const TaskPtr &below : getAllTaskWithPath(path, context))
                    context->deleteObject(below);
                saveContext(context, QStringLiteral("%1"));
                *restart = true;
            }
        } else {
            result = deleteTask(task, context);
            if (result == kErrorReadXml)
                return result;
            if (result != -6)
                context->deleteObject(task);
        }
        break;
    }
    case 3:
    case 4:
        result = task->taskType() == 3 ? renameTask(task, context) : moveTask(task, context);
        if (result == kErrorReadXml)
            return result;
        if (result != -6)
            context->deleteObject(task);
        break;
    case 5:
        result = uploadFile(task, context);
        if (result == kErrorReadXml)
            return result;
        if (result != -6) // an edit whose upload broke off stays, like a new file's: else it is lost
            context->deleteObject(task);
        break;
    case 6:
        context->deleteObject(task);
        break;
    default:
        break; // unknown codes are left alone
    }
    return result;
}

// --- Upload (PUT and the content) ---

int DatabaseUtils::uploadFile(const TaskPtr &task, const ContextPtr &context)
{
    FV_LOG(QStringLiteral("Upload with thread name: %1").arg(QThread::currentThread()->objectName()));
    const QString path = task->path();
    const QString name = CataloguePaths::lastPathComponent(path);
    const QString root = syncFolderPath(context);
    bool isFolder = false;
    if (task->name() == u".DS_Store" || name == u".DS_Store" ||
        !CataloguePaths::itemExists(path, &isFolder) || root.isEmpty() ||
        !path.contains(root, Qt::CaseInsensitive) || (isFolder && path == root))
        return -1;
    if (!isFolder) {
        // The verdict is never 0, so a catalogued file is always sent again.
        if (const FilePtr row = getFileWithPath(path, context);
            row && checkFileIsModifierWithPath(path, row->time(), row->md5()) == 0)
            return -1;
    }
    const QString relative = CataloguePaths::relativePath(path, config(QStringLiteral("kKeyPath")));

    QDateTime date = CataloguePaths::modificationDate(path);
    if (!date.isValid())
        return -1;
    while (localTimeFromDate(date) == kPlaceholderDate) {
        FV_LOG(QStringLiteral("Wait"));
        Pace::sleep(1000);
        if (interrupted())
            return -5;
        date = CataloguePaths::modificationDate(path);
        if (!date.isValid())
            return -1;
    }
    const QString serverTime = localTimeToServerTime(date);
    const qint64 size = isFolder ? -1 : QFileInfo(path).size();

    QString body = opening(QStringLiteral("PUT"), m_macName);
    if (isFolder)
        body += QStringLiteral("<DIR NAME=\"%1\" TIME=\"%2\" KIND=\"SYNC\">%3</DIR>")
                    .arg(composed(name), serverTime, composed(relative));
    else
        body += QStringLiteral("<FILE NAME=\"%1\" SIZE=\"%2\" MD5=\"%3\" TIME=\"%4\" KIND=\"SYNC\">%5</FILE>")
                    .arg(composed(name), QString::number(size), QString(), serverTime, composed(relative));
    body += closing(QStringLiteral("PUT"));

    CommandReply reply = sentRequestWithBody(body);
    while (!reply.document && !reply.unreadable && !interrupted()) {
        Pace::sleep(1000);
        reply = sentRequestWithBody(body);
    }
    if (reply.unreadable)
        return kErrorReadXml;
    const CommandReplies::PutReply put = CommandReplies::readPut(reply.document);
    if (put.refusal)
        return *put.refusal;
    if (interrupted())
        return -5;
    if (!put.named) {
        FV_LOG(QStringLiteral("The PUT reply names no item for %1").arg(path));
        return -6;
    }
    QStringList fields = {
        name, isFolder ? QStringLiteral("-1") : QString::number(size), QStringLiteral(""), put.key, put.pkey,
        path};
    const QString now = localTimeFromDate(QDateTime::currentDateTime());

    if (isFolder) {
        if (!insertDirNoCreate(fields, context))
            return kErrorReadXml;
        saveContext(context, QStringLiteral("%1"));
        postLogFromSync(LogObject::createLogObjectWithName(name, localizedString(QStringLiteral("work_add")),
                                                           -1, relative, true, now, QString(), true));
        notifyUser(QStringLiteral("upload_complete"), QStringLiteral("folder"), name);
        return 1;
    }

    const QString key = fields[ItemKey];
    const QString url = hostWithScheme() + QStringLiteral("/%1?do=upload&session=%2&key=%3")
                                               .arg(kEndpoint, config(QStringLiteral("kKeySESSTION")), key);
    // The record holds the MD5 of the contents as they are sent, from the start: a file written
    // again during the upload (even in the same second) then differs from it and goes again, and
    // a second report of the same write finds nothing new while the upload runs or waits.
    fields[ItemMd5] = UploadFile::getMD5OfFileAtPath(path);
    if (!insertFile(fields, context))
        return kErrorReadXml;
    if (const FilePtr row = getFileWithKey(key, context)) {
        row->setUploadDone(false);
        saveContext(context, QStringLiteral("%1"));
    }
    const QString status = UploadFile::uploadFileWithKey(key, path, url, 0, serverTime);
    if (status == u"done") {
        FV_LOG(QStringLiteral("Upload complete: %1").arg(name));
        if (!insertFile(fields, context))
            return kErrorReadXml;
        if (const FilePtr row = getFileWithKey(key, context)) {
            row->setUploadDone(true);
            saveContext(context, QStringLiteral("%1"));
        }
        notifyUser(QStringLiteral("upload_complete"), QStringLiteral("file"), name);
        postLogFromSync(LogObject::createLogObjectWithName(name, localizedString(QStringLiteral("work_add")),
                                                           size, relative, false, now, QString(), true));
        return 1;
    }
    postLogFromSync(LogObject::createLogObjectWithName(name, localizedString(QStringLiteral("work_add")),
                                                       size, relative, false, now, QString(), false));
    // Cut off or failed: the task stays and is tried again. A connection that broke before the
    // verdict reads as "fail" too, and dropping the task would lose the change.
    return -6;
}

// --- RENAME, DEL, MOVE ---

int DatabaseUtils::renameTask(const TaskPtr &task, const ContextPtr &context)
{
    const QString oldPath = task->path();
    const QString newPath = task->newPath();
    const QString oldName = CataloguePaths::lastPathComponent(oldPath);
    const QString newName = CataloguePaths::lastPathComponent(newPath);
    const bool folder = task->folder().value_or(false);
    std::shared_ptr<CatalogueItem> row;
    if (folder) {
        row = getDirectoryWithPath(oldPath, context);
        if (!row) {
            // Never uploaded: send the pending task for it at once, under the new name.
            if (const TaskPtr pending = getTaskWithPath(oldPath, context)) {
                pending->setPath(newPath);
                if (uploadFile(pending, context) == kErrorReadXml)
                    return kErrorReadXml;
                context->deleteObject(pending);
                saveContext(context, QStringLiteral("%1"));
            }
            return -5;
        }
    } else {
        row = getFileWithPath(oldPath, context);
        if (!row)
            return -5;
    }
    const CommandReply reply =
        sentRequestWithBody(opening(QStringLiteral("RENAME"), m_macName) +
                            QStringLiteral("<KEY NAME=\"%1\">%2</KEY>").arg(composed(newName), row->key()) +
                            closing(QStringLiteral("RENAME")));
    if (reply.unreadable)
        return kErrorReadXml;
    if (!reply.document)
        return -6;
    const QString root = syncFolderPath(context);
    for (const auto &item : CommandReplies::items(reply.document, QStringLiteral("RENAME"))) {
        const int code = CommandReplies::itemCode(item);
        postLogFromSync(LogObject::createLogObjectWithName(
            newName, localizedString(QStringLiteral("work_rename")), folder ? -1 : row->size().toLongLong(),
            CataloguePaths::relativePath(newPath, root), folder,
            localTimeFromDate(QDateTime::currentDateTime()), QStringLiteral("%1 => %2").arg(oldName, newName),
            code == 1));
        if (code != 1)
            continue;
        postActivityText((folder ? QStringLiteral("Sent rename folder old name: %1 ---- new name: %2")
                                 : QStringLiteral("Sent rename file old name: %1 ---- new name: %2"))
                             .arg(oldName, newName));
        row->setName(newName);
        row->setPath(newPath);
        saveContext(context, QStringLiteral("%1"));
        if (folder) {
            changePathOfDirectory(newPath, oldPath, context);
            changePathOfFile(newPath, oldPath, context);
        }
    }
    return 1;
}

int DatabaseUtils::deleteTask(const TaskPtr &task, const ContextPtr &context)
{
    const QString path = task->path();
    const bool folder = task->folder().value_or(false);
    const QString root = syncFolderPath(context);
    const std::shared_ptr<CatalogueItem> row =
        folder ? std::shared_ptr<CatalogueItem>(getDirectoryWithPath(path, context))
               : std::shared_ptr<CatalogueItem>(getFileWithPath(path, context));
    if (!row || (folder && path == root))
        return -5;
    const CommandReply reply = sentRequestWithBody(
        opening(QStringLiteral("DEL"), m_macName) +
        QStringLiteral("<KEY KIND=\"SYNC\">%1</KEY>").arg(row->key()) + closing(QStringLiteral("DEL")));
    if (reply.unreadable)
        return kErrorReadXml;
    if (!reply.document)
        return -6;
    const QString name = row->name();
    for (const auto &item : CommandReplies::items(reply.document, QStringLiteral("DEL"))) {
        const int code = CommandReplies::itemCode(item);
        postLogFromSync(LogObject::createLogObjectWithName(
            name, localizedString(QStringLiteral("work_delete")), folder ? -1 : row->size().toLongLong(),
            CataloguePaths::relativePath(path, root), folder, localTimeFromDate(QDateTime::currentDateTime()),
            QString(), code == 1));
        if (code != 1 || row->isDeleted())
            continue;
        postActivityText(
            (folder ? QStringLiteral("Sent delete folder: %1") : QStringLiteral("Sent delete file: %1"))
                .arg(name));
        context->deleteObject(row);
        notifyUser(QStringLiteral("deleted"), folder ? QStringLiteral("folder") : QStringLiteral("file"),
                   name);
        if (saveContext(context, QStringLiteral("%1")) && folder) {
            deleteFileContainsPath(path, context);
            deleteDirectoryContainsPath(path, context);
        }
    }
    return 1;
}

int DatabaseUtils::moveTask(const TaskPtr &task, const ContextPtr &context)
{
    const QString oldPath = task->path();
    const QString newPath = task->newPath();
    const QString newParent = CataloguePaths::deletingLastPathComponent(newPath);
    const bool folder = task->folder().value_or(false);
    const std::shared_ptr<CatalogueItem> row =
        folder ? std::shared_ptr<CatalogueItem>(getDirectoryWithPath(oldPath, context))
               : std::shared_ptr<CatalogueItem>(getFileWithPath(oldPath, context));
    if (!row)
        return -5;
    const QString root = syncFolderPath(context);
    const InfomationPtr account = getInfomationWithManagedObjectContext(context);
    const QString accountFolder = account && !account->path().isEmpty() ? account->path() : root;
    QString destination;
    if (newParent == accountFolder) {
        destination = account ? account->cloudFolderKey() : QString();
    } else {
        const DirectoryPtr parent = getDirectoryWithPath(newParent, context);
        if (!parent)
            return -6; // tried again once the parent folder is on the server
        destination = parent->key();
    }
    const CommandReply reply = sentRequestWithBody(
        opening(QStringLiteral("MOVE"), m_macName) +
        QStringLiteral("<KEY DEST=\"%1\" SRC=\"%2\" FORCE=\"1\"></KEY>").arg(destination, row->key()) +
        closing(QStringLiteral("MOVE")));
    if (reply.unreadable)
        return kErrorReadXml;
    if (!reply.document)
        return -6;
    for (const auto &item : CommandReplies::items(reply.document, QStringLiteral("MOVE"))) {
        const int code = CommandReplies::attribute(item, QStringLiteral("RESULT")).trimmed().toInt();
        postLogFromSync(LogObject::createLogObjectWithName(
            CataloguePaths::lastPathComponent(newPath), localizedString(QStringLiteral("work_move")),
            folder ? -1 : row->size().toLongLong(), CataloguePaths::relativePath(newPath, root), folder,
            localTimeFromDate(QDateTime::currentDateTime()), QStringLiteral("%1 => %2").arg(oldPath, newPath),
            code == 1));
        if (code != 1)
            continue;
        postActivityText((folder ? QStringLiteral("Sent move folder old path: %1 ---- new path: %2")
                                 : QStringLiteral("Sent move file old path: %1 ---- new path: %2"))
                             .arg(oldPath, newPath));
        row->setName(CataloguePaths::lastPathComponent(newPath));
        row->setPath(newPath);
        row->setPkey(destination); // keeps deletions by parent key right after the move
        saveContext(context, QStringLiteral("%1"));
        if (folder) {
            changePathOfDirectory(newPath, oldPath, context);
            changePathOfFile(newPath, oldPath, context);
        }
    }
    return 1;
}

// --- Downloads for the server side of synchronisation ---

bool DatabaseUtils::downloadFileTo(const QString &path, const QString &name, QString *md5_p,
                                   const QString &key, const QString &serverTime)
{
    if (!CataloguePaths::checkName(name, QStringLiteral("Download")) ||
        !CataloguePaths::checkInside(path, syncFolderPath(), QStringLiteral("Download")))
        return false;
    QDir().mkpath(CataloguePaths::deletingLastPathComponent(path));
    const QString url = hostWithScheme() + QStringLiteral("/%1?do=download&session=%2&key=%3")
                                               .arg(kEndpoint, config(QStringLiteral("kKeySESSTION")), key);
    const bool ok = DownloadFile::downloadFileFromURL(url, path, md5_p, serverTimeToLocalTime(serverTime));
    notifyUser(QStringLiteral("download_complete"), QStringLiteral("file"), name);
    Pace::sleep(1000);
    return ok;
}

bool DatabaseUtils::downloadTask(const FilePtr &task, const ContextPtr &context)
{
    if (!task)
        return false;
    QStringList fields = {task->name(), QString::number(task->size().toLongLong()),
                          task->md5(),  task->key(),
                          task->pkey(), task->path()};
    QString md5;
    const bool ok = downloadFileTo(task->path(), task->name(), &md5, task->key(), task->time());
    if (ok && !md5.isEmpty())
        fields[ItemMd5] = md5;
    insertFile(fields, context);
    return ok;
}
