#include "watch/FSEventsListener.h"

#include "WatchTestSupport.h"
#include "common/TestUtil.h"
#include "util/Log.h"

#include <QDir>
#include <QMutex>
#include <QTemporaryDir>
#include <gtest/gtest.h>

using namespace FSEventFlag;
using namespace FileTest;
using namespace WatchTest;

namespace {

class Recorder final : public FSEventsListenerDelegate
{
public:
    QStringList events;

    void fileWasAdded(const QString &path) override { events << u"file added "_qs + path; }
    void fileWasRemoved(const QString &path) override { events << u"file removed "_qs + path; }
    void fileWasUpdate(const QString &path) override { events << u"file updated "_qs + path; }
    void fileWasRenamed(const QString &from, const QString &to) override
    {
        events << u"file renamed "_qs + from + u" -> "_qs + to;
    }
    void fileWasMove(const QString &name, const QString &from, const QString &to) override
    {
        events << u"file moved "_qs + name + u" "_qs + from + u" -> "_qs + to;
    }
    void directoryWasAdded(const QString &path) override { events << u"folder added "_qs + path; }
    void directoryWasRemoved(const QString &path) override { events << u"folder removed "_qs + path; }
    void directoryWasRenamed(const QString &from, const QString &to) override
    {
        events << u"folder renamed "_qs + from + u" -> "_qs + to;
    }
    void directoryWasMove(const QString &from, const QString &to) override
    {
        events << u"folder moved "_qs + from + u" -> "_qs + to;
    }
    void fileSystemUnknowAtPath(const QString &path) override { events << u"unknown "_qs + path; }
};

QStringList g_logLines;
QMutex g_logMutex;
void captureLog(const QString &line)
{
    QMutexLocker lock(&g_logMutex);
    g_logLines << line;
}

// The classification rules on hand-made batches (records the kernel does not produce on its own).
TEST(FSEventsListenerRules, RecordsAreClassifiedByTheFirstMatchingRule)
{
    QTemporaryDir dir;
    const QString root = dir.path();
    write(root + u"/a.txt"_qs);
    mkpath(root + u"/sub"_qs);
    mkpath(root + u"/other"_qs);
    write(root + u"/sub/b.txt"_qs);

    Recorder recorder;
    FSEventsListener listener;
    listener.setDelegate(&recorder);
    const auto batch = [&](const FSEventBatch &records) {
        recorder.events.clear();
        FSEventsListener::eventCallback(&listener, records);
        return recorder.events;
    };
    const QString a = root + u"/a.txt"_qs, b = root + u"/sub/b.txt"_qs;
    const QString gone = root + u"/gone.txt"_qs, gone2 = root + u"/sub/gone2"_qs;

    // Renamed together with modified (or metadata) is an update, and drops a waiting half.
    EXPECT_EQ(batch({{gone, ItemRenamed | ItemIsFile},
                     {a, ItemRenamed | ItemModified | ItemIsFile},
                     {gone2, ItemRenamed | ItemIsDir}}),
              QStringList({u"file updated "_qs + a, u"folder removed "_qs + gone2}));
    EXPECT_EQ(batch({{root + u"/sub"_qs, ItemRenamed | ItemInodeMetaMod | ItemIsDir}}),
              QStringList({u"file updated "_qs + root + u"/sub"_qs}));
    // Created and removed together: removed wins. A modification alone is not reported.
    EXPECT_EQ(
        batch({{gone, ItemCreated | ItemRemoved | ItemIsFile},
               {a, ItemModified | ItemIsFile},
               {b, ItemCreated | ItemIsFile},
               {gone2, ItemRemoved | ItemIsDir}}),
        QStringList({u"file removed "_qs + gone, u"file added "_qs + b, u"folder removed "_qs + gone2}));
    // Pairs: both exist -> both added; neither -> both removed (first with its own kind).
    EXPECT_EQ(batch({{a, ItemRenamed | ItemIsFile}, {root + u"/sub"_qs, ItemRenamed | ItemIsDir}}),
              QStringList({u"file added "_qs + a, u"folder added "_qs + root + u"/sub"_qs}));
    EXPECT_EQ(batch({{gone2, ItemRenamed | ItemIsDir}, {gone, ItemRenamed | ItemIsFile}}),
              QStringList({u"folder removed "_qs + gone2, u"file removed "_qs + gone}));
    // One exists: the first record is the old name, whichever exists.
    EXPECT_EQ(batch({{gone, ItemRenamed | ItemIsFile}, {a, ItemRenamed | ItemIsFile}}),
              QStringList({u"file renamed "_qs + gone + u" -> "_qs + a}));
    EXPECT_EQ(batch({{a, ItemRenamed | ItemIsFile}, {gone2, ItemRenamed | ItemIsFile}}),
              QStringList({u"file moved gone2 "_qs + root + u" -> "_qs + root + u"/sub"_qs}));
    EXPECT_EQ(
        batch({{root + u"/x"_qs, ItemRenamed | ItemIsDir}, {root + u"/other"_qs, ItemRenamed | ItemIsDir}}),
        QStringList({u"folder renamed "_qs + root + u"/x -> "_qs + root + u"/other"_qs}));
    EXPECT_EQ(batch({{root + u"/x"_qs, ItemRenamed | ItemIsDir},
                     {root + u"/sub/y"_qs, ItemRenamed | ItemIsDir},
                     {root + u"/sub"_qs, ItemRenamed | ItemIsDir}}),
              QStringList({u"folder removed "_qs + root + u"/x"_qs,
                           u"folder removed "_qs + root + u"/sub/y"_qs, u"unknown "_qs + root + u"/sub"_qs}));
    // A pair never spans two batches.
    EXPECT_EQ(batch({{gone, ItemRenamed | ItemIsFile}}), QStringList({u"file removed "_qs + gone}));
    EXPECT_EQ(batch({{a, ItemRenamed | ItemIsFile}}), QStringList({u"unknown "_qs + a}));
    // Without a delegate nothing is called and nothing breaks; the next batch starts clean.
    listener.setDelegate(nullptr);
    EXPECT_TRUE(batch({{a, ItemRenamed | ItemIsFile}, {gone, ItemCreated | ItemIsFile}}).isEmpty());
    listener.setDelegate(&recorder);
    EXPECT_EQ(batch({{gone, ItemRenamed | ItemIsFile}}), QStringList({u"file removed "_qs + gone}));
}

TEST(FSEventsListenerRules, ListenerArraysShareOnePathUpToOneTrailingSlash)
{
    EXPECT_EQ(FSEventsListener::formatPath(u"/a/b/"_qs), u"/a/b"_qs);
    EXPECT_EQ(FSEventsListener::formatPath(u"/a/b//"_qs), u"/a/b/"_qs);
    EXPECT_EQ(FSEventsListener::formatPath(u"/a/b"_qs), u"/a/b"_qs);

    Recorder one, two;
    FSEventsListener *shared = FSEventsListener::instance();
    EXPECT_EQ(shared, FSEventsListener::instance());
    shared->addListener(&one, u"/a/b"_qs);
    shared->addListener(&two, u"/a/b/"_qs);
    shared->addListener(&two, u"/a/b//"_qs);
    EXPECT_EQ(shared->listeners().value(u"/a/b"_qs), (QList<FSEventsListenerDelegate *>{&one, &two}));
    EXPECT_EQ(shared->listeners().value(u"/a/b/"_qs), (QList<FSEventsListenerDelegate *>{&two}));
    shared->removeListener(&one, u"/a/b/"_qs);
    shared->removeListener(&one, u"/never/added"_qs);
    EXPECT_EQ(shared->listeners().value(u"/a/b"_qs), (QList<FSEventsListenerDelegate *>{&two}));
    FSEventsListener::destroy();
    EXPECT_TRUE(FSEventsListener::instance()->listeners().isEmpty());
    FSEventsListener::destroy();
}

// Real changes in a real tree, each step checked against the exact callbacks it produced.
class FSEventsListenerTree : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_dir.isValid() && m_outside.isValid());
        root = m_dir.path() + u"/CloudFolder"_qs;
        outside = m_outside.path();
        mkpath(root + u"/docs/old"_qs);
        mkpath(root + u"/photos"_qs);
        write(root + u"/docs/report.txt"_qs);
    }

    void start(std::shared_ptr<InotifySystem> system = InotifySystem::real())
    {
        listener = std::make_unique<FSEventsListener>(&recorder, root, std::move(system));
        ASSERT_TRUE(listener->isListening());
    }

    // Creates a marker file and waits for its report: everything before it has been delivered.
    QStringList settle()
    {
        const QString marker = root + u"/.marker-"_qs + QString::number(++m_markers);
        write(marker);
        const QString event = u"file added "_qs + marker;
        EXPECT_TRUE(TestUtil::waitFor([&] { return recorder.events.contains(event); }, 10000));
        QStringList events = std::exchange(recorder.events, {});
        events.removeAll(event);
        return events;
    }

    QTemporaryDir m_dir, m_outside;
    QString root, outside;
    Recorder recorder;
    std::unique_ptr<FSEventsListener> listener;
    int m_markers = 0;
};

TEST_F(FSEventsListenerTree, FileLifecycleGivesOneCallbackPerChange)
{
    start();
    const QString docs = root + u"/docs"_qs, photos = root + u"/photos"_qs;

    write(docs + u"/new.txt"_qs, "hello");
    EXPECT_EQ(settle(), QStringList({u"file added "_qs + docs + u"/new.txt"_qs}));

    write(docs + u"/new.txt"_qs, "changed"); // contents only: not reported
    EXPECT_EQ(settle(), QStringList());

    move(docs + u"/new.txt"_qs, docs + u"/renamed.txt"_qs);
    EXPECT_EQ(settle(),
              QStringList({u"file renamed "_qs + docs + u"/new.txt -> "_qs + docs + u"/renamed.txt"_qs}));

    move(docs + u"/renamed.txt"_qs, photos + u"/renamed.txt"_qs);
    EXPECT_EQ(settle(), QStringList({u"file moved renamed.txt "_qs + docs + u" -> "_qs + photos}));

    write(outside + u"/incoming.txt"_qs);
    move(outside + u"/incoming.txt"_qs, docs + u"/incoming.txt"_qs);
    EXPECT_EQ(settle(), QStringList({u"unknown "_qs + docs + u"/incoming.txt"_qs}));

    move(photos + u"/renamed.txt"_qs, outside + u"/left.txt"_qs);
    EXPECT_EQ(settle(), QStringList({u"file removed "_qs + photos + u"/renamed.txt"_qs}));

    ASSERT_TRUE(QFile::remove(docs + u"/incoming.txt"_qs));
    EXPECT_EQ(settle(), QStringList({u"file removed "_qs + docs + u"/incoming.txt"_qs}));

    // An editor's save: a temporary file renamed over the original.
    write(docs + u"/.report.txt.swp"_qs, "new contents");
    move(docs + u"/.report.txt.swp"_qs, docs + u"/report.txt"_qs);
    EXPECT_EQ(settle(), QStringList({u"file added "_qs + docs + u"/.report.txt.swp"_qs,
                                     u"file renamed "_qs + docs + u"/.report.txt.swp -> "_qs + docs +
                                         u"/report.txt"_qs}));
}

TEST_F(FSEventsListenerTree, FoldersAreFollowedWhereverTheyGo)
{
    start();
    const QString docs = root + u"/docs"_qs;

    // mkdir -p: every level is reported, parents first, and the deepest level is watched.
    mkpath(root + u"/a/b/c/d"_qs);
    EXPECT_EQ(settle(),
              QStringList({u"folder added "_qs + root + u"/a"_qs, u"folder added "_qs + root + u"/a/b"_qs,
                           u"folder added "_qs + root + u"/a/b/c"_qs,
                           u"folder added "_qs + root + u"/a/b/c/d"_qs}));
    write(root + u"/a/b/c/d/deep.txt"_qs);
    EXPECT_EQ(settle(), QStringList({u"file added "_qs + root + u"/a/b/c/d/deep.txt"_qs}));

    // A renamed folder keeps being watched under its new name.
    move(root + u"/a"_qs, root + u"/z"_qs);
    EXPECT_EQ(settle(), QStringList({u"folder renamed "_qs + root + u"/a -> "_qs + root + u"/z"_qs}));
    write(root + u"/z/b/c/inner.txt"_qs);
    EXPECT_EQ(settle(), QStringList({u"file added "_qs + root + u"/z/b/c/inner.txt"_qs}));

    move(root + u"/z/b"_qs, docs + u"/b"_qs);
    EXPECT_EQ(settle(), QStringList({u"folder moved "_qs + root + u"/z/b -> "_qs + docs + u"/b"_qs}));

    // rm -r: children before their folder.
    ASSERT_TRUE(QDir(docs + u"/b"_qs).removeRecursively());
    const QStringList removed = settle();
    EXPECT_EQ(removed.size(), 5) << qPrintable(removed.join(u'\n'));
    EXPECT_LT(removed.indexOf(u"file removed "_qs + docs + u"/b/c/d/deep.txt"_qs),
              removed.indexOf(u"folder removed "_qs + docs + u"/b/c/d"_qs));
    EXPECT_LT(removed.indexOf(u"folder removed "_qs + docs + u"/b/c/d"_qs),
              removed.indexOf(u"folder removed "_qs + docs + u"/b/c"_qs));
    EXPECT_EQ(removed.constLast(), u"folder removed "_qs + docs + u"/b"_qs);
    EXPECT_TRUE(removed.contains(u"file removed "_qs + docs + u"/b/c/inner.txt"_qs));

    // A folder brought in from outside, subfolders included, is watched from then on.
    mkpath(outside + u"/album/2019"_qs);
    move(outside + u"/album"_qs, root + u"/album"_qs);
    EXPECT_EQ(settle(), QStringList({u"unknown "_qs + root + u"/album"_qs}));
    write(root + u"/album/2019/pic.jpg"_qs);
    EXPECT_EQ(settle(), QStringList({u"file added "_qs + root + u"/album/2019/pic.jpg"_qs}));

    // A folder taken out is no longer watched.
    move(root + u"/album"_qs, outside + u"/taken"_qs);
    EXPECT_EQ(settle(), QStringList({u"folder removed "_qs + root + u"/album"_qs}));
    write(outside + u"/taken/2019/later.jpg"_qs);
    mkpath(outside + u"/taken/more"_qs);
    EXPECT_EQ(settle(), QStringList());
}

TEST_F(FSEventsListenerTree, FolderRenamedBeforeItsWatchIsSetIsWatchedUnderItsNewName)
{
    // mkdir and mv at once: by the time the watcher asks for a watch the name is gone.
    start(std::make_shared<RenamingInotify>("/quick", "/renamed"));
    mkpath(root + u"/quick"_qs);
    const QStringList made = settle();
    EXPECT_TRUE(made.contains(u"folder renamed "_qs + root + u"/quick -> "_qs + root + u"/renamed"_qs))
        << qPrintable(made.join(u'\n'));
    write(root + u"/renamed/inside.txt"_qs);
    EXPECT_EQ(settle(), QStringList({u"file added "_qs + root + u"/renamed/inside.txt"_qs}));
}

// The watched folder itself goes away and comes back (the sync engine recreates a missing sync
// folder): nothing is reported under the old paths for the tree that left, and the folder is
// watched again once it exists again.
TEST_F(FSEventsListenerTree, RootThatGoesAwayIsWatchedAgainWhenItReturns)
{
    start();
    move(root, outside + u"/moved"_qs);
    EXPECT_TRUE(TestUtil::waitFor([&] { return !recorder.events.isEmpty(); }, 10000));
    EXPECT_EQ(std::exchange(recorder.events, {}), QStringList({u"folder removed "_qs + root}));
    write(outside + u"/moved/docs/after.txt"_qs);
    mkpath(outside + u"/moved/later"_qs);

    mkpath(root);
    write(root + u"/back.txt"_qs);
    EXPECT_EQ(settle(), QStringList({u"file added "_qs + root + u"/back.txt"_qs}));

    ASSERT_TRUE(QDir(root).removeRecursively());
    EXPECT_TRUE(
        TestUtil::waitFor([&] { return recorder.events.contains(u"folder removed "_qs + root); }, 10000));
    recorder.events.clear();
    mkpath(root + u"/sub"_qs);
    write(root + u"/sub/again.txt"_qs);
    const QStringList again = settle();
    EXPECT_TRUE(again.contains(u"file added "_qs + root + u"/sub/again.txt"_qs))
        << qPrintable(again.join(u'\n'));
    EXPECT_FALSE(again.filter(u"/moved"_qs).size() || again.contains(u"folder added "_qs + root));
}

TEST_F(FSEventsListenerTree, StoppedListenerIsSilentAndStopsTwice)
{
    start();
    write(root + u"/one.txt"_qs);
    EXPECT_EQ(settle(), QStringList({u"file added "_qs + root + u"/one.txt"_qs}));
    listener->stopListener();
    listener->stopListener();
    EXPECT_FALSE(listener->isListening());

    // A fresh listener sees later changes; the stopped one reported nothing of them.
    Recorder other;
    FSEventsListener second(&other, root);
    write(root + u"/two.txt"_qs);
    EXPECT_TRUE(TestUtil::waitFor([&] { return !other.events.isEmpty(); }));
    EXPECT_EQ(other.events, QStringList({u"file added "_qs + root + u"/two.txt"_qs}));
    EXPECT_TRUE(recorder.events.isEmpty());
}

TEST_F(FSEventsListenerTree, FullWatchTableIsReportedOnceAndTheRestStaysWatched)
{
    mkpath(root + u"/full/one/two"_qs);
    auto refusing = std::make_shared<RefusingInotify>("/full");
    {
        QMutexLocker lock(&g_logMutex);
        g_logLines.clear();
    }
    Log::setSink(&captureLog);
    start(refusing);
    EXPECT_EQ(refusing->refusals, 3);     // full, full/one, full/one/two
    mkpath(root + u"/full/one/three"_qs); // not seen: its parent is not watched
    mkpath(root + u"/more/full"_qs);      // refused again, without a second line
    write(root + u"/docs/seen.txt"_qs);
    EXPECT_EQ(settle(), QStringList({u"folder added "_qs + root + u"/more"_qs,
                                     u"folder added "_qs + root + u"/more/full"_qs,
                                     u"file added "_qs + root + u"/docs/seen.txt"_qs}));
    Log::setSink(nullptr);
    EXPECT_EQ(refusing->refusals, 4);
    QMutexLocker lock(&g_logMutex);
    EXPECT_EQ(g_logLines.filter(u"fs.inotify.max_user_watches"_qs).size(), 1)
        << qPrintable(g_logLines.join(u'\n'));
}

} // namespace
