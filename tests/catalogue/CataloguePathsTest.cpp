// The path rules applied to every name and path that comes from the server.

#include "catalogue/CataloguePaths.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <gtest/gtest.h>

TEST(CataloguePaths, OnlyCleanPathsStrictlyBelowTheRootAreInside)
{
    const QString root = QStringLiteral("/home/user/Cloud Folder");
    struct Case
    {
        QString path;
        QString root;
        bool inside;
    } cases[] = {
        {root + u"/a", root, true},
        {root + u"/a/b c/…", root, true},
        {root + u"/...", root, true},
        {root, root, false},
        {root + u"/", root, false},
        {root + u"/a/", root, false},
        {root + u"//a", root, false},
        {root + u"/./a", root, false},
        {root + u"/a/../b", root, false},
        {root + u"/../Cloud Folder/a", root, false},
        {root + u"x/a", root, false},
        {QStringLiteral("relative/a"), root, false},
        {root + u"/a" + QChar(0) + u"b", root, false},
        {QStringLiteral("/a"), QStringLiteral("/"), true},
        // A ".." above "/" stays in the path after cleaning: refused all the same.
        {QStringLiteral("/../etc"), QStringLiteral("/"), false},
        {QStringLiteral("/a/.."), QStringLiteral("/"), false},
        {QStringLiteral("/"), QStringLiteral("/"), false},
        {root + u"/a", QString(), false},
        {root + u"/a", root + u"/", false},
    };
    for (const Case &c : cases)
        EXPECT_EQ(CataloguePaths::isInside(c.path, c.root), c.inside)
            << qPrintable(c.path) << " in " << qPrintable(c.root);
}

TEST(CataloguePaths, SafeNamesAreOneComponent)
{
    for (const QString &name : {QStringLiteral("a"), QStringLiteral("..."), QStringLiteral(" a "),
                                QStringLiteral("a\\b"), QStringLiteral("x\uFF0Fy")})
        EXPECT_TRUE(CataloguePaths::isSafeName(name)) << qPrintable(name);
    for (const QString &name : {QString(), QStringLiteral("."), QStringLiteral(".."), QStringLiteral("a/b"),
                                QStringLiteral("/"), QString(QStringLiteral("a") + QChar(0))})
        EXPECT_FALSE(CataloguePaths::isSafeName(name)) << qPrintable(name);
}

TEST(CataloguePaths, ItemsExistAsTheyAreAndLinksLeadToFoldersOrNowhere)
{
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    const QString folder = dir.filePath(QStringLiteral("folder"));
    const QString file = dir.filePath(QStringLiteral("file"));
    ASSERT_TRUE(QDir().mkpath(folder));
    QFile made(file);
    ASSERT_TRUE(made.open(QIODevice::WriteOnly));
    made.close();
    ASSERT_TRUE(QFile::link(folder, dir.filePath(QStringLiteral("to-folder"))));
    ASSERT_TRUE(QFile::link(file, dir.filePath(QStringLiteral("to-file"))));
    ASSERT_TRUE(
        QFile::link(dir.filePath(QStringLiteral("gone")), dir.filePath(QStringLiteral("to-nothing"))));

    const struct
    {
        const char *name;
        bool exists, isFolder;
    } cases[] = {{"folder", true, true},      {"file", true, false},       {"to-folder", true, true},
                 {"to-file", true, false},    {"to-nothing", true, false}, {"gone", false, false},
                 {"gone/below", false, false}};
    for (const auto &c : cases) {
        bool isFolder = !c.isFolder;
        EXPECT_EQ(CataloguePaths::itemExists(dir.filePath(QLatin1String(c.name)), &isFolder), c.exists)
            << c.name;
        EXPECT_EQ(isFolder, c.isFolder) << c.name;
        EXPECT_EQ(CataloguePaths::itemExists(dir.filePath(QLatin1String(c.name))), c.exists) << c.name;
    }
}
