#pragma once
// FSEventsListener: watches one folder tree and turns its raw event records into a small
// vocabulary of changes (added, removed, updated, renamed in place, moved to another folder),
// handed to one delegate. Rename records are paired: the first waits for the second of the same
// batch; a lone one is classified at the end of the batch.
//
// Threading: create, use and stop on the main thread; the delegate is called synchronously on it.
// The waiting-pair state is process-wide and unlocked, so only one listener may be active at a time.
// Ownership: the delegate is not owned; the stream is owned and ends with stopListener().

#include "watch/FSEventRecord.h"
#include "watch/InotifySystem.h"

#include <QHash>
#include <QList>
#include <QString>
#include <memory>

class InotifyTreeStream;
class FSEventsListener;

// The receiver of the listener's changes. Every operation is optional: the defaults do nothing.
class FSEventsListenerDelegate
{
public:
    virtual ~FSEventsListenerDelegate() = default;

    virtual void fileWasAdded(const QString &path) { Q_UNUSED(path) }
    virtual void fileWasRemoved(const QString &path) { Q_UNUSED(path) }
    // A file's contents or attributes changed during a rename event.
    virtual void fileWasUpdate(const QString &path) { Q_UNUSED(path) }
    virtual void fileWasRenamed(const QString &oldPath, const QString &newPath)
    {
        Q_UNUSED(oldPath)
        Q_UNUSED(newPath)
    }
    // A file moved to another folder: its bare name, the old folder and the new folder.
    virtual void fileWasMove(const QString &name, const QString &oldDir, const QString &newDir)
    {
        Q_UNUSED(name)
        Q_UNUSED(oldDir)
        Q_UNUSED(newDir)
    }
    virtual void directoryWasAdded(const QString &path) { Q_UNUSED(path) }
    virtual void directoryWasRemoved(const QString &path) { Q_UNUSED(path) }
    virtual void directoryWasRenamed(const QString &oldPath, const QString &newPath)
    {
        Q_UNUSED(oldPath)
        Q_UNUSED(newPath)
    }
    // A folder moved to another folder: both full paths.
    virtual void directoryWasMove(const QString &oldPath, const QString &newPath)
    {
        Q_UNUSED(oldPath)
        Q_UNUSED(newPath)
    }
    // A lone rename record whose path still exists: the item may have come in from outside.
    virtual void fileSystemUnknowAtPath(const QString &path) { Q_UNUSED(path) }
};

class FSEventsListener final
{
    Q_DISABLE_COPY_MOVE(FSEventsListener)
public:
    // A listener with no stream (the shared instance's form).
    FSEventsListener();
    // Sets the delegate, then watches the tree under `path` from now on.
    FSEventsListener(FSEventsListenerDelegate *delegate, const QString &path,
                     std::shared_ptr<InotifySystem> system = InotifySystem::real());
    ~FSEventsListener();

    // The process-wide listener, created on first use; destroy() releases it.
    static FSEventsListener *instance();
    static void destroy();

    // Ends the stream; nothing is delivered afterwards. Safe to call more than once.
    void stopListener();
    bool isListening() const { return mFileStream != nullptr; }

    FSEventsListenerDelegate *delegate() const { return _delegate; }
    void setDelegate(FSEventsListenerDelegate *delegate) { _delegate = delegate; }

    // The path without one trailing "/".
    static QString formatPath(const QString &path);
    void addListener(FSEventsListenerDelegate *listener, const QString &path);
    void removeListener(FSEventsListenerDelegate *listener, const QString &path);
    const QHash<QString, QList<FSEventsListenerDelegate *>> &listeners() const { return mListeners; }

    // The stream's callback: applies the classification rules to one batch of records.
    static void eventCallback(FSEventsListener *listener, const FSEventBatch &records);

    // The change vocabulary: each forwards to the delegate.
    void fileWasAdded(const QString &path);
    void fileWasRemoved(const QString &path);
    void fileWasUpdate(const QString &path);
    void fileWasRenamed(const QString &oldPath, const QString &newPath);
    void fileWasMove(const QString &name, const QString &oldDir, const QString &newDir);
    void directoryWasAdded(const QString &path);
    void directoryWasRemoved(const QString &path);
    void directoryWasRenamed(const QString &oldPath, const QString &newPath);
    void directoryWasMove(const QString &oldPath, const QString &newPath);
    void fileSystemUnknowAtPath(const QString &path);

private:
    void addNewItem(const QString &path);
    void deleteItem(const QString &path, bool isFile);

    struct StreamDeleter
    {
        void operator()(InotifyTreeStream *stream) const;
    };

    std::unique_ptr<InotifyTreeStream, StreamDeleter> mFileStream;
    bool m_stopped = false;
    FSEventsListenerDelegate *_delegate = nullptr;
    QHash<QString, QList<FSEventsListenerDelegate *>> mListeners;
};
