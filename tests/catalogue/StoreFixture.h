#pragma once
// A fresh store in a temporary folder, raw SQLite access to it, and a diagnostic-line capture.

#include "catalogue/ManagedObjectContext.h"
#include "catalogue/PersistentStoreCoordinator.h"
#include "util/Log.h"

#include <QMutex>
#include <QStringList>
#include <QTemporaryDir>
#include <gtest/gtest.h>
#include <sqlite3.h>

class LogCapture
{
public:
    LogCapture() { Log::setSink(&LogCapture::sink); }
    ~LogCapture() { Log::setSink(nullptr); }
    QStringList lines() const
    {
        QMutexLocker lock(&mutex());
        return captured();
    }
    bool contains(const QString &text) const { return !lines().filter(text).isEmpty(); }

private:
    static QMutex &mutex()
    {
        static QMutex m;
        return m;
    }
    static QStringList &captured()
    {
        static QStringList list;
        return list;
    }
    static void sink(const QString &line)
    {
        QMutexLocker lock(&mutex());
        captured().append(line);
    }

public:
    void clear()
    {
        QMutexLocker lock(&mutex());
        captured().clear();
    }
};

class StoreFixture : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(dir.isValid());
        storePath = dir.filePath(QStringLiteral("Tarnwick_test.storedata"));
        FvError error;
        coordinator = PersistentStoreCoordinator::create(storePath, &error);
        ASSERT_TRUE(coordinator) << qPrintable(error.toString());
        context = ManagedObjectContext::create(coordinator);
        ASSERT_TRUE(context);
    }

    std::shared_ptr<ManagedObjectContext> newContext() { return ManagedObjectContext::create(coordinator); }

    // Runs SQL on a separate raw connection; returns the first column of every row.
    QStringList sql(const QString &statement)
    {
        sqlite3 *db = nullptr;
        sqlite3_open_v2(storePath.toUtf8().constData(), &db, SQLITE_OPEN_READWRITE, nullptr);
        QStringList rows;
        sqlite3_stmt *st = nullptr;
        if (sqlite3_prepare_v2(db, statement.toUtf8().constData(), -1, &st, nullptr) == SQLITE_OK) {
            while (sqlite3_step(st) == SQLITE_ROW)
                rows.append(QString::fromUtf8(reinterpret_cast<const char *>(sqlite3_column_text(st, 0))));
        } else {
            ADD_FAILURE() << sqlite3_errmsg(db);
        }
        sqlite3_finalize(st);
        sqlite3_close(db);
        return rows;
    }

    QTemporaryDir dir;
    QString storePath;
    std::shared_ptr<PersistentStoreCoordinator> coordinator;
    std::shared_ptr<ManagedObjectContext> context;
};
