#pragma once
// A context on the catalogue store: one SQLite connection owned by the thread that created it.
//
// Objects fetched or inserted through a context are edited in memory; save() writes every pending
// insert, edit and delete in one transaction. A failed save rolls the transaction back but keeps the
// edits in memory, so a later save can still write them. Each row has at most one object per
// context (identity map), so two fetches of one row give the same object.
//
// Fetches see pending changes: an inserted, unsaved object that matches is returned, a deleted one
// is not, and an edited one is matched on its edited values. Results are ordered by the sort
// descriptors (rows in store order, then inserted objects, when there are none).
//
// Threading: use a context only on the thread that created it (the main context on the main thread,
// a worker's context on that worker). Use from another thread is reported on the diagnostic log.
// Ownership: contexts are shared (std::shared_ptr); objects keep a plain back pointer that the
// context clears when it goes away.

#include "catalogue/Predicate.h"
#include "catalogue/Records.h"
#include "util/FvError.h"

#include <QList>
#include <QString>
#include <functional>
#include <memory>

class PersistentStoreCoordinator;
class QThread;

class ManagedObjectContext final
{
public:
    // Opens a connection for the calling thread. Null (and `error` set) when the store cannot be opened.
    static std::shared_ptr<ManagedObjectContext>
    create(const std::shared_ptr<PersistentStoreCoordinator> &coordinator, FvError *error = nullptr);
    ~ManagedObjectContext();
    ManagedObjectContext(const ManagedObjectContext &) = delete;
    ManagedObjectContext &operator=(const ManagedObjectContext &) = delete;

    std::shared_ptr<PersistentStoreCoordinator> persistentStoreCoordinator() const;
    QThread *thread() const;

    // A new object of the named entity, inserted (unsaved) in this context; null for an unknown name.
    ManagedObjectPtr insertNewObjectForEntityForName(const QString &entityName);
    template <class T> std::shared_ptr<T> insertNewObject()
    {
        return std::static_pointer_cast<T>(insertNewObjectForEntityForName(T::entityName()));
    }

    // Marks the object deleted (an unsaved insert is simply dropped). Objects of other contexts are
    // ignored with a diagnostic line.
    void deleteObject(const ManagedObjectPtr &object);

    // Rows and pending objects of the request's entity that match. On failure (unknown entity or
    // attribute, SQLite error) an empty list, with `error` set when given.
    QList<ManagedObjectPtr> executeFetchRequest(const FetchRequest &request, FvError *error = nullptr);

    template <class T>
    QList<std::shared_ptr<T>> fetch(const Predicate &predicate = {}, const QList<SortDescriptor> &sort = {},
                                    int limit = 0, FvError *error = nullptr)
    {
        FetchRequest request{T::entityName(), predicate, sort, limit};
        QList<std::shared_ptr<T>> result;
        for (const ManagedObjectPtr &object : executeFetchRequest(request, error))
            result.append(std::static_pointer_cast<T>(object));
        return result;
    }
    // The first match or null.
    template <class T>
    std::shared_ptr<T> fetchFirst(const Predicate &predicate, const QList<SortDescriptor> &sort = {},
                                  FvError *error = nullptr)
    {
        const QList<std::shared_ptr<T>> found = fetch<T>(predicate, sort, 1, error);
        return found.isEmpty() ? nullptr : found.first();
    }

    // Number of matching rows and pending objects.
    int countForFetchRequest(const FetchRequest &request, FvError *error = nullptr);

    // Writes all pending changes in one transaction. On failure returns false, sets `error`, and
    // keeps every pending change in memory.
    bool save(FvError *error = nullptr);
    bool hasChanges() const;
    // Drops pending changes: inserted objects are detached, edited and deleted ones reloaded.
    void rollback();
    // For a pause in the work: lets go of the store file's map (the pages read through it count as
    // this process's memory) and of SQLite's page cache. The next statement maps and reads again
    // what it needs; entries of objects no one holds any more are dropped. Pending changes and
    // live objects stay.
    void releaseMemory();

    // Replaces every occurrence of `from` with `to` in the path of each object of the entity whose
    // path matches `predicate` (rows in the store and objects here alike) and saves every pending
    // change with it, in one transaction: what fetching those objects, editing each path and saving
    // would do, in one statement for any number of rows. On failure the rewrite is left pending in
    // memory as those edits would be, and false is returned with `error` set. An empty `from`
    // replaces nothing.
    bool replaceInPaths(const QString &entityName, const Predicate &predicate, const QString &from,
                        const QString &to, FvError *error = nullptr);

private:
    friend class ManagedObject;
    struct Private;
    ManagedObjectContext();
    // `index`: the attribute about to change (saves write only the changed columns).
    void objectWillChange(ManagedObject *object, int index);
    // save()'s transaction, with `first` run in it before the pending changes are written.
    bool saveWith(const std::function<bool(FvError *)> &first, FvError *error);
    std::unique_ptr<Private> d;
};
