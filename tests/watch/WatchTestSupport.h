#pragma once
// Shared helpers of the watcher tests: real file operations that fail the test when they fail,
// and a kernel-call wrapper that refuses watches as a full kernel table would.

#include "watch/InotifySystem.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QString>
#include <cerrno>
#include <cstdio>
#include <gtest/gtest.h>

// Readable failure output for Qt strings and lists.
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

namespace WatchTest {

inline void write(const QString &path, const QByteArray &data = "data")
{
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate)) << qPrintable(path);
    ASSERT_EQ(file.write(data), data.size());
}

inline void move(const QString &from, const QString &to)
{
    ASSERT_EQ(std::rename(QFile::encodeName(from).constData(), QFile::encodeName(to).constData()), 0)
        << qPrintable(from) << " -> " << qPrintable(to);
}

inline void mkpath(const QString &path)
{
    ASSERT_TRUE(QDir().mkpath(path)) << qPrintable(path);
}

// Passes every call to the kernel, but refuses watches on paths containing `refused` with ENOSPC.
class RefusingInotify final : public InotifySystem
{
public:
    explicit RefusingInotify(QByteArray refused) : m_refused(std::move(refused)) {}
    Result init() override { return m_real->init(); }
    Result addWatch(int fd, const QByteArray &path, std::uint32_t mask) override
    {
        if (path.contains(m_refused)) {
            ++refusals;
            return {-1, ENOSPC};
        }
        return m_real->addWatch(fd, path, mask);
    }
    Result removeWatch(int fd, int wd) override { return m_real->removeWatch(fd, wd); }
    Result read(int fd, char *buffer, std::size_t size) override { return m_real->read(fd, buffer, size); }
    Result wait(int fd, int timeoutMs) override { return m_real->wait(fd, timeoutMs); }
    Result close(int fd) override { return m_real->close(fd); }

    int refusals = 0;

private:
    std::shared_ptr<InotifySystem> m_real = InotifySystem::real();
    QByteArray m_refused;
};

} // namespace WatchTest
