#pragma once
// Shared helpers of the watcher tests: making folders that fails the test when it fails, and a
// kernel-call wrapper that refuses watches as a full kernel table would.

#include "common/FileTestSupport.h"
#include "watch/InotifySystem.h"

#include <QDir>
#include <QFileInfo>
#include <QString>
#include <cerrno>
#include <cstdio>

namespace WatchTest {

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

// Renames a folder whose name ends in `from` to `to` just before its watch is asked for: a folder
// made and renamed at once, before the watcher got to it.
class RenamingInotify final : public InotifySystem
{
public:
    RenamingInotify(QByteArray from, QByteArray to) : m_from(std::move(from)), m_to(std::move(to)) {}
    Result init() override { return m_real->init(); }
    Result addWatch(int fd, const QByteArray &path, std::uint32_t mask) override
    {
        if (path.endsWith(m_from)) {
            QByteArray renamed = path;
            renamed.chop(m_from.size());
            renamed.append(m_to);
            ::rename(path.constData(), renamed.constData());
        }
        return m_real->addWatch(fd, path, mask);
    }
    Result removeWatch(int fd, int wd) override { return m_real->removeWatch(fd, wd); }
    Result read(int fd, char *buffer, std::size_t size) override { return m_real->read(fd, buffer, size); }
    Result wait(int fd, int timeoutMs) override { return m_real->wait(fd, timeoutMs); }
    Result close(int fd) override { return m_real->close(fd); }

private:
    std::shared_ptr<InotifySystem> m_real = InotifySystem::real();
    QByteArray m_from, m_to;
};

} // namespace WatchTest
