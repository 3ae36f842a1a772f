#pragma once
// The catalogue's store file: one SQLite database ("Tarnwick_<user id>.storedata") with the tables
// Directory, File, Task and Infomation, WAL journal, file mode 0600.
//
// create() opens the file (making it when absent), checks that it is one of our stores and of a
// version we can read, and builds or completes the schema. A file that is not an SQLite database,
// is damaged, belongs to something else or comes from a newer version is reported as an error and
// left exactly as it was: nothing stored is ever overwritten to make room for a fresh store.
//
// The coordinator is shared by every context on the store (std::shared_ptr) and is thread-safe:
// it holds only the checked path; each ManagedObjectContext opens its own connection.

#include "util/FvError.h"

#include <QString>
#include <QtGlobal>
#include <memory>

struct sqlite3;

class PersistentStoreCoordinator final
{
public:
    // Errors of the store layer carry this domain; the SQLite result code, when there is one, is in
    // userInfo["SQLiteErrorCode"].
    static QString errorDomain() { return QStringLiteral("FerrovaneStoreErrorDomain"); }
    enum ErrorCode {
        OpenFailed = 1,   // the file could not be opened or created
        NotAStore = 2,    // not an SQLite database, damaged, or some other program's database
        NewerVersion = 3, // written by a newer version of this program
        SchemaFailed = 4, // the tables could not be built
        QueryFailed = 5,  // a statement failed (fetch or save)
    };
    static constexpr int kSchemaVersion = 1;
    // Reads go through a memory map of the store: every page read otherwise is a system call, dear
    // on virtual machines, and lookups slow down as the catalogue outgrows SQLite's page cache. Only
    // address space is reserved; a larger store is read normally beyond this size.
    static constexpr qint64 kMmapBytes = qint64(1) << 30;

    static std::shared_ptr<PersistentStoreCoordinator> create(const QString &path, FvError *error = nullptr);
    ~PersistentStoreCoordinator();
    PersistentStoreCoordinator(const PersistentStoreCoordinator &) = delete;
    PersistentStoreCoordinator &operator=(const PersistentStoreCoordinator &) = delete;

    QString path() const { return m_path; }

    // A new connection to the store, configured for a context (WAL, busy time-out). Null on failure.
    sqlite3 *openConnection(FvError *error) const;
    // Builds an error of this layer from a connection's last failure.
    static FvError makeError(int code, const QString &description, sqlite3 *db = nullptr, int sqliteCode = 0);

private:
    explicit PersistentStoreCoordinator(QString path);
    bool prepareStore(FvError *error);

    QString m_path;
};
