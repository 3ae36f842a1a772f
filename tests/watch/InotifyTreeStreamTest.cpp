#include "watch/InotifyTreeStream.h"

#include "WatchTestSupport.h"

#include <QDirIterator>
#include <QTemporaryDir>
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

} // namespace
