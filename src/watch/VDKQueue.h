#pragma once
// VDKQueue: watches single paths (files or folders) and reports, per path, which kinds of change
// happened: renamed, written, deleted, attributes changed, size increased, link count changed,
// access revoked. Each change goes to the delegate and, when there is no delegate or when
// alwaysPostNotifications is set, is also posted on NotificationCenter::defaultCenter() with the
// watcher as object and the path under "path".
//
// Threading: create and destroy on the main thread. addPath/removePath/numberOfWatchedPaths may be
// called from any thread (they lock the watcher). A watcher thread (started with the first path)
// waits on the kernel queue at most one second at a time; delegate calls and notifications always
// happen on the main thread. Destruction stops the thread and waits for it (at most one wait).

#include "watch/InotifySystem.h"

#include <QHash>
#include <QMutex>
#include <QObject>
#include <QString>
#include <QStringList>
#include <atomic>
#include <cstdint>
#include <memory>

class QThread;
class VDKQueue;

// Change kinds (the subscription flags) and the notification name each yields.
namespace VDKQueueFlag {
constexpr std::uint32_t Delete = 0x01;
constexpr std::uint32_t Write = 0x02;
constexpr std::uint32_t Extend = 0x04;
constexpr std::uint32_t Attrib = 0x08;
constexpr std::uint32_t Link = 0x10;
constexpr std::uint32_t Rename = 0x20;
constexpr std::uint32_t Revoke = 0x40;
constexpr std::uint32_t All = 0x7F;
} // namespace VDKQueueFlag

extern const QString VDKQueueRenameNotification;
extern const QString VDKQueueWriteNotification;
extern const QString VDKQueueDeleteNotification;
extern const QString VDKQueueAttributeChangeNotification;
extern const QString VDKQueueSizeIncreaseNotification;
extern const QString VDKQueueLinkCountChangeNotification;
extern const QString VDKQueueAccessRevocationNotification;

class VDKQueueDelegate
{
public:
    virtual ~VDKQueueDelegate() = default;
    virtual void VDKQueueReceivedNotificationForPath(VDKQueue *queue, const QString &name,
                                                     const QString &path)
    {
        Q_UNUSED(queue)
        Q_UNUSED(name)
        Q_UNUSED(path)
    }
};

// One watched path: its kernel watch (the descriptor), opened with the kinds wanted. A watch does
// not keep the item or its volume busy. Size and link count are read back from the path, and only
// while it still names the same item.
class VDKQueuePathEntry final
{
    Q_DISABLE_COPY_MOVE(VDKQueuePathEntry)
public:
    // Opens the path on `queue`; check isValid(): when opening fails the entry must not be used.
    VDKQueuePathEntry(const QString &path, std::uint32_t flags, InotifySystem &system, int queue);
    // Closes the descriptor unless `shared` (another entry uses the same watch).
    void close(InotifySystem &system, int queue, bool shared);

    bool isValid() const { return watchedFD >= 0; }
    const QString &path() const { return m_path; }
    int descriptor() const { return watchedFD; }
    void setDescriptor(int wd) { watchedFD = wd; }
    std::uint32_t flags() const { return subscriptionFlags; }
    // Adds kinds to the watch; false (and nothing changed) when the kernel refuses.
    bool widen(std::uint32_t flags, InotifySystem &system, int queue);
    int error() const { return m_error; }

    // Compares size and link count with the last look; the kinds that changed (Extend, Link).
    std::uint32_t refresh();

private:
    QString m_path;
    std::int32_t watchedFD = -1;
    std::uint32_t subscriptionFlags = 0;
    int m_error = 0;
    bool m_known = false;
    quint64 m_device = 0, m_inode = 0;
    qint64 m_size = 0;
    quint64 m_links = 0;
};

class VDKQueue final : public QObject
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(VDKQueue)
public:
    // Creates the kernel queue; nothing when that fails.
    static std::unique_ptr<VDKQueue> create(std::shared_ptr<InotifySystem> system = InotifySystem::real());
    ~VDKQueue() override;

    void addPath(const QString &path);
    void addPath(const QString &path, std::uint32_t flags);
    void removePath(const QString &path);
    void removeAllPaths();
    int numberOfWatchedPaths();

    VDKQueueDelegate *delegate() const { return m_delegate; }
    void setDelegate(VDKQueueDelegate *delegate) { m_delegate = delegate; }
    bool alwaysPostNotifications() const { return m_alwaysPostNotifications; }
    void setAlwaysPostNotifications(bool post) { m_alwaysPostNotifications = post; }

    // The notification names for a set of kinds, in reporting order.
    static QStringList notificationNames(std::uint32_t flags);

private:
    VDKQueue(std::shared_ptr<InotifySystem> system, int fd);
    VDKQueuePathEntry *addPathToQueue(const QString &path, std::uint32_t flags);
    void dropEntry(const QString &path);
    void watcherThread();
    void deliver(const QString &path, const QStringList &names);

    std::shared_ptr<InotifySystem> m_system;
    std::atomic<int> coreQueueFD;
    QMutex m_lock;
    QHash<QString, std::shared_ptr<VDKQueuePathEntry>> watchedPathEntries;
    QMultiHash<int, std::shared_ptr<VDKQueuePathEntry>> m_entriesByWatch; // watch -> entries sharing it
    std::atomic<bool> keepWatcherThreadRunning{false};
    std::unique_ptr<QThread> m_thread;
    VDKQueueDelegate *m_delegate = nullptr;
    bool m_alwaysPostNotifications = false;
};
