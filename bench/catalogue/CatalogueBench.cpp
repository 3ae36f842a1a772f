// Catalogue costs at 10,000 and 100,000 files, each beside raw SQLite doing the same work on the
// catalogue's own store file in the same run:
// - lookups by path and by key through DatabaseUtils, against a prepared point lookup that reads
//   every column of the row, on a connection with default settings and on one with memory-mapped I/O;
// - 10,000-row subtree rewrites (changePathOfFile, changePathOfDirectory), against one UPDATE that
//   rewrites the path and its folded form over the same indexes;
// - insertFile with its save (INFO answered in-process) and task admission.
// Prints the figures, then one "ROW" line per measure for bench/run's table:
//   ROW <tab> measure <tab> ours <tab> peer or - <tab> unit <tab> target or - <tab> ratio|bound
// Exits non-zero when a target is missed or Qt warned.
#include "bench/BenchSupport.h"
#include "catalogue/CommandTransport.h"
#include "catalogue/DatabaseUtils.h"
#include "catalogue/ManagedObjectContext.h"
#include "catalogue/PersistentStoreCoordinator.h"
#include "common/MemoryServices.h"
#include "util/AppServices.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <algorithm>
#include <cstdio>
#include <functional>
#include <sqlite3.h>
#include <vector>

namespace {

constexpr int kFolders = 5000;
constexpr int kSubtree = 10000; // files in folder 0, and folders below it: the subtrees rewritten
constexpr int kRounds = 3;      // lookups: the best of this many medians
constexpr double kLookupTarget = 1.5, kGrowthTarget = 1.3, kRewriteTarget = 2.0;

// The one main context serves every thread, and saves go to it.
class BenchServices final : public MemoryServices
{
public:
    std::shared_ptr<ManagedObjectContext> getManagedObjectContextByThread() override { return main; }
    void saveData() override { main->save(); }
};

// Answers INFO (and anything else) at once, as a server on the same machine would.
class LocalAnswers final : public CommandTransport
{
public:
    QByteArray post(const QString &, const QString &) override
    {
        return "<XML><INFO><FILE NAME=\"f\" PATH=\"/p\" TIME=\"20240101120000\" SIZE=\"10\" MEMO=\"0\" "
               "PRIV=\"rw\" TAG=\"\" DESC=\"\" OWNER=\"bench\"/></INFO></XML>";
    }
};

double median(std::vector<qint64> nanos)
{
    std::sort(nanos.begin(), nanos.end());
    return nanos.empty() ? 0 : double(nanos[nanos.size() / 2]) / 1000.0;
}

// Median microseconds of `rounds` calls.
double measure(int rounds, const std::function<void(int)> &op)
{
    std::vector<qint64> samples;
    samples.reserve(std::size_t(rounds));
    QElapsedTimer timer;
    for (int i = 0; i < rounds; ++i) {
        timer.start();
        op(i);
        samples.push_back(timer.nsecsElapsed());
    }
    return median(samples);
}

QString folderName(int folder)
{
    return QStringLiteral("d%1").arg(folder, 4, 10, QLatin1Char('0'));
}

int folderOf(int file)
{
    return file < kSubtree ? 0 : 1 + (file % (kFolders - 1));
}

QString filePath(const QString &root, int file)
{
    return root + u'/' + folderName(folderOf(file)) + QStringLiteral("/f%1.txt").arg(file);
}

// Files [from, to): the first kSubtree in folder 0, the others spread over the rest.
void addFiles(ManagedObjectContext &context, const QString &root, int from, int to)
{
    for (int i = from; i < to; ++i) {
        auto row = context.insertNewObject<File>();
        row->setName(QStringLiteral("f%1.txt").arg(i));
        row->setKey(QStringLiteral("F%1").arg(i));
        row->setPkey(QStringLiteral("D%1").arg(folderOf(i)));
        row->setPath(filePath(root, i));
        row->setSize(QStringLiteral("10"));
        row->setMd5(QStringLiteral("0123456789abcdef0123456789abcdef"));
        row->setTime(QStringLiteral("20240101120000"));
        if ((i + 1) % 10000 == 0)
            context.save();
    }
    context.save();
}

void addFolder(ManagedObjectContext &context, const QString &name, const QString &key, const QString &pkey,
               const QString &path)
{
    auto row = context.insertNewObject<Directory>();
    row->setName(name);
    row->setKey(key);
    row->setPkey(pkey);
    row->setPath(path);
    row->setSize(QStringLiteral("-1"));
    row->setMd5(QStringLiteral(""));
}

// A connection of its own on the store file, as a C program would open it.
class RawStore
{
public:
    RawStore(const QString &path, qint64 mmapBytes)
    {
        sqlite3_open_v2(QFile::encodeName(path).constData(), &m_db, SQLITE_OPEN_READWRITE, nullptr);
        if (mmapBytes > 0)
            exec(QByteArray("PRAGMA mmap_size=") + QByteArray::number(mmapBytes));
    }
    ~RawStore()
    {
        for (sqlite3_stmt *statement : m_statements)
            sqlite3_finalize(statement);
        sqlite3_close_v2(m_db);
    }
    RawStore(const RawStore &) = delete;
    RawStore &operator=(const RawStore &) = delete;

    void exec(const QByteArray &sql)
    {
        char *message = nullptr;
        if (sqlite3_exec(m_db, sql.constData(), nullptr, nullptr, &message) != SQLITE_OK)
            std::fprintf(stderr, "raw SQLite: %s: %s\n", sql.constData(), message);
        sqlite3_free(message);
    }

    sqlite3_stmt *prepare(const QByteArray &sql)
    {
        sqlite3_stmt *statement = nullptr;
        if (sqlite3_prepare_v2(m_db, sql.constData(), int(sql.size()), &statement, nullptr) != SQLITE_OK)
            std::fprintf(stderr, "raw SQLite: %s: %s\n", sql.constData(), sqlite3_errmsg(m_db));
        m_statements.push_back(statement);
        return statement;
    }

    // One row by an indexed column, every column read; false when there is none.
    static bool lookup(sqlite3_stmt *statement, const QByteArray &value)
    {
        sqlite3_bind_text(statement, 1, value.constData(), int(value.size()), SQLITE_STATIC);
        bool found = sqlite3_step(statement) == SQLITE_ROW;
        if (found) {
            std::size_t bytes = 0;
            for (int column = 0, count = sqlite3_column_count(statement); column < count; ++column) {
                if (sqlite3_column_type(statement, column) == SQLITE_INTEGER)
                    bytes += std::size_t(sqlite3_column_int64(statement, column));
                else if (sqlite3_column_text(statement, column))
                    bytes += std::size_t(sqlite3_column_bytes(statement, column));
            }
            found &= bytes > 0;
        }
        sqlite3_reset(statement);
        return found;
    }

private:
    sqlite3 *m_db = nullptr;
    std::vector<sqlite3_stmt *> m_statements;
};

struct Lookups
{
    double byPath = 1e9, byKey = 1e9;
};

struct LookupFigures
{
    Lookups ours, rawDefault, rawMapped;
    Lookups rawBest() const
    {
        return {std::min(rawDefault.byPath, rawMapped.byPath), std::min(rawDefault.byKey, rawMapped.byKey)};
    }
};

// Ours and raw SQLite on the same random rows, interleaved, each the best of kRounds medians: the
// machine may be busy with other work for a while.
LookupFigures lookups(DatabaseUtils &db, const std::shared_ptr<ManagedObjectContext> &context,
                      const QString &root, const QString &storePath, int files)
{
    RawStore plain(storePath, 0), mapped(storePath, qint64(1) << 30);
    const QByteArray byPath = "SELECT * FROM \"File\" WHERE \"path\" = ?";
    const QByteArray byKey = "SELECT * FROM \"File\" WHERE \"key\" = ?";
    struct Raw
    {
        sqlite3_stmt *path, *key;
        Lookups *figures;
    };
    LookupFigures figures;
    const Raw raws[] = {{plain.prepare(byPath), plain.prepare(byKey), &figures.rawDefault},
                        {mapped.prepare(byPath), mapped.prepare(byKey), &figures.rawMapped}};
    auto *random = QRandomGenerator::global();
    for (int round = 0; round < kRounds; ++round) {
        QStringList paths, keys;
        QByteArrayList rawPaths, rawKeys;
        for (int i = 0; i < 2000; ++i) {
            const int n = int(random->bounded(files));
            paths << filePath(root, n);
            keys << QStringLiteral("F%1").arg(n);
            rawPaths << paths.constLast().toUtf8();
            rawKeys << keys.constLast().toUtf8();
        }
        const int count = int(paths.size());
        for (const Raw &raw : raws) {
            raw.figures->byPath = std::min(raw.figures->byPath, measure(count, [&](int i) {
                                               if (!RawStore::lookup(raw.path, rawPaths[i]))
                                                   std::fprintf(stderr, "raw lookup by path missed %s\n",
                                                                rawPaths[i].constData());
                                           }));
            raw.figures->byKey = std::min(raw.figures->byKey, measure(count, [&](int i) {
                                              if (!RawStore::lookup(raw.key, rawKeys[i]))
                                                  std::fprintf(stderr, "raw lookup by key missed\n");
                                          }));
        }
        figures.ours.byPath =
            std::min(figures.ours.byPath, measure(count, [&](int i) {
                         if (!db.getFileWithPath(paths[i], context))
                             std::fprintf(stderr, "lookup by path missed %s\n", qPrintable(paths[i]));
                     }));
        figures.ours.byKey = std::min(figures.ours.byKey, measure(count, [&](int i) {
                                          if (!db.getFileWithKey(keys[i], context))
                                              std::fprintf(stderr, "lookup by key missed\n");
                                      }));
    }
    return figures;
}

// The subtree rewrite as one UPDATE in its own transaction, on a connection of its own.
class RawRewrite
{
public:
    RawRewrite(const QString &storePath, const char *table) : m_store(storePath, 0)
    {
        m_begin = m_store.prepare("BEGIN IMMEDIATE");
        m_commit = m_store.prepare("COMMIT");
        m_update = m_store.prepare(QByteArray("UPDATE \"") + table +
                                   "\" SET \"path\" = replace(\"path\", ?1, ?2), \"_fold_path\" = "
                                   "replace(\"_fold_path\", ?3, ?4) WHERE \"_fold_path\" >= ?5 AND "
                                   "\"_fold_path\" < ?6");
    }

    void run(const QString &from, const QString &to)
    {
        // The application folds the paths, SQLite replaces in both columns.
        const QByteArray oldPath = from.toUtf8(), newPath = to.toUtf8();
        const QByteArray oldFolded = foldedString(from).toUtf8(), newFolded = foldedString(to).toUtf8();
        const QByteArray low = oldFolded + '/', high = oldFolded + char('/' + 1);
        step(m_begin);
        sqlite3_bind_text(m_update, 1, oldPath.constData(), int(oldPath.size()), SQLITE_STATIC);
        sqlite3_bind_text(m_update, 2, newPath.constData(), int(newPath.size()), SQLITE_STATIC);
        sqlite3_bind_text(m_update, 3, oldFolded.constData(), int(oldFolded.size()), SQLITE_STATIC);
        sqlite3_bind_text(m_update, 4, newFolded.constData(), int(newFolded.size()), SQLITE_STATIC);
        sqlite3_bind_text(m_update, 5, low.constData(), int(low.size()), SQLITE_STATIC);
        sqlite3_bind_text(m_update, 6, high.constData(), int(high.size()), SQLITE_STATIC);
        if (step(m_update) != SQLITE_DONE || sqlite3_changes(sqlite3_db_handle(m_update)) == 0)
            std::fprintf(stderr, "raw UPDATE failed or changed nothing: %s\n",
                         sqlite3_errmsg(sqlite3_db_handle(m_update)));
        step(m_commit);
    }

private:
    static int step(sqlite3_stmt *statement)
    {
        const int rc = sqlite3_step(statement);
        sqlite3_reset(statement);
        return rc;
    }

    RawStore m_store;
    sqlite3_stmt *m_begin, *m_commit, *m_update;
};

struct Rewrites
{
    double ours = 1e9, raw = 1e9; // ms, the best of the runs
};

// The subtree moves away and back: by the catalogue, then by the raw UPDATE, in turns, so that a
// busy spell of the machine weighs on both alike.
Rewrites rewrites(int rounds, const std::function<void(const QString &, const QString &)> &ours,
                  RawRewrite &raw, const QString &here, const QString &there)
{
    Rewrites best;
    QElapsedTimer timer;
    for (int i = 0; i < rounds; ++i) {
        timer.start();
        ours(here, there);
        best.ours = std::min(best.ours, double(timer.nsecsElapsed()) / 1e6);
        timer.start();
        raw.run(there, here);
        best.raw = std::min(best.raw, double(timer.nsecsElapsed()) / 1e6);
    }
    return best;
}

bool g_ok = true;

void row(const char *measure, double ours, double peer, const char *unit, double target, bool bound)
{
    const bool met = target <= 0 || (bound ? ours <= target : ours <= target * peer);
    g_ok &= met;
    const QByteArray peerText = peer > 0 ? QByteArray::number(peer, 'g', 6) : QByteArray("-");
    const QByteArray targetText = target > 0 ? QByteArray::number(target, 'g', 6) : QByteArray("-");
    std::printf("ROW\t%s\t%.6g\t%s\t%s\t%s\t%s\n", measure, ours, peerText.constData(), unit,
                targetText.constData(), bound ? "bound" : "ratio");
}

} // namespace

int main(int argc, char **argv)
{
    BenchSupport::installQtWarningCheck();
    {
        QCoreApplication app(argc, argv);
        QTemporaryDir dir;
        const QString root = dir.filePath(QStringLiteral("CloudFolder"));
        QDir().mkpath(root);
        const QString storePath = dir.filePath(QStringLiteral("Tarnwick_bench.storedata"));
        auto coordinator = PersistentStoreCoordinator::create(storePath);
        BenchServices services;
        services.main = ManagedObjectContext::create(coordinator);
        services.config = {{QStringLiteral("kKeyUseID"), QStringLiteral("bench")},
                           {QStringLiteral("kKeyPath"), root},
                           {QStringLiteral("kKeyDomain"), QStringLiteral("localhost")}};
        AppServices::setShared(&services);
        auto db = DatabaseUtils::instance();
        db->setPath(root);
        db->setSTimezone(QStringLiteral("+0900"));
        db->setTransport(std::make_shared<LocalAnswers>());
        const auto context = services.main;

        QElapsedTimer build;
        build.start();
        for (int folder = 0; folder < kFolders; ++folder) {
            addFolder(*context, folderName(folder), QStringLiteral("D%1").arg(folder), QStringLiteral("root"),
                      root + u'/' + folderName(folder));
        }
        const QString big = root + u'/' + folderName(0);
        for (int sub = 0; sub < kSubtree; ++sub) {
            const QString name = QStringLiteral("s%1").arg(sub, 5, 10, QLatin1Char('0'));
            addFolder(*context, name, QStringLiteral("S%1").arg(sub), QStringLiteral("D0"),
                      big + u'/' + name);
        }
        addFiles(*context, root, 0, 10000);
        const LookupFigures small = lookups(*db, context, root, storePath, 10000);
        addFiles(*context, root, 10000, 100000);
        std::printf("catalogue built: %d folders, 100000 files in %.1f s\n", kFolders + kSubtree,
                    double(build.elapsed()) / 1000.0);
        const LookupFigures large = lookups(*db, context, root, storePath, 100000);

        std::printf("lookups, medians in us, best of %d, at 10,000 / 100,000 files:\n", kRounds);
        auto lookupLine = [](const char *what, double a, double b) {
            std::printf("  %-34s %7.2f / %7.2f   (x%.2f)\n", what, a, b, b / a);
        };
        lookupLine("getFileWithPath", small.ours.byPath, large.ours.byPath);
        lookupLine("raw by path, default settings", small.rawDefault.byPath, large.rawDefault.byPath);
        lookupLine("raw by path, memory-mapped", small.rawMapped.byPath, large.rawMapped.byPath);
        lookupLine("getFileWithKey", small.ours.byKey, large.ours.byKey);
        lookupLine("raw by key, default settings", small.rawDefault.byKey, large.rawDefault.byKey);
        lookupLine("raw by key, memory-mapped", small.rawMapped.byKey, large.rawMapped.byKey);

        const double insert = measure(500, [&](int i) {
            db->insertFile({QStringLiteral("n%1.txt").arg(i), QStringLiteral("10"), QString(),
                            QStringLiteral("N%1").arg(i), QStringLiteral("D1"),
                            QString(root + u'/' + folderName(1) + QStringLiteral("/n%1.txt").arg(i))},
                           context);
        });
        std::printf("insertFile + save median %8.1f us (target < 1000 us)\n", insert);

        const QString moved = root + QStringLiteral("/moved");
        constexpr int kRewrites = 7;
        RawRewrite rawFiles(storePath, "File"), rawFolders(storePath, "Directory");
        const Rewrites files = rewrites(
            kRewrites,
            [&](const QString &from, const QString &to) { db->changePathOfFile(to, from, context); },
            rawFiles, big, moved);
        const Rewrites folders = rewrites(
            kRewrites,
            [&](const QString &from, const QString &to) { db->changePathOfDirectory(to, from, context); },
            rawFolders, big, moved);
        std::printf("subtree rewrite of %d rows, best of %d, ms: changePathOfFile %.1f (raw UPDATE %.1f), "
                    "changePathOfDirectory %.1f (raw UPDATE %.1f)\n",
                    kSubtree, kRewrites, files.ours, files.raw, folders.ours, folders.raw);
        if (db->getFileWithPath(filePath(root, 0), context) == nullptr)
            std::fprintf(stderr, "the subtree did not come back to its place\n");

        const double admission = measure(500, [&](int i) {
            db->addTaskWithDictionary(
                {{QStringLiteral("kKeyTaskType"), i % 2 ? 1 : 2},
                 {QStringLiteral("kKeyTaskFolder"), false},
                 {QStringLiteral("kKeyTaskPath"), QString(root + QStringLiteral("/new%1.txt").arg(i))},
                 {QStringLiteral("kKeyTaskName"), QStringLiteral("new%1.txt").arg(i)},
                 {QStringLiteral("kKeyTaskTime"), QDateTime::currentDateTime()}},
                context);
        });
        std::printf("task admission    median %8.1f us\n", admission);

        const Lookups best = large.rawBest(), smallBest = small.rawBest();
        row("lookup by path, 100k files (raw: best)", large.ours.byPath, best.byPath, "us", kLookupTarget,
            false);
        row("lookup by key, 100k files (raw: best)", large.ours.byKey, best.byKey, "us", kLookupTarget,
            false);
        row("lookup by path, growth 10k -> 100k", large.ours.byPath / small.ours.byPath,
            best.byPath / smallBest.byPath, "x", kGrowthTarget, true);
        row("lookup by key, growth 10k -> 100k", large.ours.byKey / small.ours.byKey,
            best.byKey / smallBest.byKey, "x", kGrowthTarget, true);
        row("changePathOfFile, 10k rows (raw UPDATE)", files.ours, files.raw, "ms", kRewriteTarget, false);
        row("changePathOfDirectory, 10k rows (raw UPDATE)", folders.ours, folders.raw, "ms", kRewriteTarget,
            false);
        row("insertFile + save", insert, 0, "us", 1000, true);
        row("task admission", admission, 0, "us", 0, true);
        db.reset();
        DatabaseUtils::destroy();
        AppServices::setShared(nullptr);
    }
    return BenchSupport::exitStatus(g_ok);
}
