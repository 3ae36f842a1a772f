#pragma once
// Value types shared by the server's store, its admin interface and its in-process API.

#include <QByteArray>
#include <QString>

// Result codes the server writes into command replies. 1 is success; the others are the server's
// own refusals, chosen apart from the values the client gives its own meaning (-1, -5, -6).
namespace ResultCode {
constexpr int Done = 1;
constexpr int InvalidSession = -3; // sent as the non-XML body "-3"
constexpr int UnknownItem = -4;
constexpr int BadItem = -10;   // missing or unusable attributes, bad name
constexpr int NoParent = -11;  // the parent folder of a PUT path does not exist
constexpr int NameTaken = -12; // another item already has that name in the folder
constexpr int QuotaExceeded = -13;
constexpr int NotAllowed = -14; // top-level folders, moving a folder into itself
constexpr int StorageError = -20;
} // namespace ResultCode

// One item of an account's synchronised area as the admin interface shows it.
struct TreeEntry
{
    QString path; // relative to the sync folder, "/"-separated, no leading "/"
    QString key;
    QString parentKey;
    bool folder = false;
    qint64 size = -1;     // -1 for folders
    QString md5;          // empty for folders
    QString time;         // 14-digit server time
    bool uploaded = true; // false for a file announced by PUT whose contents never arrived
};

// One request as the server received it.
struct RequestLogEntry
{
    qint64 sequence = 0;
    QString command; // LOGIN ... INFO, or UPLOAD, DOWNLOAD, UPDATE, PACKAGE, UNKNOWN
    QString method;
    QString target;  // path and query
    QByteArray body; // the XML of a command; empty for transfers
    qint64 bodySize = 0;
};

// A change of the sync area as WORKLIST reports it.
struct JournalEntry
{
    qint64 stamp = 0; // seconds since the epoch; written as the change's ID
    QString kind;     // ADD, DEL, RENAME, MOVE
    qint64 key = 0;
    bool folder = false;
    QString name;
    qint64 size = -1;
    QString md5;
    qint64 parentKey = 0; // PKEY of an ADD, DEST_PARENT_KEY of a MOVE
    QString time;
    QString path; // server path ("syncfolder/...") after the change
    QString pcName;
};
