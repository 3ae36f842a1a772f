#pragma once
// Path rules and file-attribute helpers shared by the catalogue operations and the downloads.
//
// Names and paths that come from the server are checked before anything on disk is touched: a
// name must be one path component ("." and ".." excluded, no "/" and no NUL), and a path must be
// absolute, clean (no "." or ".." components, no doubled "/") and strictly inside the sync folder.
// Pure functions; any thread.

#include <QDateTime>
#include <QString>

namespace CataloguePaths {

bool isSafeName(const QString &name);
// `path` lies strictly below `root` (both absolute); false when either is empty or unclean.
bool isInside(const QString &path, const QString &root);
// Writes "<what> outside the sync folder skipped: <value>" to the diagnostic log and returns false
// unless `path` is inside `root`.
bool checkInside(const QString &path, const QString &root, const QString &what);
// The same for a name.
bool checkName(const QString &name, const QString &what);

// The last component of a path ("/a/b" -> "b"); a trailing "/" is ignored.
QString lastPathComponent(const QString &path);
// The path without its last component ("/a/b" -> "/a", "/a" -> "/").
QString deletingLastPathComponent(const QString &path);
// `path` with every occurrence of `root` removed: the form shown to the user and sent in PUT.
QString relativePath(const QString &path, const QString &root);

// `path` below `root` as it is spelled on disk: a component that does not exist as given but
// whose name has another Unicode spelling there (composed / decomposed) takes that spelling. The
// server sends names composed; an item made here with a decomposed name stays one item.
QString localSpelling(const QString &path, const QString &root);
// `name` as the last component of `path` spells it, when the two are the same name.
QString nameAsSpelled(const QString &name, const QString &path);

// Downloads are written beside their file under a hidden name of their own and take the file's
// place only when complete, so a download cut short (the program killed, the disk full) never
// leaves half a file that would then be taken for a local change. Such a part is no item of the
// sync folder: it is never sent to the server.
QString downloadPartPath(const QString &path);
bool isDownloadPart(const QString &path); // by its last component

// Whether something exists at `path` (a dangling link counts); `isFolder` tells a folder.
bool itemExists(const QString &path, bool *isFolder = nullptr);
// Makes the folder (and the folders above it) unless it is there: one look when it is, where
// QDir::mkpath tries to make it first. False when it is not a folder afterwards.
bool makeFolder(const QString &path);
// The item's modification date; invalid when its attributes cannot be read.
QDateTime modificationDate(const QString &path);
// Renames without replacing anything at `to`. False with `error` set on failure.
bool moveItem(const QString &from, const QString &to, QString *error = nullptr);
// Sets the modification date (the access date is kept). False with `error` set on failure.
bool setModificationDate(const QString &path, const QDateTime &date, QString *error = nullptr);

} // namespace CataloguePaths
