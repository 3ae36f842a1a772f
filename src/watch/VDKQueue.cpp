#include "watch/VDKQueue.h"

#include "util/Log.h"
#include "util/NotificationCenter.h"
#include "util/Pace.h"

#include <QFile>
#include <QMutexLocker>
#include <QThread>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

const QString VDKQueueRenameNotification = u"VDKQueueFileRenamedNotification"_qs;
const QString VDKQueueWriteNotification = u"VDKQueueFileWrittenToNotification"_qs;
const QString VDKQueueDeleteNotification = u"VDKQueueFileDeletedNotification"_qs;
const QString VDKQueueAttributeChangeNotification = u"VDKQueueFileAttributesChangedNotification"_qs;
const QString VDKQueueSizeIncreaseNotification = u"VDKQueueFileSizeIncreasedNotification"_qs;
const QString VDKQueueLinkCountChangeNotification = u"VDKQueueLinkCountChangedNotification"_qs;
const QString VDKQueueAccessRevocationNotification = u"VDKQueueAccessWasRevokedNotification"_qs;

namespace {

using namespace VDKQueueFlag;

constexpr std::uint32_t kFolderContents = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO;

// The kernel events that can show each kind. Size and link count have no event of their own: they
// are read from the item after any event that may change them.
std::uint32_t maskFor(std::uint32_t flags)
{
    std::uint32_t mask = 0;
    if (flags & Rename)
        mask |= IN_MOVE_SELF;
    if (flags & Write)
        mask |= IN_MODIFY | kFolderContents;
    if (flags & Delete)
        mask |= IN_DELETE_SELF;
    if (flags & Attrib)
        mask |= IN_ATTRIB;
    if (flags & Extend)
        mask |= IN_MODIFY;
    if (flags & Link)
        mask |= IN_ATTRIB | kFolderContents | IN_DELETE_SELF;
    return mask; // IN_UNMOUNT (revoke) is always reported
}

std::uint32_t kindsFor(std::uint32_t mask)
{
    std::uint32_t kinds = 0;
    if (mask & IN_MOVE_SELF)
        kinds |= Rename;
    if (mask & (IN_MODIFY | kFolderContents))
        kinds |= Write;
    if (mask & IN_DELETE_SELF)
        kinds |= Delete;
    if (mask & IN_ATTRIB)
        kinds |= Attrib;
    if (mask & IN_UNMOUNT)
        kinds |= Revoke;
    return kinds;
}

} // namespace

VDKQueuePathEntry::VDKQueuePathEntry(const QString &path, std::uint32_t flags, InotifySystem &system,
                                     int queue)
    : m_path(path)
{
    // Masks only grow (another entry may share the item's watch); each entry filters by its own set.
    const InotifySystem::Result wd =
        system.addWatch(queue, QFile::encodeName(path), maskFor(flags) | IN_MASK_ADD);
    m_error = wd.error;
    if (!wd.ok())
        return;
    watchedFD = wd.value;
    subscriptionFlags = flags;
    refresh();
}

void VDKQueuePathEntry::close(InotifySystem &system, int queue, bool shared)
{
    if (watchedFD >= 0 && !shared && queue >= 0)
        system.removeWatch(queue, watchedFD);
    watchedFD = -1;
}

bool VDKQueuePathEntry::widen(std::uint32_t flags, InotifySystem &system, int queue)
{
    const std::uint32_t wanted = subscriptionFlags | flags;
    const InotifySystem::Result wd =
        system.addWatch(queue, QFile::encodeName(m_path), maskFor(wanted) | IN_MASK_ADD);
    m_error = wd.error;
    if (!wd.ok() || wd.value != watchedFD)
        return false; // the path names another item now (or none): keep the watch as it is
    subscriptionFlags = wanted;
    return true;
}

std::uint32_t VDKQueuePathEntry::refresh()
{
    struct stat info;
    if (::stat(QFile::encodeName(m_path).constData(), &info) != 0)
        return 0;
    if (m_known && (quint64(info.st_dev) != m_device || quint64(info.st_ino) != m_inode))
        return 0; // renamed away: the path names something else
    std::uint32_t kinds = 0;
    if (m_known && qint64(info.st_size) > m_size)
        kinds |= Extend;
    if (m_known && quint64(info.st_nlink) != m_links)
        kinds |= Link;
    m_known = true;
    m_device = quint64(info.st_dev);
    m_inode = quint64(info.st_ino);
    m_size = qint64(info.st_size);
    m_links = quint64(info.st_nlink);
    return kinds;
}

std::unique_ptr<VDKQueue> VDKQueue::create(std::shared_ptr<InotifySystem> system)
{
    if (!system)
        system = InotifySystem::real();
    const InotifySystem::Result fd = system->init();
    if (!fd.ok()) {
        FV_LOG(u"VDKQueue could not create its kernel queue: %1"_qs.arg(
            QString::fromLocal8Bit(std::strerror(fd.error))));
        return nullptr;
    }
    return std::unique_ptr<VDKQueue>(new VDKQueue(std::move(system), fd.value));
}

VDKQueue::VDKQueue(std::shared_ptr<InotifySystem> system, int fd)
    : m_system(std::move(system)), coreQueueFD(fd)
{}

VDKQueue::~VDKQueue()
{
    keepWatcherThreadRunning = false;
    if (m_thread) {
        m_thread->wait(); // ends within one wait; it closes the queue
    } else {
        m_system->close(coreQueueFD);
    }
    coreQueueFD = -1;
    removeAllPaths();
}

void VDKQueue::addPath(const QString &path)
{
    if (path.isNull())
        return;
    {
        QMutexLocker lock(&m_lock);
        if (watchedPathEntries.contains(path))
            return;
    }
    addPath(path, All);
}

void VDKQueue::addPath(const QString &path, std::uint32_t flags)
{
    if (path.isNull())
        return;
    if (!addPathToQueue(path, flags))
        FV_LOG(u"VDKQueue tried to add the path %1 to watchedPathEntries, but the VDKQueuePathEntry was nil. "
               u"\nIt's possible that the host process has hit its max open file descriptors limit."_qs.arg(
                   path));
}

VDKQueuePathEntry *VDKQueue::addPathToQueue(const QString &path, std::uint32_t flags)
{
    QMutexLocker lock(&m_lock);
    std::shared_ptr<VDKQueuePathEntry> entry = watchedPathEntries.value(path);
    if (entry) {
        if ((entry->flags() & flags) != flags && !entry->widen(flags, *m_system, coreQueueFD))
            FV_LOG(u"VDKQueue could not widen the watch of %1: %2"_qs.arg(
                path, QString::fromLocal8Bit(std::strerror(entry->error()))));
        return entry.get();
    }
    entry = std::make_shared<VDKQueuePathEntry>(path, flags, *m_system, coreQueueFD);
    if (!entry->isValid()) {
        if (entry->error() == ENOSPC)
            FV_LOG(u"The kernel's inotify watch limit is reached; raise fs.inotify.max_user_watches"_qs);
        return nullptr;
    }
    watchedPathEntries.insert(path, entry);
    m_entriesByWatch.insert(entry->descriptor(), entry);

    if (!keepWatcherThreadRunning) {
        keepWatcherThreadRunning = true;
        m_thread.reset(QThread::create([this] { watcherThread(); }));
        m_thread->setObjectName(u"VDKQueue"_qs);
        m_thread->start();
    }
    return entry.get();
}

void VDKQueue::removePath(const QString &path)
{
    if (path.isNull())
        return;
    QMutexLocker lock(&m_lock);
    dropEntry(path);
}

void VDKQueue::removeAllPaths()
{
    QMutexLocker lock(&m_lock);
    const QStringList paths = watchedPathEntries.keys();
    for (const QString &path : paths)
        dropEntry(path);
}

int VDKQueue::numberOfWatchedPaths()
{
    QMutexLocker lock(&m_lock);
    return int(watchedPathEntries.size());
}

void VDKQueue::dropEntry(const QString &path)
{
    const std::shared_ptr<VDKQueuePathEntry> entry = watchedPathEntries.take(path);
    if (!entry)
        return;
    const int wd = entry->descriptor();
    m_entriesByWatch.remove(wd, entry);
    entry->close(*m_system, coreQueueFD, m_entriesByWatch.contains(wd));
}

QStringList VDKQueue::notificationNames(std::uint32_t flags)
{
    QStringList names;
    if (flags & Rename)
        names.append(VDKQueueRenameNotification);
    if (flags & Write)
        names.append(VDKQueueWriteNotification);
    if (flags & Delete)
        names.append(VDKQueueDeleteNotification);
    if (flags & Attrib)
        names.append(VDKQueueAttributeChangeNotification);
    if (flags & Extend)
        names.append(VDKQueueSizeIncreaseNotification);
    if (flags & Link)
        names.append(VDKQueueLinkCountChangeNotification);
    if (flags & Revoke)
        names.append(VDKQueueAccessRevocationNotification);
    return names;
}

void VDKQueue::watcherThread()
{
    const int fd = coreQueueFD;
    alignas(inotify_event) char buffer[16 * 1024];
    while (keepWatcherThreadRunning) {
        try {
            // At most one second per wait, so that a stop is noticed quickly.
            const InotifySystem::Result ready = m_system->wait(fd, Pace::ms(1000));
            if (!ready.ok() || ready.value == 0)
                continue;
            const InotifySystem::Result got = m_system->read(fd, buffer, sizeof buffer);
            if (!got.ok() || got.value <= 0)
                continue;

            // Everything queued for one item since the last look is one change report.
            QList<QPair<int, std::uint32_t>> rounds;
            for (int offset = 0; offset + int(sizeof(inotify_event)) <= got.value;) {
                inotify_event event;
                std::memcpy(&event, buffer + offset, sizeof event);
                offset += int(sizeof(inotify_event) + event.len);
                const int wd = event.wd; // the event's name member cannot be captured
                auto it = std::find_if(rounds.begin(), rounds.end(),
                                       [wd](const auto &round) { return round.first == wd; });
                if (it == rounds.end())
                    rounds.append({event.wd, event.mask});
                else
                    it->second |= event.mask;
            }

            for (const auto &[wd, mask] : std::as_const(rounds)) {
                QList<QPair<std::shared_ptr<VDKQueuePathEntry>, std::uint32_t>> entries;
                {
                    QMutexLocker lock(&m_lock);
                    for (const auto &entry : m_entriesByWatch.values(wd))
                        entries.append({entry, entry->flags()});
                    if (mask & IN_IGNORED) { // the item is gone, and its watch with it
                        m_entriesByWatch.remove(wd);
                        for (const auto &[entry, flags] : std::as_const(entries))
                            entry->setDescriptor(-1);
                    }
                }
                for (const auto &[entry, flags] : std::as_const(entries)) {
                    std::uint32_t kinds = kindsFor(mask);
                    if (mask & (IN_MODIFY | IN_ATTRIB | kFolderContents | IN_DELETE_SELF | IN_CLOSE_WRITE))
                        kinds |= entry->refresh();
                    kinds &= flags;
                    if (!kinds)
                        continue;
                    // (There is no desktop-wide "file system changed" broadcast to make here.)
                    const QString path = entry->path();
                    const QStringList names = notificationNames(kinds);
                    QMetaObject::invokeMethod(
                        this, [this, path, names] { deliver(path, names); }, Qt::QueuedConnection);
                }
            }
        } catch (const std::exception &error) {
            FV_LOG(u"Error in VDKQueue watcherThread: %1"_qs.arg(QString::fromLocal8Bit(error.what())));
        }
    }
    const InotifySystem::Result closed = m_system->close(fd);
    if (!closed.ok())
        FV_LOG(u"VDKQueue watcherThread: Couldn't close main kqueue (%1)"_qs.arg(closed.error));
}

void VDKQueue::deliver(const QString &path, const QStringList &names)
{
    for (const QString &name : names) {
        if (m_delegate)
            m_delegate->VDKQueueReceivedNotificationForPath(this, name, path);
        if (!m_delegate || m_alwaysPostNotifications)
            NotificationCenter::defaultCenter()->postNotificationName(
                name, QVariant::fromValue(static_cast<QObject *>(this)), {{u"path"_qs, path}});
    }
}
