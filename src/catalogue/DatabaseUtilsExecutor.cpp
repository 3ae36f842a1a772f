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
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QHash>
#include <QSet>
#include <QThread>
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <functional>
#include <sys/stat.h>

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

bool atOrBelow(const QString &path, const QString &top)
{
    return !top.isEmpty() && (path == top || path.startsWith(top + u'/'));
}

bool isRelocation(const TaskPtr &task)
{
    const qint64 type = task->taskType().value_or(0);
    return (type == 3 || type == 4) && !task->newPath().isEmpty();
}

bool isUpload(const TaskPtr &task)
{
    const qint64 type = task->taskType().value_or(0);
    return type == 1 || type == 5;
}

// Oldest first, except that a task goes after what it depends on:
// - a new folder before everything below it. A new file's task carries the file's own date, which
//   is often older than the task of the folder it lies in (a tree moved in, a folder and its first
//   file seen together); sent first, the file would find no folder on the server;
// - a rename or move before everything below its new path (that place exists on the server only
//   once it is done) and before the uploads of what it carried away (they follow the item to its
//   new path once it is done; sent before, they would find nothing at the old one);
// - but a rename or move that fills a place after what emptied it, recorded before it: a delete, or
//   a rename or move away (names swapped, or one item moved away and another moved in). Places are
//   compared as the server names them, where spellings that differ only in Unicode form are one.
QList<TaskPtr> parentsFirst(const QList<TaskPtr> &tasks)
{
    QHash<QString, TaskPtr> newFolders;
    QList<TaskPtr> relocations;
    QList<TaskPtr> vacating; // deletes, renames and moves
    for (const TaskPtr &task : tasks) {
        if (task->taskType() == 1 && task->folder().value_or(false) && !newFolders.contains(task->path()))
            newFolders.insert(task->path(), task);
        if (isRelocation(task))
            relocations.append(task);
        if (isRelocation(task) || task->taskType() == 2)
            vacating.append(task);
    }
    if (newFolders.isEmpty() && relocations.isEmpty())
        return tasks;
    QHash<QString, QString> composedPaths;
    const auto composedPath = [&](const QString &path) {
        auto it = composedPaths.constFind(path);
        if (it == composedPaths.cend())
            it = composedPaths.insert(path, path.normalized(QString::NormalizationForm_C));
        return *it;
    };
    // Whether `earlier` concerns what was at the place `relocation` fills, before it came.
    const auto emptiesPlaceOf = [&](const TaskPtr &earlier, const TaskPtr &relocation) {
        return earlier != relocation && earlier->objectID() < relocation->objectID() &&
               (isRelocation(earlier) || earlier->taskType() == 2) &&
               atOrBelow(composedPath(earlier->path()), composedPath(relocation->newPath()));
    };
    QList<TaskPtr> ordered;
    ordered.reserve(tasks.size());
    QSet<const Task *> placed;
    std::function<void(const TaskPtr &)> place = [&](const TaskPtr &task) {
        if (placed.contains(task.get()))
            return;
        placed.insert(task.get());
        // The folders above it first, outermost first.
        QStringList above;
        for (QString path = CataloguePaths::deletingLastPathComponent(task->path()); path.size() > 1;
             path = CataloguePaths::deletingLastPathComponent(path))
            above.prepend(path);
        for (const QString &path : std::as_const(above)) {
            if (const TaskPtr folder = newFolders.value(path))
                place(folder);
        }
        for (const TaskPtr &relocation : std::as_const(relocations)) {
            if (relocation == task || emptiesPlaceOf(task, relocation))
                continue; // that one goes after this (below)
            if (atOrBelow(task->path(), relocation->newPath()) ||
                (isUpload(task) && atOrBelow(task->path(), relocation->path())))
                place(relocation);
        }
        // Sent first, a rename or move into a place would meet what is still there on the server
        // (and a move, sent with FORCE, would replace it, or another computer's copy of it).
        if (isRelocation(task)) {
            for (const TaskPtr &earlier : std::as_const(vacating)) {
                if (emptiesPlaceOf(earlier, task))
                    place(earlier);
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
            m_taskUnderWay = task->objectID();
            const int result = runOneTask(task, context, &restart);
            m_taskUnderWay = 0;
            if (result == kErrorReadXml) {
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
                // The server's folder went with all it held, and only the folder was sent anew:
                // what the folder here holds goes again (the tasks dropped above included).
                takeUpUnsentBelow(path, context);
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
        if (result != -6) {
            const QString from = task->path(), to = task->newPath();
            const qint64 id = task->objectID();
            context->deleteObject(task);
            // What followed it may now wait for a later rename (a chain): the order is made again.
            if (followRelocation(from, to, id, context))
                *restart = true;
        }
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

// Uploads still waiting for what a rename or move carried away go to where it went: a file
// written and then renamed before its task ran is found under its new name. A task whose path is
// in use again (a new item made where the old one was) stays where it is.
bool DatabaseUtils::followRelocation(const QString &oldPath, const QString &newPath, qint64 relocationId,
                                     const ContextPtr &context)
{
    if (oldPath.isEmpty() || newPath.isEmpty() || oldPath == newPath)
        return false;
    bool changed = false;
    const QList<TaskPtr> tasks = context->fetch<Task>(Predicate());
    for (const TaskPtr &pending : tasks) {
        if (pending->isDeleted() || !isUpload(pending) || !atOrBelow(pending->path(), oldPath))
            continue;
        const QString moved = newPath + pending->path().mid(oldPath.size());
        if (CataloguePaths::itemExists(pending->path()))
            continue;
        // Tasks are numbered as they are recorded: an upload belongs to the first rename or move
        // away from its place recorded after it (one recorded later is a new item's, made there
        // after the old one left).
        const qint64 id = pending->objectID();
        const bool someoneElses =
            id > relocationId || std::any_of(tasks.cbegin(), tasks.cend(), [&](const TaskPtr &other) {
                return !other->isDeleted() && isRelocation(other) && other->objectID() > id &&
                       other->objectID() < relocationId && atOrBelow(pending->path(), other->path());
            });
        if (someoneElses)
            continue;
        pending->setPath(moved);
        pending->setName(CataloguePaths::lastPathComponent(moved));
        changed = true;
    }
    if (changed)
        saveContext(context, QStringLiteral("%1"));

    // A folder moved while something new in it waited to be sent: that task may have run (and been
    // dropped, its path gone) before the move was reported. Whatever the folder now holds that is
    // neither catalogued nor waiting is taken up again.
    return takeUpUnsentBelow(newPath, context) || changed;
}

bool DatabaseUtils::takeUpUnsentBelow(const QString &top, const ContextPtr &context)
{
    bool isFolder = false;
    if (!CataloguePaths::itemExists(top, &isFolder) || !isFolder)
        return false;
    bool changed = false;
    QDirIterator it(top, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                    QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString path = it.next();
        const QString name = it.fileName();
        if (name.startsWith(QLatin1String(".ferrovane-")) || name == u".DS_Store")
            continue; // a download in progress; a Finder file
        const bool folder = it.fileInfo().isDir();
        const bool known =
            folder ? bool(getDirectoryWithPath(path, context)) : bool(getFileWithPath(path, context));
        if (known || getTaskWithPath(path, context))
            continue;
        FV_LOG(QStringLiteral("Not yet sent: %1").arg(path));
        addTaskWithDictionary({{QStringLiteral("kKeyTaskType"), 1},
                               {QStringLiteral("kKeyTaskFolder"), folder},
                               {QStringLiteral("kKeyTaskPath"), path},
                               {QStringLiteral("kKeyTaskName"), name},
                               {QStringLiteral("kKeyTaskTime"), QDateTime::currentDateTime()}},
                              context);
        changed = true;
    }
    return changed;
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
    QString serverTime = localTimeToServerTime(date);
    // A file put in place of a copy dated later (an older file renamed over it): sent with its own
    // date, it would look older than the copies elsewhere, which would keep theirs. It goes as
    // written now (its date here then follows the server's, as after every upload).
    if (!isFolder) {
        if (const FilePtr row = getFileWithPath(path, context); row && serverTime < row->time())
            serverTime = localTimeToServerTime(QDateTime::currentDateTime());
    }
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
    if (!insertFile(fields, context, false))
        return kErrorReadXml;
    const QString status = UploadFile::uploadFileWithKey(key, path, url, 0, serverTime);
    if (status == u"done") {
        FV_LOG(QStringLiteral("Upload complete: %1").arg(name));
        if (!insertFile(fields, context, true))
            return kErrorReadXml;
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

std::optional<QStringList> DatabaseUtils::serverItem(const QString &key)
{
    const std::shared_ptr<GDataXMLDocument> reply = getInfoOfItemWithKey(key);
    if (!reply)
        return std::nullopt;
    return CommandReplies::readInfo(reply);
}

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
            // Catalogued under the new name already: a rename made here for the server (the watcher
            // reports it like any other); nothing to send.
            if (getDirectoryWithPath(newPath, context))
                return -5;
            // Never uploaded: send the pending upload for it at once, under the new name. (Only an
            // upload: this rename's own task lies at the old path too.)
            TaskPtr pending;
            for (const TaskPtr &candidate :
                 context->fetch<Task>(Predicate::equalTo(QStringLiteral("path"), oldPath))) {
                if (candidate != task && candidate->taskType() == 1 && !candidate->isDeleted()) {
                    pending = candidate;
                    break;
                }
            }
            if (pending) {
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
    if (const int removed = relocationIntoTakenPlace(task, row, context))
        return removed;
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
        int code = CommandReplies::itemCode(item);
        if (code != 1) {
            // A rename carried out whose answer was lost may be refused when it is sent again (the
            // name is taken, by the item itself): the server's own name for the key tells.
            const std::optional<QStringList> known = serverItem(row->key());
            if (!known)
                return -6;
            if (!known->isEmpty() && known->at(0).normalized(QString::NormalizationForm_C) ==
                                         newName.normalized(QString::NormalizationForm_C))
                code = 1;
        }
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

int DatabaseUtils::relocationIntoTakenPlace(const TaskPtr &task, const std::shared_ptr<CatalogueItem> &row,
                                            const ContextPtr &context)
{
    const QString oldPath = task->path();
    const QString newPath = task->newPath();
    if (CataloguePaths::itemExists(oldPath))
        return 0;
    std::shared_ptr<CatalogueItem> there = getFileWithPath(newPath, context);
    if (!there)
        there = getDirectoryWithPath(newPath, context);
    if (!there || there->key() == row->key())
        return 0;
    // The item there is itself about to leave (names swapped through a third one): the relocations
    // stand as they are.
    const QList<TaskPtr> leaving = context->fetch<Task>(Predicate::equalTo(QStringLiteral("path"), newPath));
    if (std::any_of(leaving.cbegin(), leaving.cend(), [&](const TaskPtr &other) {
            return other != task && !other->isDeleted() && isRelocation(other);
        }))
        return 0;
    FV_LOG(QStringLiteral("%1 went to %2, which the catalogue has as item %3: removed on the server instead")
               .arg(oldPath, newPath, there->key()));
    return deleteTask(task, context);
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
        int code = CommandReplies::itemCode(item);
        if (code != 1) {
            // A delete carried out whose answer was lost finds the item gone when it is sent again:
            // the row goes as well, else the catalogue keeps an item that exists nowhere.
            const std::optional<QStringList> known = serverItem(row->key());
            if (!known)
                return -6;
            if (known->isEmpty())
                code = 1;
        }
        const bool done = code == 1;
        postLogFromSync(LogObject::createLogObjectWithName(
            name, localizedString(QStringLiteral("work_delete")), folder ? -1 : row->size().toLongLong(),
            CataloguePaths::relativePath(path, root), folder, localTimeFromDate(QDateTime::currentDateTime()),
            QString(), done));
        if (!done || row->isDeleted())
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
    if (const int removed = relocationIntoTakenPlace(task, row, context))
        return removed;
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
    // Moved under another name (one step on disk): MOVE keeps the name, so the server's item is
    // renamed first, in the folder it leaves, where the new name replaces nothing of the user's.
    const QString newName = CataloguePaths::lastPathComponent(newPath);
    if (composed(newName) != composed(CataloguePaths::lastPathComponent(oldPath))) {
        const CommandReply renamed = sentRequestWithBody(
            opening(QStringLiteral("RENAME"), m_macName) +
            QStringLiteral("<KEY NAME=\"%1\">%2</KEY>").arg(composed(newName), row->key()) +
            closing(QStringLiteral("RENAME")));
        if (renamed.unreadable)
            return kErrorReadXml;
        if (!renamed.document)
            return -6;
        const auto items = CommandReplies::items(renamed.document, QStringLiteral("RENAME"));
        if (items.isEmpty() || CommandReplies::itemCode(items.first()) != 1) {
            const std::optional<QStringList> known = serverItem(row->key());
            if (!known)
                return -6;
            if (known->isEmpty() || known->at(0).normalized(QString::NormalizationForm_C) !=
                                        newName.normalized(QString::NormalizationForm_C))
                FV_LOG(QStringLiteral("The server did not take the new name of %1 moved to %2")
                           .arg(oldPath, newPath));
        }
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
                                   const QString &key, const QString &serverTime, qint64 *size_p)
{
    if (!CataloguePaths::checkName(name, QStringLiteral("Download")) ||
        !CataloguePaths::checkInside(path, syncFolderPath(), QStringLiteral("Download")))
        return false;
    CataloguePaths::makeFolder(CataloguePaths::deletingLastPathComponent(path));
    const QString url = hostWithScheme() + QStringLiteral("/%1?do=download&session=%2&key=%3")
                                               .arg(kEndpoint, config(QStringLiteral("kKeySESSTION")), key);
    // Into a part beside the file, which takes the file's place only once complete: a download
    // cut short never leaves a shorter or mixed file (which the next scan would send back up), and
    // a file being replaced stays whole until then.
    const QString part = CataloguePaths::downloadPartPath(path);
    QString digest;
    bool ok = DownloadFile::downloadFileFromURL(url, part, &digest, serverTimeToLocalTime(serverTime));
    if (ok && ::rename(QFile::encodeName(part).constData(), QFile::encodeName(path).constData()) != 0) {
        FV_LOG(
            QStringLiteral("Cannot replace %1: %2").arg(path, QString::fromLocal8Bit(std::strerror(errno))));
        ok = false;
    }
    if (!ok) {
        QFile::remove(part);
    } else {
        const qint64 size = rememberDownload(path);
        if (size_p)
            *size_p = size;
        if (md5_p && !digest.isEmpty())
            *md5_p = digest;
    }
    notifyUser(QStringLiteral("download_complete"), QStringLiteral("file"), name);
    Pace::sleep(1000);
    return ok;
}

namespace {
// A report comes within moments of the download; the bound is the machine's, not the program's pace.
constexpr qint64 kDownloadStampMs = 60000;
} // namespace

std::optional<DatabaseUtils::FileStamp> DatabaseUtils::stampOf(const QString &path)
{
    struct stat info;
    if (::stat(QFile::encodeName(path).constData(), &info) != 0 || !S_ISREG(info.st_mode))
        return std::nullopt;
    FileStamp stamp;
    stamp.inode = quint64(info.st_ino);
    stamp.size = qint64(info.st_size);
    stamp.modifiedNs = qint64(info.st_mtim.tv_sec) * 1000000000 + info.st_mtim.tv_nsec;
    stamp.changedNs = qint64(info.st_ctim.tv_sec) * 1000000000 + info.st_ctim.tv_nsec;
    return stamp;
}

qint64 DatabaseUtils::rememberDownload(const QString &path)
{
    std::optional<FileStamp> stamp = stampOf(path);
    std::lock_guard lock(m_stampLock);
    if (!m_stampClock.isValid())
        m_stampClock.start();
    const qint64 now = m_stampClock.elapsed();
    // Expired stamps go in one sweep whenever the table has doubled since the last.
    if (m_downloaded.size() >= 2 * std::max<qsizetype>(m_stampsKept, 512))
        sweepStamps(now);
    if (!stamp) {
        m_downloaded.remove(path);
        return -1;
    }
    stamp->at = now;
    m_downloaded.insert(path, *stamp);
    return stamp->size;
}

void DatabaseUtils::sweepStamps(qint64 now)
{
    m_downloaded.removeIf([now](const auto &entry) { return now - entry.value().at > kDownloadStampMs; });
    m_stampsKept = m_downloaded.size();
    if (m_downloaded.isEmpty())
        m_downloaded.squeeze(); // a first sync's thousands give their memory back
}

void DatabaseUtils::forgetOldDownloads()
{
    std::lock_guard lock(m_stampLock);
    if (m_stampClock.isValid())
        sweepStamps(m_stampClock.elapsed());
}

bool DatabaseUtils::isAsDownloaded(const QString &path)
{
    std::lock_guard lock(m_stampLock);
    const auto found = m_downloaded.constFind(path);
    if (found == m_downloaded.cend())
        return false;
    const FileStamp was = found.value();
    const std::optional<FileStamp> now = stampOf(path);
    if (m_stampClock.elapsed() - was.at <= kDownloadStampMs && now && now->inode == was.inode &&
        now->size == was.size && now->modifiedNs == was.modifiedNs && now->changedNs == was.changedNs)
        return true;
    m_downloaded.erase(found); // changed since, or too old to vouch for
    return false;
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
