#pragma once
// The folder-tree event stream on inotify: one watch per folder of the tree (added for folders that
// are created or move in, with their existing subfolders, and dropped for folders that go away),
// each kernel event turned into a raw FSEventRecord, records handed to the callback in batches.
// A batch is delivered `latencyMs` after its first record; the kernel queue is drained first, so
// both halves of a move (which the kernel queues together) always land in the same batch.
//
// When the root itself is deleted or moved away, the tree that left is no longer watched (its
// changes would otherwise come under the old paths) and the root's parent is watched instead until
// a folder of the root's name appears there again; then the new tree is watched and its contents are
// reported as created (the root itself is not: it is the watched folder, not an item in it).
//
// When the kernel's event queue overflows, a record for the root with MustScanSubDirs says that
// changes were lost.
//
// Lives on the thread that creates it and calls back on that thread's event loop. Stops (and
// delivers nothing more) on stop() or destruction. Folders that cannot be watched are reported on
// the diagnostic log (a full kernel watch table once per stream) and the rest stays watched.

#include "watch/FSEventRecord.h"
#include "watch/InotifySystem.h"

#include <QHash>
#include <QObject>
#include <QSet>
#include <QString>
#include <QTimer>
#include <functional>
#include <memory>

class QSocketNotifier;

class InotifyTreeStream final : public QObject
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(InotifyTreeStream)
public:
    using Callback = std::function<void(const FSEventBatch &)>;
    // Called for every item found under the root while it is first watched (folders: not symbolic links).
    using ItemVisitor = std::function<void(const QString &path, bool isDir)>;

    InotifyTreeStream(const QString &root, int latencyMs, Callback callback,
                      std::shared_ptr<InotifySystem> system = InotifySystem::real(),
                      QObject *parent = nullptr);
    ~InotifyTreeStream() override;

    // Opens the inotify instance and watches the tree as it is now. False (with a diagnostic line)
    // when inotify is unavailable or the root folder cannot be watched. `visitor`, when given,
    // learns what the tree holds from the same walk: each item is reported once the watch of its
    // folder is in place, so a later change to it comes as an event.
    bool start(const ItemVisitor &visitor = {});
    void stop();
    bool isRunning() const { return m_fd >= 0; }

    // The root as used in record paths: absolute, cleaned, no trailing slash.
    QString root() const { return m_root; }
    qsizetype watchCount() const { return m_paths.size(); }

private:
    enum class ScanMode { Quiet, Created, Found };

    void readEvents();
    void handleEvent(int wd, std::uint32_t mask, std::uint32_t cookie, const QString &name);
    void flush();
    void addRecord(const QString &path, std::uint32_t flags, std::uint32_t cookie = 0);
    void watchTree(const QString &folder, ScanMode mode, const ItemVisitor &visitor = {});
    bool addWatch(const QString &folder);
    void reportWatchFailure(const QString &folder, int error);
    void forgetWatch(int wd);
    void dropWatchesUnder(const QString &folder);
    void renameWatches(const QString &from, const QString &to);
    bool isUnderPendingMove(const QString &folder) const;
    void rootGone();
    void rewatchRoot();

    QString m_root;
    int m_latencyMs;
    Callback m_callback;
    std::shared_ptr<InotifySystem> m_system;
    int m_fd = -1;
    int m_rootWd = -1;
    int m_parentWd = -1; // the root's parent, watched only while the root is missing
    QSocketNotifier *m_notifier = nullptr;
    QTimer m_latency;
    QTimer m_rest; // while it runs, the queue is left to fill: read once when it ends
    QHash<int, QString> m_paths;                  // watch -> folder
    QHash<QString, int> m_wds;                    // folder -> watch
    QHash<std::uint32_t, QString> m_pendingMoves; // folders moved away, partner not seen yet
    QSet<QString> m_synthesized;                  // paths reported by a scan in this batch
    QSet<QString> m_modified;                     // files with a modification record in this batch
    FSEventBatch m_batch;
    bool m_limitReported = false;
};
