#pragma once
// Shared by the watcher and daemon tests: readable Qt strings in failure output, and real file
// operations that fail the test when they fail.

#include <QDir>
#include <QFile>
#include <QString>
#include <QStringList>
#include <cstdio>
#include <gtest/gtest.h>
#include <ostream>

QT_BEGIN_NAMESPACE
inline void PrintTo(const QString &text, std::ostream *out)
{
    *out << '"' << text.toStdString() << '"';
}
inline void PrintTo(const QStringList &list, std::ostream *out)
{
    *out << "{\n";
    for (const QString &text : list)
        *out << "  \"" << text.toStdString() << "\"\n";
    *out << "}";
}
QT_END_NAMESPACE

namespace FileTest {

// Writes `data` to `path`, making the folders above it first.
inline void write(const QString &path, const QByteArray &data = "data")
{
    QDir().mkpath(path.left(path.lastIndexOf(u'/')));
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate)) << qPrintable(path);
    ASSERT_EQ(file.write(data), data.size());
}

// A plain rename(2), as a user's file manager would do it.
inline void move(const QString &from, const QString &to)
{
    ASSERT_EQ(std::rename(QFile::encodeName(from).constData(), QFile::encodeName(to).constData()), 0)
        << qPrintable(from) << " -> " << qPrintable(to);
}

} // namespace FileTest
