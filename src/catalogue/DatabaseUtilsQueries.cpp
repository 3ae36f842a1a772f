// DatabaseUtils: the catalogue's queries, and the contexts and saves the operations use.
#include "catalogue/CataloguePaths.h"
#include "catalogue/DatabaseUtils.h"
#include "protocol/UploadFile.h"
#include "util/AppServices.h"
#include "util/Log.h"

#include <QCoreApplication>
#include <QThread>

namespace {

const QString kKey = QStringLiteral("key");
const QString kPath = QStringLiteral("path");
const QString kPKey = QStringLiteral("pkey");

bool isMainThread()
{
    QCoreApplication *app = QCoreApplication::instance();
    return !app || QThread::currentThread() == app->thread();
}

template <class T>
std::shared_ptr<T> first(const DatabaseUtils::ContextPtr &context, const Predicate &predicate)
{
    return context ? context->fetchFirst<T>(predicate) : nullptr;
}

template <class T>
QList<std::shared_ptr<T>> all(const DatabaseUtils::ContextPtr &context, const Predicate &predicate,
                              const QList<SortDescriptor> &sort, const char *failure)
{
    if (!context)
        return {};
    FvError error;
    QList<std::shared_ptr<T>> rows = context->fetch<T>(predicate, sort, 0, &error);
    if (!error.isNull() && failure)
        FV_LOG(QString::fromLatin1(failure).arg(error.toString()));
    return rows;
}

// "%K BEGINSWITH[cd] %@" with the path followed by "/".
Predicate below(const QString &path)
{
    return Predicate::beginsWithCD(kPath, path + u'/');
}

} // namespace

void DatabaseUtils::onMainThread(const std::function<void()> &job)
{
    if (isMainThread())
        job();
    else
        QMetaObject::invokeMethod(QCoreApplication::instance(), job, Qt::BlockingQueuedConnection);
}

DatabaseUtils::ContextPtr DatabaseUtils::mainContext()
{
    AppServices *services = AppServices::shared();
    return services ? services->managedObjectContext() : nullptr;
}

DatabaseUtils::ContextPtr DatabaseUtils::ownContext()
{
    if (m_managedObjectContext && m_managedObjectContext->thread() == QThread::currentThread())
        return m_managedObjectContext;
    AppServices *services = AppServices::shared();
    if (!services)
        return nullptr;
    return isMainThread() ? services->managedObjectContext() : services->getManagedObjectContextByThread();
}

bool DatabaseUtils::saveContext(const ContextPtr &context, const QString &format)
{
    if (!context)
        return false;
    FvError error;
    if (context->save(&error))
        return true;
    // The edits stay in memory; a later save may still write them.
    FV_LOG(QString(format).arg(error.toString()));
    return false;
}

void DatabaseUtils::saveMainContext()
{
    onMainThread([] {
        if (AppServices *services = AppServices::shared())
            services->saveData();
    });
}

QString DatabaseUtils::syncFolderPath(const ContextPtr &context)
{
    QString folder = m_path;
    AppServices *services = AppServices::shared();
    if (folder.isEmpty() && services)
        folder = services->getConfigValueByKey(QStringLiteral("kKeyPath")).toString();
    if (folder.isEmpty()) {
        const InfomationPtr info = getInfomationWithManagedObjectContext(context ? context : ownContext());
        if (info)
            folder = info->path();
    }
    while (folder.size() > 1 && folder.endsWith(u'/'))
        folder.chop(1);
    return folder;
}

// --- Lookups by key and path ---

DirectoryPtr DatabaseUtils::getDirectoryWithKey(const QString &key)
{
    DirectoryPtr row;
    onMainThread([&] { row = getDirectoryWithKey(key, mainContext()); });
    return row;
}

DirectoryPtr DatabaseUtils::getDirectoryWithKey(const QString &key, const ContextPtr &context)
{
    return first<Directory>(context, Predicate::like(kKey, key));
}

FilePtr DatabaseUtils::getFileWithKey(const QString &key)
{
    FilePtr row;
    onMainThread([&] { row = getFileWithKey(key, mainContext()); });
    return row;
}

FilePtr DatabaseUtils::getFileWithKey(const QString &key, const ContextPtr &context)
{
    return first<File>(context, Predicate::like(kKey, key));
}

QHash<QString, FilePtr> DatabaseUtils::getFilesWithKeys(const QStringList &keys, const ContextPtr &context)
{
    // A fixed number of keys per query (the last group padded with its last key): one statement
    // to prepare, and no limit on the terms of a query whatever the number of keys.
    constexpr qsizetype kPerQuery = 16;
    QHash<QString, FilePtr> found;
    if (!context)
        return found;
    QStringList plain;
    for (const QString &key : keys) {
        if (!key.contains(u'*') && !key.contains(u'?') && !found.contains(key)) {
            found.insert(key, nullptr);
            plain.append(key);
        }
    }
    for (qsizetype at = 0; at < plain.size(); at += kPerQuery) {
        Predicate anyOf = Predicate::like(kKey, plain.at(at));
        for (qsizetype i = 1; i < kPerQuery; ++i)
            anyOf = anyOf || Predicate::like(kKey, plain.at(qMin(at + i, plain.size() - 1)));
        // Rows come in the order getFileWithKey takes its first from: the first of a key wins.
        for (const FilePtr &row : context->fetch<File>(anyOf)) {
            FilePtr &slot = found[row->key()];
            if (!slot)
                slot = row;
        }
    }
    return found;
}

DirectoryPtr DatabaseUtils::getDirectoryWithPath(const QString &path)
{
    DirectoryPtr row;
    onMainThread([&] { row = getDirectoryWithPath(path, mainContext()); });
    return row;
}

DirectoryPtr DatabaseUtils::getDirectoryWithPath(const QString &path, const ContextPtr &context)
{
    return first<Directory>(context, Predicate::like(kPath, path));
}

FilePtr DatabaseUtils::getFileWithPath(const QString &path)
{
    FilePtr row;
    onMainThread([&] { row = getFileWithPath(path, mainContext()); });
    return row;
}

FilePtr DatabaseUtils::getFileWithPath(const QString &path, const ContextPtr &context)
{
    return first<File>(context, Predicate::like(kPath, path));
}

FilePtr DatabaseUtils::getFileWithKey(const QString &key, const QString &path)
{
    FilePtr row;
    onMainThread([&] { row = getFileWithKey(key, path, mainContext()); });
    return row;
}

FilePtr DatabaseUtils::getFileWithKey(const QString &key, const QString &path, const ContextPtr &context)
{
    return first<File>(context, Predicate::like(kKey, key) && Predicate::like(kPath, path));
}

// --- A local item at a new place ---

DirectoryPtr DatabaseUtils::getDirectoryWithNewPath(const QString &path, const ContextPtr &context)
{
    const QDateTime date = CataloguePaths::modificationDate(path);
    if (!date.isValid())
        return nullptr;
    return first<Directory>(
        context, Predicate::like(QStringLiteral("time"), localTimeToServerTime(date)) &&
                     Predicate::like(QStringLiteral("name"), CataloguePaths::lastPathComponent(path)));
}

FilePtr DatabaseUtils::getFileWithNewPath(const QString &path, const ContextPtr &context)
{
    const QDateTime date = CataloguePaths::modificationDate(path);
    const QString time = date.isValid() ? localTimeToServerTime(date) : QString();
    // A file that cannot be read has no content to match (a null pattern matches nothing).
    const QString md5 = UploadFile::getMD5OfFileAtPath(path);
    const Predicate sameTimeAndName =
        Predicate::like(QStringLiteral("time"), time) &&
        Predicate::like(QStringLiteral("name"), CataloguePaths::lastPathComponent(path));
    return first<File>(context, sameTimeAndName || Predicate::like(QStringLiteral("md5"), md5));
}

// --- Subtrees, lists and tasks ---

QList<DirectoryPtr> DatabaseUtils::getDirectoryContainPath(const QString &path, const ContextPtr &context)
{
    return all<Directory>(context, below(path), {}, "Get directory error: %1");
}

QList<FilePtr> DatabaseUtils::getFileContainPath(const QString &path, const ContextPtr &context)
{
    return all<File>(context, below(path), {}, "Get file error: %1");
}

QList<DirectoryPtr> DatabaseUtils::getAllDirectoryWithManagedObjectContext(const ContextPtr &context)
{
    return all<Directory>(context, Predicate(), {SortDescriptor::sortDescriptorWithKey(kKey, true)}, nullptr);
}

QList<FilePtr> DatabaseUtils::getAllFileWithPKey(const QString &pkey, const ContextPtr &context)
{
    return all<File>(context, Predicate::like(kPKey, pkey), {}, nullptr);
}

TaskPtr DatabaseUtils::getTaskWithPath(const QString &path, const ContextPtr &context)
{
    return first<Task>(context, Predicate::equalTo(kPath, path));
}

QList<TaskPtr> DatabaseUtils::getAllTaskWithPath(const QString &path, const ContextPtr &context)
{
    return all<Task>(context, below(path), {}, nullptr);
}
