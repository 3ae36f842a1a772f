#include "watch/InotifyTreeStream.h"

#include "util/Log.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QPointer>
#include <QScopeGuard>
#include <QSocketNotifier>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>

using namespace FSEventFlag;

namespace {

constexpr std::uint32_t kTreeMask = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_MODIFY |
                                    IN_CLOSE_WRITE | IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR |
                                    IN_DONT_FOLLOW | IN_EXCL_UNLINK;

QString cleanRoot(const QString &path)
{
    QString root = QDir::cleanPath(QFileInfo(path).absoluteFilePath());
    while (root.size() > 1 && root.endsWith(u'/'))
        root.chop(1);
    return root;
}

QString join(const QString &folder, const QString &name)
{
    if (folder == u"/"_qs)
        return folder + name;
    return folder + u'/' + name;
}

bool isUnder(const QString &path, const QString &folder)
{
    return path == folder ||
           (path.startsWith(folder) && path.size() > folder.size() && path.at(folder.size()) == u'/');
}

QString errorText(int error)
{
    return QString::fromLocal8Bit(std::strerror(error));
}

struct Entry
{
    QString name;
    bool isDir; // a folder, not a symbolic link to one
    bool operator<(const Entry &other) const { return name < other.name; }
};

// The entries of one folder, by name. Their kinds come from the directory entries themselves; only
// a file system that does not give them costs a status call per entry. Hidden entries, symbolic
// links and special files included; nothing when the folder cannot be read.
QList<Entry> listFolder(const QString &folder)
{
    QList<Entry> entries;
    const QByteArray native = QFile::encodeName(folder);
    DIR *dir = ::opendir(native.constData());
    if (!dir)
        return entries;
    while (const dirent *item = ::readdir(dir)) {
        const char *name = item->d_name;
        if (name[0] == '.' && (name[1] == 0 || (name[1] == '.' && name[2] == 0)))
            continue;
        bool isDir = item->d_type == DT_DIR;
        if (item->d_type == DT_UNKNOWN) {
            struct stat info;
            isDir = ::fstatat(::dirfd(dir), name, &info, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(info.st_mode);
        }
        entries.append({QFile::decodeName(name), isDir});
    }
    ::closedir(dir);
    std::sort(entries.begin(), entries.end());
    return entries;
}

} // namespace

InotifyTreeStream::InotifyTreeStream(const QString &root, int latencyMs, Callback callback,
                                     std::shared_ptr<InotifySystem> system, QObject *parent)
    : QObject(parent), m_root(cleanRoot(root)), m_latencyMs(latencyMs), m_callback(std::move(callback)),
      m_system(system ? std::move(system) : InotifySystem::real())
{
    m_latency.setSingleShot(true);
    connect(&m_latency, &QTimer::timeout, this, &InotifyTreeStream::flush);
    m_rest.setSingleShot(true);
    connect(&m_rest, &QTimer::timeout, this, [this] {
        if (!m_notifier)
            return;
        m_notifier->setEnabled(true);
        readEvents();
    });
}

InotifyTreeStream::~InotifyTreeStream()
{
    stop();
}

bool InotifyTreeStream::start(const ItemVisitor &visitor)
{
    if (m_fd >= 0)
        return true;
    const InotifySystem::Result fd = m_system->init();
    if (!fd.ok()) {
        FV_LOG(u"Cannot watch %1: no inotify instance (%2)%3"_qs.arg(
            m_root, errorText(fd.error),
            fd.error == EMFILE ? u"; raise fs.inotify.max_user_instances"_qs : QString()));
        return false;
    }
    m_fd = fd.value;
    m_limitReported = false;
    if (!addWatch(m_root)) {
        FV_LOG(u"Cannot watch %1: the folder cannot be watched"_qs.arg(m_root));
        stop();
        return false;
    }
    m_rootWd = m_wds.value(m_root, -1);
    m_notifier = new QSocketNotifier(m_fd, QSocketNotifier::Read, this);
    connect(m_notifier, &QSocketNotifier::activated, this, &InotifyTreeStream::readEvents);
    watchTree(m_root, ScanMode::Quiet, visitor);
    return true;
}

void InotifyTreeStream::stop()
{
    m_latency.stop();
    m_rest.stop();
    delete m_notifier;
    m_notifier = nullptr;
    if (m_fd >= 0)
        m_system->close(m_fd); // closing drops every watch of the instance
    m_fd = -1;
    m_rootWd = -1;
    m_parentWd = -1;
    m_paths.clear();
    m_wds.clear();
    m_pendingMoves.clear();
    m_synthesized.clear();
    m_modified.clear();
    m_batch.clear();
}

void InotifyTreeStream::readEvents()
{
    alignas(inotify_event) char buffer[64 * 1024];
    bool read = false;
    // Changes come in runs (a copy, a download, a build). Woken for each event, the daemon would
    // cost the writer a wake-up per event and itself a pass of its loop; after a read that found
    // some, the queue is left to fill for a twentieth of the latency (10 ms at 200 ms) and read
    // once then. Those records are reported in the same batch as before; the kernel's queue (16,384
    // events by default) does not fill in that time.
    const auto rest = qScopeGuard([this, &read] {
        const int restMs = std::min(m_latencyMs / 20, 10);
        if (read && restMs > 0 && m_notifier && m_fd >= 0 && !m_rest.isActive()) {
            m_notifier->setEnabled(false);
            m_rest.start(restMs);
        }
    });
    while (m_fd >= 0) {
        const InotifySystem::Result got = m_system->read(m_fd, buffer, sizeof buffer);
        if (!got.ok()) {
            if (got.error != EAGAIN && got.error != EWOULDBLOCK)
                FV_LOG(u"Reading file-system events failed: %1"_qs.arg(errorText(got.error)));
            return;
        }
        if (got.value == 0)
            return;
        read = true;
        for (int offset = 0; offset + int(sizeof(inotify_event)) <= got.value && m_fd >= 0;) {
            inotify_event event;
            std::memcpy(&event, buffer + offset, sizeof event);
            const char *name = buffer + offset + sizeof(inotify_event);
            const QString decoded =
                event.len ? QFile::decodeName(QByteArray(name, int(strnlen(name, event.len)))) : QString();
            handleEvent(event.wd, event.mask, event.cookie, decoded);
            offset += int(sizeof(inotify_event) + event.len);
        }
    }
}

void InotifyTreeStream::handleEvent(int wd, std::uint32_t mask, std::uint32_t cookie, const QString &name)
{
    if (mask & IN_Q_OVERFLOW) {
        FV_LOG(u"The kernel's event queue overflowed: changes under %1 were lost"_qs.arg(m_root));
        addRecord(m_root, MustScanSubDirs | ItemIsDir);
        return;
    }
    if (wd == m_parentWd && m_parentWd >= 0) {
        if (mask & IN_IGNORED)
            m_parentWd = -1;
        else if ((mask & (IN_CREATE | IN_MOVED_TO)) && (mask & IN_ISDIR) &&
                 join(QFileInfo(m_root).path(), name) == m_root)
            rewatchRoot();
        return;
    }
    if (mask & IN_IGNORED) {
        forgetWatch(wd);
        return;
    }
    const auto found = m_paths.constFind(wd);
    if (found == m_paths.cend())
        return;
    const QString folder = found.value();
    // A folder moved away whose partner record has not come yet: what happens inside it now happens
    // outside the tree (an in-tree move queues both halves back to back).
    if (!m_pendingMoves.isEmpty() && isUnderPendingMove(folder))
        return;

    if (name.isEmpty()) {
        // Events about a watched folder itself are reported by its parent's watch, except for the root.
        if (wd != m_rootWd)
            return;
        if (mask & IN_DELETE_SELF) {
            addRecord(m_root, ItemRemoved | ItemIsDir);
            rootGone();
        } else if (mask & IN_MOVE_SELF) {
            addRecord(m_root, ItemRenamed | ItemMovedFrom | ItemIsDir);
            rootGone();
        }
        return;
    }

    const QString path = join(folder, name);
    const bool isDir = (mask & IN_ISDIR) != 0;
    const std::uint32_t type = isDir ? ItemIsDir : ItemIsFile;

    if (mask & IN_CREATE) {
        // A scan of the new parent may already have reported this item.
        if (m_synthesized.remove(path))
            return;
        addRecord(path, ItemCreated | type);
        if (isDir)
            watchTree(path, ScanMode::Created);
    } else if (mask & IN_DELETE) {
        m_synthesized.remove(path);
        m_modified.remove(path);
        addRecord(path, ItemRemoved | type);
    } else if (mask & IN_MOVED_FROM) {
        m_synthesized.remove(path);
        m_modified.remove(path);
        addRecord(path, ItemRenamed | ItemMovedFrom | type, cookie);
        if (isDir)
            m_pendingMoves.insert(cookie, path);
    } else if (mask & IN_MOVED_TO) {
        addRecord(path, ItemRenamed | ItemMovedTo | type, cookie);
        if (isDir) {
            const auto pending = m_pendingMoves.constFind(cookie);
            if (pending != m_pendingMoves.cend()) {
                renameWatches(pending.value(), path);
                m_pendingMoves.erase(pending);
                // Made and renamed before its watch could be set (mkdir then mv at once): it is
                // watched now, and what it already holds is reported as made.
                if (!m_wds.contains(path))
                    watchTree(path, ScanMode::Created);
            } else {
                watchTree(path, ScanMode::Found);
            }
        }
    } else if (mask & IN_CLOSE_WRITE) {
        addRecord(path, ItemModified | ItemClosedWrite | ItemIsFile);
    } else if (mask & IN_MODIFY) {
        // One record per batch: a large write produces a modification event per write call.
        if (!isDir && !m_modified.contains(path)) {
            m_modified.insert(path);
            addRecord(path, ItemModified | ItemIsFile);
        }
    } else if (mask & IN_ATTRIB) {
        addRecord(path, ItemInodeMetaMod | type);
    }
}

void InotifyTreeStream::addRecord(const QString &path, std::uint32_t flags, std::uint32_t cookie)
{
    FSEventRecord record{path, flags, cookie};
    if (!m_batch.isEmpty() && m_batch.constLast() == record)
        return; // the same change again (repeated attribute or write events)
    m_batch.append(std::move(record));
    if (!m_latency.isActive())
        m_latency.start(m_latencyMs);
}

void InotifyTreeStream::flush()
{
    readEvents();
    m_latency.stop();
    // Folders moved away whose partner never came left the tree: stop watching them.
    for (const QString &folder : std::as_const(m_pendingMoves))
        dropWatchesUnder(folder);
    m_pendingMoves.clear();
    m_synthesized.clear();
    m_modified.clear();
    if (m_batch.isEmpty())
        return;
    const FSEventBatch batch = std::exchange(m_batch, {});
    // The callback may stop or delete this stream.
    const Callback callback = m_callback;
    if (callback)
        callback(batch);
}

void InotifyTreeStream::watchTree(const QString &folder, ScanMode mode, const ItemVisitor &visitor)
{
    // Watch first, then list: whatever appears after the watch is reported by the kernel, whatever
    // was there before is found by the listing (an item seen both ways is reported once).
    QStringList pending{folder};
    while (!pending.isEmpty() && m_fd >= 0) {
        const QString current = pending.takeLast();
        addWatch(current); // a folder we cannot watch may still hold folders we can
        QStringList subfolders;
        for (const Entry &entry : listFolder(current)) {
            const QString path = join(current, entry.name);
            const bool isDir = entry.isDir;
            if (visitor)
                visitor(path, isDir);
            if (mode != ScanMode::Quiet && !m_synthesized.contains(path)) {
                m_synthesized.insert(path);
                addRecord(path, (mode == ScanMode::Created ? ItemCreated : ItemFound) |
                                    (isDir ? ItemIsDir : ItemIsFile));
            }
            if (isDir)
                subfolders.append(path);
        }
        for (auto it = subfolders.crbegin(); it != subfolders.crend(); ++it)
            pending.append(*it);
    }
}

bool InotifyTreeStream::addWatch(const QString &folder)
{
    const InotifySystem::Result wd = m_system->addWatch(m_fd, QFile::encodeName(folder), kTreeMask);
    if (!wd.ok()) {
        reportWatchFailure(folder, wd.error);
        return false;
    }
    const auto old = m_paths.constFind(wd.value);
    if (old != m_paths.cend() && old.value() != folder && m_wds.value(old.value()) == wd.value)
        m_wds.remove(old.value());
    m_paths.insert(wd.value, folder);
    m_wds.insert(folder, wd.value);
    return true;
}

void InotifyTreeStream::reportWatchFailure(const QString &folder, int error)
{
    if (error == ENOENT || error == ENOTDIR)
        return; // gone again before we got to it
    if (error == ENOSPC) {
        if (!m_limitReported)
            FV_LOG(u"Cannot watch %1: the kernel's inotify watch limit is reached. Changes in folders "
                   u"that are not watched go unnoticed; raise fs.inotify.max_user_watches "
                   u"(sysctl) and restart watching."_qs.arg(folder));
        m_limitReported = true;
        return;
    }
    FV_LOG(u"Cannot watch %1: %2"_qs.arg(folder, errorText(error)));
}

void InotifyTreeStream::forgetWatch(int wd)
{
    const auto found = m_paths.constFind(wd);
    if (found == m_paths.cend())
        return;
    if (m_wds.value(found.value(), -1) == wd)
        m_wds.remove(found.value());
    m_paths.erase(found);
    if (wd == m_rootWd)
        m_rootWd = -1;
}

void InotifyTreeStream::dropWatchesUnder(const QString &folder)
{
    for (auto it = m_paths.begin(); it != m_paths.end();) {
        if (isUnder(it.value(), folder)) {
            m_system->removeWatch(m_fd, it.key());
            if (m_wds.value(it.value(), -1) == it.key())
                m_wds.remove(it.value());
            it = m_paths.erase(it);
        } else {
            ++it;
        }
    }
}

void InotifyTreeStream::renameWatches(const QString &from, const QString &to)
{
    for (auto it = m_paths.begin(); it != m_paths.end(); ++it) {
        if (!isUnder(it.value(), from))
            continue;
        const QString renamed = to + it.value().mid(from.size());
        if (m_wds.value(it.value(), -1) == it.key())
            m_wds.remove(it.value());
        it.value() = renamed;
        m_wds.insert(renamed, it.key());
    }
}

void InotifyTreeStream::rootGone()
{
    // The watches follow the folders wherever they went; stop them all.
    dropWatchesUnder(m_root);
    m_rootWd = -1;
    m_pendingMoves.clear();
    const InotifySystem::Result wd = m_system->addWatch(m_fd, QFile::encodeName(QFileInfo(m_root).path()),
                                                        IN_CREATE | IN_MOVED_TO | IN_ONLYDIR);
    if (!wd.ok()) {
        FV_LOG(u"%1 is gone and its parent folder cannot be watched: %2"_qs.arg(m_root, errorText(wd.error)));
        return;
    }
    m_parentWd = wd.value;
    // It may have come back before the parent was watched.
    if (QFileInfo(m_root).isDir())
        rewatchRoot();
}

void InotifyTreeStream::rewatchRoot()
{
    if (m_parentWd >= 0)
        m_system->removeWatch(m_fd, m_parentWd);
    m_parentWd = -1;
    if (!addWatch(m_root)) {
        FV_LOG(u"%1 is back but cannot be watched"_qs.arg(m_root));
        return;
    }
    m_rootWd = m_wds.value(m_root, -1);
    watchTree(m_root, ScanMode::Created);
}

bool InotifyTreeStream::isUnderPendingMove(const QString &folder) const
{
    for (const QString &moved : m_pendingMoves)
        if (isUnder(folder, moved))
            return true;
    return false;
}
