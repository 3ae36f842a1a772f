#include "util/FolderUtil.h"

#include "util/Pace.h"

#include <QDir>
#include <QFileInfo>
#include <QSet>

namespace {

constexpr qint64 kPauseMs = 500;

QStringList listFolder(const QString &path)
{
    return QDir(path).entryList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                                QDir::Name);
}

QString childPath(const QString &folder, const QString &name)
{
    if (folder.endsWith(u'/'))
        return folder + name;
    return folder + u'/' + name;
}

} // namespace

void FolderUtilDelegate::folderUtilHasItemAtPath(FolderUtil *, const QString &, bool) {}

void FolderUtilDelegate::folderUtilNeedDeleteItemAtPath(FolderUtil *, const QString &, bool) {}

void FolderUtil::filePath(const QString &path, bool isFolder)
{
    if (!isEnd() && m_delegate)
        m_delegate->folderUtilHasItemAtPath(this, path, isFolder);
}

void FolderUtil::scanFolder(const QString &path, bool fireThisFolder)
{
    const QFileInfo root(path);
    if (!root.exists() || !root.isDir())
        return;

    // Folders are followed through symbolic links; remembering where each one really is keeps a
    // link back up the tree from turning the walk into an endless loop.
    QSet<QString> seen{root.canonicalFilePath()};
    m_queue.enqueue(path);
    while (!isEnd()) {
        const std::optional<QString> folder = m_queue.dequeue();
        if (!folder)
            break;
        if (fireThisFolder)
            filePath(*folder, true);
        for (const QString &name : listFolder(*folder)) {
            if (isEnd())
                break;
            const QString full = childPath(*folder, name);
            const QFileInfo info(full);
            if (!info.exists())
                continue; // gone since the listing
            if (info.isDir()) {
                const QString real = info.canonicalFilePath();
                if (!seen.contains(real)) {
                    seen.insert(real);
                    m_queue.enqueue(full);
                }
                continue;
            }
            filePath(full, false);
            if (!isEnd())
                Pace::sleep(kPauseMs);
        }
        if (!isEnd())
            Pace::sleep(kPauseMs);
    }
    // An ended scan leaves folders behind; they must not leak into the next scan.
    m_queue.clear();
}

void FolderUtil::scanFolder(const QString &path, const QStringList &listFile)
{
    if (!QFileInfo::exists(path))
        return;
    QStringList remaining = listFile;
    for (const QString &name : listFolder(path)) {
        if (isEnd())
            break;
        const QString full = childPath(path, name);
        const QFileInfo info(full);
        if (!info.exists())
            continue;
        const bool isFolder = info.isDir();
        filePath(full, isFolder);
        if (isFolder)
            scanFolder(full, false);
        remaining.removeOne(full);
        if (!isEnd())
            Pace::sleep(kPauseMs);
    }
    // A walk cut short has not seen everything: what is left over is not known to be gone.
    if (isEnd() || !m_delegate)
        return;
    for (const QString &leftover : std::as_const(remaining)) {
        if (isEnd())
            return;
        m_delegate->folderUtilNeedDeleteItemAtPath(this, leftover, false);
    }
}
