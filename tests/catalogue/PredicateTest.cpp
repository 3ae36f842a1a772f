#include "catalogue/Predicate.h"

#include "StoreFixture.h"
#include "catalogue/Records.h"

#include <QSet>

TEST(Predicate, FoldingIgnoresCaseAndDiacritics)
{
    EXPECT_EQ(foldedString(QStringLiteral("École/Ünïcode")), QStringLiteral("ecole/unicode"));
    EXPECT_EQ(foldedString(QStringLiteral("e\u0301")), QStringLiteral("e")); // already decomposed
    EXPECT_EQ(foldedString(QStringLiteral("/S/A/")), QStringLiteral("/s/a/"));
    EXPECT_EQ(foldedString(QString()), QString());
}

TEST(Predicate, LikeMatchesWholeStringsWithStarAndQuestionMark)
{
    EXPECT_TRUE(likeMatches(QStringLiteral("abc"), QStringLiteral("abc")));
    EXPECT_FALSE(likeMatches(QStringLiteral("abcd"), QStringLiteral("abc"))); // whole string, not prefix
    EXPECT_FALSE(likeMatches(QStringLiteral("ABC"), QStringLiteral("abc")));  // case-sensitive
    EXPECT_TRUE(likeMatches(QStringLiteral("aXbYbZc"), QStringLiteral("a*b*c")));
    EXPECT_FALSE(likeMatches(QStringLiteral("aXbYbZ"), QStringLiteral("a*b*c")));
    EXPECT_TRUE(likeMatches(QString(), QStringLiteral("*")));
    EXPECT_TRUE(
        likeMatches(QStringLiteral("a\U0001F600b"), QStringLiteral("a?b"))); // one character, two units
    EXPECT_TRUE(likeMatches(QStringLiteral("b[1]"), QStringLiteral("b[1]")));
    EXPECT_FALSE(likeMatches(QStringLiteral("b1"), QStringLiteral("b[1]")));
}

TEST(Predicate, FormatReaderBuildsTheCatalogueQueries)
{
    bool ok = false;
    Predicate p =
        Predicate::predicateWithFormat(QStringLiteral("%K like %@ and %K like %@ or %K like %@"),
                                       {QStringLiteral("time"), QStringLiteral("1"), QStringLiteral("name"),
                                        QStringLiteral("n"), QStringLiteral("md5"), QStringLiteral("m")},
                                       &ok);
    ASSERT_TRUE(ok);
    EXPECT_EQ(p.kind(), Predicate::Kind::Or); // and binds tighter
    EXPECT_EQ(p.toString(), QStringLiteral("time LIKE \"1\" AND name LIKE \"n\" OR md5 LIKE \"m\""));

    p = Predicate::predicateWithFormat(
        QStringLiteral("path BEGINSWITH[cd] %@ AND (key == nil || pkey = 'x')"), {QStringLiteral("/a/")},
        &ok);
    ASSERT_TRUE(ok);
    EXPECT_EQ(p.toString(), QStringLiteral("path BEGINSWITH[cd] \"/a/\" AND (key == nil OR pkey == \"x\")"));

    for (const QString &bad : {QStringLiteral("%K like"), QStringLiteral("key ~ %@"),
                               QStringLiteral("(key == %@"), QStringLiteral("key == %@ %@")}) {
        p = Predicate::predicateWithFormat(
            bad, {QStringLiteral("key"), QStringLiteral("v"), QStringLiteral("w")}, &ok);
        EXPECT_FALSE(ok) << qPrintable(bad);
        EXPECT_EQ(p.kind(), Predicate::Kind::False);
    }
}

// Every predicate must select the same rows from the store (SQL) as from unsaved objects (memory).
class PredicateAgreement : public StoreFixture
{
protected:
    const QStringList paths{
        QStringLiteral("/s/a"),       QStringLiteral("/s/A/x"),  QStringLiteral("/s/École/f"),
        QStringLiteral("/s/ecole/g"), QStringLiteral("/s/b[1]"), QStringLiteral("/s/b1"),
        QStringLiteral("/s/c*d"),     QStringLiteral("/s/cXd"),  QStringLiteral("/s/ab")};

    void fill(ManagedObjectContext &ctx)
    {
        for (int i = 0; i < paths.size(); ++i) {
            auto dir = ctx.insertNewObject<Directory>();
            dir->setPath(paths[i]);
            dir->setKey(i == 0 ? QString() : QStringLiteral("k%1").arg(i));
            dir->setMemo(i);
            dir->setSync(i % 2 == 0);
        }
    }

    static QSet<QString> pathsOf(const QList<DirectoryPtr> &rows)
    {
        QSet<QString> set;
        for (const auto &row : rows)
            set.insert(row->path());
        return set;
    }
};

TEST_F(PredicateAgreement, StoreAndPendingObjectsGiveTheSameMatches)
{
    fill(*context);
    ASSERT_TRUE(context->save());
    auto reader = newContext();
    auto pending = newContext();
    auto pendingDb = std::make_shared<QTemporaryDir>();
    // The pending side uses a second, empty store so only unsaved objects can match.
    auto emptyStore = PersistentStoreCoordinator::create(pendingDb->filePath(QStringLiteral("e.storedata")));
    ASSERT_TRUE(emptyStore);
    pending = ManagedObjectContext::create(emptyStore);
    fill(*pending);

    struct Case
    {
        Predicate predicate;
        QSet<QString> expected;
    };
    const QList<Case> cases = {
        {Predicate::like(QStringLiteral("path"), QStringLiteral("/s/a")), {QStringLiteral("/s/a")}},
        {Predicate::like(QStringLiteral("path"), QStringLiteral("/S/*")), {}},
        {Predicate::like(QStringLiteral("path"), QStringLiteral("/s/b[1]")), {QStringLiteral("/s/b[1]")}},
        {Predicate::like(QStringLiteral("path"), QStringLiteral("/s/b[1-9]")), {}},
        {Predicate::like(QStringLiteral("path"), QStringLiteral("/s/c*d")),
         {QStringLiteral("/s/c*d"), QStringLiteral("/s/cXd")}},
        {Predicate::like(QStringLiteral("path"), QStringLiteral("/s/c?d")),
         {QStringLiteral("/s/c*d"), QStringLiteral("/s/cXd")}},
        {Predicate::like(QStringLiteral("path"), QStringLiteral("/s/?")), {QStringLiteral("/s/a")}},
        {Predicate::like(QStringLiteral("path"), QString()), {}},
        {Predicate::like(QStringLiteral("memo"), QStringLiteral("1*")), {QStringLiteral("/s/A/x")}},
        {Predicate::beginsWithCD(QStringLiteral("path"), QStringLiteral("/s/ÉCOLE/")),
         {QStringLiteral("/s/École/f"), QStringLiteral("/s/ecole/g")}},
        {Predicate::beginsWithCD(QStringLiteral("path"), QStringLiteral("/s/a/")),
         {QStringLiteral("/s/A/x")}},
        {Predicate::beginsWithCD(QStringLiteral("path"), QStringLiteral("/s/a")),
         {QStringLiteral("/s/a"), QStringLiteral("/s/A/x"), QStringLiteral("/s/ab")}},
        {Predicate::beginsWithCD(QStringLiteral("key"), QStringLiteral("K1")), {QStringLiteral("/s/A/x")}},
        {Predicate::equalTo(QStringLiteral("key"), QVariant()), {QStringLiteral("/s/a")}},
        {Predicate::equalTo(QStringLiteral("memo"), QStringLiteral("3")), {QStringLiteral("/s/ecole/g")}},
        {Predicate::equalTo(QStringLiteral("sync"), true) &&
             Predicate::like(QStringLiteral("path"), QStringLiteral("/s/[ab]*")),
         {}},
        {Predicate::equalTo(QStringLiteral("key"), QStringLiteral("k4")) ||
             Predicate::equalTo(QStringLiteral("key"), QStringLiteral("k5")),
         {QStringLiteral("/s/b[1]"), QStringLiteral("/s/b1")}},
    };
    for (const Case &c : cases) {
        FvError error;
        const auto fromStore = reader->fetch<Directory>(c.predicate, {}, 0, &error);
        EXPECT_TRUE(error.isNull()) << qPrintable(error.toString());
        EXPECT_EQ(pathsOf(fromStore), c.expected) << "store: " << qPrintable(c.predicate.toString());
        EXPECT_EQ(pathsOf(pending->fetch<Directory>(c.predicate)), c.expected)
            << "memory: " << qPrintable(c.predicate.toString());
    }

    FvError error;
    EXPECT_TRUE(
        reader->fetch<Directory>(Predicate::equalTo(QStringLiteral("nope"), 1), {}, 0, &error).isEmpty());
    EXPECT_EQ(error.code, PersistentStoreCoordinator::QueryFailed);
}
