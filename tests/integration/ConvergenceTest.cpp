// Randomised convergence: two computers and the server (as another computer) change the tree at
// the same time, each within folders no other actor touches in that period; after every period all
// three trees and both catalogues must agree. Ownership of the folders rotates between periods, so
// an item made by one actor is later renamed, moved, edited or deleted by another.
//
// FERROVANE_SEED replays a run; without it the seed comes from the clock. Both are printed.
#include "integration/EndToEndSupport.h"

#include <QDateTime>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QSet>
#include <algorithm>
#include <cstdio>
#include <gtest/gtest.h>
#include <memory>
#include <random>

using namespace EndToEnd;

namespace {

const QString kUser = QStringLiteral("carol");
const QString kPassword = QStringLiteral("p\u00e4ss <&>");
constexpr int kRounds = 50;
constexpr int kRoundsPerPeriod = 10;
constexpr int kConverge = 120000;

// Top-level folders; each period every actor owns two of them. Case and diacritic look-alikes
// stand side by side on purpose: on Linux they are distinct folders.
const QStringList kPartitions = {QStringLiteral("notes"),       QStringLiteral("Notes"),
                                 QStringLiteral("cafe"),        QStringLiteral("caf\u00e9"),
                                 QStringLiteral("B\u00fccher"), QStringLiteral("\u65e5\u672c\u8a9e &lt;")};

// Names items get; again with look-alikes, and XML specials. (None beyond the Basic Multilingual
// Plane: names go to the server without such characters, so they could never agree.)
const QStringList kNames = {QStringLiteral("plain"),
                            QStringLiteral("Plain"),
                            QStringLiteral("r\u00e9sum\u00e9"),
                            QStringLiteral("resume"),
                            QStringLiteral("na\u00efve"),
                            QStringLiteral("\u00dcber"),
                            QStringLiteral("\u0395\u03bb\u03bb\u03b7\u03bd\u03b9\u03ba\u03ac"),
                            QStringLiteral("a&b <c> \"d\""),
                            QStringLiteral("it's"),
                            QStringLiteral("\u03a9 \u2248 \u221e"),
                            QStringLiteral("\u6587\u66f8"),
                            QStringLiteral("x")};

quint64 seedOfRun()
{
    bool ok = false;
    const quint64 given = qEnvironmentVariable("FERROVANE_SEED").toULongLong(&ok);
    return ok ? given : quint64(QDateTime::currentMSecsSinceEpoch());
}

QString nfc(const QString &text)
{
    return text.normalized(QString::NormalizationForm_C);
}

QString parentOf(const QString &relative)
{
    return relative.left(relative.lastIndexOf(u'/'));
}

QString nameOf(const QString &relative)
{
    return relative.mid(relative.lastIndexOf(u'/') + 1);
}

// One actor's view of the folders it owns: relative paths as spelled where the actor works.
struct Item
{
    QString path;
    bool folder = false;
};

class Actor
{
public:
    virtual ~Actor() = default;
    virtual QString name() const = 0;
    virtual QList<Item> items(const QStringList &partitions) = 0;
    virtual bool makeFolder(const QString &relative) = 0;
    virtual bool write(const QString &relative, const QByteArray &data) = 0;
    virtual bool rename(const QString &relative, const QString &name) = 0;
    virtual bool move(const QString &relative, const QString &folder) = 0;
    virtual bool remove(const QString &relative, bool folder) = 0;
    // Whether names may be made decomposed (only on a computer: the server's names are composed).
    virtual bool decomposes() const { return false; }
};

class LocalActor final : public Actor
{
public:
    explicit LocalActor(Computer &computer) : m_computer(computer) {}
    QString name() const override { return m_computer.name(); }
    bool decomposes() const override { return true; }

    QList<Item> items(const QStringList &partitions) override
    {
        QList<Item> found;
        const QString root = m_computer.syncFolder();
        for (const QString &partition : partitions) {
            QDirIterator it(root + u'/' + partition, QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot,
                            QDirIterator::Subdirectories);
            while (it.hasNext()) {
                const QString path = it.next();
                found.append({path.mid(root.size()), it.fileInfo().isDir()});
            }
        }
        return found;
    }
    bool makeFolder(const QString &relative) override { return QDir().mkdir(m_computer.path(relative)); }
    bool write(const QString &relative, const QByteArray &data) override
    {
        return m_computer.writeFile(relative, data);
    }
    bool rename(const QString &relative, const QString &name) override
    {
        return renamed(relative, parentOf(relative) + u'/' + name);
    }
    bool move(const QString &relative, const QString &folder) override
    {
        return renamed(relative, folder + u'/' + nameOf(relative));
    }
    bool remove(const QString &relative, bool folder) override
    {
        return folder ? QDir(m_computer.path(relative)).removeRecursively()
                      : QFile::remove(m_computer.path(relative));
    }

private:
    bool renamed(const QString &from, const QString &to)
    {
        return std::rename(QFile::encodeName(m_computer.path(from)).constData(),
                           QFile::encodeName(m_computer.path(to)).constData()) == 0;
    }
    Computer &m_computer;
};

class ServerActor final : public Actor
{
public:
    ServerActor(ServerProcess &server, const QString &user) : m_server(server), m_user(user) {}
    QString name() const override { return QStringLiteral("server"); }
    QList<Item> items(const QStringList &partitions) override
    {
        QList<Item> found;
        const Tree tree = m_server.tree(m_user);
        for (auto it = tree.cbegin(); it != tree.cend(); ++it) {
            for (const QString &partition : partitions) {
                if (it.key().startsWith(u'/' + partition + u'/'))
                    found.append({it.key(), it->folder});
            }
        }
        return found;
    }
    bool makeFolder(const QString &relative) override { return m_server.mkdir(m_user, relative); }
    bool write(const QString &relative, const QByteArray &data) override
    {
        return m_server.put(m_user, relative, data);
    }
    bool rename(const QString &relative, const QString &name) override
    {
        return m_server.rename(m_user, relative, name);
    }
    bool move(const QString &relative, const QString &folder) override
    {
        return m_server.move(m_user, relative, folder);
    }
    bool remove(const QString &relative, bool) override { return m_server.remove(m_user, relative); }

private:
    ServerProcess &m_server;
    QString m_user;
};

// Picks and carries out one actor's operations; everything it did goes to the journal.
class Mutator
{
public:
    Mutator(std::mt19937_64 &random, QStringList &journal) : m_random(random), m_journal(journal) {}

    // A new period begins after the trees agreed: everything written so far has settled.
    void settle() { m_written.clear(); }

    // One random operation within `partitions`; false when the actor refused it (a test fault).
    bool operate(Actor &actor, const QStringList &partitions)
    {
        const QList<Item> items = actor.items(partitions);
        QList<Item> files, folders;
        for (const Item &item : items)
            (item.folder ? folders : files).append(item);
        QList<Item> places = folders; // where new items may go: the owned partitions and below
        for (const QString &partition : partitions)
            places.append({u'/' + partition, true});
        // Renamed, moved or deleted only once settled: an item written in this period (or a folder
        // holding one) may still be on its way, and a file renamed in the middle of its upload
        // leaves a folder of its name behind (the catalogue's insertion makes the path as a
        // folder, unconditionally, a kept behaviour).
        QList<Item> settled;
        for (const Item &item : items) {
            const QString path = nfc(item.path);
            const bool busy = std::any_of(m_written.cbegin(), m_written.cend(), [&](const QString &w) {
                return w == path || w.startsWith(path + u'/') || path.startsWith(w + u'/');
            });
            if (!busy)
                settled.append(item);
        }

        const int roll = pick(100);
        const auto createFile = [&] {
            const QString where = places.at(pick(places.size())).path;
            const QString name = freshName(actor, items, where, QStringLiteral(".txt"));
            m_written.insert(nfc(where + u'/' + name));
            return done(actor, QStringLiteral("create file %1").arg(where + u'/' + name),
                        actor.write(where + u'/' + name, content()));
        };
        if (roll < 28 || items.isEmpty())
            return createFile();
        if (roll < 38) {
            const QString where = places.at(pick(places.size())).path;
            const QString name = freshName(actor, items, where, QString());
            const QString folder = where + u'/' + name;
            m_written.insert(nfc(folder));
            bool ok = actor.makeFolder(folder);
            // Often with something inside at once, before the first is even seen.
            if (ok && pick(2))
                ok = actor.write(folder + u'/' + freshName(actor, {}, folder, QStringLiteral(".bin")),
                                 content());
            return done(actor, QStringLiteral("create folder %1").arg(folder), ok);
        }
        if (roll < 58 && !files.isEmpty()) {
            const Item &file = files.at(pick(files.size()));
            m_written.insert(nfc(file.path));
            return done(actor, QStringLiteral("edit %1").arg(file.path), actor.write(file.path, content()));
        }
        if (settled.isEmpty())
            return createFile();
        if (roll < 74) {
            const Item &item = settled.at(pick(settled.size()));
            const QString name = freshName(actor, items, parentOf(item.path),
                                           item.folder ? QString() : QStringLiteral(".txt"));
            return done(actor, QStringLiteral("rename %1 to %2").arg(item.path, name),
                        actor.rename(item.path, name));
        }
        if (roll < 86) {
            const Item &item = settled.at(pick(settled.size()));
            QStringList targets;
            for (const Item &place : places) {
                const bool inside = place.path == item.path || place.path.startsWith(item.path + u'/');
                if (!inside && place.path != parentOf(item.path) &&
                    !hasSibling(items, place.path, nameOf(item.path)))
                    targets << place.path;
            }
            if (targets.isEmpty())
                return true;
            const QString target = targets.at(pick(targets.size()));
            return done(actor, QStringLiteral("move %1 into %2").arg(item.path, target),
                        actor.move(item.path, target));
        }
        const Item &item = settled.at(pick(settled.size()));
        return done(actor, QStringLiteral("delete %1").arg(item.path), actor.remove(item.path, item.folder));
    }

private:
    int pick(qsizetype bound)
    {
        return int(std::uniform_int_distribution<qsizetype>(0, bound - 1)(m_random));
    }

    QByteArray content()
    {
        // Mostly small; now and then large enough to take a few reads to send.
        const int size = pick(10) == 0 ? 100000 + pick(200000) : pick(4000);
        QByteArray data(size, Qt::Uninitialized);
        for (char &c : data)
            c = char(m_random());
        return data;
    }

    static bool hasSibling(const QList<Item> &items, const QString &folder, const QString &name)
    {
        const QString wanted = nfc(folder + u'/' + name);
        return std::any_of(items.cbegin(), items.cend(),
                           [&](const Item &i) { return nfc(i.path) == wanted; });
    }

    // A name not yet used in `folder` under any spelling; look-alikes differing in case or
    // accents are allowed.
    QString freshName(const Actor &actor, const QList<Item> &items, const QString &folder,
                      const QString &suffix)
    {
        QString name = kNames.at(pick(kNames.size())) + suffix;
        for (int n = 2; hasSibling(items, folder, name); ++n)
            name = kNames.at(pick(kNames.size())) + QStringLiteral(" %1").arg(n) + suffix;
        if (actor.decomposes() && pick(4) == 0)
            name = name.normalized(QString::NormalizationForm_D);
        return name;
    }

    bool done(const Actor &actor, const QString &what, bool ok)
    {
        m_journal
            << QStringLiteral("%1: %2%3").arg(actor.name(), what, ok ? QString() : QStringLiteral(" FAILED"));
        return ok;
    }

    std::mt19937_64 &m_random;
    QStringList &m_journal;
    QSet<QString> m_written; // composed paths written in this period
};

class ConvergenceTest : public AccountTest
{
protected:
    ConvergenceTest() : AccountTest(kUser, kPassword) {}

    // Server tree == each sync folder == each catalogue; the first difference found, or empty.
    QString disagreement(const QList<Computer *> &computers)
    {
        const Tree expected = server.tree(kUser);
        for (Computer *c : computers) {
            QString diff = difference(expected, c->localTree());
            if (!diff.isEmpty())
                return c->name() + QStringLiteral(" sync folder:\n") + diff;
            diff = difference(expected, c->catalogueTree(kUser));
            if (!diff.isEmpty())
                return c->name() + QStringLiteral(" catalogue:\n") + diff;
        }
        return {};
    }

    // The clients' output and the journal of operations go to files the failure names.
    QString keepEvidence(const QList<Computer *> &computers, const QStringList &journal)
    {
        const QString base = QDir::temp().filePath(QStringLiteral("ferrovane-converge-%1").arg(m_seed));
        QStringList files;
        for (Computer *c : computers) {
            QFile log(base + u'-' + c->name() + QStringLiteral(".log"));
            if (log.open(QIODevice::WriteOnly))
                log.write(
                    (c->output().join(u'\n') + QStringLiteral("\n--- stderr\n") + c->errorOutput()).toUtf8());
            files << log.fileName();
        }
        QFile ops(base + QStringLiteral("-operations.log"));
        if (ops.open(QIODevice::WriteOnly))
            ops.write(journal.join(u'\n').toUtf8());
        files << ops.fileName();
        return files.join(QStringLiteral(", "));
    }

    QString replay() const
    {
        return QStringLiteral(
                   "replay: FERROVANE_SEED=%1 FERROVANE_TIME_SCALE=0.01 bin/ferrovane_convergence_tests "
                   "--gtest_filter=%2.%3")
            .arg(m_seed)
            .arg(
                QString::fromUtf8(::testing::UnitTest::GetInstance()->current_test_info()->test_suite_name()),
                QString::fromUtf8(::testing::UnitTest::GetInstance()->current_test_info()->name()));
    }

    quint64 m_seed = seedOfRun();
};

} // namespace

TEST_F(ConvergenceTest, RandomChangesOnTwoComputersAndTheServerConverge)
{
    std::printf("[   SEED   ] FERROVANE_SEED=%llu\n", static_cast<unsigned long long>(m_seed));
    std::fflush(stdout);
    SCOPED_TRACE(qPrintable(replay()));
    std::mt19937_64 random(m_seed);
    QStringList journal;
    Mutator mutator(random, journal);

    for (const QString &partition : kPartitions)
        ASSERT_TRUE(server.mkdir(kUser, u'/' + partition));
    ASSERT_TRUE(server.put(kUser, QStringLiteral("/notes/plain.txt"), "seeded"));
    auto a = std::make_unique<Computer>(QStringLiteral("a"), server);
    auto b = std::make_unique<Computer>(QStringLiteral("b"), server);
    ASSERT_TRUE(a->startSyncing(kUser, kPassword));
    ASSERT_TRUE(b->startSyncing(kUser, kPassword));
    const QList<Computer *> computers = {a.get(), b.get()};
    ASSERT_TRUE(waitFor([&] { return disagreement(computers).isEmpty(); }, kConverge))
        << qPrintable(disagreement(computers));

    LocalActor onA(*a), onB(*b);
    ServerActor onServer(server, kUser);
    const QList<Actor *> actors = {&onA, &onB, &onServer};
    QStringList owned[3];
    for (int round = 0; round < kRounds; ++round) {
        if (round % kRoundsPerPeriod == 0) {
            // A new period: the partitions are dealt out again, two to each actor.
            mutator.settle();
            QStringList deck = kPartitions;
            std::shuffle(deck.begin(), deck.end(), random);
            for (int i = 0; i < 3; ++i)
                owned[i] = deck.mid(i * 2, 2);
            journal << QStringLiteral("--- period from round %1: a %2, b %3, server %4")
                           .arg(round)
                           .arg(owned[0].join(u','), owned[1].join(u','), owned[2].join(u','));
        }
        journal << QStringLiteral("--- round %1").arg(round);
        for (int i = 0; i < 3; ++i) {
            const int count = 1 + int(random() % 3);
            for (int n = 0; n < count; ++n)
                ASSERT_TRUE(mutator.operate(*actors.at(i), owned[i]))
                    << qPrintable(journal.last()) << "\n"
                    << qPrintable(keepEvidence(computers, journal));
        }
        // A person's pace, shrunk: the clients see the rounds as separate batches of changes.
        waitFor([] { return false; }, 150);

        if ((round + 1) % kRoundsPerPeriod == 0) {
            const bool agreed = waitFor([&] { return disagreement(computers).isEmpty(); }, kConverge);
            ASSERT_TRUE(agreed) << "after round " << round << ":\n"
                                << qPrintable(disagreement(computers))
                                << "\nevidence: " << qPrintable(keepEvidence(computers, journal));
        }
    }
    EXPECT_TRUE(
        waitFor([&] { return a->pendingTasks(kUser) == 0 && b->pendingTasks(kUser) == 0; }, kConverge));
    EXPECT_TRUE(a->clientRunning());
    EXPECT_TRUE(b->clientRunning());
    std::printf("[   SEED   ] FERROVANE_SEED=%llu: %d operations\n", static_cast<unsigned long long>(m_seed),
                int(journal.size()));
}
