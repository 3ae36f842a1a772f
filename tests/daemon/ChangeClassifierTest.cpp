#include "DaemonTestSupport.h"

#include <QTemporaryDir>
#include <gtest/gtest.h>

using namespace FSEventFlag;

namespace {

// A batch written as text, one record per entry: "<kind> <relative path>", kinds being
// "+f" "+d" (created), "-f" "-d" (removed), "<f:N" "<d:N" (moved from, cookie N), ">f:N" ">d:N"
// (moved to), "w" (closed after writing), "*f" "*d" (found in a folder that moved in).
FSEventBatch batchOf(const QString &root, const QStringList &lines)
{
    FSEventBatch batch;
    for (const QString &line : lines) {
        const qsizetype space = line.indexOf(u' ');
        const QString kind = line.left(space);
        FSEventRecord record{root + u'/' + line.mid(space + 1), 0, 0};
        const bool isDir = kind.contains(u'd');
        record.flags = isDir ? ItemIsDir : ItemIsFile;
        if (kind.startsWith(u'+'))
            record.flags |= ItemCreated;
        else if (kind.startsWith(u'-'))
            record.flags |= ItemRemoved;
        else if (kind.startsWith(u'<') || kind.startsWith(u'>'))
            record.flags |= ItemRenamed | (kind.startsWith(u'<') ? ItemMovedFrom : ItemMovedTo);
        else if (kind == u"w")
            record.flags = ItemModified | ItemClosedWrite | ItemIsFile;
        else if (kind.startsWith(u'*'))
            record.flags |= ItemFound;
        if (kind.contains(u':'))
            record.cookie = kind.section(u':', 1).toUInt();
        batch.append(record);
    }
    return batch;
}

struct Case
{
    const char *name;
    QStringList existing; // relative paths present before; a trailing "/" marks a folder
    QStringList batch;    // records, see batchOf
    QStringList expected; // messages, relative paths, see describe()
};

void PrintTo(const Case &c, std::ostream *out)
{
    *out << c.name;
}

class ClassifierCases : public ::testing::TestWithParam<Case>
{
};

TEST_P(ClassifierCases, BatchGivesTheExpectedMessages)
{
    const Case &c = GetParam();
    QTemporaryDir dir;
    const QString root = dir.path();
    for (const QString &path : c.existing) {
        if (path.endsWith(u'/'))
            QDir().mkpath(root + u'/' + path);
        else
            FileTest::write(root + u'/' + path);
    }
    ChangeClassifier classifier(root);
    classifier.scanTree();
    QStringList got = describe(classifier.classify(batchOf(root, c.batch)));
    got.replaceInStrings(root + u'/', QString());
    EXPECT_EQ(got, c.expected);
}

INSTANTIATE_TEST_SUITE_P(
    Daemon, ClassifierCases,
    ::testing::Values(
        Case{"TemporaryRenamedOverOriginalIsAnUpdate",
             {u"doc.txt"_qs},
             {u"+f .doc.tmp"_qs, u"w .doc.tmp"_qs, u"<f:7 .doc.tmp"_qs, u">f:7 doc.txt"_qs},
             {u"UpdateFile doc.txt"_qs}},
        Case{"OlderFileRenamedOverAnotherIsDeletedAndTheTargetUpdated",
             {u"a.txt"_qs, u"b.txt"_qs},
             {u"<f:3 a.txt"_qs, u">f:3 b.txt"_qs},
             {u"DeleteFile a.txt"_qs, u"UpdateFile b.txt"_qs}},
        Case{"BackupRenameThenNewFileThenBackupDeletedIsAnUpdate",
             {u"notes.txt"_qs},
             {u"<f:1 notes.txt"_qs, u">f:1 notes.txt~"_qs, u"+f notes.txt"_qs, u"w notes.txt"_qs,
              u"-f notes.txt~"_qs},
             {u"UpdateFile notes.txt"_qs}},
        Case{"KeptBackupIsARenameAndANewFile",
             {u"notes.txt"_qs},
             {u"<f:1 notes.txt"_qs, u">f:1 notes.txt~"_qs, u"+f notes.txt"_qs, u"w notes.txt"_qs},
             {u"RenameFile notes.txt -> notes.txt~"_qs, u"CreateFile notes.txt"_qs}},
        Case{"DeletedAndWrittenAgainIsAnUpdate",
             {u"a.txt"_qs},
             {u"-f a.txt"_qs, u"+f a.txt"_qs, u"w a.txt"_qs},
             {u"UpdateFile a.txt"_qs}},
        Case{"ShortLivedItemsAreNotReported",
             {},
             {u"+f tmp"_qs, u"w tmp"_qs, u"-f tmp"_qs, u"+d d"_qs, u"+f d/x"_qs, u"-f d/x"_qs, u"-d d"_qs},
             {}},
        Case{"CreatedThenRenamedIsCreatedUnderTheFinalName",
             {},
             {u"+f a"_qs, u"w a"_qs, u"<f:2 a"_qs, u">f:2 b"_qs, u"+d new"_qs, u"+f new/in"_qs,
              u"<d:3 new"_qs, u">d:3 Photos"_qs},
             {u"CreateFile b"_qs, u"CreateDir Photos"_qs, u"CreateFile Photos/in"_qs}},
        Case{"ContentsOfARenamedFolderFollowItsNewName",
             {u"old/keep.txt"_qs},
             {u"+f old/new.txt"_qs, u"<d:4 old"_qs, u">d:4 renamed"_qs, u"w renamed/keep.txt"_qs,
              u"<f:5 renamed/new.txt"_qs, u">f:5 renamed/final.txt"_qs},
             {u"RenameDir old -> renamed"_qs, u"UpdateFile renamed/keep.txt"_qs,
              u"CreateFile renamed/final.txt"_qs}},
        Case{"MovesWithOneHalfOutsideAreCreationsOrRemovals",
             {u"out.txt"_qs, u"gone/"_qs, u"gone/inner.txt"_qs, u"same.txt"_qs},
             {u"<f:1 out.txt"_qs, u"<d:2 gone"_qs, u">d:3 album"_qs, u"*d album/2019"_qs,
              u"*f album/2019/p.jpg"_qs, u">f:4 same.txt"_qs, u">f:5 fresh.txt"_qs},
             {u"DeleteFile out.txt"_qs, u"DeleteDir gone"_qs, u"CreateDir album"_qs,
              u"CreateDir album/2019"_qs, u"CreateFile album/2019/p.jpg"_qs, u"UpdateFile same.txt"_qs,
              u"CreateFile fresh.txt"_qs}},
        Case{"WritesAreUpdatesOnceAndUnknownFilesAreNew",
             {u"a.txt"_qs},
             {u"w a.txt"_qs, u"w a.txt"_qs, u"w stray.txt"_qs},
             {u"UpdateFile a.txt"_qs, u"CreateFile stray.txt"_qs}},
        Case{"NamesThatOnlyStartAlikeAreNotInsideTheFolder",
             {u"a/"_qs, u"a/x"_qs, u"a b"_qs, u"a-c"_qs},
             {u"<d:1 a"_qs, u">d:1 z"_qs, u"+f n"_qs, u"<f:2 n"_qs, u">f:2 a b"_qs, u"-d z"_qs, u"+f t"_qs,
              u"<f:3 t"_qs, u">f:3 a-c"_qs},
             {u"RenameDir a -> z"_qs, u"UpdateFile a b"_qs, u"DeleteDir z"_qs, u"UpdateFile a-c"_qs}},
        Case{"RemovedFolderTakesWhatWasCreatedInItAlong",
             {u"p/"_qs},
             {u"+d p/q"_qs, u"+f p/q/r"_qs, u"w p/q/r"_qs, u"-f p/q/r"_qs, u"-d p/q"_qs, u"+f p/s"_qs,
              u"<d:9 p"_qs},
             {u"DeleteDir p"_qs}}),
    [](const auto &info) { return std::string(info.param.name); });

TEST(ChangeClassifier, KnownTreeFollowsTheBatches)
{
    QTemporaryDir dir;
    const QString root = dir.path();
    FileTest::write(root + u"/f.txt"_qs);
    ChangeClassifier classifier(root);
    classifier.scanTree();
    EXPECT_EQ(classifier.knownCount(), 1);

    // A file created in one batch is known in the next: renaming over it is an update.
    EXPECT_EQ(describe(classifier.classify(batchOf(root, {u"+f g.txt"_qs}))),
              QStringList({u"CreateFile "_qs + root + u"/g.txt"_qs}));
    EXPECT_EQ(
        describe(classifier.classify(batchOf(root, {u"<f:1 f.txt"_qs, u">f:1 g.txt"_qs}))),
        QStringList({u"DeleteFile "_qs + root + u"/f.txt"_qs, u"UpdateFile "_qs + root + u"/g.txt"_qs}));
    // A removed file is forgotten: a later arrival under its name is new.
    EXPECT_EQ(describe(classifier.classify(batchOf(root, {u"-f g.txt"_qs}))),
              QStringList({u"DeleteFile "_qs + root + u"/g.txt"_qs}));
    EXPECT_EQ(describe(classifier.classify(batchOf(root, {u">f:2 g.txt"_qs}))),
              QStringList({u"CreateFile "_qs + root + u"/g.txt"_qs}));
    EXPECT_EQ(classifier.knownCount(), 1);
    // The root itself going away is a folder removal.
    EXPECT_EQ(describe(classifier.classify({{root, ItemRemoved | ItemIsDir, 0}})),
              QStringList({u"DeleteDir "_qs + root}));
    EXPECT_EQ(classifier.knownCount(), 0);
}

} // namespace
