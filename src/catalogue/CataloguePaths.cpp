#include "catalogue/CataloguePaths.h"

#include "util/Log.h"

#include <QDir>
#include <QFile>
#include <QRandomGenerator>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>

namespace CataloguePaths {

namespace {

constexpr const char *kDownloadPartPrefix = ".ferrovane-part-";

bool isClean(const QString &path)
{
    if (path.isEmpty() || !path.startsWith(u'/') || path.contains(QChar(0)))
        return false;
    // cleanPath keeps a ".." that climbs above "/" ("/../etc"): refused here all the same.
    return QDir::cleanPath(path) == path && !path.split(u'/').contains(QStringLiteral(".."));
}

} // namespace

bool isSafeName(const QString &name)
{
    return !name.isEmpty() && name != u"." && name != u".." && !name.contains(u'/') &&
           !name.contains(QChar(0));
}

bool isInside(const QString &path, const QString &root)
{
    if (!isClean(path) || !isClean(root))
        return false;
    if (root == u"/")
        return path.size() > 1;
    return path.size() > root.size() + 1 && path.startsWith(root) && path[root.size()] == u'/';
}

bool checkInside(const QString &path, const QString &root, const QString &what)
{
    if (isInside(path, root))
        return true;
    QString shown = path;
    shown.replace(QChar(0), QStringLiteral("\\0"));
    FV_LOG(QStringLiteral("%1 outside the sync folder skipped: %2").arg(what, shown));
    return false;
}

bool checkName(const QString &name, const QString &what)
{
    if (isSafeName(name))
        return true;
    QString shown = name;
    shown.replace(QChar(0), QStringLiteral("\\0"));
    FV_LOG(QStringLiteral("%1 with an unusable name skipped: \"%2\"").arg(what, shown));
    return false;
}

QString lastPathComponent(const QString &path)
{
    QString trimmed = path;
    while (trimmed.size() > 1 && trimmed.endsWith(u'/'))
        trimmed.chop(1);
    if (trimmed == u"/")
        return trimmed;
    const qsizetype slash = trimmed.lastIndexOf(u'/');
    return slash < 0 ? trimmed : trimmed.mid(slash + 1);
}

QString deletingLastPathComponent(const QString &path)
{
    QString trimmed = path;
    while (trimmed.size() > 1 && trimmed.endsWith(u'/'))
        trimmed.chop(1);
    const qsizetype slash = trimmed.lastIndexOf(u'/');
    if (slash < 0)
        return QStringLiteral("");
    if (slash == 0)
        return QStringLiteral("/");
    return trimmed.left(slash);
}

QString relativePath(const QString &path, const QString &root)
{
    if (root.isEmpty())
        return path;
    QString relative = path;
    relative.replace(root, QString());
    return relative;
}

QString localSpelling(const QString &path, const QString &root)
{
    if (root.isEmpty() || !path.startsWith(root + u'/'))
        return path;
    QString resolved = root;
    const QStringList components = path.mid(root.size() + 1).split(u'/');
    for (qsizetype i = 0; i < components.size(); ++i) {
        const QString &name = components.at(i);
        QString spelled = name;
        // An ASCII name has one spelling only; the others are looked for only when it is not there.
        const bool ascii = std::all_of(name.cbegin(), name.cend(), [](QChar c) { return c.unicode() < 128; });
        if (!ascii && !itemExists(resolved + u'/' + name)) {
            const QString wanted = name.normalized(QString::NormalizationForm_C);
            const QStringList entries = QDir(resolved).entryList(QDir::AllEntries | QDir::Hidden |
                                                                 QDir::System | QDir::NoDotAndDotDot);
            for (const QString &entry : entries) {
                if (entry.normalized(QString::NormalizationForm_C) == wanted) {
                    spelled = entry;
                    break;
                }
            }
            if (spelled == name) // nothing of that name here: nothing below it either
                return resolved + u'/' + components.mid(i).join(u'/');
        }
        resolved += u'/' + spelled;
    }
    return resolved;
}

QString nameAsSpelled(const QString &name, const QString &path)
{
    const QString spelled = lastPathComponent(path);
    return spelled != name && spelled.normalized(QString::NormalizationForm_C) ==
                                  name.normalized(QString::NormalizationForm_C)
               ? spelled
               : name;
}

QString downloadPartPath(const QString &path)
{
    return deletingLastPathComponent(path) + u'/' + QLatin1String(kDownloadPartPrefix) +
           QString::number(QRandomGenerator::global()->generate64(), 16).rightJustified(16, u'0');
}

bool isDownloadPart(const QString &path)
{
    return lastPathComponent(path).startsWith(QLatin1String(kDownloadPartPrefix));
}

bool makeFolder(const QString &path)
{
    bool isFolder = false;
    if (itemExists(path, &isFolder) && isFolder)
        return true;
    return QDir().mkpath(path);
}

bool itemExists(const QString &path, bool *isFolder)
{
    if (isFolder)
        *isFolder = false;
    if (path.isEmpty() || path.contains(QChar(0)))
        return false;
    // One look for what is missing (most paths asked about during a first sync): a link that
    // leads nowhere still exists; a link is followed only to say whether it leads to a folder.
    struct stat info;
    const QByteArray native = QFile::encodeName(path);
    if (::lstat(native.constData(), &info) != 0)
        return false;
    if (isFolder)
        *isFolder =
            S_ISDIR(info.st_mode) ||
            (S_ISLNK(info.st_mode) && ::stat(native.constData(), &info) == 0 && S_ISDIR(info.st_mode));
    return true;
}

QDateTime modificationDate(const QString &path)
{
    struct stat info;
    if (path.isEmpty() || path.contains(QChar(0)) || ::stat(QFile::encodeName(path).constData(), &info) != 0)
        return {};
    const qint64 ms = qint64(info.st_mtim.tv_sec) * 1000 + info.st_mtim.tv_nsec / 1000000;
    return QDateTime::fromMSecsSinceEpoch(ms);
}

bool moveItem(const QString &from, const QString &to, QString *error)
{
    if (from.contains(QChar(0)) || to.contains(QChar(0))) {
        if (error)
            *error = QStringLiteral("unusable path");
        return false;
    }
    if (::renameat2(AT_FDCWD, QFile::encodeName(from).constData(), AT_FDCWD,
                    QFile::encodeName(to).constData(), RENAME_NOREPLACE) != 0) {
        if (error)
            *error =
                QStringLiteral("%1 -> %2: %3").arg(from, to, QString::fromLocal8Bit(std::strerror(errno)));
        return false;
    }
    return true;
}

bool setModificationDate(const QString &path, const QDateTime &date, QString *error)
{
    if (!date.isValid() || path.contains(QChar(0))) {
        if (error)
            *error = QStringLiteral("no usable date or path");
        return false;
    }
    const qint64 ms = date.toMSecsSinceEpoch();
    struct timespec times[2];
    times[0].tv_sec = 0;
    times[0].tv_nsec = UTIME_OMIT;
    times[1].tv_sec = time_t(ms >= 0 ? ms / 1000 : -((-ms + 999) / 1000));
    times[1].tv_nsec = long((ms - qint64(times[1].tv_sec) * 1000) * 1000000);
    if (::utimensat(AT_FDCWD, QFile::encodeName(path).constData(), times, 0) != 0) {
        if (error)
            *error = QString::fromLocal8Bit(std::strerror(errno));
        return false;
    }
    return true;
}

} // namespace CataloguePaths
