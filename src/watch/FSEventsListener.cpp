#include "watch/FSEventsListener.h"

#include "util/Log.h"
#include "util/Pace.h"
#include "watch/InotifyTreeStream.h"

#include <QDateTime>
#include <QFileInfo>
#include <optional>

using namespace FSEventFlag;

namespace {

// The waiting half of a rename pair, shared by every listener of the process (one is active at a time).
std::optional<QString> previousRenamedPath;
bool isFile = true;

FSEventsListener *sharedListener = nullptr;

QString parentOf(const QString &path)
{
    const qsizetype slash = path.lastIndexOf(u'/');
    return slash <= 0 ? (slash == 0 ? u"/"_qs : QString()) : path.left(slash);
}

QString lastComponent(const QString &path)
{
    return path.mid(path.lastIndexOf(u'/') + 1);
}

// The item's attributes as logged while pairing, or nothing when the path does not exist.
std::optional<QString> attributesOf(const QString &path)
{
    const QFileInfo info(path);
    if (!info.exists() && !info.isSymLink())
        return std::nullopt;
    const QString type = info.isSymLink() ? u"link"_qs : info.isDir() ? u"folder"_qs : u"file"_qs;
    return u"{type = %1; size = %2; modified = %3; permissions = %4}"_qs.arg(
        type, QString::number(info.size()), info.lastModified().toString(Qt::ISODate),
        QString::number(int(info.permissions()), 16));
}

} // namespace

void FSEventsListener::StreamDeleter::operator()(InotifyTreeStream *stream) const
{
    // The stream may be stopped from inside its own callback: let it unwind before it goes.
    stream->stop();
    stream->deleteLater();
}

FSEventsListener::FSEventsListener() = default;

FSEventsListener::FSEventsListener(FSEventsListenerDelegate *delegate, const QString &path,
                                   std::shared_ptr<InotifySystem> system)
    : _delegate(delegate)
{
    mFileStream.reset(new InotifyTreeStream(
        path, Pace::ms(200), [this](const FSEventBatch &records) { eventCallback(this, records); },
        std::move(system)));
    if (!mFileStream->start())
        FV_LOG(u"No events will be reported for %1"_qs.arg(path));
}

FSEventsListener::~FSEventsListener()
{
    stopListener();
}

FSEventsListener *FSEventsListener::instance()
{
    if (!sharedListener)
        sharedListener = new FSEventsListener;
    return sharedListener;
}

void FSEventsListener::destroy()
{
    delete sharedListener;
    sharedListener = nullptr;
}

void FSEventsListener::stopListener()
{
    if (!mFileStream)
        return;
    mFileStream.reset();
    m_stopped = true;
}

QString FSEventsListener::formatPath(const QString &path)
{
    return path.endsWith(u'/') ? path.left(path.size() - 1) : path;
}

void FSEventsListener::addListener(FSEventsListenerDelegate *listener, const QString &path)
{
    mListeners[formatPath(path)].append(listener);
}

void FSEventsListener::removeListener(FSEventsListenerDelegate *listener, const QString &path)
{
    const auto found = mListeners.find(formatPath(path));
    if (found != mListeners.end())
        found->removeAll(listener);
}

void FSEventsListener::eventCallback(FSEventsListener *listener, const FSEventBatch &records)
{
    for (const FSEventRecord &record : records) {
        if (listener->m_stopped)
            break;
        const QString &path = record.path;
        if (record.has(ItemRenamed)) {
            if (record.has(ItemModified) || record.has(ItemInodeMetaMod)) {
                listener->fileWasUpdate(path);
                previousRenamedPath.reset();
            } else if (!previousRenamedPath) {
                previousRenamedPath = path;
                isFile = !record.has(ItemIsDir);
            } else {
                // The first record of a pair is always taken as the old name.
                const QString oldPath = *previousRenamedPath;
                const std::optional<QString> oldAttributes = attributesOf(oldPath);
                const std::optional<QString> newAttributes = attributesOf(path);
                FV_LOG(u"Attribute: %1"_qs.arg(oldAttributes.value_or(u"(null)"_qs)));
                FV_LOG(u"Attribute: %1"_qs.arg(newAttributes.value_or(u"(null)"_qs)));
                const bool sameFolder = parentOf(oldPath) == parentOf(path);
                if (oldAttributes && newAttributes) {
                    listener->addNewItem(oldPath);
                    listener->addNewItem(path);
                } else if (!oldAttributes && !newAttributes) {
                    listener->deleteItem(oldPath, isFile);
                    listener->deleteItem(path, record.has(ItemIsFile));
                } else if (record.has(ItemIsFile)) {
                    if (sameFolder)
                        listener->fileWasRenamed(oldPath, path);
                    else
                        listener->fileWasMove(lastComponent(path), parentOf(oldPath), parentOf(path));
                } else if (record.has(ItemIsDir)) {
                    if (sameFolder)
                        listener->directoryWasRenamed(oldPath, path);
                    else
                        listener->directoryWasMove(oldPath, path);
                }
                previousRenamedPath.reset();
            }
        } else if (record.has(ItemRemoved)) {
            if (record.has(ItemIsFile))
                listener->fileWasRemoved(path);
            else if (record.has(ItemIsDir))
                listener->directoryWasRemoved(path);
        } else if (record.has(ItemCreated)) {
            if (record.has(ItemIsFile))
                listener->fileWasAdded(path);
            else if (record.has(ItemIsDir))
                listener->directoryWasAdded(path);
        }
        // Anything else (a modification alone) is not reported.
    }

    // A pair never spans two batches: a lone record is an item that left or entered the tree.
    if (previousRenamedPath) {
        const QString path = *previousRenamedPath;
        previousRenamedPath.reset();
        if (!listener->m_stopped) {
            if (QFileInfo::exists(path))
                listener->fileSystemUnknowAtPath(path);
            else if (isFile)
                listener->fileWasRemoved(path);
            else
                listener->directoryWasRemoved(path);
        }
    }
}

void FSEventsListener::addNewItem(const QString &path)
{
    const QFileInfo info(path);
    if (!info.exists())
        return;
    if (info.isDir())
        directoryWasAdded(path);
    else
        fileWasAdded(path);
}

void FSEventsListener::deleteItem(const QString &path, bool isFileItem)
{
    if (QFileInfo::exists(path))
        return;
    if (isFileItem)
        fileWasRemoved(path);
    else
        directoryWasRemoved(path);
}

void FSEventsListener::fileWasAdded(const QString &path)
{
    if (_delegate)
        _delegate->fileWasAdded(path);
}

void FSEventsListener::fileWasRemoved(const QString &path)
{
    if (_delegate)
        _delegate->fileWasRemoved(path);
}

void FSEventsListener::fileWasUpdate(const QString &path)
{
    if (_delegate)
        _delegate->fileWasUpdate(path);
}

void FSEventsListener::fileWasRenamed(const QString &oldPath, const QString &newPath)
{
    if (_delegate)
        _delegate->fileWasRenamed(oldPath, newPath);
}

void FSEventsListener::fileWasMove(const QString &name, const QString &oldDir, const QString &newDir)
{
    if (_delegate)
        _delegate->fileWasMove(name, oldDir, newDir);
}

void FSEventsListener::directoryWasAdded(const QString &path)
{
    if (_delegate)
        _delegate->directoryWasAdded(path);
}

void FSEventsListener::directoryWasRemoved(const QString &path)
{
    if (_delegate)
        _delegate->directoryWasRemoved(path);
}

void FSEventsListener::directoryWasRenamed(const QString &oldPath, const QString &newPath)
{
    if (_delegate)
        _delegate->directoryWasRenamed(oldPath, newPath);
}

void FSEventsListener::directoryWasMove(const QString &oldPath, const QString &newPath)
{
    if (_delegate)
        _delegate->directoryWasMove(oldPath, newPath);
}

void FSEventsListener::fileSystemUnknowAtPath(const QString &path)
{
    if (_delegate)
        _delegate->fileSystemUnknowAtPath(path);
}
