// DatabaseUtils: changes that come from the server, applied to the catalogue and the sync folder.
//
// Every name and path taken from an item record is checked before the disk is touched: anything
// that would leave the sync folder is skipped with a diagnostic line (CataloguePaths).
#include "catalogue/CataloguePaths.h"
#include "catalogue/DatabaseUtils.h"
#include "util/AppServices.h"
#include "util/Log.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QThread>

namespace {

bool isMainThread()
{
    QCoreApplication *app = QCoreApplication::instance();
    return !app || QThread::currentThread() == app->thread();
}

QString field(const QStringList &record, int index)
{
    return record.value(index);
}

std::optional<qint64> integerValue(const QString &text)
{
    if (text.isNull())
        return std::nullopt;
    bool ok = false;
    const qint64 value = text.trimmed().toLongLong(&ok);
    return ok ? value : 0;
}

qint64 sizeOf(const CatalogueItem &row, bool folder)
{
    return folder ? -1 : row.size().toLongLong();
}

// How diagnostics name an item.
QString itemNoun(bool folder)
{
    return folder ? QStringLiteral("Folder") : QStringLiteral("File");
}

// The fields of an INFO answer that every item row keeps.
void applyInfo(CatalogueItem &row, const QStringList &info)
{
    row.setTime(info.value(2));
    row.setMemo(integerValue(info.value(4)));
    row.setPriv(info.value(5));
    row.setTag(info.value(6));
    row.setDesc(info.value(7));
    row.setOwner(info.value(8));
}

} // namespace

// --- Insert ---

bool DatabaseUtils::isInsertable(const QStringList &record, bool folder, const ContextPtr &context)
{
    if (record.size() < 6) {
        FV_LOG(QStringLiteral("%1 record with %2 field(s) skipped").arg(itemNoun(folder)).arg(record.size()));
        return false;
    }
    const QString path = field(record, ItemPath);
    return CataloguePaths::checkName(field(record, ItemName), itemNoun(folder)) &&
           CataloguePaths::checkName(CataloguePaths::lastPathComponent(path), itemNoun(folder)) &&
           CataloguePaths::checkInside(path, syncFolderPath(context), itemNoun(folder));
}

bool DatabaseUtils::insertDirectoryRow(const QStringList &record, const ContextPtr &context, bool create)
{
    if (!context || !isInsertable(record, true, context))
        return true;
    const QString path = field(record, ItemPath);
    const QString key = field(record, ItemKey);
    if (getDirectoryWithKey(key, context))
        return true; // one row per key, whatever its path

    const DirectoryPtr row = context->insertNewObject<Directory>();
    row->setName(field(record, ItemName));
    row->setSize(QStringLiteral("-1"));
    row->setMd5(QStringLiteral(""));
    row->setKey(key);
    row->setPkey(field(record, ItemPKey));
    row->setPath(path);

    FvError error;
    const std::optional<QStringList> info = getInfomationOfItemWithKey(key, &error);
    if (!info && !error.isNull()) {
        context->deleteObject(row); // the unsaved row goes with the failed operation
        return false;
    }
    if (info && !info->isEmpty())
        applyInfo(*row, *info);
    if (create) {
        if (!QDir().mkpath(path))
            FV_LOG(QStringLiteral("Cannot create path: %1").arg(path));
        if (CataloguePaths::setModificationDate(path, serverTimeToLocalTime(row->time())))
            FV_LOG(QStringLiteral("Set attribute for folder: %1").arg(path));
    }
    saveContext(context, QStringLiteral("%1"));
    return true;
}

bool DatabaseUtils::insertDir(const QStringList &record)
{
    // Off the main thread the calling thread's own context stands in for the main one.
    if (!isMainThread())
        return insertDir(record, ownContext());
    return insertDir(record, mainContext());
}

bool DatabaseUtils::insertDir(const QStringList &record, const ContextPtr &context)
{
    return insertDirectoryRow(record, context, true);
}

bool DatabaseUtils::insertDirNoCreate(const QStringList &record, const ContextPtr &context)
{
    return insertDirectoryRow(record, context, false);
}

bool DatabaseUtils::insertFile(const QStringList &record)
{
    if (!isMainThread())
        return insertFile(record, ownContext());
    return insertFile(record, mainContext());
}

bool DatabaseUtils::insertFile(const QStringList &record, const ContextPtr &context,
                               std::optional<bool> uploadDone)
{
    if (!context)
        return true;
    const QString key = field(record, ItemKey);
    if (!isInsertable(record, false, context)) {
        // Nothing is recorded; a row that is there still takes the upload's state.
        if (const FilePtr row = uploadDone ? getFileWithKey(key, context) : nullptr) {
            row->setUploadDone(*uploadDone);
            saveContext(context, QStringLiteral("%1"));
        }
        return true;
    }
    const QString path = field(record, ItemPath);
    // Made unconditionally; where the file already is, this does nothing.
    QDir().mkpath(path);

    FilePtr row = getFileWithKey(key, context);
    const bool isNew = !row;
    if (isNew)
        row = context->insertNewObject<File>();
    row->setName(field(record, ItemName));
    row->setSize(field(record, ItemSize));
    row->setMd5(field(record, ItemMd5));
    row->setKey(key);
    row->setPkey(field(record, ItemPKey));
    row->setPath(path);

    FvError error;
    const std::optional<QStringList> info = getInfomationOfItemWithKey(key, &error);
    if (!info && !error.isNull()) {
        if (isNew)
            context->deleteObject(row);
        return false;
    }
    if (info && !info->isEmpty()) {
        if (CataloguePaths::itemExists(path) &&
            !CataloguePaths::setModificationDate(path, serverTimeToLocalTime(info->value(2))))
            FV_LOG(QStringLiteral("Set attribute for file: %1").arg(path));
        applyInfo(*row, *info);
        if (!info->value(3).isNull())
            row->setSize(info->value(3));
    }
    if (uploadDone)
        row->setUploadDone(*uploadDone);
    saveContext(context, QStringLiteral("%1"));
    return true;
}

// --- Delete ---

void DatabaseUtils::removeItem(const QString &key, bool folder, const ContextPtr &context, bool toTrash)
{
    if (!context)
        return;
    const std::shared_ptr<CatalogueItem> row = itemWithKey(key, folder, context);
    if (!row)
        return;
    const QString path = row->path();
    const QString root = syncFolderPath(context);
    if (!CataloguePaths::checkInside(path, root, itemNoun(folder)))
        return;

    if (!toTrash) {
        const bool removed = folder ? QDir(path).removeRecursively() : QFile::remove(path);
        if (!removed && CataloguePaths::itemExists(path))
            FV_LOG(QStringLiteral("Cannot remove %1").arg(path));
        context->deleteObject(row);
        saveMainContext();
        return;
    }

    if (CataloguePaths::itemExists(path)) {
        QString inTrash;
        if (!QFile::moveToTrash(path, &inTrash))
            FV_LOG(QStringLiteral("Cannot move %1 to the trash").arg(path));
    }
    postLogFromServer(
        LogObject::createLogObjectWithName(row->name(), localizedString(QStringLiteral("work_delete")),
                                           sizeOf(*row, folder), CataloguePaths::relativePath(path, root),
                                           folder, serverTimeToLocalTimeStr(row->time()), QString(), true));
    context->deleteObject(row);
    saveContext(context, QStringLiteral("%1"));
    if (folder) {
        deleteFileContainsPath(path, context);
        deleteDirectoryContainsPath(path, context);
    }
}

void DatabaseUtils::deleteDirectory(const QString &key)
{
    onMainThread([&] { removeItem(key, true, mainContext(), false); });
}

void DatabaseUtils::deleteDirectory(const QString &key, const ContextPtr &context)
{
    removeItem(key, true, context, true);
}

void DatabaseUtils::deleteFile(const QString &key)
{
    onMainThread([&] { removeItem(key, false, mainContext(), false); });
}

void DatabaseUtils::deleteFile(const QString &key, const ContextPtr &context)
{
    removeItem(key, false, context, true);
}

// --- Rename and move ---

std::shared_ptr<CatalogueItem> DatabaseUtils::itemWithKey(const QString &key, bool folder,
                                                          const ContextPtr &context)
{
    if (folder)
        return getDirectoryWithKey(key, context);
    return getFileWithKey(key, context);
}

std::shared_ptr<CatalogueItem> DatabaseUtils::itemForRecord(const QStringList &record, int lastField,
                                                            const QString &action, bool folder,
                                                            const ContextPtr &context)
{
    if (!context)
        return nullptr;
    if (record.size() <= lastField) {
        FV_LOG(QStringLiteral("%1 record with %2 field(s) skipped").arg(action).arg(record.size()));
        return nullptr;
    }
    if (!CataloguePaths::checkName(field(record, ItemName), itemNoun(folder)))
        return nullptr;
    return itemWithKey(field(record, ItemKey), folder, context);
}

void DatabaseUtils::relocateItem(const std::shared_ptr<CatalogueItem> &row, bool folder, const Relocation &to,
                                 const QString &root, const ContextPtr &context)
{
    const QString oldPath = row->path();
    const QString oldName = row->name();
    const QString oldParentKey = row->pkey();
    if (!CataloguePaths::checkInside(oldPath, root, itemNoun(folder)) ||
        !CataloguePaths::checkInside(to.path, root, itemNoun(folder)))
        return;

    row->setName(to.name);
    row->setPath(to.path);
    if (to.parentKey)
        row->setPkey(*to.parentKey);
    saveContext(context, QStringLiteral("%1"));
    QString error;
    const bool moved = CataloguePaths::moveItem(oldPath, to.path, &error);
    if (!moved) {
        FV_LOG(to.failFormat.arg(error));
        row->setName(oldName);
        row->setPath(oldPath);
        if (to.parentKey)
            row->setPkey(oldParentKey);
        saveContext(context, QStringLiteral("%1"));
    } else if (folder) {
        changePathOfDirectory(to.path, oldPath, context);
        changePathOfFile(to.path, oldPath, context);
    }
    postLogFromServer(LogObject::createLogObjectWithName(
        to.name, localizedString(to.workKey), sizeOf(*row, folder),
        CataloguePaths::relativePath(moved ? to.path : oldPath, root), folder,
        localTimeFromDate(QDateTime::currentDateTime()), to.detail, moved));
}

void DatabaseUtils::renameItem(const QStringList &record, bool folder, const ContextPtr &context)
{
    const std::shared_ptr<CatalogueItem> row =
        itemForRecord(record, ItemKey, QStringLiteral("Rename"), folder, context);
    if (!row)
        return;
    const QString newName = field(record, ItemName);
    const QString parent = CataloguePaths::deletingLastPathComponent(row->path());
    relocateItem(
        row, folder,
        {newName, (parent == u"/" ? QString() : parent) + u'/' + newName, std::nullopt,
         folder ? QStringLiteral("Rename directory fail: %1") : QStringLiteral("Rename file fail: %1"),
         QStringLiteral("work_rename"), QStringLiteral("%1 => %2").arg(row->name(), newName)},
        syncFolderPath(context), context);
}

void DatabaseUtils::renameDirectory(const QStringList &record)
{
    onMainThread([&] { renameItem(record, true, mainContext()); });
}

void DatabaseUtils::renameDirectory(const QStringList &record, const ContextPtr &context)
{
    renameItem(record, true, context);
}

void DatabaseUtils::renameFile(const QStringList &record)
{
    onMainThread([&] { renameItem(record, false, mainContext()); });
}

void DatabaseUtils::renameFile(const QStringList &record, const ContextPtr &context)
{
    renameItem(record, false, context);
}

void DatabaseUtils::moveItem(const QStringList &record, bool folder, const ContextPtr &context)
{
    const std::shared_ptr<CatalogueItem> row =
        itemForRecord(record, ItemPKey, QStringLiteral("Move"), folder, context);
    if (!row)
        return;
    const QString root = syncFolderPath(context);
    const QString newParentKey = field(record, ItemPKey);
    QString parentPath;
    if (const DirectoryPtr parent = getDirectoryWithKey(newParentKey, context)) {
        parentPath = parent->path();
    } else {
        const InfomationPtr account = getInfomationWithManagedObjectContext(context);
        parentPath = account && !account->path().isEmpty() ? account->path() : root;
    }
    const QString newPath = parentPath + u'/' + field(record, ItemName);
    relocateItem(row, folder,
                 {field(record, ItemName), newPath, newParentKey,
                  folder ? QStringLiteral("Rename directory fail: %1") : QStringLiteral("Move file fail: %1"),
                  QStringLiteral("work_move"),
                  QStringLiteral("%1 => %2")
                      .arg(CataloguePaths::relativePath(row->path(), root),
                           CataloguePaths::relativePath(newPath, root))},
                 root, context);
}

void DatabaseUtils::moveDirectory(const QStringList &record, const ContextPtr &context)
{
    moveItem(record, true, context);
}

void DatabaseUtils::moveFile(const QStringList &record, const ContextPtr &context)
{
    moveItem(record, false, context);
}

// --- Subtrees ---

void DatabaseUtils::changePathOfItems(const QString &newPath, const QString &oldPath, bool folders,
                                      const ContextPtr &context)
{
    if (!context || oldPath.isEmpty())
        return;
    const QString root = syncFolderPath(context);
    if (!CataloguePaths::checkInside(newPath, root, QStringLiteral("New path")))
        return;
    // Every occurrence is replaced, not only the leading one, in every row below the old path;
    // one statement for the whole subtree, saved with the context's other changes.
    FvError error;
    if (!context->replaceInPaths(folders ? Directory::entityName() : File::entityName(),
                                 Predicate::beginsWithCD(QStringLiteral("path"), oldPath + u'/'), oldPath,
                                 newPath, &error))
        FV_LOG(QStringLiteral("Save data error: %1").arg(error.toString()));
}

void DatabaseUtils::changePathOfDirectory(const QString &newPath, const QString &oldPath,
                                          const ContextPtr &context)
{
    changePathOfItems(newPath, oldPath, true, context);
}

void DatabaseUtils::changePathOfFile(const QString &newPath, const QString &oldPath,
                                     const ContextPtr &context)
{
    changePathOfItems(newPath, oldPath, false, context);
}

void DatabaseUtils::deleteDirectoryContainsPath(const QString &path, const ContextPtr &context)
{
    if (!context)
        return;
    // The lookup ignores case and accents; here that would take a look-alike folder's rows
    // ("Docs" beside "docs", "cafe" beside "café"), which on this system are other items.
    const QString prefix = path + u'/';
    for (const DirectoryPtr &row : getDirectoryContainPath(path, context)) {
        if (row->path().startsWith(prefix))
            context->deleteObject(row);
    }
    saveContext(context, QStringLiteral("Save data error: %1"));
}

void DatabaseUtils::deleteFileContainsPath(const QString &path, const ContextPtr &context)
{
    if (!context)
        return;
    const QString prefix = path + u'/';
    for (const FilePtr &row : getFileContainPath(path, context)) {
        if (row->path().startsWith(prefix)) // as above: look-alike folders keep their rows
            context->deleteObject(row);
    }
    saveContext(context, QStringLiteral("Save data error: %1"));
}

void DatabaseUtils::deleteItemsWithPKey(const QString &pkey, bool folders, const ContextPtr &context)
{
    if (!context)
        return;
    const Predicate byParent =
        Predicate::like(QStringLiteral("pkey"), pkey) || Predicate::like(QStringLiteral("pkey"), pkey);
    QStringList paths;
    if (folders) {
        for (const DirectoryPtr &row : context->fetch<Directory>(byParent))
            paths.append(row->path());
    } else {
        for (const FilePtr &row : context->fetch<File>(byParent))
            paths.append(row->path());
    }
    // Tasks go to the catalogue object's own context where this thread has it.
    const ContextPtr taskContext =
        m_managedObjectContext && m_managedObjectContext->thread() == QThread::currentThread()
            ? m_managedObjectContext
            : context;
    for (const QString &path : std::as_const(paths)) {
        addTaskWithDictionary({{QStringLiteral("kKeyTaskType"), 2},
                               {QStringLiteral("kKeyTaskFolder"), true},
                               {QStringLiteral("kKeyTaskPath"), path},
                               {QStringLiteral("kKeyTaskName"), CataloguePaths::lastPathComponent(path)},
                               {QStringLiteral("kKeyTaskTime"), QDateTime::currentDateTime()}},
                              taskContext);
    }
}

void DatabaseUtils::deleteAllDirectoryWithPKey(const QString &pkey, const ContextPtr &context)
{
    deleteItemsWithPKey(pkey, true, context);
}

void DatabaseUtils::deleteAllFileWithPKey(const QString &pkey, const ContextPtr &context)
{
    deleteItemsWithPKey(pkey, false, context);
}

// --- Folder times and clearing ---

void DatabaseUtils::setTimeModifierForDirectoryAtPath(const QString &path, const QDateTime &time)
{
    const QString serverTime = localTimeToServerTime(time);
    if (serverTime.isEmpty())
        return;
    const QString root = syncFolderPath();
    if (path != root && !CataloguePaths::checkInside(path, root, QStringLiteral("Folder")))
        return;
    if (CataloguePaths::itemExists(path) &&
        CataloguePaths::setModificationDate(path, serverTimeToLocalTime(serverTime)))
        FV_LOG(QStringLiteral("Set attribute for folder: %1").arg(path));
    const ContextPtr context = ownContext();
    if (const DirectoryPtr row = getDirectoryWithPath(path, context)) {
        row->setTime(serverTime);
        saveContext(context, QStringLiteral("%1"));
    }
}

void DatabaseUtils::setTimeModifierForDirectoryAtPath(const QString &path)
{
    setTimeModifierForDirectoryAtPath(path, CataloguePaths::modificationDate(path));
}

void DatabaseUtils::deleteAllObjectOfEntity(const QString &entityName)
{
    onMainThread([&] {
        const ContextPtr context = mainContext();
        if (!context)
            return;
        FvError error;
        const QList<ManagedObjectPtr> rows =
            context->executeFetchRequest(FetchRequest::fetchRequestWithEntityName(entityName), &error);
        for (const ManagedObjectPtr &row : rows)
            context->deleteObject(row);
        if (error.isNull() && context->save(&error))
            return;
        FV_LOG(QStringLiteral("Error deleting %1 - error:%2").arg(entityName, error.toString()));
    });
}
