#include "util/FolderUtil.h"

#include "common/TestUtil.h"
#include "util/MutableQueue.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QTemporaryDir>
#include <chrono>
#include <functional>
#include <future>
#include <gtest/gtest.h>
#include <mutex>
#include <thread>

using namespace Qt::StringLiterals;

TEST(MutableQueue, IsFirstInFirstOutAndIgnoresNothing)
{
    MutableQueue<QString> queue;
    EXPECT_FALSE(queue.dequeue().has_value());
    EXPECT_TRUE(queue.isEmpty());

    queue.enqueue(u"a"_s);
    queue.enqueue(QString()); // nothing
    queue.enqueue(u""_s);     // an empty string is something
    queue.enqueue(u"b"_s);
    EXPECT_EQ(queue.count(), 3);
    EXPECT_EQ(queue.dequeue(), u"a"_s);
    EXPECT_EQ(queue.dequeue(), u""_s);
    EXPECT_EQ(queue.dequeue(), u"b"_s);
    EXPECT_FALSE(queue.dequeue().has_value());
    EXPECT_TRUE(queue.isEmpty());

    int x = 1;
    MutableQueue<int *> pointers;
    pointers.enqueue(nullptr);
    pointers.enqueue(&x);
    EXPECT_EQ(pointers.dequeue(), &x);
    EXPECT_FALSE(pointers.dequeue().has_value());
}

TEST(MutableQueue, ConcurrentProducersAndConsumersLoseNothingAndKeepEachProducersOrder)
{
    constexpr int kProducers = 4;
    constexpr int kItems = 2000;
    MutableQueue<int> queue;
    std::atomic<int> produced{0};
    std::vector<std::vector<int>> taken(2);

    std::vector<std::thread> threads;
    for (int p = 0; p < kProducers; ++p)
        threads.emplace_back([&, p] {
            for (int i = 0; i < kItems; ++i) {
                queue.enqueue(p * kItems + i);
                ++produced;
            }
        });
    for (int c = 0; c < 2; ++c)
        threads.emplace_back([&, c] {
            const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
            while (std::chrono::steady_clock::now() < deadline) {
                if (const auto v = queue.dequeue())
                    taken[c].push_back(*v);
                else if (produced.load() == kProducers * kItems && queue.isEmpty())
                    return;
            }
        });
    for (auto &t : threads)
        t.join();

    std::vector<int> seen(kProducers * kItems, 0);
    for (const auto &list : taken) {
        std::vector<int> last(kProducers, -1);
        for (int v : list) {
            ++seen[v];
            EXPECT_GT(v % kItems, last[v / kItems]) << "out of order for producer " << v / kItems;
            last[v / kItems] = v % kItems;
        }
    }
    EXPECT_EQ(std::count(seen.begin(), seen.end(), 1), kProducers * kItems);
}

namespace {

struct Report
{
    QString path; // relative to the scanned root
    bool isFolder;
    bool operator==(const Report &) const = default;
};

void PrintTo(const Report &r, std::ostream *os)
{
    *os << r.path.toStdString() << (r.isFolder ? "/" : "");
}

class Recorder : public FolderUtilDelegate
{
public:
    explicit Recorder(QString root) : m_root(std::move(root)) {}

    void folderUtilHasItemAtPath(FolderUtil *util, const QString &path, bool isFolder) override
    {
        {
            std::lock_guard lock(m_mutex);
            m_found.push_back({relative(path), isFolder});
        }
        if (onReport)
            onReport(util, path);
    }
    void folderUtilNeedDeleteItemAtPath(FolderUtil *, const QString &path, bool isFolder) override
    {
        std::lock_guard lock(m_mutex);
        m_gone.push_back({relative(path), isFolder});
    }

    std::vector<Report> found() const
    {
        std::lock_guard lock(m_mutex);
        return m_found;
    }
    std::vector<Report> gone() const
    {
        std::lock_guard lock(m_mutex);
        return m_gone;
    }

    std::function<void(FolderUtil *, const QString &)> onReport;

private:
    QString relative(const QString &path) const
    {
        return path.startsWith(m_root) ? path.mid(m_root.size()) : path;
    }
    QString m_root;
    mutable std::mutex m_mutex;
    std::vector<Report> m_found;
    std::vector<Report> m_gone;
};

// root: .hidden  a.txt  b/{c.txt, d/{e.txt}}  f/
class FolderUtilTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_dir.isValid());
        root = m_dir.path();
        for (const QString &file : {u"/.hidden"_s, u"/a.txt"_s, u"/b/c.txt"_s, u"/b/d/e.txt"_s})
            ASSERT_TRUE(TestUtil::writeFile(root + file, "x"));
        ASSERT_TRUE(QDir(root).mkdir(u"f"_s));
    }

    QTemporaryDir m_dir;
    QString root;
};

} // namespace

TEST_F(FolderUtilTest, BreadthFirstReportsFilesOnlyOrEveryFolderWhenItIsTaken)
{
    Recorder filesOnly(root);
    FolderUtil util;
    util.setDelegate(&filesOnly);
    util.scanFolder(root, false);
    EXPECT_EQ(
        filesOnly.found(),
        (std::vector<Report>{
            {u"/.hidden"_s, false}, {u"/a.txt"_s, false}, {u"/b/c.txt"_s, false}, {u"/b/d/e.txt"_s, false}}));

    Recorder everything(root);
    util.setDelegate(&everything);
    util.scanFolder(root, true);
    EXPECT_EQ(everything.found(), (std::vector<Report>{{u""_s, true},
                                                       {u"/.hidden"_s, false},
                                                       {u"/a.txt"_s, false},
                                                       {u"/b"_s, true},
                                                       {u"/b/c.txt"_s, false},
                                                       {u"/f"_s, true},
                                                       {u"/b/d"_s, true},
                                                       {u"/b/d/e.txt"_s, false}}));
    EXPECT_TRUE(everything.gone().empty());
}

TEST_F(FolderUtilTest, NothingIsReportedForAFileOrAMissingPathOrWithoutDelegate)
{
    Recorder recorder(root);
    FolderUtil util;
    util.scanFolder(root, true); // no delegate: must not crash
    util.setDelegate(&recorder);
    util.scanFolder(root + u"/a.txt"_s, true);
    util.scanFolder(root + u"/missing"_s, true);
    util.scanFolder(root + u"/missing"_s, QStringList{root + u"/x"_s});
    EXPECT_TRUE(recorder.found().empty());
    EXPECT_TRUE(recorder.gone().empty());
}

TEST_F(FolderUtilTest, CrossingOffTouchesOnlyTheTopLevelAndReportsLeftoversAsFiles)
{
    Recorder recorder(root);
    FolderUtil util;
    util.setDelegate(&recorder);
    // Known records: a file and a folder that exist, a file below the top level (never crossed
    // off), a file and a folder that are gone, and a duplicate of which only the first is crossed.
    const QStringList known = {root + u"/a.txt"_s,    root + u"/b"_s,       root + u"/b/c.txt"_s,
                               root + u"/gone.txt"_s, root + u"/goneDir"_s, root + u"/a.txt"_s};
    util.scanFolder(root + u"/"_s, known); // a trailing slash does not double the separator
    EXPECT_EQ(recorder.found(), (std::vector<Report>{{u"/.hidden"_s, false},
                                                     {u"/a.txt"_s, false},
                                                     {u"/b"_s, true},
                                                     {u"/b/c.txt"_s, false},
                                                     {u"/b/d/e.txt"_s, false},
                                                     {u"/f"_s, true}}));
    EXPECT_EQ(
        recorder.gone(),
        (std::vector<Report>{
            {u"/b/c.txt"_s, false}, {u"/gone.txt"_s, false}, {u"/goneDir"_s, false}, {u"/a.txt"_s, false}}));
}

TEST_F(FolderUtilTest, EntryRemovedBeforeItsTurnIsSkippedAndBecomesADeletionCandidate)
{
    Recorder recorder(root);
    recorder.onReport = [&](FolderUtil *, const QString &path) {
        if (path.endsWith(u"/a.txt"))
            QDir(root + u"/b"_s).removeRecursively();
    };
    FolderUtil util;
    util.setDelegate(&recorder);
    util.scanFolder(root, QStringList{root + u"/b"_s});
    EXPECT_EQ(recorder.found(),
              (std::vector<Report>{{u"/.hidden"_s, false}, {u"/a.txt"_s, false}, {u"/f"_s, true}}));
    EXPECT_EQ(recorder.gone(), (std::vector<Report>{{u"/b"_s, false}}));
}

TEST_F(FolderUtilTest, EndingFromAnotherThreadStopsBeforeTheNextEntryAndReportsNoLeftovers)
{
    Recorder recorder(root);
    FolderUtil util;
    util.setDelegate(&recorder);
    std::promise<void> firstReport;
    std::promise<void> release;
    auto released = release.get_future();
    bool first = true;
    recorder.onReport = [&](FolderUtil *, const QString &) {
        if (!first)
            return;
        first = false;
        firstReport.set_value();
        released.wait_for(std::chrono::seconds(10)); // the main thread ends the scan meanwhile
    };

    std::thread scanner([&] { util.scanFolder(root, QStringList{root + u"/gone.txt"_s}); });
    ASSERT_EQ(firstReport.get_future().wait_for(std::chrono::seconds(10)), std::future_status::ready);
    util.setIsEnd(true);
    release.set_value();
    scanner.join();
    EXPECT_EQ(recorder.found(), (std::vector<Report>{{u"/.hidden"_s, false}}));
    EXPECT_TRUE(recorder.gone().empty());

    // While ended, further scans report nothing.
    util.scanFolder(root, true);
    EXPECT_EQ(recorder.found().size(), 1u);
}

TEST_F(FolderUtilTest, BreadthFirstEndedByTheDelegateStopsAtOnce)
{
    Recorder recorder(root);
    recorder.onReport = [](FolderUtil *util, const QString &path) {
        if (path.endsWith(u"/b/c.txt"))
            util->setIsEnd(true);
    };
    FolderUtil util;
    util.setDelegate(&recorder);
    util.scanFolder(root, true);
    EXPECT_EQ(recorder.found(), (std::vector<Report>{{u""_s, true},
                                                     {u"/.hidden"_s, false},
                                                     {u"/a.txt"_s, false},
                                                     {u"/b"_s, true},
                                                     {u"/b/c.txt"_s, false}}));

    // Folders still waiting when the scan ended must not leak into the next one.
    util.setIsEnd(false);
    Recorder fresh(root);
    util.setDelegate(&fresh);
    util.scanFolder(root + u"/b/d"_s, true);
    EXPECT_EQ(fresh.found(), (std::vector<Report>{{u"/b/d"_s, true}, {u"/b/d/e.txt"_s, false}}));
}

TEST_F(FolderUtilTest, LinkBackUpTheTreeDoesNotLoopAndPausesBoundTheRate)
{
    ASSERT_TRUE(QFile::link(root, root + u"/b/up"_s));
    Recorder recorder(root);
    FolderUtil util;
    util.setDelegate(&recorder);
    QElapsedTimer timer;
    timer.start();
    util.scanFolder(root, false);
    // Four files and four folder listings, each followed by a (scaled) half-second pause.
    EXPECT_GE(timer.elapsed(), 8 * 5 - 1);
    EXPECT_EQ(recorder.found().size(), 4u);
}
