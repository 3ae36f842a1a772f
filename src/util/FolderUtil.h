#pragma once
// Walks a local folder tree slowly and reports every item to a delegate, so that the sync engine can
// compare the disk with its catalogue. Pauses half a second after every file (and after every
// folder listing) so that a large tree does not load the machine.
//
// Threading: a scan runs on, and blocks, the caller's thread. setIsEnd() may be called from any
// thread; the scan checks the flag before every entry and reports nothing once it is set.
// Ownership: the delegate is not owned and must outlive the scans.

#include "util/MutableQueue.h"

#include <QString>
#include <QStringList>
#include <atomic>

class FolderUtil;

// Receives a scan's reports. Every callback does nothing unless overridden.
class FolderUtilDelegate
{
public:
    virtual ~FolderUtilDelegate() = default;
    // An item found on disk (full path).
    virtual void folderUtilHasItemAtPath(FolderUtil *util, const QString &path, bool isFolder);
    // A known record's path that the scan did not find at the top level (isFolder is always false).
    virtual void folderUtilNeedDeleteItemAtPath(FolderUtil *util, const QString &path, bool isFolder);
};

class FolderUtil final
{
    Q_DISABLE_COPY_MOVE(FolderUtil)
public:
    FolderUtil() = default;

    FolderUtilDelegate *delegate() const { return m_delegate; }
    void setDelegate(FolderUtilDelegate *delegate) { m_delegate = delegate; }

    // Reports one item to the delegate unless the scan has been ended.
    void filePath(const QString &path, bool isFolder);

    // Breadth-first report of the whole tree below `path` (nothing when it is not a folder). Files
    // are always reported; folders (the starting one included) only when `fireThisFolder` is set.
    void scanFolder(const QString &path, bool fireThisFolder);

    // Reports each top-level entry of `path` (and, breadth-first, the files below each folder),
    // crossing the entry's full path off a copy of `listFile` (the known records' paths). When the
    // walk finishes without being ended, each path left on the copy is reported through
    // folderUtilNeedDeleteItemAtPath with the folder flag false. Only the top level is crossed off.
    void scanFolder(const QString &path, const QStringList &listFile);

    // Once true, the current scan stops before its next entry and nothing more is reported.
    void setIsEnd(bool isEnd) { m_isEnd.store(isEnd); }
    bool isEnd() const { return m_isEnd.load(); }

private:
    FolderUtilDelegate *m_delegate = nullptr;
    MutableQueue<QString> m_queue; // folders waiting to be listed, first in first out
    std::atomic<bool> m_isEnd{false};
};
