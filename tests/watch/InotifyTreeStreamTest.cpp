#include "watch/InotifyTreeStream.h"

#include "common/TestUtil.h"
#include "WatchTestSupport.h"

#include <QDirIterator>
#include <QSet>
#include <QTemporaryDir>
#include <QTest>
#include <gtest/gtest.h>
#include <sys/stat.h>

using namespace FileTest;
using namespace WatchTest;

namespace {

// The first walk is what the daemon learns the existing tree from: every item once, hidden ones
// and odd ones included, folders told apart from links to folders, which are not followed.
TEST(InotifyTreeStreamWalk, FirstWalkReportsEveryItemOnceWithItsKind)
{
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    const QString root = dir.path() + u"/tree"_qs;
    mkpath(root + u"/a/b"_qs);
    mkpath(root + u"/.hidden dir"_qs);
    write(root + u"/a/b/deep.txt"_qs);
    write(root + u"/.dotfile"_qs);
    write(root + u"/Ünïcode名.txt"_qs);
    ASSERT_TRUE(QFile::link(root + u"/a"_qs, root + u"/link to a"_qs));
    ASSERT_TRUE(QFile::link(root + u"/missing"_qs, root + u"/dangling"_qs));
    ASSERT_EQ(::mkfifo(QFile::encodeName(root + u"/fifo"_qs).constData(), 0600), 0);

    QStringList expected;
    QDirIterator it(root, QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden | QDir::System,
                    QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString path = it.next();
        expected << (it.fileInfo().isDir() && !it.fileInfo().isSymLink() ? u"d "_qs : u"f "_qs) + path;
    }
    expected.sort();
    ASSERT_EQ(expected.size(), 9);

    QStringList seen;
    InotifyTreeStream stream(root, 10, [](const FSEventBatch &) {});
    ASSERT_TRUE(
        stream.start([&](const QString &path, bool isDir) { seen << (isDir ? u"d "_qs : u"f "_qs) + path; }));
    seen.sort();
    EXPECT_EQ(seen, expected);
    EXPECT_EQ(stream.watchCount(), 4); // the root, a, a/b, .hidden dir: never through the link
}

// At the real latency the stream reads a run of changes in rests rather than event by event: a
// burst larger than one read's buffer is reported whole, and the stream goes back to listening once
// the run is over, so a change long after it is reported too.
TEST(InotifyTreeStreamEvents, BurstIsReportedWholeAndALaterChangeStillComes)
{
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    const QString root = dir.path() + u"/tree"_qs;
    mkpath(root);
    QSet<QString> created;
    InotifyTreeStream stream(root, 200, [&](const FSEventBatch &batch) {
        for (const FSEventRecord &record : batch)
            if (record.flags & FSEventFlag::ItemCreated)
                created.insert(record.path);
    });
    ASSERT_TRUE(stream.start());

    QSet<QString> expected;
    for (int i = 0; i < 3000; ++i) {
        const QString path = root + u"/file %1 with a long enough name"_qs.arg(i);
        write(path);
        expected.insert(path);
    }
    EXPECT_TRUE(TestUtil::waitFor([&] { return created == expected; }, 10000))
        << created.size() << " of " << expected.size();

    // Well past the rest and a batch: the stream listens again.
    QTest::qWait(300);
    const QString late = root + u"/late"_qs;
    write(late);
    EXPECT_TRUE(TestUtil::waitFor([&] { return created.contains(late); }, 5000));
}

} // namespace
