#pragma once
// Shared helpers of the daemon tests: readable messages and real file operations.

#include "daemon/ChangeClassifier.h"

#include <QDir>
#include <QFile>
#include <QString>
#include <QStringList>
#include <cstdio>
#include <gtest/gtest.h>
#include <ostream>

// One message as text: "<event name without prefix> <path>" or "<name> <old> -> <new>".
inline QString describe(const ChangeMessage &message)
{
    QString name = message.name;
    name.remove(u"kKeyMyFSListener"_qs);
    return name + u' ' + message.payload.toStringList().join(u" -> "_qs);
}

inline QStringList describe(const QList<ChangeMessage> &messages)
{
    QStringList texts;
    for (const ChangeMessage &message : messages)
        texts << describe(message);
    return texts;
}

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

namespace DaemonTest {

inline void write(const QString &path, const QByteArray &data = "data")
{
    QDir().mkpath(path.left(path.lastIndexOf(u'/')));
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate)) << qPrintable(path);
    ASSERT_EQ(file.write(data), data.size());
}

inline void move(const QString &from, const QString &to)
{
    ASSERT_EQ(std::rename(QFile::encodeName(from).constData(), QFile::encodeName(to).constData()), 0)
        << qPrintable(from) << " -> " << qPrintable(to);
}

} // namespace DaemonTest
