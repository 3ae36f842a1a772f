// DatabaseUtils: admission of local changes as tasks, and the hand-over of task runs to the worker.
#include "catalogue/DatabaseUtils.h"
#include "util/AppServices.h"
#include "util/Log.h"
#include "util/NotificationCenter.h"

#include <QCoreApplication>
#include <QDebug>
#include <QThread>
#include <algorithm>

namespace {

std::mutex g_localizerLock;
std::function<QString(const QString &)> g_localizer;

QString describe(const QVariantMap &dictionary)
{
    QString text;
    QDebug(&text).noquote() << dictionary;
    return text;
}

} // namespace

TaskPtr DatabaseUtils::addTaskWithDictionary(const QVariantMap &dictionary, const ContextPtr &context)
{
    if (!context)
        return nullptr;
    QVariantMap task = dictionary;
    const QString path = task.value(QStringLiteral("kKeyTaskPath")).toString();
    qint64 type = task.value(QStringLiteral("kKeyTaskType")).toLongLong();
    const bool folder = task.value(QStringLiteral("kKeyTaskFolder")).toBool();

    if (type == 1 || type == 5) {
        std::shared_ptr<CatalogueItem> row =
            folder ? std::shared_ptr<CatalogueItem>(getDirectoryWithPath(path, context))
                   : std::shared_ptr<CatalogueItem>(getFileWithPath(path, context));
        TaskPtr pending;
        if (!row) {
            // A rename or move away from this path carries the item that was here, not one made
            // here since: it does not stand for this change (a file moved away and a new one made
            // under its name, reported while the move was being sent).
            for (const TaskPtr &candidate :
                 context->fetch<Task>(Predicate::equalTo(QStringLiteral("path"), path))) {
                const qint64 kind = candidate->taskType().value_or(0);
                // Nor does an upload already under way: what it sends may predate this change (a
                // file written again right after its creation was reported, while its PUT went).
                const bool underWay =
                    !folder && (kind == 1 || kind == 5) && candidate->objectID() == m_taskUnderWay;
                if (!candidate->isDeleted() && kind != 3 && kind != 4 && !underWay) {
                    pending = candidate;
                    break;
                }
            }
            if (pending && pending->taskType() == type)
                return nullptr; // already queued
        }
        // A known folder that a waiting rename or move takes away: this is a new one made under
        // its name (taken for the known one, it would never be sent).
        if (folder && row) {
            const QList<TaskPtr> leaving =
                context->fetch<Task>(Predicate::equalTo(QStringLiteral("path"), path));
            const auto waiting = [&](auto &&which) {
                return std::any_of(leaving.cbegin(), leaving.cend(), which);
            };
            if (waiting([](const TaskPtr &other) {
                    const qint64 kind = other->taskType().value_or(0);
                    return !other->isDeleted() && (kind == 3 || kind == 4) && !other->newPath().isEmpty();
                })) {
                if (waiting(
                        [](const TaskPtr &other) { return !other->isDeleted() && other->taskType() == 1; }))
                    return nullptr; // already queued
                row = nullptr;
            }
        }
        if (row || pending) {
            if (folder || pending)
                return nullptr; // a known folder is never queued again; an earlier task stands
            switch (checkFileIsModifierWithPath(path, row->time(), row->md5())) {
            case Unchanged:
                // Dates are kept to the second: written again in the second of its last transfer,
                // a file is told changed by its contents (else the change would be lost).
                if (!fileDiffersFromRecord(path, row->md5(), row->size())) {
                    // Contents whose upload never finished (cut short with the engine's end) go
                    // again, unless a task for them is still waiting or under way.
                    const FilePtr file = std::static_pointer_cast<File>(row);
                    if (file->uploadDone().value_or(true) || getTaskWithPath(path, context))
                        return nullptr;
                }
                type = 5;
                break;
            case ChangedLocally:
                type = 5;
                break;
            case OlderThanServer:
                // Dated before the copy recorded: a copy the server has newer, unless the contents
                // changed (an older file renamed over it or restored with its date), which goes.
                type = fileDiffersFromRecord(path, row->md5(), row->size()) ? 5 : 6;
                break;
            case Missing:
                type = 2;
                break;
            default:
                break;
            }
            task.insert(QStringLiteral("kKeyTaskType"), type);
        }
    } else if (type == 3) {
        getTaskWithPath(path, context); // looked up, not used
    }

    const TaskPtr row = context->insertNewObject<Task>();
    FV_LOG(describe(task));
    row->setTaskType(type);
    row->setPath(path);
    row->setNewPath(task.value(QStringLiteral("kKeyTaskNewPath")).toString());
    row->setName(task.value(QStringLiteral("kKeyTaskName")).toString());
    row->setTime(task.value(QStringLiteral("kKeyTaskTime")).toDateTime());
    row->setFolder(folder);
    saveContext(context, QStringLiteral("%1"));
    checkAndRunTask();
    return row;
}

void DatabaseUtils::checkAndRunTask()
{
    const std::shared_ptr<DatabaseUtils> self = weak_from_this().lock();
    if (!self || !isAlive())
        return;
    QThread *thread = m_syncThread;
    if (!thread)
        return;
    QObject *runner = nullptr;
    {
        std::lock_guard lock(m_runnerLock);
        if (!m_runner || m_runner->thread() != thread) {
            if (m_runner)
                m_runner->deleteLater();
            // A plain receiver living on the worker: queued calls to it run on that thread.
            auto *receiver = new QObject;
            receiver->moveToThread(thread);
            QObject::connect(thread, &QThread::finished, receiver, &QObject::deleteLater);
            m_runner = receiver;
        }
        runner = m_runner;
    }
    QMetaObject::invokeMethod(
        runner, [self] { self->doTask(); }, Qt::QueuedConnection);
}

void DatabaseUtils::checkTask()
{
    checkAndRunTask();
}

void DatabaseUtils::statusBarAnimation()
{
    if (QCoreApplication *app = QCoreApplication::instance())
        QMetaObject::invokeMethod(
            app,
            [] {
                if (AppServices *services = AppServices::shared())
                    services->startStatusBarAnimation();
            },
            Qt::QueuedConnection);
}

void DatabaseUtils::stopBarAnimation()
{
    if (QCoreApplication *app = QCoreApplication::instance())
        QMetaObject::invokeMethod(
            app,
            [] {
                if (AppServices *services = AppServices::shared())
                    services->stopStatusBarAnimation();
            },
            Qt::QueuedConnection);
}

void DatabaseUtils::postLogFromSync(const LogObject &log)
{
    NotificationCenter::defaultCenter()->postNotificationName(
        QStringLiteral("kKeyLogNotification"), false, {{QStringLiteral("log"), QVariant::fromValue(log)}});
}

void DatabaseUtils::postLogFromServer(const LogObject &log)
{
    NotificationCenter::defaultCenter()->postNotificationName(
        QStringLiteral("kKeyLogNotification"), true, {{QStringLiteral("log"), QVariant::fromValue(log)}});
}

void DatabaseUtils::setLocalizer(const std::function<QString(const QString &)> &lookup)
{
    std::lock_guard lock(g_localizerLock);
    g_localizer = lookup;
}

QString DatabaseUtils::localizedString(const QString &key)
{
    std::function<QString(const QString &)> lookup;
    {
        std::lock_guard lock(g_localizerLock);
        lookup = g_localizer;
    }
    return lookup ? lookup(key) : key;
}
