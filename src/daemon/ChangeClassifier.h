#pragma once
// Turns batches of raw tree records into the daemon's change messages, as the client expects them:
// one message per change, in the order the changes happened, naming the item's absolute path (a
// rename or move: the old and the new path).
//
// Within a batch, short-lived steps are folded into what they amount to:
// - an item created and then removed again is not reported at all, and a file created and then
//   renamed is reported as created under its final name;
// - a file replaced by another one (a temporary file renamed over it, a file deleted and written
//   anew, or renamed away to a backup that is then deleted) is reported as updated;
// - a move whose other half lies outside the tree is a creation (moved in, with everything inside
//   it) or a removal (moved out);
// - a file closed after writing is updated, unless it was created in the same batch.
// To tell a replacement from a plain rename it keeps the set of paths that exist in the tree.
//
// Not thread-safe: one instance per watched tree, used on one thread.

#include "watch/FSEventRecord.h"

#include <QHash>
#include <QList>
#include <QMap>
#include <QString>
#include <QVariant>

struct ChangeMessage
{
    QString name;     // one of the kKeyMyFSListener* event names
    QVariant payload; // the path (QString), or the old and new path (QStringList) for a rename

    bool operator==(const ChangeMessage &) const = default;
};

class ChangeClassifier
{
public:
    explicit ChangeClassifier(const QString &root);

    // Records what exists under the root now (call after the tree's watches are in place).
    void scanTree();
    // Records one existing item, for a walk of the tree made elsewhere (the stream's first one).
    void addKnown(const QString &path, bool isDir);
    QList<ChangeMessage> classify(const FSEventBatch &batch);

    qsizetype knownCount() const { return m_known.size(); }

private:
    struct Pending
    {
        ChangeMessage message;
        bool alive = true;
    };
    struct MovedAway
    {
        QString origin;
        int message;
    };

    int append(const QString &name, const QVariant &payload);
    void kill(int index);
    void created(const QString &path, bool isDir, bool mayReplace);
    void removed(const QString &path, bool isDir);
    void renamed(const QString &from, const QString &to, bool isDir);
    void written(const QString &path);
    void update(const QString &path);

    bool isKnownFile(const QString &path) const;
    void forgetKnown(const QString &path);
    void moveKnown(const QString &from, const QString &to);

    QString m_root;
    QMap<QString, bool> m_known; // path -> is a folder

    // State of the batch being classified.
    QList<Pending> m_out;
    QHash<QString, int> m_born;            // created in this batch -> its creation message
    QHash<QString, int> m_gone;            // file that existed before, removed in this batch -> its removal
    QHash<QString, int> m_updated;         // -> its update message
    QHash<QString, MovedAway> m_movedAway; // file renamed in this batch -> where it came from
};
