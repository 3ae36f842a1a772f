#include "daemon/ChangeClassifier.h"

#include "link/LinkNames.h"

#include <QDir>
#include <QDirIterator>
#include <QFileInfo>
#include <QSet>
#include <algorithm>

using namespace FSEventFlag;
using namespace LinkNames;

namespace {

bool isUnder(const QString &path, const QString &folder)
{
    return path == folder ||
           (path.size() > folder.size() && path.startsWith(folder) && path.at(folder.size()) == u'/');
}

QString moved(const QString &path, const QString &from, const QString &to)
{
    return to + path.mid(from.size());
}

template <typename Hash> void eraseUnder(Hash &hash, const QString &folder)
{
    for (auto it = hash.begin(); it != hash.end();)
        it = isUnder(it.key(), folder) ? hash.erase(it) : std::next(it);
}

} // namespace

ChangeClassifier::ChangeClassifier(const QString &root) : m_root(root) {}

void ChangeClassifier::scanTree()
{
    m_known.clear();
    QDirIterator it(m_root, QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden | QDir::System,
                    QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString path = it.next();
        const QFileInfo info = it.fileInfo();
        m_known.insert(path, info.isDir() && !info.isSymLink());
    }
}

void ChangeClassifier::addKnown(const QString &path, bool isDir)
{
    m_known.insert(path, isDir);
}

QList<ChangeMessage> ChangeClassifier::classify(const FSEventBatch &batch)
{
    m_out.clear();
    m_born.clear();
    m_gone.clear();
    m_updated.clear();
    m_movedAway.clear();

    QSet<qsizetype> partners; // second halves already handled with their first
    for (qsizetype i = 0; i < batch.size(); ++i) {
        if (partners.contains(i))
            continue;
        const FSEventRecord &record = batch.at(i);
        const bool isDir = record.has(ItemIsDir);
        if (record.has(ItemRenamed)) {
            if (record.has(ItemMovedTo)) { // no first half: it came from outside the tree
                created(record.path, isDir, true);
                continue;
            }
            qsizetype partner = -1;
            for (qsizetype j = i + 1; record.cookie != 0 && j < batch.size(); ++j) {
                const FSEventRecord &other = batch.at(j);
                if (other.cookie == record.cookie && other.has(ItemMovedTo) && !partners.contains(j)) {
                    partner = j;
                    break;
                }
            }
            if (partner >= 0) {
                partners.insert(partner);
                renamed(record.path, batch.at(partner).path, isDir);
            } else {
                removed(record.path, isDir); // no second half: it left the tree
            }
        } else if (record.has(ItemRemoved)) {
            removed(record.path, isDir);
        } else if (record.has(ItemCreated) || record.has(ItemFound)) {
            created(record.path, isDir, false);
        } else if (record.has(ItemClosedWrite)) {
            written(record.path);
        }
    }

    QList<ChangeMessage> messages;
    for (const Pending &pending : std::as_const(m_out))
        if (pending.alive)
            messages.append(pending.message);
    m_out.clear();
    return messages;
}

int ChangeClassifier::append(const QString &name, const QVariant &payload)
{
    m_out.append({{name, payload}, true});
    return int(m_out.size() - 1);
}

void ChangeClassifier::kill(int index)
{
    if (index >= 0 && index < m_out.size())
        m_out[index].alive = false;
}

void ChangeClassifier::created(const QString &path, bool isDir, bool mayReplace)
{
    if (!isDir) {
        // A file that existed here went away earlier in this batch: this is its new contents.
        if (const auto gone = m_gone.constFind(path); gone != m_gone.cend()) {
            kill(gone.value());
            m_gone.erase(gone);
            m_known.insert(path, false);
            update(path);
            return;
        }
        if (mayReplace) {
            if (const auto born = m_born.constFind(path); born != m_born.cend()) {
                kill(born.value()); // replaced before anyone heard of it
                m_born.erase(born);
            } else if (isKnownFile(path)) {
                update(path); // moved in over an existing file
                return;
            }
        }
    }
    m_born.insert(path, append(isDir ? kKeyMyFSListenerCreateDir : kKeyMyFSListenerCreateFile, path));
    m_known.insert(path, isDir);
}

void ChangeClassifier::removed(const QString &path, bool isDir)
{
    const bool wasBorn = m_born.contains(path);
    // Whatever was created beneath it in this batch was never there as far as the client knows.
    for (auto it = m_born.begin(); it != m_born.end();) {
        if (isUnder(it.key(), path)) {
            kill(it.value());
            it = m_born.erase(it);
        } else {
            ++it;
        }
    }
    for (auto it = m_updated.begin(); it != m_updated.end();) {
        if (isUnder(it.key(), path)) {
            kill(it.value());
            it = m_updated.erase(it);
        } else {
            ++it;
        }
    }
    if (!isDir) {
        // A backup-style save: the original renamed away, a new file written under its name, the
        // renamed original deleted. The client only needs to hear that the file changed.
        if (const auto away = m_movedAway.constFind(path); away != m_movedAway.cend()) {
            const MovedAway origin = away.value();
            m_movedAway.erase(away);
            const auto replacement = m_born.constFind(origin.origin);
            if (replacement != m_born.cend() && !m_known.value(origin.origin, true)) {
                kill(origin.message);
                kill(replacement.value());
                m_born.erase(replacement);
                forgetKnown(path);
                update(origin.origin);
                return;
            }
        }
    }
    eraseUnder(m_movedAway, path);
    forgetKnown(path);
    if (wasBorn)
        return;
    const int index = append(isDir ? kKeyMyFSListenerDeleteDir : kKeyMyFSListenerDeleteFile, path);
    if (!isDir)
        m_gone.insert(path, index);
}

void ChangeClassifier::renamed(const QString &from, const QString &to, bool isDir)
{
    if (from == to)
        return;
    if (!isDir) {
        const bool fromBorn = m_born.contains(from);
        bool replaces = false;
        if (const auto gone = m_gone.constFind(to); gone != m_gone.cend()) {
            kill(gone.value());
            m_gone.erase(gone);
            replaces = true;
        } else if (const auto born = m_born.constFind(to); born != m_born.cend()) {
            kill(born.value());
            m_born.erase(born);
        } else if (isKnownFile(to)) {
            replaces = true;
        }
        if (const auto update = m_updated.constFind(from); update != m_updated.cend()) {
            kill(update.value());
            m_updated.erase(update);
        }
        m_movedAway.remove(from);
        forgetKnown(from);
        m_known.insert(to, false);

        if (replaces) {
            // Renamed over an existing file (an editor's save through a temporary file): the
            // target's contents changed; the source is gone from its old name.
            if (fromBorn)
                kill(m_born.take(from));
            else
                m_gone.insert(from, append(kKeyMyFSListenerDeleteFile, from));
            update(to);
        } else if (fromBorn) {
            kill(m_born.take(from));
            m_born.insert(to, append(kKeyMyFSListenerCreateFile, to));
        } else {
            m_movedAway.insert(to, {from, append(kKeyMyFSListenerRenameFile, QStringList{from, to})});
        }
        return;
    }

    // A folder created in this batch with nothing older inside: announce it (and what was created
    // in it) under the new names only.
    if (m_born.contains(from)) {
        QList<QPair<int, QString>> born;
        for (auto it = m_born.cbegin(); it != m_born.cend(); ++it)
            if (isUnder(it.key(), from))
                born.append({it.value(), it.key()});
        const QString inside = from + u'/';
        qsizetype known = m_known.contains(from) ? 1 : 0;
        for (auto it = m_known.lowerBound(inside); it != m_known.cend() && it.key().startsWith(inside); ++it)
            ++known;
        if (known == born.size()) {
            std::sort(born.begin(), born.end());
            moveKnown(from, to);
            for (const auto &[index, path] : std::as_const(born)) {
                const QString name = m_out.at(index).message.name;
                kill(index);
                m_born.remove(path);
                m_born.insert(moved(path, from, to), append(name, moved(path, from, to)));
            }
            return;
        }
        m_born.remove(from); // announced under the old name; the rename follows
    }
    QHash<QString, int> bornInside;
    for (auto it = m_born.begin(); it != m_born.end();) {
        if (isUnder(it.key(), from)) {
            bornInside.insert(moved(it.key(), from, to), it.value());
            it = m_born.erase(it);
        } else {
            ++it;
        }
    }
    m_born.insert(bornInside);
    eraseUnder(m_updated, from);
    eraseUnder(m_gone, from);
    eraseUnder(m_movedAway, from);
    moveKnown(from, to);
    append(kKeyMyFSListenerRenameDir, QStringList{from, to});
}

void ChangeClassifier::written(const QString &path)
{
    if (m_born.contains(path) || m_updated.contains(path))
        return; // a creation carries the contents
    if (!m_known.contains(path)) {
        created(path, false, false);
        return;
    }
    update(path);
}

void ChangeClassifier::update(const QString &path)
{
    if (!m_updated.contains(path))
        m_updated.insert(path, append(kKeyMyFSListenerUpdateFile, path));
}

bool ChangeClassifier::isKnownFile(const QString &path) const
{
    const auto it = m_known.constFind(path);
    return it != m_known.cend() && !it.value();
}

void ChangeClassifier::forgetKnown(const QString &path)
{
    // The item, then its contents: "a/..." sorts after names like "a b" that merely start alike.
    m_known.remove(path);
    const QString inside = path + u'/';
    for (auto it = m_known.lowerBound(inside); it != m_known.end() && it.key().startsWith(inside);)
        it = m_known.erase(it);
}

void ChangeClassifier::moveKnown(const QString &from, const QString &to)
{
    QList<QPair<QString, bool>> entries{{to, m_known.value(from, true)}};
    m_known.remove(from);
    const QString inside = from + u'/';
    for (auto it = m_known.lowerBound(inside); it != m_known.end() && it.key().startsWith(inside);) {
        entries.append({moved(it.key(), from, to), it.value()});
        it = m_known.erase(it);
    }
    for (const auto &[path, isDir] : std::as_const(entries))
        m_known.insert(path, isDir);
}
